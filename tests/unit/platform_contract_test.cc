// The contract of Platform, run against the virtual-time fake and the real
// POSIX implementation alike so that the two cannot drift apart, followed by
// what only the real one can show (processes, program folder, single copy).
//
// Real timers fire late at times but never early, so real-time checks only
// ever say "not before"; waiting for something to happen has a generous
// deadline. Virtual time is exact, and the same checks demand exactness.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/fake_platform.h"
#include "platform/posix_platform.h"

namespace platform {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Duration = std::chrono::nanoseconds;
using Ms = std::chrono::milliseconds;

struct FakeDriver {
  static constexpr bool kVirtualTime = true;
  void Pass(Duration d) { p.Advance(d); }
  // Virtual time moves only in Advance, so a handler that takes a while is
  // one that advances the clock itself.
  void Work(Duration d) { p.Advance(d); }
  void RequestClose(int /*signal*/) { p.RequestClose(); }
  FakePlatform p;
  std::string folder = p.program_folder;  // exists from the start
};

struct RealDriver {
  static constexpr bool kVirtualTime = false;
  using Clock = std::chrono::steady_clock;
  RealDriver() {
    if (::mkdtemp(folder.data()) == nullptr) folder.clear();
  }
  ~RealDriver() {
    std::error_code ignored;
    fs::remove_all(folder, ignored);
  }
  void Pass(Duration d) { p.RunFor(std::chrono::ceil<Ms>(d)); }
  // Keeps the event thread busy, as slow work in a handler would.
  void Work(Duration d) {
    for (auto end = Clock::now() + d; Clock::now() < end;) continue;
  }
  void RequestClose(int signal) { ::raise(signal); }
  PosixPlatform p{/*exit_process=*/false};
  std::string folder = (fs::temp_directory_path() / "kovran-XXXXXX").string();
};

// Runs the loop until `done`, for at least 5 s of either kind of time.
template <typename Driver>
bool RunUntil(Driver& d, const std::function<bool()>& done) {
  for (int i = 0; i < 5000 && !done(); ++i) d.Pass(1ms);
  return done();
}

template <typename Driver>
class PlatformContractTest : public ::testing::Test {
 protected:
  // The platform's own steady clock, which must keep pace with its timers.
  Duration Now() {
    return std::chrono::round<Duration>(
        std::chrono::duration<double>(d_.p.SteadySeconds()));
  }
  // A timer that stamps each expiry into `at`, then calls `also`.
  std::unique_ptr<Timer> StampingTimer(std::vector<Duration>& at,
                                       std::function<void()> also = {}) {
    return d_.p.NewTimer([this, &at, also] {
      at.push_back(Now());
      if (also) also();
    });
  }
  // Waits for expiry number `i` (from 0) and checks it came at `due`. A real
  // timer may be late, never early; `due` is then counted from a clock read
  // just after the call that started the count, so it may lie up to the
  // length of that read behind the timer's own due time.
  void ExpectFireAt(const std::vector<Duration>& at, std::size_t i,
                    Duration due) {
    constexpr Duration kClockRead = 1ms;
    ASSERT_TRUE(RunUntil(d_, [&] { return at.size() > i; })) << "expiry " << i;
    EXPECT_TRUE(Driver::kVirtualTime ? at[i] == due : at[i] + kClockRead >= due)
        << "expiry " << i << " at " << at[i] / 1us << " us, due " << due / 1us;
  }

  Driver d_;
};

using Drivers = ::testing::Types<FakeDriver, RealDriver>;
TYPED_TEST_SUITE(PlatformContractTest, Drivers);

TYPED_TEST(PlatformContractTest, TimerCountsFromItsLastSetting) {
  // Each case sets 150 ms on a new timer, applies `change` 30 ms later and
  // expects expiries every `period` ms from the start or from the end of the
  // change; period 0: none at all.
  std::unique_ptr<Timer> poke;
  auto set = [](int32_t ms) { return [ms](Timer& t) { t.SetInterval(ms); }; };
  const struct {
    const char* name;
    std::function<void(Timer&)> change;
    bool from_start;
    int period;
  } cases[] = {
      {"untouched", [](Timer&) {}, true, 150},
      {"same interval", set(150), false, 150},
      {"new interval", set(100), false, 100},
      {"0", set(0), false, 0},
      {"-1", set(-1), false, 0},
      {"24 days", set(INT32_MAX), false, 0},
      {"disabled, enabled later",
       [this](Timer& t) {
         t.SetEnabled(false);
         this->d_.Pass(200ms);
         t.SetEnabled(true);
       },
       false, 150},
      // Were the count restarted, the poking would keep the timer silent.
      {"enabled again and again",
       [&](Timer& t) {
         poke = this->d_.p.NewTimer([&t] { t.SetEnabled(true); });
         poke->SetInterval(10);
       },
       true, 150},
  };
  auto fresh = this->d_.p.NewTimer([] { ADD_FAILURE() << "never set, fired"; });
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<Duration> at;
    auto timer = this->StampingTimer(at);
    const Duration start = this->Now();
    timer->SetInterval(150);
    this->d_.Pass(30ms);
    c.change(*timer);
    const Duration base = c.from_start ? start : this->Now();
    if (c.period == 0) this->d_.Pass(200ms);
    EXPECT_TRUE(c.period > 0 || at.empty());
    for (int k = 0; k < 2 && c.period > 0; ++k) {
      this->ExpectFireAt(at, k, base + 1ms * (k + 1) * c.period);
    }
    poke.reset();
  }
}

TYPED_TEST(PlatformContractTest, BusyHandlerNeverNestsAndWhatCameDueRunsOnce) {
  Platform& p = this->d_.p;
  std::vector<Duration> at;
  Duration done_at{};
  int depth = 0, others = 0, fired[4] = {};
  bool nested = false, posted = false, ran_in_yield = false;
  std::unique_ptr<Timer> timer, pairs[4];
  auto other = p.NewTimer([&] { ++others; });
  timer = this->StampingTimer(at, [&] {
    nested = nested || depth++ > 0;
    if (at.size() <= 2) timer->SetInterval(120);  // counts from here
    if (at.size() == 2) {  // its own expiry and the others come due
      const int others_before = others;
      this->d_.Work(300ms);
      p.Post([&] { posted = true; });
      p.Yield();
      ran_in_yield = posted && others > others_before;
      done_at = this->Now();
    }
    if (at.size() == 4) timer.reset();  // destroyed in its own handler
    --depth;
  });
  const Duration start = this->Now();
  timer->SetInterval(50);
  other->SetInterval(20);
  // Two pairs come due together while `timer` is busy; in each, the first
  // to fire destroys or disables its partner, whose expiry already waits.
  for (int i = 0; i < 4; ++i) {
    pairs[i] = p.NewTimer([&, i] {
      if (fired[i]++ > 0 || fired[i ^ 1] > 0) return;
      i < 2 ? pairs[i ^ 1].reset() : pairs[i ^ 1]->SetEnabled(false);
    });
    pairs[i]->SetInterval(300);
  }
  ASSERT_NO_FATAL_FAILURE(this->ExpectFireAt(at, 0, start + 50ms));
  this->ExpectFireAt(at, 1, at[0] + 120ms);
  this->ExpectFireAt(at, 2, done_at);  // once, not as a burst
  this->ExpectFireAt(at, 3, done_at + 120ms);
  this->d_.Pass(300ms);
  EXPECT_EQ(at.size(), 4u);
  EXPECT_FALSE(nested);
  EXPECT_TRUE(ran_in_yield);
  for (int i : {0, 2}) EXPECT_NE(fired[i] > 0, fired[i + 1] > 0) << i;
}

TYPED_TEST(PlatformContractTest, EventsRunAfterTheirCallInOrderUntilEndNow) {
  Platform& p = this->d_.p;
  std::vector<std::string> log;
  auto note = [&log](std::string s) { return [&log, s] { log.push_back(s); }; };
  p.SetCloseHandler(note("close"));
  this->d_.RequestClose(SIGTERM);
  this->d_.RequestClose(SIGINT);
  p.Post(note("posted"));
  EXPECT_TRUE(log.empty()) << "ran inside the call";
  ASSERT_TRUE(RunUntil(this->d_, [&] { return log.size() == 3; }));
  log.clear();
  // The close handler decides how to end; the platform goes on.
  auto timer = p.NewTimer([&] {
    log.push_back("handler");
    p.Post(note("first"));
    p.Post([&] {
      log.push_back("second");
      p.Post(note("after the end"));
      p.EndNow(3);
      p.Yield();
    });
    log.push_back("handler end");
  });
  auto other = p.NewTimer(note("other"));
  timer->SetInterval(10);
  other->SetInterval(TypeParam::kVirtualTime ? 10 : 200);  // fake: at the end
  ASSERT_TRUE(RunUntil(this->d_, [&] { return log.size() >= 4; }));
  p.Post(note("late"));
  this->d_.Pass(300ms);
  EXPECT_EQ(log, (std::vector<std::string>{"handler", "handler end", "first",
                                           "second"}));
}

TYPED_TEST(PlatformContractTest, FilesAreMadeOnlyInExistingFolders) {
  Platform& p = this->d_.p;
  const std::string folder = this->d_.folder, file = folder + "/log.txt";
  const std::string binary("t\0o\r\n\xff", 6);
  // One file step by step, and what it reads back after each (nothing: it
  // cannot be opened).
  const std::pair<std::function<bool()>, std::optional<std::string>> steps[] = {
      {[] { return false; }, std::nullopt},
      {[&] { return p.AppendToFile(file, "one\r\n"); }, "one\r\n"},
      {[&] { return p.AppendToFile(file, binary); }, "one\r\n" + binary},
      {[&] { return p.WriteFile(file, "x"); }, "x"},
      {[&] { return p.WriteFile(file, ""); }, ""},
  };
  for (const auto& [step, after] : steps) {
    EXPECT_EQ(step(), after.has_value());
    EXPECT_EQ(p.ReadFile(file), after);
    EXPECT_EQ(p.CanOpenForReading(file), after.has_value());
  }
  // No folder is ever created, and a folder is no file.
  for (const std::string& path : {folder + "/missing/a.log", folder}) {
    EXPECT_FALSE(p.AppendToFile(path, "x")) << path;
    EXPECT_FALSE(p.WriteFile(path, "x")) << path;
    EXPECT_FALSE(p.CanOpenForReading(path)) << path;
    EXPECT_EQ(p.ReadFile(path), std::nullopt) << path;
  }
  ASSERT_TRUE(p.WriteFile(file, std::string(kMaxReadFileBytes, 'x')));
  EXPECT_EQ(p.ReadFile(file).value_or("").size(), kMaxReadFileBytes);
  ASSERT_TRUE(p.AppendToFile(file, "x"));
  EXPECT_EQ(p.ReadFile(file), std::nullopt) << "above the limit";
}

// ---- The real platform only ----

TEST(PosixPlatformContractTest, StartProcessRunsExecutableFilesWithoutWaiting) {
  RealDriver d;
  ASSERT_FALSE(d.folder.empty());
  // The runnable script leaves its mark half a second after it started.
  const std::string run = d.folder + "/run.sh", plain = d.folder + "/plain.sh";
  std::ofstream(run) << "#!/bin/sh\nsleep 0.5\ntouch \"$0.ran\"\n";
  std::ofstream(plain) << "#!/bin/sh\n";
  fs::permissions(run, fs::perms::owner_all);
  for (const auto& path : {d.folder + "/missing.sh", plain, d.folder}) {
    EXPECT_FALSE(d.p.StartProcess(path, kWindowHidden)) << path;
  }
  ASSERT_TRUE(d.p.StartProcess(run, kWindowNormalFocus));
  EXPECT_FALSE(fs::exists(run + ".ran")) << "waited for the process";
  EXPECT_TRUE(RunUntil(d, [&] { return fs::exists(run + ".ran"); }));
}

TEST(PosixPlatformContractTest,
     ProgramFolderAndSingleCopyFollowTheRunningBinary) {
  PosixPlatform p(/*exit_process=*/false);
  const fs::path binary = fs::canonical(program_invocation_name);
  EXPECT_EQ(p.ProgramFolder(), binary.parent_path().string());
  EXPECT_FALSE(p.AnotherInstanceRunning());
  EXPECT_FALSE(p.AnotherInstanceRunning());  // never finds itself
  // A second copy of this binary, started while this one runs, finds it.
  std::signal(SIGCHLD, SIG_DFL);  // to learn its answer
  const pid_t pid = ::fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) ::_exit(PosixPlatform(false).AnotherInstanceRunning() ? 0 : 1);
  int status = -1;
  ASSERT_EQ(::waitpid(pid, &status, 0), pid);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

}  // namespace
}  // namespace platform
