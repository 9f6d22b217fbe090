// The contract of Platform, run against the virtual-time fake and the real
// implementation alike so that the two cannot drift apart; then what
// only one of them can show.
//
// Real timers fire late at times but never early, so real-time checks only
// say "not before", and waiting has a generous deadline. Virtual time is
// exact, and the same checks demand exactness.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "platform/fake_platform.h"
#include "platform/real_platform.h"
#include "platform/tcp_client.h"

namespace platform {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Duration = std::chrono::nanoseconds;
using Clock = std::chrono::steady_clock;
using Text = const std::string&;

struct FakeDriver {
  static constexpr bool kVirtualTime = true;
  void Pass(Duration d) { p.Advance(d); }
  void Work(Duration d) { p.Advance(d); }  // virtual time moves only here
  FakePlatform p;
  std::string folder = p.program_folder;
};

struct RealDriver {
  static constexpr bool kVirtualTime = false;
  RealDriver() { fs::create_directory(folder, ignored); }
  ~RealDriver() { fs::remove_all(folder, ignored); }
  void Pass(Duration d) { p.RunFor(std::chrono::ceil<std::chrono::milliseconds>(d)); }
  void Work(Duration d) {  // keeps the event thread busy
    for (auto end = Clock::now() + d; Clock::now() < end;) continue;
  }
  RealPlatform p{/*exit_process=*/false};
  std::string folder = (fs::temp_directory_path() / "kovran-").string() +
                       std::to_string(Clock::now().time_since_epoch().count());
  std::error_code ignored;
};

// Runs the loop until `done`, for at least 5 s of either kind of time.
template <typename Driver>
bool RunUntil(Driver& d, const std::function<bool()>& done) {
  for (int i = 0; i < 5000 && !done(); ++i) d.Pass(1ms);
  return done();
}

template <typename Driver>
class PlatformContractTest : public ::testing::Test, public Driver {};

using Drivers = ::testing::Types<FakeDriver, RealDriver>;
TYPED_TEST_SUITE(PlatformContractTest, Drivers);

TYPED_TEST(PlatformContractTest, BusyHandlerNeverNestsAndWhatCameDueRunsOnce) {
  Platform& p = this->p;
  auto now = [&p] {  // the steady clock, which the timers keep pace with
    return std::chrono::round<Duration>(std::chrono::duration<double>(p.SteadySeconds()));
  };
  std::vector<Duration> at;
  Duration done_at{};
  int depth = 0, others = 0, fired[4] = {};
  bool nested = false, posted = false, ran_in_yield = false;
  std::unique_ptr<Timer> timer, pairs[4];
  auto other = p.NewTimer([&] { ++others; });
  // Enabling an enabled timer leaves its count alone, else this would keep
  // `timer` silent.
  auto poke = p.NewTimer([&] {
    if (timer) timer->SetEnabled(true);
  });
  timer = p.NewTimer([&] {
    at.push_back(now());
    nested = nested || depth++ > 0;
    if (at.size() <= 2) timer->SetInterval(120);  // counts from here
    if (at.size() == 2) {  // its own expiry and the others come due
      const int others_before = others;
      this->Work(300ms);
      p.Post([&] { posted = true; });
      p.Yield();
      ran_in_yield = posted && others > others_before;
      done_at = now();
    }
    if (at.size() == 4) timer.reset();  // destroyed in its own handler
    --depth;
  });
  const Duration start = now();
  timer->SetInterval(50);
  other->SetInterval(20);
  poke->SetInterval(10);
  // Two pairs come due together while `timer` is busy; in each, the first
  // to fire destroys or disables its partner, whose expiry already waits:
  // a stopped countdown must never tick once more.
  for (int i = 0; i < 4; ++i) {
    pairs[i] = p.NewTimer([&, i] {
      if (fired[i]++ > 0 || fired[i ^ 1] > 0) return;
      i < 2 ? pairs[i ^ 1].reset() : pairs[i ^ 1]->SetEnabled(false);
    });
    pairs[i]->SetInterval(300);
  }
  // Expiry `i` comes at `due`: exactly in virtual time, never early in real
  // time (where `due` was read just after the call that started the count).
  auto expect_fire_at = [&](std::size_t i, Duration due) {
    ASSERT_TRUE(RunUntil(*this, [&] { return at.size() > i; })) << i;
    EXPECT_TRUE(TypeParam::kVirtualTime ? at[i] == due : at[i] + 1ms >= due)
        << "expiry " << i << " at " << at[i] / 1us << " us, due " << due / 1us;
  };
  ASSERT_NO_FATAL_FAILURE(expect_fire_at(0, start + 50ms));
  expect_fire_at(1, at[0] + 120ms);
  expect_fire_at(2, done_at);  // once, not as a burst
  expect_fire_at(3, done_at + 120ms);
  this->Pass(300ms);
  EXPECT_EQ(at.size(), 4u);
  EXPECT_FALSE(nested);
  EXPECT_TRUE(ran_in_yield);
  for (int i : {0, 2}) EXPECT_NE(fired[i] > 0, fired[i + 1] > 0) << i;
}

TYPED_TEST(PlatformContractTest, FilesAreMadeOnlyInExistingFolders) {
  Platform& p = this->p;
  const std::string folder = this->folder, file = folder + "/log.txt";
  const std::string binary("t\0o\r\n\xff", 6);
  EXPECT_FALSE(p.CanOpenForReading(file) || p.ReadFile(file));
  ASSERT_TRUE(p.AppendToFile(file, "one\r\n") && p.AppendToFile(file, binary));
  EXPECT_EQ(p.ReadFile(file), "one\r\n" + binary);
  EXPECT_TRUE(p.CanOpenForReading(file));
  // No folder is ever created, and a folder is no file.
  for (const std::string& path : {folder + "/missing/a.log", folder}) {
    EXPECT_FALSE(p.AppendToFile(path, "x") || p.WriteFile(path, "x") ||
                 p.CanOpenForReading(path) || p.ReadFile(path))
        << path;
  }
  // Writing replaces what was there; a file above the limit is not read.
  ASSERT_TRUE(p.WriteFile(file, std::string(kMaxReadFileBytes, 'x')));
  EXPECT_EQ(p.ReadFile(file).value_or("").size(), kMaxReadFileBytes);
  ASSERT_TRUE(p.AppendToFile(file, "x"));
  EXPECT_EQ(p.ReadFile(file), std::nullopt) << "above the limit";
}

// Datagrams between two sockets of the machine: whole, empty ones too, with
// the sender's address and port; a taken port cannot be bound twice.
TYPED_TEST(PlatformContractTest, DatagramsArriveWholeWithTheirSender) {
  Platform& p = this->p;
  auto a = p.NewUdpSocket(), b = p.NewUdpSocket(), c = p.NewUdpSocket();
  std::vector<std::tuple<std::string, std::string, int>> got;
  b->SetEvents({.on_datagram = [&](Text data, Text from, int port) {
    got.emplace_back(data, from, port);
  }});
  ASSERT_TRUE(a->Bind(0) && b->Bind(0));
  EXPECT_FALSE(c->Bind(b->LocalPort())) << "taken";
  EXPECT_FALSE(a->SetRemote("ups.example", 1)) << "a name, not an address";
  ASSERT_TRUE(a->SetRemote("127.0.0.1", b->LocalPort()));
  // Back to back, so that each arrives while the one before is delivered.
  const std::string sent[] = {"LABELS", "", std::string(kMaxDatagramBytes, 'z')};
  for (const std::string& data : sent) ASSERT_TRUE(a->Send(data));
  ASSERT_TRUE(RunUntil(*this, [&] { return got.size() == std::size(sent); }));
  for (std::size_t i = 0; i < std::size(sent); ++i) {
    EXPECT_EQ(got[i], std::tuple(sent[i], "127.0.0.1", a->LocalPort())) << i;
  }
  b.reset();  // no event after destruction
  ASSERT_TRUE(a->Send("late"));
  this->Pass(20ms);
  EXPECT_EQ(got.size(), std::size(sent));
}

// One copy per program folder: a second finds the first, and the folder is
// free again once the first has gone. On Linux the lock file is its owner's
// alone, so no other user can take it first.
TEST(RealPlatformTest, OneCopyPerFolderUntilItEnds) {
  auto first = std::make_unique<RealPlatform>(false);
  EXPECT_FALSE(first->AnotherInstanceRunning());
  if (first->PlatformNumber() == 1) {  // not the NT family
    const auto perms = fs::status(first->ProgramFolder() + "/KOVRAN.LCK").permissions();
    EXPECT_EQ(perms & (fs::perms::group_all | fs::perms::others_all), fs::perms::none);
  }
  EXPECT_TRUE(RealPlatform(false).AnotherInstanceRunning());
  first.reset();
  EXPECT_FALSE(RealPlatform(false).AnotherInstanceRunning());
}

// A real client against a real listener: an offered connection not taken
// is closed; a taken one carries data both ways, reports its send complete
// and the peer's close. The client keeps unread bytes together.
TEST(RealPlatformTest, ListenerOffersConnectionsThatCarryData) {
  RealDriver d;
  auto listener = d.p.NewTcpListener();
  auto client = d.p.NewTcpClient();
  std::unique_ptr<TcpConnection> server;
  bool take = false, connected = false, client_closed = false, server_closed = false;
  std::string at_server;
  int sends_complete = 0, arrivals = 0, error_number = 0;
  listener->SetOnConnectionRequest([&](int64_t id) {
    if (!take) return;
    server = listener->Accept(id);
  });
  client->SetEvents({.on_connect = [&] { connected = true; },
                     .on_data = [&] { ++arrivals; },
                     .on_close = [&] { client_closed = true; },
                     .on_error = [&](int n, Text) { error_number = n; }});
  client->Connect("127.0.0.1", 0);
  ASSERT_TRUE(RunUntil(d, [&] { return error_number != 0; })) << "port 0 refused";
  EXPECT_EQ(error_number, wsa::kAddressNotAvailable);
  ASSERT_TRUE(listener->Listen(0));
  EXPECT_FALSE(d.p.NewTcpListener()->Listen(listener->LocalPort()));
  client->Connect("127.0.0.1", listener->LocalPort());
  ASSERT_TRUE(RunUntil(d, [&] { return client_closed; })) << "not taken";
  take = true;
  connected = false;
  client->Connect("127.0.0.1", listener->LocalPort());
  ASSERT_TRUE(RunUntil(d, [&] { return server && connected; }));
  server->SetEvents({.on_data = [&] { at_server += server->ReadAll(); },
                     .on_send_complete = [&] { ++sends_complete; },
                     .on_close = [&] { server_closed = true; }});
  ASSERT_TRUE(client->Send("H:TS"));
  ASSERT_TRUE(server->Send("1") && RunUntil(d, [&] { return arrivals == 1; }));
  ASSERT_TRUE(server->Send("2") && server->Send("\r"));
  ASSERT_TRUE(RunUntil(d, [&] { return sends_complete && at_server == "H:TS"; }));
  ASSERT_TRUE(RunUntil(d, [&] { return arrivals >= 2; }));
  EXPECT_EQ(client->ReadAll(), "12\r") << "unread bytes kept together";
  EXPECT_EQ(sends_complete, 2) << "once for \"1\", once when \"2\" and CR had gone";
  client->Close();
  EXPECT_TRUE(RunUntil(d, [&] { return server_closed; }));
}

// Only a connecting socket can be accepted, and by a posted event.
TEST(FakeTcpClientTest, OnlyAConnectingSocketIsAcceptedByAPostedEvent) {
  FakePlatform fake;
  FakeTcpClient client(fake, [](FakeTcpClient*) {});
  int connects = 0;
  client.SetEvents({[&] { ++connects; }, {}, {}, {}});
  client.Connect("ups", 1);
  client.Accept();
  EXPECT_EQ(connects, 0) << "raised inside the call";
  fake.RunReady();
  client.Accept();  // connected already
  client.Close();
  client.Accept();  // closed
  fake.RunReady();
  EXPECT_EQ(connects, 1);
}

}  // namespace
}  // namespace platform
