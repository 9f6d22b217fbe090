// The shutdown controller in virtual time: the countdown and its shutdown
// flag, the exit timer that starts EXIT.EXE, and the end-program timer. The
// all-clear is followed through the whole program in
// power_failure_scenario_test.cc.
#include "power/shutdown_controller.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "tests/unit/program_fixture.h"

namespace power {
namespace {

using kovran_testing::ControllerRig;
using kovran_testing::Left;
using kovran_testing::Text;
using ::testing::ElementsAre;
using namespace std::chrono_literals;
using Duration = platform::FakePlatform::Duration;

constexpr char kExitExe[] = "/kovran/EXIT.EXE";
constexpr char kStopcon[] = "/kovran/STOPCON.BAT";
constexpr char kOn[] = "ENABLESHUT:1\r\n";

// Starts a countdown of `delay` seconds 0.4 s after start-up, as the power
// watch does: DELAYSECONDS first, then PENCEREKUR, which raises the alert and
// logs the detail text.
void StartCountdown(ControllerRig& r, int16_t delay) {
  r.main.Load();
  r.AdvanceTo(400ms);
  r.s.DETAILTEXT = "Mains failure";
  r.s.DELAYSECONDS = delay;
  r.main.parts.PENCEREKUR();
  EXPECT_THAT(r.Log(), ElementsAre("New Start /started", "Mains failure"));
}

// Runs on until the program ends, which must be at the exit timer's 30th tick
// after a flag set at `flag_at`: the first of them is the first whole second
// not before the flag (the exit timer ticks after the countdown). There it has
// started EXIT.EXE, or logged that it could not, and unloaded the main window.
void ExpectEndAfterFlagAt(ControllerRig& r, Duration flag_at,
                          bool exit_fails = false) {
  r.fake.Advance(3600s);
  ASSERT_TRUE(r.fake.ended());
  EXPECT_EQ(r.fake.Now(),
            std::chrono::ceil<std::chrono::seconds>(flag_at) + 29s);
  EXPECT_EQ(r.Log().back(), "QueryUnload Program ended");
  EXPECT_EQ(r.LogCount(std::string(kExitExe) + " " + Text(52)),
            exit_fails ? 1 : 0);
  ASSERT_EQ(r.fake.starts.size(), exit_fails ? 0u : 1u);
  if (exit_fails) return;
  EXPECT_EQ(r.fake.starts[0].command_line, kExitExe);
  EXPECT_EQ(r.fake.starts[0].window_style, platform::kWindowNormalFocus);
}

// A 300 s countdown started at 10:00:00.4 shows 299 s left at its first tick,
// sets the flag at the tick of 10:04:57.4 (4 s left at the one before), and
// the exit timer's 30th tick after the flag, at 10:05:27, starts EXIT.EXE.
// Each row starts at its own time of day, may disturb the road once, and
// checks the alarm text at one moment and the flag on both sides of its tick.
// (The mains coming back are followed through the whole program.)
TEST(ShutdownControllerTest, CountdownTimeline) {
  using Act = std::function<void(ControllerRig&)>;
  const Act clock_back = [](ControllerRig& r) {
    r.fake.SetWallClock(r.fake.Today(), r.fake.SecondsSinceMidnight() - 3600);
  };
  const Act restart_70 = [](ControllerRig& r) {
    r.s.DELAYSECONDS = 70;
    r.main.parts.PENCEREKUR();
  };
  const Act stale_exit_count = [](ControllerRig& r) { r.s.EXITCOUNT = 29; };
  const Act saymasifir = [](ControllerRig& r) { r.main.parts.SAYMASIFIR(); };
  const struct {
    const char* name;
    double wall_start;  // seconds since midnight at start-up
    Duration act_at;
    Act act;
    Duration probe_at;
    std::string alarm;  // at probe_at
    Duration flag_at;
  } cases[] = {
      {"undisturbed", 36000, 0s, nullptr, 1400ms, Left(299), 297400ms},
      {"across midnight", 86300, 0s, nullptr, 100400ms, Left(200), 297400ms},
      {"wall clock back an hour", 36000, 150s, clock_back, 150400ms, Left(150),
       297400ms},
      {"exit count left over", 36000, 500ms, stale_exit_count, 1400ms,
       Left(299), 297400ms},
      {"second PENCEREKUR, now 70 s", 36000, 100500ms, restart_70, 101500ms,
       Left(69), 167500ms},
      {"SAYMASIFIR alone", 36000, 100500ms, saymasifir, 101400ms, Left(299),
       397400ms},
      {"PENCEREKUR after the flag", 36000, 310s, restart_70, 311s, Left(69),
       297400ms},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ControllerRig r;
    r.fake.SetWallClock({2026, 11, 23}, c.wall_start);
    StartCountdown(r, 300);
    const auto act_by = [&](Duration t) {
      if (!c.act || c.act_at <= r.fake.Now() || c.act_at > t) return;
      r.AdvanceTo(c.act_at);
      c.act(r);
    };
    std::vector<std::pair<Duration, std::string>> checks = {
        {c.probe_at, c.alarm},
        {c.flag_at - 1ms, Left(4)},
        {c.flag_at, Text(25)}};
    std::sort(checks.begin(), checks.end());
    for (const auto& [at, alarm] : checks) {
      act_by(at);
      r.AdvanceTo(at);
      EXPECT_EQ(r.s.ALARMTEXT, alarm) << at / 1ms << " ms";
      EXPECT_EQ(r.s.SHUTDOWNFLAG, at >= c.flag_at ? 1 : 0) << at / 1ms;
    }
    act_by(3600s);
    ExpectEndAfterFlagAt(r, c.flag_at);
  }
}

// When a countdown started 0.4 s after start-up sets its flag, if ever, and
// when the program ends. Countdowns of 4 s or less end at their first tick;
// one without a length (a notice right after start) never ends; one whose
// ticks were held up past its last seconds (a long poll) has run out; with
// ENABLESHUT 0 the countdown only keeps the alarm text empty.
TEST(ShutdownControllerTest, HowCountdownsEnd) {
  const struct {
    const char* settings;
    int16_t delay;
    Duration flag_at;         // 0: never
    bool held = false;        // no countdown tick from 2 s to 20 s
    bool exit_fails = false;  // EXIT.EXE cannot be started
  } cases[] = {
      {kOn, 1, 1400ms},
      {kOn, 3, 1400ms},
      {kOn, 4, 1400ms},
      {kOn, 5, 2400ms},
      {kOn, 3, 1400ms, false, true},
      {kOn, 10, 21s, true},
      {kOn, 0, 0ms},
      {kOn, -32768, 0ms},
      {"ENABLESHUT: 2\r\n", 10, 7400ms},
      {"ENABLESHUT:0\r\n", 10, 0ms},
      {"ENABLESHUT:\r\n", 10, 0ms},
      {"", 10, 0ms},
      {"ENABLESHUT:no\r\n", 10, 0ms},
      {"ENABLESHUT: 0.0\r\n", 10, 0ms},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.settings << c.delay << " s");
    ControllerRig r(c.settings);
    if (c.exit_fails) r.fake.failing_starts.insert(kExitExe);
    StartCountdown(r, c.delay);
    r.s.ALARMTEXT = "from before";
    if (c.held) {
      r.AdvanceTo(2s);
      r.main.Timer3->SetEnabled(false);
      r.AdvanceTo(20s);
      r.main.Timer3->SetEnabled(true);
    }
    if (c.flag_at == 0ms) {
      r.AdvanceTo(600s);
      EXPECT_EQ(r.s.SHUTDOWNFLAG, 0);
      // Switched off, the countdown clears the text; without a length it
      // leaves it alone.
      EXPECT_EQ(r.s.ALARMTEXT, c.delay > 0 ? "" : "from before");
      continue;
    }
    r.AdvanceTo(c.flag_at - 1ms);
    EXPECT_EQ(r.s.SHUTDOWNFLAG, 0);
    r.AdvanceTo(c.flag_at);
    EXPECT_EQ(r.s.SHUTDOWNFLAG, 1);
    EXPECT_EQ(r.s.ALARMTEXT, Text(25));
    // Ticks past the end change nothing once the flag is set.
    r.AdvanceTo(c.flag_at + 8s);
    r.s.ALARMTEXT = "left alone";
    r.AdvanceTo(c.flag_at + 13s);
    EXPECT_EQ(r.s.ALARMTEXT, "left alone");
    ExpectEndAfterFlagAt(r, c.flag_at, c.exit_fails);
  }
}

// The end-program timer, armed by a local window's "ENDPROGRAM" (6000 ms) or
// the local control port's "EXITPROGRAM". Off the NT family it closes the
// SNMP manager and the server socket and ends; on it the program runs as a
// service and STOPCON.BAT, started hidden at every tick (a failure logged each
// time), has to end it from outside.
TEST(ShutdownControllerTest, EndProgramTimer) {
  for (bool nt : {false, true}) {
    for (bool stopcon_fails : {false, true}) {
      SCOPED_TRACE(testing::Message() << "NT " << nt << ", " << stopcon_fails);
      ControllerRig r;
      if (nt) r.fake.platform_number = platform::kPlatformNt;
      r.fake.files["/kovran/CRKOVRA.BAT"] = "installed";
      if (stopcon_fails) r.fake.failing_starts.insert(kStopcon);
      std::string closed;
      r.main.parts.CloseSnmpManager = [&] { closed += "manager "; };
      r.main.parts.CloseServerSocket = [&] { closed += "server"; };
      r.main.Load();
      r.main.Timer6->SetInterval(6000);
      r.fake.Advance(18s);
      EXPECT_EQ(r.fake.ended(), !nt);
      EXPECT_EQ(r.fake.Now(), nt ? 18s : 6s);
      EXPECT_EQ(closed, nt ? "" : "manager server");
      EXPECT_EQ(r.LogCount("QueryUnload Program ended"), nt ? 0 : 1);
      EXPECT_EQ(r.LogCount(std::string(kStopcon) + " " + Text(52)),
                nt && stopcon_fails ? 3 : 0);
      ASSERT_EQ(r.fake.starts.size(), nt && !stopcon_fails ? 3u : 0u);
      for (const auto& start : r.fake.starts) {
        EXPECT_EQ(start.command_line, kStopcon);
        EXPECT_EQ(start.window_style, platform::kWindowHidden);
      }
    }
  }
}

}  // namespace
}  // namespace power
