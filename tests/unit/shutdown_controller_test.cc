// The shutdown controller in virtual time: the countdown and its shutdown
// flag, the all-clear, the exit timer that starts EXIT.EXE, and the
// end-program timer.
#include "power/shutdown_controller.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "tests/unit/program_fixture.h"

namespace power {
namespace {

using kovran_testing::ControllerRig;
using kovran_testing::Left;
using kovran_testing::Ms;
using kovran_testing::ProgramRig;
using kovran_testing::Text;
using ::testing::ElementsAre;
using namespace std::chrono_literals;

constexpr char kExitExe[] = "/kovran/EXIT.EXE";
constexpr char kStopcon[] = "/kovran/STOPCON.BAT";

// Starts a countdown of `delay` seconds at 10:00:00.4, as the power watch
// does: DELAYSECONDS first, then PENCEREKUR.
void StartCountdownAt400(ControllerRig& r, int16_t delay,
                         const std::string& detail = "Mains failure") {
  r.main.Load();
  r.AdvanceTo(400ms);
  r.s.DETAILTEXT = detail;
  r.s.DELAYSECONDS = delay;
  r.main.parts.PENCEREKUR();
}

// The exit timer's 30th tick after a flag set at `flag_at` (not on a whole
// second) comes at whole second ceil(flag_at) + 29: 1 ms before, the program
// runs; at it, EXIT.EXE is started and the program has ended.
void ExpectEndAt(ControllerRig& r, std::chrono::milliseconds end_at) {
  r.AdvanceTo(end_at - 1ms);
  EXPECT_FALSE(r.fake.ended());
  EXPECT_TRUE(r.fake.starts.empty());
  r.AdvanceTo(end_at);
  ASSERT_TRUE(r.fake.ended());
  EXPECT_EQ(r.fake.exit_code(), frame::kExitNormal);
  ASSERT_EQ(r.fake.starts.size(), 1u);
  EXPECT_EQ(r.fake.starts[0].command_line, kExitExe);
  EXPECT_EQ(r.fake.starts[0].window_style, platform::kWindowNormalFocus);
  EXPECT_EQ(r.Log().back(), "QueryUnload Program ended");
}

TEST(ShutdownControllerTest, CountdownOfFiveMinutesEndsWithExitExe) {
  ControllerRig r;
  StartCountdownAt400(r, 300);
  EXPECT_EQ(r.s.STARTTIME, 10 * 3600);
  EXPECT_EQ(r.s.EMERGENCYTEXT, "1");
  EXPECT_THAT(r.Log(), ElementsAre("New Start /started", "Mains failure"));

  r.AdvanceTo(1399ms);
  EXPECT_EQ(r.s.ALARMTEXT, "");
  r.AdvanceTo(1400ms);
  EXPECT_EQ(r.s.ALARMTEXT, "Shutdown in 299 seconds");
  r.AdvanceTo(297399ms);
  EXPECT_EQ(r.s.ALARMTEXT, Left(4));
  EXPECT_EQ(r.s.SHUTDOWNFLAG, 0);
  r.AdvanceTo(297400ms);  // 10:04:57.4
  EXPECT_EQ(r.s.ALARMTEXT, Text(25));
  EXPECT_EQ(r.s.SHUTDOWNFLAG, 1);
  EXPECT_EQ(r.s.EXITCOUNT, 0);

  ExpectEndAt(r, 327s);  // 10:05:27
  EXPECT_THAT(r.Log(), ElementsAre("New Start /started", "Mains failure",
                                   "QueryUnload Program ended"));
  r.fake.Advance(60s);
  EXPECT_EQ(r.fake.starts.size(), 1u);
}

// Countdowns of 4 s or less reach the final phase at their first tick; once
// the flag is set, ticks past the end leave the alarm text alone.
TEST(ShutdownControllerTest,
     CountdownsOfFourSecondsOrLessEndAtTheFirstTick) {
  for (int16_t delay : {1, 2, 3, 4}) {
    SCOPED_TRACE(delay);
    ControllerRig r;
    StartCountdownAt400(r, delay);
    r.AdvanceTo(1399ms);
    EXPECT_EQ(r.s.SHUTDOWNFLAG, 0);
    EXPECT_EQ(r.s.ALARMTEXT, "");
    r.AdvanceTo(1400ms);
    EXPECT_EQ(r.s.SHUTDOWNFLAG, 1);
    EXPECT_EQ(r.s.ALARMTEXT, Text(25));
    r.AdvanceTo(10s);
    r.s.ALARMTEXT = "left alone";
    r.AdvanceTo(15s);
    EXPECT_EQ(r.s.ALARMTEXT, "left alone");
    ExpectEndAt(r, 31s);
  }
  ControllerRig r;
  StartCountdownAt400(r, 5);
  r.AdvanceTo(1400ms);
  EXPECT_EQ(r.s.ALARMTEXT, Left(4));
  EXPECT_EQ(r.s.SHUTDOWNFLAG, 0);
  r.AdvanceTo(2400ms);
  EXPECT_EQ(r.s.SHUTDOWNFLAG, 1);
}

// A countdown started without a length (a notice right after start, with
// DELAYSECONDS still 0 or below) never shows seconds and never ends the
// program: a busy UPS is no reason to switch the PC off.
TEST(ShutdownControllerTest, ACountdownWithoutLengthNeverEnds) {
  for (int16_t delay : {-32768, -1, 0}) {
    SCOPED_TRACE(delay);
    ControllerRig r;
    StartCountdownAt400(r, delay);
    r.AdvanceTo(600s);
    EXPECT_EQ(r.s.SHUTDOWNFLAG, 0);
    EXPECT_EQ(r.s.ALARMTEXT, "");
    EXPECT_FALSE(r.fake.ended());
  }
}

// Ticks held up over the last seconds (a long poll blocks the event thread)
// find the countdown past its end: it has run out and goes to the final
// phase at once.
TEST(ShutdownControllerTest, ACountdownWhoseTicksWereHeldUpRunsOut) {
  ControllerRig r;
  StartCountdownAt400(r, 10);
  r.AdvanceTo(1400ms);
  EXPECT_EQ(r.s.ALARMTEXT, Left(9));
  r.main.Timer3->SetEnabled(false);  // no tick from 2 s to 20 s
  r.AdvanceTo(20s);
  r.main.Timer3->SetEnabled(true);
  r.AdvanceTo(20999ms);
  EXPECT_EQ(r.s.SHUTDOWNFLAG, 0);
  r.AdvanceTo(21s);  // left is -11
  EXPECT_EQ(r.s.SHUTDOWNFLAG, 1);
  EXPECT_EQ(r.s.ALARMTEXT, Text(25));
  // The exit timer's tick at 21 s comes after the countdown's (made later),
  // so it is the first of the 30.
  ExpectEndAt(r, 50s);
}

TEST(ShutdownControllerTest, EnableShutDecidesWhetherTheCountdownEnds) {
  const struct {
    const char* line;
    bool ends;
  } cases[] = {
      {"ENABLESHUT:0\r\n", false},
      {"ENABLESHUT:\r\n", false},
      {"", false},
      {"ENABLESHUT:no\r\n", false},
      {"ENABLESHUT: 0.0\r\n", false},
      {"ENABLESHUT:1\r\n", true},
      {"ENABLESHUT: 2\r\n", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    ControllerRig r(c.line);
    r.main.Load();
    r.s.ALARMTEXT = "from before";
    r.AdvanceTo(400ms);
    r.s.DELAYSECONDS = 10;
    r.main.parts.PENCEREKUR();
    r.AdvanceTo(1400ms);
    EXPECT_EQ(r.s.ALARMTEXT, c.ends ? Left(9) : "");
    r.AdvanceTo(120s);
    EXPECT_EQ(r.fake.ended(), c.ends);
    if (c.ends) continue;
    EXPECT_EQ(r.s.SHUTDOWNFLAG, 0);
    EXPECT_TRUE(r.fake.starts.empty());
    // The countdown timer goes on ticking and keeps the text empty.
    EXPECT_TRUE(r.main.Timer3->Enabled());
    r.s.ALARMTEXT = "set elsewhere";
    r.AdvanceTo(120400ms);
    EXPECT_EQ(r.s.ALARMTEXT, "");
  }
}

// The power watch stops the countdown and starts the all-clear when the
// mains come back (here at 10:02:00).
TEST(ShutdownControllerTest, MainsReturnBeforeTheFlagStopsAndAllClears) {
  ControllerRig r;
  StartCountdownAt400(r, 300);
  r.AdvanceTo(120s);
  r.main.StopCountdownTimer();
  r.main.StartAllClearTimer();
  EXPECT_EQ(r.s.ALARMTEXT, Left(181));

  r.AdvanceTo(134999ms);
  EXPECT_EQ(r.s.ALARMTEXT, Left(181));
  EXPECT_EQ(r.s.DETAILTEXT, "Mains failure");
  EXPECT_EQ(r.s.EMERGENCYTEXT, "1");
  EXPECT_THAT(r.s.WINDOWMSGS, ElementsAre("", "", "", ""));
  r.AdvanceTo(135s);  // 10:02:15
  EXPECT_EQ(r.s.DETAILTEXT, Text(28));
  EXPECT_EQ(r.s.EMERGENCYTEXT, "0");
  EXPECT_THAT(r.s.WINDOWMSGS, ElementsAre("", "CLOSE", "CLOSE", "CLOSE"));

  // One shot: nothing more comes of either timer.
  r.s.DETAILTEXT = "On mains";
  r.s.WINDOWMSGS = {};
  r.AdvanceTo(3600s);
  EXPECT_EQ(r.s.DETAILTEXT, "On mains");
  EXPECT_THAT(r.s.WINDOWMSGS, ElementsAre("", "", "", ""));
  EXPECT_EQ(r.s.ALARMTEXT, Left(181));
  EXPECT_EQ(r.s.SHUTDOWNFLAG, 0);
  EXPECT_FALSE(r.fake.ended());
}

TEST(ShutdownControllerTest, MainsReturnAfterTheFlagDoNotStopTheEnd) {
  ControllerRig r;
  StartCountdownAt400(r, 300);
  r.AdvanceTo(300s);
  ASSERT_EQ(r.s.SHUTDOWNFLAG, 1);
  r.main.StopCountdownTimer();
  r.main.StartAllClearTimer();
  r.AdvanceTo(315s);
  EXPECT_EQ(r.s.EMERGENCYTEXT, "0");
  ExpectEndAt(r, 327s);
}

TEST(ShutdownControllerTest, FailureAfterTheMainsReturnedCountsAgain) {
  ControllerRig r;
  StartCountdownAt400(r, 300);
  r.AdvanceTo(120s);
  r.main.StopCountdownTimer();
  r.main.StartAllClearTimer();
  r.AdvanceTo(200500ms);
  ASSERT_EQ(r.s.EMERGENCYTEXT, "0");
  r.s.DELAYSECONDS = 60;
  r.main.parts.PENCEREKUR();
  EXPECT_EQ(r.s.EMERGENCYTEXT, "1");
  r.AdvanceTo(201500ms);
  EXPECT_EQ(r.s.ALARMTEXT, Left(59));
  r.AdvanceTo(257499ms);
  EXPECT_EQ(r.s.SHUTDOWNFLAG, 0);
  r.AdvanceTo(257500ms);
  EXPECT_EQ(r.s.SHUTDOWNFLAG, 1);
  ExpectEndAt(r, 287s);
}

TEST(ShutdownControllerTest, RestartCountsTheNewLengthFromItsOwnSecond) {
  ControllerRig r;
  StartCountdownAt400(r, 300);
  r.AdvanceTo(100500ms);
  EXPECT_EQ(r.s.ALARMTEXT, Left(200));
  r.s.DELAYSECONDS = 70;
  r.main.parts.PENCEREKUR();
  r.AdvanceTo(101499ms);
  EXPECT_EQ(r.s.ALARMTEXT, Left(200));
  r.AdvanceTo(101500ms);
  EXPECT_EQ(r.s.ALARMTEXT, Left(69));
  EXPECT_EQ(r.LogCount("Mains failure"), 2);
  r.AdvanceTo(167499ms);
  EXPECT_EQ(r.s.SHUTDOWNFLAG, 0);
  r.AdvanceTo(167500ms);
  EXPECT_EQ(r.s.SHUTDOWNFLAG, 1);
}

// After the flag a restart only brings the seconds back into the text.
TEST(ShutdownControllerTest, RestartAfterTheFlagKeepsTheEnd) {
  ControllerRig r;
  StartCountdownAt400(r, 300);
  r.AdvanceTo(310s);
  r.main.parts.PENCEREKUR();
  r.AdvanceTo(311s);
  EXPECT_EQ(r.s.ALARMTEXT, Left(299));
  EXPECT_EQ(r.s.SHUTDOWNFLAG, 1);
  ExpectEndAt(r, 327s);
}

TEST(ShutdownControllerTest, SaymasifirAloneMovesTheCountsStart) {
  ControllerRig r;
  StartCountdownAt400(r, 300);
  r.AdvanceTo(100500ms);
  r.main.parts.SAYMASIFIR();
  EXPECT_EQ(r.s.STARTTIME, 10 * 3600 + 100);
  r.AdvanceTo(101399ms);
  EXPECT_EQ(r.s.ALARMTEXT, Left(200));
  r.AdvanceTo(101400ms);
  EXPECT_EQ(r.s.ALARMTEXT, Left(299));
}

TEST(ShutdownControllerTest, CountdownRunsOnAcrossMidnight) {
  ControllerRig r;
  r.fake.SetWallClock({2026, 11, 23}, 86300);  // started at 23:58:20.4
  StartCountdownAt400(r, 300);
  r.AdvanceTo(99400ms);
  EXPECT_EQ(r.s.ALARMTEXT, Left(201));
  r.AdvanceTo(100400ms);  // 00:00:00.4 on the 24th
  EXPECT_EQ(r.s.ALARMTEXT, Left(200));
  r.AdvanceTo(297399ms);
  EXPECT_EQ(r.s.SHUTDOWNFLAG, 0);
  r.AdvanceTo(297400ms);
  EXPECT_EQ(r.s.SHUTDOWNFLAG, 1);
  ExpectEndAt(r, 327s);
}

TEST(ShutdownControllerTest, SettingTheWallClockDoesNotMoveTheCountdown) {
  for (double shift : {-3600.0, 3600.0, -36150.0, 60000.7}) {
    SCOPED_TRACE(shift);
    ControllerRig r;
    StartCountdownAt400(r, 300);
    r.AdvanceTo(150s);
    r.fake.SetWallClock(r.fake.Today(), r.fake.SecondsSinceMidnight() + shift);
    r.AdvanceTo(150400ms);
    EXPECT_EQ(r.s.ALARMTEXT, Left(150));
    r.AdvanceTo(297399ms);
    EXPECT_EQ(r.s.SHUTDOWNFLAG, 0);
    r.AdvanceTo(297400ms);
    EXPECT_EQ(r.s.SHUTDOWNFLAG, 1);
    ExpectEndAt(r, 327s);
  }
}

TEST(ShutdownControllerTest, AcilRaisesTheAlertAndLogsDetailsOfFiveOrMore) {
  const struct {
    const char* detail;
    bool logged;
  } cases[] = {
      {"Mains failure", true}, {"12345", true}, {"1234", false}, {"", false}};
  for (const auto& c : cases) {
    ControllerRig r;
    r.main.Load();
    r.s.DETAILTEXT = c.detail;
    r.main.parts.ACIL();
    EXPECT_EQ(r.s.EMERGENCYTEXT, "1");
    EXPECT_EQ(r.LogCount(c.detail), c.logged ? 1 : 0) << c.detail;
    EXPECT_EQ(r.Log().size(), c.logged ? 2u : 1u);
  }
}

TEST(ShutdownControllerTest, ExitExeThatCannotStartIsLoggedAndTheProgramEnds) {
  ControllerRig r;
  r.fake.failing_starts.insert(kExitExe);
  StartCountdownAt400(r, 3);
  r.AdvanceTo(30999ms);
  EXPECT_FALSE(r.fake.ended());
  r.AdvanceTo(31s);
  EXPECT_TRUE(r.fake.ended());
  EXPECT_EQ(r.fake.exit_code(), frame::kExitNormal);
  EXPECT_THAT(r.Log(), ElementsAre("New Start /started", "Mains failure",
                                   "/kovran/EXIT.EXE could not start",
                                   "QueryUnload Program ended"));
}

// On the NT family the program runs as a service, and STOPCON.BAT has to end
// it from outside; until then it is started again at every tick.
TEST(ShutdownControllerTest, EndProgramTimerOnNtStartsStopconAtEveryTick) {
  for (bool fails : {false, true}) {
    SCOPED_TRACE(fails);
    ControllerRig r;
    r.fake.platform_number = platform::kPlatformNt;
    r.fake.files["/kovran/CRKOVRA.BAT"] = "installed";
    if (fails) r.fake.failing_starts.insert(kStopcon);
    r.main.Load();
    r.main.Timer6->SetInterval(6000);
    r.AdvanceTo(5999ms);
    EXPECT_TRUE(r.fake.starts.empty());
    EXPECT_EQ(r.Log().size(), 1u);
    r.AdvanceTo(18s);
    EXPECT_FALSE(r.fake.ended());
    const std::string failed = std::string(kStopcon) + " " + Text(52);
    if (fails) {
      EXPECT_TRUE(r.fake.starts.empty());
      EXPECT_THAT(r.Log(),
                  ElementsAre("New Start /started", failed, failed, failed));
    } else {
      ASSERT_EQ(r.fake.starts.size(), 3u);
      for (const auto& start : r.fake.starts) {
        EXPECT_EQ(start.command_line, kStopcon);
        EXPECT_EQ(start.window_style, platform::kWindowHidden);
      }
      EXPECT_EQ(r.Log().size(), 1u);
    }
  }
}

// "ENDPROGRAM" of a local window arms 6000 ms, "EXITPROGRAM" of the local
// control port 4000 ms.
TEST(ShutdownControllerTest, EndProgramTimerOffNtClosesAndEnds) {
  for (int period : {6000, 4000}) {
    SCOPED_TRACE(period);
    ControllerRig r;
    std::vector<std::string> closed;
    r.main.parts.CloseSnmpManager = [&] { closed.push_back("manager"); };
    r.main.parts.CloseServerSocket = [&] { closed.push_back("server"); };
    r.main.Load();
    r.main.Timer6->SetInterval(period);
    r.AdvanceTo(Ms(period - 1));
    EXPECT_FALSE(r.fake.ended());
    EXPECT_TRUE(closed.empty());
    r.AdvanceTo(Ms(period));
    EXPECT_TRUE(r.fake.ended());
    EXPECT_EQ(r.fake.exit_code(), frame::kExitNormal);
    EXPECT_THAT(closed, ElementsAre("manager", "server"));
    EXPECT_THAT(r.Log(),
                ElementsAre("New Start /started", "QueryUnload Program ended"));
    EXPECT_TRUE(r.fake.starts.empty());
  }
}

TEST(ShutdownControllerTest, EndProgramTimerEndsWhenTheServerSocketWontClose) {
  ProgramRig r;
  r.program.Load();
  r.server().fail_close = true;
  r.main.Timer6->SetInterval(6000);
  r.AdvanceTo(6s);
  EXPECT_TRUE(r.fake.ended());
  EXPECT_EQ(r.Log().back(), "QueryUnload Program ended");
}

}  // namespace
}  // namespace power
