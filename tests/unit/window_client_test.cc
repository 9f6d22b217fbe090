// The window's side of the local window channel on the fake platform: the
// choice of window, whose answers count, and what an answer is.
#include <set>

#include "gmock/gmock.h"
#include "localports/window_client.h"
#include "platform/fake_platform.h"

namespace {

using enum localports::AnswerKind;
using localports::WindowClient;

TEST(WindowClientTest, TakesTheFirstFreeWindowOrTheOneNamed) {
  const struct {
    int max_users;
    std::set<int> taken;
    int requested;
    int window;  // 0: none, then `error` says why
    std::string error;
  } cases[] = {
      {3, {}, 0, 1, ""},
      {3, {5000, 5002}, 0, 3, ""},
      {3, {5000, 5002, 5004}, 0, 0, "no free window"},
      {2, {5000, 5002}, 0, 0, "no free window"},  // 3 is beyond MAXLOCALUSERS
      {3, {}, 3, 3, ""},
      {3, {5000}, 1, 0, "UDP port 5000 of window 1 is in use"},
      {9, {}, 4, 0, "window 4 cannot be used"},
  };
  for (const auto& c : cases) {
    platform::FakePlatform fake;
    fake.network.taken_udp_ports = c.taken;
    WindowClient client(fake);
    const frame::Status opened = client.Open({5000, c.max_users}, c.requested);
    EXPECT_EQ(client.number(), c.window) << c.max_users << " " << c.requested;
    EXPECT_THAT(opened.message(), ::testing::HasSubstr(c.error));
    EXPECT_EQ(client.port(), c.window ? 5000 + 2 * (c.window - 1) : 0);
  }
}

// Only KOVRAN's port of this window on an address of this machine answers;
// an address the machine got since counts once the list is read again,
// which happens at most once a second.
TEST(WindowClientTest, TakesAnswersFromKovransPortOnThisMachineOnly) {
  platform::FakePlatform fake;
  WindowClient client(fake);
  ASSERT_TRUE(client.Open({5000, 3}).ok());
  auto& socket = *fake.network.udp_bound.at(5000);
  const struct {
    std::string sender;
    int port;
    double after_seconds;
    bool taken;
  } cases[] = {
      {"127.0.0.1", 5001, 0, true},
      {"192.168.1.20", 5001, 0, true},
      {"127.0.0.1", 5003, 0, false},     // another window's port
      {"192.168.1.99", 5001, 0, false},  // another machine
      {"10.0.0.7", 5001, 0.5, false},    // a new address, the list read 0.5 s ago
      {"10.0.0.7", 5001, 0.5, true},     // ... now 1 s ago
  };
  for (const auto& c : cases) {
    if (c.sender == "10.0.0.7") fake.network.addresses.push_back("10.0.0.7");
    fake.Advance(std::chrono::milliseconds(int(c.after_seconds * 1000)));
    socket.Deliver("001++a++b++c", c.sender, c.port);
    fake.RunReady();
    EXPECT_EQ(client.Take().has_value(), c.taken) << c.sender << ":" << c.port;
  }
}

TEST(WindowClientTest, AskWaitsForTheAnswerUpToItsDeadline) {
  platform::FakePlatform fake;
  WindowClient client(fake);
  ASSERT_TRUE(client.Open({5000, 1}).ok());
  fake.At(std::chrono::milliseconds(1999), [&] {
    fake.network.udp_bound.at(5000)->Deliver("001++s++d++a", "127.0.0.1", 5001);
  });
  EXPECT_EQ(client.Ask("LABELS", 2.0), "001++s++d++a");
  EXPECT_EQ(client.Ask("STOP", 2.0), std::nullopt);
  EXPECT_NEAR(fake.SteadySeconds(), 3.999, 1e-6);
}

// The kinds KOVRAN's answers come in; the status line's fields are given as
// raised|stopped|link|status|detail|alarm.
TEST(WindowClientTest, AnswersAreToldApart) {
  const struct {
    std::string answer;
    localports::AnswerKind kind;
    std::string parsed = "";
  } cases[] = {
      {"101++Status++Power failure++57", kStatusLine, "1|0|1|Status|Power failure|57"},
      {"01++s++++", kStatusLine, "|0|1|s||"},
      {"001++s++d++a++b", kStatusLine, "0|0|1|s|d|a++b"},
      {"0010++s++d++a", kOther},
      {"0x1++s++d++a", kOther},
      {"001++s++d", kOther},
      {"", kEmpty},
      {"DISCOVER10.0.0.5 UPS", kDiscovery},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(localports::KindOf(c.answer), c.kind) << c.answer;
    const auto s = localports::ParseStatusLine(c.answer);
    EXPECT_EQ(s ? s->raised + "|" + s->stopped + "|" + s->link + "|" +
                      s->status + "|" + s->detail + "|" + s->alarm
                : "",
              c.parsed);
  }
  EXPECT_THAT(localports::DiscoveryEntries("DISCOVER10.0.0.5 UPS A \r\n\n10.0.0.6 UPS B"),
              ::testing::ElementsAre("10.0.0.5 UPS A", "10.0.0.6 UPS B"));
}

}  // namespace
