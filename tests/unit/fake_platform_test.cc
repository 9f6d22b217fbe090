// What only the fake has: the order and count of expiries in virtual time,
// its wall clock, the outside events it scripts, and the rules by which its
// TCP client plays the server's side.
#include "platform/fake_platform.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace platform {
namespace {

using namespace std::chrono_literals;

std::tuple<int, int, int> Ymd(LocalDate d) { return {d.year, d.month, d.day}; }

TEST(FakePlatformTest, AdvanceFiresByDueTimeThenCreationOrder) {
  FakePlatform fake;
  std::string fired;
  std::vector<std::unique_ptr<Timer>> timers;
  for (auto [name, ms] : {std::pair{'a', 20}, {'b', 10}, {'c', 20}}) {
    timers.push_back(fake.NewTimer([&, name = name] {
      fired += name + std::to_string(fake.Now() / 1ms) + " ";
    }));
    timers.back()->SetInterval(ms);
  }
  fake.Advance(40ms);
  EXPECT_EQ(fired, "b10 a20 b20 c20 b30 a40 b40 c40 ");
}

TEST(FakePlatformTest, AOneSecondTimerFires300TimesIn300Seconds) {
  FakePlatform fake;
  int ticks = 0;
  auto countdown = fake.NewTimer([&] { ++ticks; });
  countdown->SetInterval(1000);
  fake.Advance(300s);
  EXPECT_EQ(ticks, 300);
}

TEST(FakePlatformTest, WallClockRollsOverAtMidnightMonthAndYearEnd) {
  const std::pair<LocalDate, LocalDate> cases[] = {
      {{2026, 11, 23}, {2026, 11, 24}}, {{2026, 4, 30}, {2026, 5, 1}},
      {{2024, 2, 28}, {2024, 2, 29}},   {{2025, 2, 28}, {2025, 3, 1}},
      {{2024, 2, 29}, {2024, 3, 1}},    {{2026, 12, 31}, {2027, 1, 1}},
  };
  for (const auto& [day, next] : cases) {
    FakePlatform fake;
    fake.Advance(10s);  // the clock is set as of now, not of time 0
    fake.SetWallClock(day, 86399.75);
    EXPECT_EQ(Ymd(fake.Today()), Ymd(day));
    fake.Advance(250ms);
    EXPECT_EQ(Ymd(fake.Today()), Ymd(next));
    EXPECT_EQ(fake.SecondsSinceMidnight(), 0.0);
  }
}

TEST(FakePlatformTest, ServiceStatesArriveAsPostedEvents) {
  FakePlatform fake;
  std::vector<int> states;
  fake.SetServiceHandler([&](int state) { states.push_back(state); });
  fake.NotifyService(4);
  fake.NotifyService(1);
  EXPECT_TRUE(states.empty());
  fake.RunReady();
  EXPECT_EQ(states, (std::vector<int>{4, 1}));
}

TEST(FakeTcpClientTest, OnlyASocketThatCanHearIsReachedAndOnlyByPostedEvents) {
  const std::function<void(FakeTcpClient&)> acts[] = {
      [](auto& c) { c.Accept(); }, [](auto& c) { c.Deliver("x"); },
      [](auto& c) { c.PeerClose(); }, [](auto& c) { c.RaiseError(1, ""); }};
  // By state (new, connecting, connected, closed), the event each act
  // raises ('.': none): connect, data, close (x), error.
  const char* const kHeard[] = {"....", "c.xe", ".dxe", "...."};
  for (int state = 0; state < 4; ++state) {
    for (int act = 0; act < 4; ++act) {
      for (bool close_first : {false, true}) {
        FakePlatform fake;
        auto owned = fake.NewTcpClient();
        auto& client = static_cast<FakeTcpClient&>(*owned);
        if (state >= 1) client.Connect("ups", 1);
        if (state >= 2) client.Accept();
        if (state >= 3) client.Close();
        fake.RunReady();
        std::string heard;
        auto hear = [&heard](char c) { return [&heard, c] { heard += c; }; };
        client.SetEvents({hear('c'), hear('d'), hear('x'),
                          [&](int, const std::string&) { heard += 'e'; }});
        acts[act](client);
        EXPECT_EQ(heard, "") << "raised inside the call";
        if (close_first) client.Close();  // drops what is still pending
        fake.RunReady();
        const char expected = close_first ? '.' : kHeard[state][act];
        EXPECT_EQ(heard, expected == '.' ? "" : std::string(1, expected))
            << "state " << state << ", act " << act;
      }
    }
  }
}

}  // namespace
}  // namespace platform
