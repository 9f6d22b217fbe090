// The contract of Platform, run against the virtual-time fake and the real
// POSIX implementation alike so that the two cannot drift apart, followed by
// what only the real one can show (processes, program folder, single copy).
//
// Real timers fire late at times but never early, so real-time checks only
// ever say "not before"; waiting for something to happen has a generous
// deadline. Virtual time is exact, and the same checks demand exactness.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/fake_platform.h"
#include "platform/posix_platform.h"

namespace platform {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Duration = std::chrono::nanoseconds;
using Ms = std::chrono::milliseconds;

constexpr Duration kDeadline = 5s;

class FakeDriver {
 public:
  static constexpr bool kVirtualTime = true;

  FakeDriver() { fake_.folders.insert(folder_); }
  Platform& platform() { return fake_; }
  const std::string& Folder() const { return folder_; }
  Duration Now() const { return fake_.Now(); }
  void Pass(Duration d) { fake_.Advance(d); }
  // Inside a handler: virtual time moves only in Advance, so a handler that
  // takes a while is one that advances the clock itself.
  void Work(Duration d) { fake_.Advance(d); }
  bool RunUntil(const std::function<bool()>& done) {
    const Duration end = fake_.Now() + kDeadline;
    while (!done() && fake_.Now() < end) fake_.Advance(1ms);
    return done();
  }
  void RequestClose(int /*signal*/) { fake_.RequestClose(); }

 private:
  FakePlatform fake_;
  std::string folder_ = "/data";
};

class RealDriver {
 public:
  static constexpr bool kVirtualTime = false;
  using Clock = std::chrono::steady_clock;

  RealDriver() {
    std::string name = (fs::temp_directory_path() / "kovran-XXXXXX").string();
    if (::mkdtemp(name.data()) != nullptr) folder_ = name;
  }
  ~RealDriver() {
    std::error_code ignored;
    if (!folder_.empty()) fs::remove_all(folder_, ignored);
  }
  Platform& platform() { return real_; }
  const std::string& Folder() const { return folder_; }
  Duration Now() const { return Clock::now() - epoch_; }
  void Pass(Duration d) { real_.RunFor(std::chrono::ceil<Ms>(d)); }
  // Inside a handler: keeps the event thread busy, as slow work would.
  void Work(Duration d) {
    const auto end = Clock::now() + d;
    while (Clock::now() < end) {
    }
  }
  bool RunUntil(const std::function<bool()>& done) {
    const auto end = Clock::now() + kDeadline;
    while (!done() && Clock::now() < end) real_.RunFor(5ms);
    return done();
  }
  void RequestClose(int signal) { ::raise(signal); }

 private:
  PosixPlatform real_{/*exit_process=*/false};
  Clock::time_point epoch_ = Clock::now();
  std::string folder_;
};

template <typename Driver>
class PlatformContractTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_FALSE(driver_.Folder().empty()); }

  Platform& platform() { return driver_.platform(); }
  Duration Now() { return driver_.Now(); }

  // A timer that stamps each expiry into `at`, then calls `also`.
  std::unique_ptr<Timer> StampingTimer(std::vector<Duration>& at,
                                       std::function<void()> also = {}) {
    return platform().NewTimer([this, &at, also] {
      at.push_back(driver_.Now());
      if (also) also();
    });
  }

  // Runs until expiry number `i` (from 0) has come and checks it came at
  // `due`.
  void ExpectFireAt(const std::vector<Duration>& at, std::size_t i,
                    Duration due) {
    ASSERT_TRUE(driver_.RunUntil([&] { return at.size() > i; }))
        << "expiry " << i << " never came";
    if constexpr (Driver::kVirtualTime) {
      EXPECT_EQ(at[i], due) << "expiry " << i;
    } else {
      EXPECT_GE(at[i], due) << "expiry " << i << " came early";
    }
  }

  Driver driver_;
};

struct DriverNames {
  template <typename Driver>
  static std::string GetName(int) {
    return Driver::kVirtualTime ? "Fake" : "Posix";
  }
};
using Drivers = ::testing::Types<FakeDriver, RealDriver>;
TYPED_TEST_SUITE(PlatformContractTest, Drivers, DriverNames);

TYPED_TEST(PlatformContractTest, InactiveTimersNeverFire) {
  int fired = 0;
  auto fresh = this->platform().NewTimer([&] { ++fired; });
  EXPECT_TRUE(fresh->Enabled());
  EXPECT_EQ(fresh->Interval(), 0);
  fresh->SetEnabled(true);
  // 0 and below switch a running timer off; the largest period is 24 days.
  std::vector<std::unique_ptr<Timer>> timers;
  for (int32_t ms : {0, -1, INT32_MIN, INT32_MAX}) {
    timers.push_back(this->platform().NewTimer([&] { ++fired; }));
    timers.back()->SetInterval(20);
    timers.back()->SetInterval(ms);
    EXPECT_EQ(timers.back()->Interval(), ms);
  }
  this->driver_.Pass(150ms);
  EXPECT_EQ(fired, 0);
}

TYPED_TEST(PlatformContractTest, FiresEveryPeriodOnItsCadence) {
  std::vector<Duration> at;
  auto timer = this->StampingTimer(at);
  const Duration start = this->Now();
  timer->SetInterval(40);
  for (int i = 0; i < 5; ++i) this->ExpectFireAt(at, i, start + (i + 1) * 40ms);
}

TYPED_TEST(PlatformContractTest,
           SetIntervalRestartsTheCountEvenWithTheSameValue) {
  std::vector<Duration> at;
  auto timer = this->StampingTimer(at);
  timer->SetInterval(100);
  for (int32_t ms : {100, 150}) {
    this->driver_.Pass(60ms);
    const std::size_t next = at.size();
    const Duration set_at = this->Now();
    timer->SetInterval(ms);
    this->ExpectFireAt(at, next, set_at + Ms(ms));
  }
}

TYPED_TEST(PlatformContractTest, DisablingDropsTheExpiryAndEnablingRestarts) {
  std::vector<Duration> at;
  auto timer = this->StampingTimer(at);
  timer->SetInterval(100);
  this->driver_.Pass(60ms);
  timer->SetEnabled(false);
  EXPECT_FALSE(timer->Enabled());
  const std::size_t next = at.size();
  this->driver_.Pass(150ms);
  EXPECT_EQ(at.size(), next);
  const Duration enabled_at = this->Now();
  timer->SetEnabled(true);
  this->ExpectFireAt(at, next, enabled_at + 100ms);
}

TYPED_TEST(PlatformContractTest, EnablingAnEnabledTimerKeepsItsCount) {
  // Were the count restarted, the poking would keep the timer from firing.
  std::vector<Duration> at;
  auto timer = this->StampingTimer(at);
  auto poke = this->platform().NewTimer([&] { timer->SetEnabled(true); });
  poke->SetInterval(20);
  const Duration start = this->Now();
  timer->SetInterval(100);
  this->ExpectFireAt(at, 0, start + 100ms);
}

TYPED_TEST(PlatformContractTest, HandlerSettingItsIntervalCountsFromThere) {
  std::vector<Duration> at;
  Duration set_at{};
  std::unique_ptr<Timer> timer;
  timer = this->StampingTimer(at, [&] {
    if (at.size() > 1) return;
    set_at = this->Now();
    timer->SetInterval(120);
  });
  const Duration start = this->Now();
  timer->SetInterval(50);
  this->ExpectFireAt(at, 0, start + 50ms);
  this->ExpectFireAt(at, 1, set_at + 120ms);
  this->ExpectFireAt(at, 2, set_at + 240ms);
}

TYPED_TEST(PlatformContractTest, ExpiriesMissedWhileBusyFireOnceNotAsABurst) {
  std::vector<Duration> at;
  Duration done_at{};
  auto timer = this->StampingTimer(at, [&] {
    if (at.size() > 1) return;
    this->driver_.Work(175ms);  // three periods come due meanwhile
    done_at = this->Now();
  });
  const Duration start = this->Now();
  timer->SetInterval(50);
  this->ExpectFireAt(at, 0, start + 50ms);
  this->ExpectFireAt(at, 1, done_at);
  this->ExpectFireAt(at, 2, done_at + 50ms);
}

TYPED_TEST(PlatformContractTest, YieldRunsPendingEventsButNeverTheOwnExpiry) {
  std::vector<Duration> at;
  int depth = 0, deepest = 0, others = 0;
  bool posted = false, posted_in_yield = false, other_in_yield = false;
  std::unique_ptr<Timer> timer;
  timer = this->StampingTimer(at, [&] {
    deepest = std::max(deepest, ++depth);
    if (at.size() == 1) {
      const int others_before = others;
      timer->SetInterval(10);    // re-set while busy: still never nested
      this->driver_.Work(40ms);  // the own next expiry and `other` come due
      this->platform().Post([&] { posted = true; });
      this->platform().Yield();
      posted_in_yield = posted;
      other_in_yield = others > others_before;
    }
    --depth;
  });
  auto other = this->platform().NewTimer([&] { ++others; });
  timer->SetInterval(10);
  other->SetInterval(20);
  ASSERT_TRUE(this->driver_.RunUntil([&] { return at.size() >= 3; }));
  EXPECT_EQ(deepest, 1);
  EXPECT_TRUE(posted_in_yield);
  EXPECT_TRUE(other_in_yield);
}

TYPED_TEST(PlatformContractTest, PostedTasksRunAfterTheHandlerInPostingOrder) {
  std::vector<std::string> log;
  Platform& p = this->platform();
  p.Post([&] { log.push_back("outside"); });
  EXPECT_TRUE(log.empty());
  ASSERT_TRUE(this->driver_.RunUntil([&] { return !log.empty(); }));

  std::unique_ptr<Timer> timer;
  timer = p.NewTimer([&] {
    timer->SetInterval(0);
    log.push_back("handler");
    p.Post([&] {
      log.push_back("first");
      p.Post([&] { log.push_back("third"); });
    });
    p.Post([&] { log.push_back("second"); });
    log.push_back("handler end");
  });
  timer->SetInterval(10);
  ASSERT_TRUE(this->driver_.RunUntil([&] { return log.size() >= 6; }));
  EXPECT_EQ(log, (std::vector<std::string>{"outside", "handler", "handler end",
                                           "first", "second", "third"}));
}

TYPED_TEST(PlatformContractTest, DestroyedOrStoppedTimerNeverFiresAgain) {
  // Two timers come due together while `slow` keeps the thread busy; the
  // first to fire stops the other, whose expiry is then already waiting.
  const std::function<void(std::unique_ptr<Timer>&)> stops[] = {
      [](auto& t) { t.reset(); },
      [](auto& t) { t->SetEnabled(false); },
      [](auto& t) { t->SetInterval(0); },
  };
  for (const auto& stop : stops) {
    int fired[2] = {0, 0};
    std::unique_ptr<Timer> slow, pair[2];
    slow = this->platform().NewTimer([&] {
      slow->SetInterval(0);
      this->driver_.Work(40ms);
    });
    for (int i : {0, 1}) {
      pair[i] = this->platform().NewTimer([&, i] {
        if (fired[i]++ == 0 && fired[1 - i] == 0) stop(pair[1 - i]);
      });
    }
    slow->SetInterval(5);
    for (auto& timer : pair) timer->SetInterval(10);
    ASSERT_TRUE(this->driver_.RunUntil([&] { return fired[0] + fired[1]; }));
    this->driver_.Pass(100ms);
    EXPECT_NE(fired[0] > 0, fired[1] > 0) << fired[0] << " and " << fired[1];
  }

  // A timer destroyed inside its own handler.
  int fired = 0;
  std::unique_ptr<Timer> self;
  self = this->platform().NewTimer([&] {
    ++fired;
    self.reset();
  });
  self->SetInterval(10);
  ASSERT_TRUE(this->driver_.RunUntil([&] { return fired > 0; }));
  this->driver_.Pass(100ms);
  EXPECT_EQ(fired, 1);
}

TYPED_TEST(PlatformContractTest, EndNowStopsEveryFurtherHandler) {
  Platform& p = this->platform();
  int ending = 0, posted = 0, others = 0;
  auto other = p.NewTimer([&] { ++others; });
  auto ender = p.NewTimer([&] {
    ++ending;
    p.Post([&] { ++posted; });
    p.EndNow(3);
    p.Yield();
  });
  ender->SetInterval(10);
  other->SetInterval(30);
  ASSERT_TRUE(this->driver_.RunUntil([&] { return ending > 0; }));
  p.Post([&] { ++posted; });
  this->driver_.Pass(100ms);
  this->driver_.Pass(100ms);
  EXPECT_EQ(ending, 1);
  EXPECT_EQ(posted, 0);
  EXPECT_EQ(others, 0);
}

TYPED_TEST(PlatformContractTest, CloseRequestsReachTheHandlerAsEvents) {
  int closes = 0;
  this->platform().SetCloseHandler([&] { ++closes; });
  for (int signal : {SIGTERM, SIGINT}) {
    const int before = closes;
    this->driver_.RequestClose(signal);
    EXPECT_EQ(closes, before) << "ran inside the request";
    EXPECT_TRUE(this->driver_.RunUntil([&] { return closes > before; }));
  }
  // The platform itself does nothing more: the program goes on.
  std::vector<Duration> at;
  auto timer = this->StampingTimer(at);
  const Duration start = this->Now();
  timer->SetInterval(10);
  this->ExpectFireAt(at, 0, start + 10ms);
}

TYPED_TEST(PlatformContractTest, SteadyClockKeepsPaceWithTheTimers) {
  // Periods measured on the steady clock must not come out shorter than
  // the timers that drive them.
  Platform& p = this->platform();
  const double start = p.SteadySeconds();
  double fired_at = start;
  auto timer = p.NewTimer([&] { fired_at = p.SteadySeconds(); });
  timer->SetInterval(100);
  ASSERT_TRUE(this->driver_.RunUntil([&] { return fired_at != start; }));
  if constexpr (TypeParam::kVirtualTime) {
    EXPECT_NEAR(fired_at - start, 0.1, 1e-9);
  } else {
    EXPECT_GE(fired_at - start, 0.1 - 1e-9);
  }
  const double seconds = p.SecondsSinceMidnight();
  EXPECT_TRUE(seconds >= 0 && seconds < 86400) << seconds;
}

TYPED_TEST(PlatformContractTest, FilesAppendWriteAndReadBackByteForByte) {
  Platform& p = this->platform();
  const std::string file = this->driver_.Folder() + "/log.txt";
  const std::string binary("t\0o\r\n\xff", 6);
  EXPECT_FALSE(p.CanOpenForReading(file));
  EXPECT_EQ(p.ReadFile(file), std::nullopt);
  ASSERT_TRUE(p.AppendToFile(file, "one\r\n"));  // creates the file
  ASSERT_TRUE(p.AppendToFile(file, binary));
  EXPECT_EQ(p.ReadFile(file), "one\r\n" + binary);
  EXPECT_TRUE(p.CanOpenForReading(file));
  ASSERT_TRUE(p.WriteFile(file, "x"));  // truncates
  EXPECT_EQ(p.ReadFile(file), "x");
  ASSERT_TRUE(p.WriteFile(file, ""));  // an empty file is still there
  EXPECT_EQ(p.ReadFile(file), "");
  EXPECT_TRUE(p.CanOpenForReading(file));
}

TYPED_TEST(PlatformContractTest, FilesNeedAnExistingFolderAndAreNoFolders) {
  Platform& p = this->platform();
  const std::string folder = this->driver_.Folder();
  for (const std::string& path :
       {folder + "/missing/a.log", folder + "/missing/deeper/a.log"}) {
    EXPECT_FALSE(p.AppendToFile(path, "x")) << path;
    EXPECT_FALSE(p.WriteFile(path, "x")) << path;
    EXPECT_FALSE(p.CanOpenForReading(path)) << path;
  }
  EXPECT_FALSE(p.CanOpenForReading(folder + "/missing"));  // not created
  // A folder is not a file to read or write.
  EXPECT_EQ(p.ReadFile(folder), std::nullopt);
  EXPECT_FALSE(p.CanOpenForReading(folder));
  EXPECT_FALSE(p.AppendToFile(folder, "x"));
}

TYPED_TEST(PlatformContractTest, ReadFileRefusesFilesAboveTheLimit) {
  Platform& p = this->platform();
  const std::string file = this->driver_.Folder() + "/big";
  ASSERT_TRUE(p.WriteFile(file, std::string(kMaxReadFileBytes, 'x')));
  const auto at_limit = p.ReadFile(file);
  ASSERT_TRUE(at_limit.has_value());
  EXPECT_EQ(at_limit->size(), kMaxReadFileBytes);
  ASSERT_TRUE(p.AppendToFile(file, "x"));
  EXPECT_FALSE(p.ReadFile(file).has_value());
  EXPECT_TRUE(p.CanOpenForReading(file));
}

// ---- The real platform only ----

class PosixPlatformContractTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_FALSE(folder_.empty()); }

  // Writes `text` to `name` in the test folder with the permission `mode`.
  std::string MakeFile(const std::string& name, const std::string& text,
                       fs::perms mode) {
    const std::string path = folder_ + "/" + name;
    std::ofstream(path) << text;
    fs::permissions(path, mode);
    return path;
  }

  RealDriver driver_;
  Platform& platform_ = driver_.platform();
  const std::string folder_ = driver_.Folder();
};

TEST_F(PosixPlatformContractTest, StartProcessFailsForWhatCannotRun) {
  const std::string cannot_run[] = {
      folder_ + "/missing.sh",
      MakeFile("plain.sh", "#!/bin/sh\n",
               fs::perms::owner_read | fs::perms::owner_write),
      folder_,
  };
  for (const std::string& path : cannot_run) {
    EXPECT_FALSE(platform_.StartProcess(path, kWindowHidden)) << path;
  }
}

TEST_F(PosixPlatformContractTest, StartProcessRunsTheFileWithoutWaitingForIt) {
  // The script waits (at most about 10 s) for a gate the test opens only
  // after StartProcess has returned, then leaves its mark.
  const std::string gate = folder_ + "/gate", marker = folder_ + "/marker";
  constexpr char kScript[] =
      "#!/bin/sh\n"
      "cd \"$(dirname \"$0\")\" || exit 1\n"
      "i=0\n"
      "while [ ! -e gate ] && [ $i -lt 1000 ]; do sleep 0.01; i=$((i+1)); "
      "done\n"
      "[ -e gate ] && touch marker\n";
  const std::string script = MakeFile("run.sh", kScript, fs::perms::owner_all);
  ASSERT_TRUE(platform_.StartProcess(script, kWindowNormalFocus));
  EXPECT_FALSE(fs::exists(marker));
  std::ofstream{gate};
  EXPECT_TRUE(driver_.RunUntil([&] { return fs::exists(marker); }));
}

TEST_F(PosixPlatformContractTest, ProgramFolderIsTheFolderOfTheRunningBinary) {
  const fs::path binary = fs::canonical(program_invocation_name);
  EXPECT_EQ(platform_.ProgramFolder(), binary.parent_path().string());
}

TEST_F(PosixPlatformContractTest, AnotherInstanceIsACopyOfTheSameBinary) {
  EXPECT_FALSE(platform_.AnotherInstanceRunning());
  EXPECT_FALSE(platform_.AnotherInstanceRunning());  // never finds itself
  // A second copy of this binary, started while this one runs, finds it.
  int report[2];
  ASSERT_EQ(::pipe(report), 0);
  const pid_t pid = ::fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    ::close(report[0]);
    PosixPlatform copy(/*exit_process=*/false);
    const char answer = copy.AnotherInstanceRunning() ? 'y' : 'n';
    if (::write(report[1], &answer, 1) != 1) ::_exit(1);
    ::_exit(0);
  }
  ::close(report[1]);
  char answer = '?';
  while (::read(report[0], &answer, 1) < 0 && errno == EINTR) {
  }
  ::close(report[0]);
  EXPECT_EQ(answer, 'y');
}

}  // namespace
}  // namespace platform
