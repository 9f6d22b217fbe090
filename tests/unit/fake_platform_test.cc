// What only the fake has: the order and count of expiries in virtual time,
// its wall clock, the outside events it scripts, how it ends, and its
// scripted files and process starts.
#include "platform/fake_platform.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace platform {
namespace {

using namespace std::chrono_literals;

std::tuple<int, int, int> Ymd(LocalDate d) { return {d.year, d.month, d.day}; }

TEST(FakePlatformTest, AdvanceFiresByDueTimeThenCreationOrder) {
  using Fired = std::pair<char, FakePlatform::Duration>;
  FakePlatform fake;
  std::vector<Fired> fired;
  std::vector<std::unique_ptr<Timer>> timers;
  for (auto [name, ms] :
       {std::pair{'a', 30}, {'b', 20}, {'c', 30}, {'d', 10}}) {
    timers.push_back(
        fake.NewTimer([&, name] { fired.emplace_back(name, fake.Now()); }));
    timers.back()->SetInterval(ms);
  }
  fake.Advance(60ms);
  const std::vector<Fired> expected = {
      {'d', 10ms}, {'b', 20ms}, {'d', 20ms}, {'a', 30ms}, {'c', 30ms},
      {'d', 30ms}, {'b', 40ms}, {'d', 40ms}, {'d', 50ms}, {'a', 60ms},
      {'b', 60ms}, {'c', 60ms}, {'d', 60ms}};
  EXPECT_EQ(fired, expected);
}

TEST(FakePlatformTest, ASecondTimerFiresOncePerSecondAndNoMore) {
  FakePlatform fake;
  int ticks = 0;
  auto countdown = fake.NewTimer([&] { ++ticks; });
  countdown->SetInterval(1000);
  fake.Advance(300s);
  EXPECT_EQ(ticks, 300);
  EXPECT_EQ(fake.Now(), 300s);
  fake.Advance(999ms);
  EXPECT_EQ(ticks, 300);
  fake.Advance(1ms);
  EXPECT_EQ(ticks, 301);
}

TEST(FakePlatformTest, MidnightRollsTheDateOverAndRestartsTheSeconds) {
  const struct {
    LocalDate day, next;
  } cases[] = {
      {{2026, 11, 23}, {2026, 11, 24}}, {{2026, 4, 30}, {2026, 5, 1}},
      {{2024, 2, 28}, {2024, 2, 29}},   {{2025, 2, 28}, {2025, 3, 1}},
      {{2024, 2, 29}, {2024, 3, 1}},    {{2026, 12, 31}, {2027, 1, 1}},
  };
  for (const auto& c : cases) {
    FakePlatform fake;
    fake.Advance(10s);  // the clock is set as of now, not of time 0
    fake.SetWallClock(c.day, 86399.75);
    EXPECT_EQ(fake.SecondsSinceMidnight(), 86399.75);
    EXPECT_EQ(Ymd(fake.Today()), Ymd(c.day));
    fake.Advance(250ms);
    EXPECT_EQ(fake.SecondsSinceMidnight(), 0.0);
    EXPECT_EQ(Ymd(fake.Today()), Ymd(c.next));
    fake.Advance(500ms);
    EXPECT_EQ(fake.SecondsSinceMidnight(), 0.5);
  }
  FakePlatform fake;
  fake.SetWallClock({2026, 12, 31}, 12 * 3600);
  fake.Advance(48h);
  EXPECT_EQ(Ymd(fake.Today()), std::tuple(2027, 1, 2));
  EXPECT_EQ(fake.SecondsSinceMidnight(), 12 * 3600);
}

TEST(FakePlatformTest, CloseAndServiceRequestsArriveAsPostedEvents) {
  FakePlatform fake;
  std::vector<std::string> log;
  fake.SetCloseHandler([&] { log.push_back("close"); });
  fake.SetServiceHandler(
      [&](int s) { log.push_back("service " + std::to_string(s)); });
  fake.Post([&] { log.push_back("before"); });
  fake.RequestClose();
  fake.NotifyService(4);
  fake.Post([&] { log.push_back("after"); });
  EXPECT_TRUE(log.empty());
  fake.RunReady();
  EXPECT_EQ(
      log, (std::vector<std::string>{"before", "close", "service 4", "after"}));
  // Without handlers the requests are simply dropped.
  FakePlatform bare;
  bare.RequestClose();
  bare.NotifyService(1);
  bare.RunReady();
}

TEST(FakePlatformTest, EndNowKeepsTheFirstCodeAndStopsTime) {
  FakePlatform fake;
  int ticks = 0, posted = 0;
  auto ticker = fake.NewTimer([&] { ++ticks; });
  auto ender = fake.NewTimer([&] {
    fake.Post([&] { ++posted; });
    fake.EndNow(7);
    fake.EndNow(9);
  });
  ticker->SetInterval(10);
  ender->SetInterval(25);
  fake.Advance(100ms);
  EXPECT_TRUE(fake.ended());
  EXPECT_EQ(fake.exit_code(), 7);
  EXPECT_EQ(fake.Now(), 25ms);
  fake.Post([&] { ++posted; });
  fake.Advance(100ms);
  fake.RunReady();
  EXPECT_EQ(fake.Now(), 25ms);
  EXPECT_EQ(ticks, 2);
  EXPECT_EQ(posted, 0);
}

TEST(FakePlatformTest, ScriptedFilesAndProcessStarts) {
  FakePlatform fake;  // the program folder exists from the start
  EXPECT_TRUE(fake.WriteFile("\\kovran\\a.ini", "x"));  // either separator
  EXPECT_EQ(fake.files.at("/kovran/a.ini"), "x");
  EXPECT_EQ(fake.ReadFile("/kovran\\a.ini"), "x");
  fake.unreadable.insert("/kovran/a.ini");
  EXPECT_EQ(fake.ReadFile("/kovran/a.ini"), std::nullopt);
  EXPECT_FALSE(fake.CanOpenForReading("/kovran/a.ini"));
  fake.unwritable.insert("/kovran/b.log");
  EXPECT_FALSE(fake.AppendToFile("/kovran/b.log", "x"));
  EXPECT_FALSE(fake.WriteFile("/kovran/b.log", "x"));
  EXPECT_EQ(fake.files.count("/kovran/b.log"), 0u);

  fake.failing_starts.insert("/kovran/bad.bat");
  EXPECT_FALSE(fake.StartProcess("/kovran/bad.bat", kWindowHidden));
  EXPECT_TRUE(fake.StartProcess("/kovran/run.bat", kWindowNormalFocus));
  ASSERT_EQ(fake.starts.size(), 1u);
  EXPECT_EQ(fake.starts[0].command_line, "/kovran/run.bat");
  EXPECT_EQ(fake.starts[0].window_style, kWindowNormalFocus);
}

}  // namespace
}  // namespace platform
