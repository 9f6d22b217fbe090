#include "power/shutdown_controller.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "frame/numeric.h"
#include "power/main_tick.h"

namespace power {

namespace {
// Ticks of the exit timer from the shutdown flag to EXIT.EXE.
constexpr int kExitTicks = 30;
// A countdown tick that comes more than this after the one before (or after
// the countdown's start) shows a gap: the PC slept or hibernated (on Windows
// the steady clock counts on through both), or the process was stopped or
// starved. Nothing the program itself does keeps the countdown's ticks away
// that long: the waits for an SNMP reply and for a name's resolution serve
// the timers meanwhile, and the longest work of one handler, reading a
// settings file at its 64 MiB limit, takes well under a second.
constexpr double kGapSeconds = 5;
// Sums of one-second ticks on the steady clock may fall short by a rounding.
constexpr double kTickSlack = 0.001;
}  // namespace

ShutdownController::ShutdownController(frame::MainWindow& main)
    : main_(main), s_(main.state) {
  frame::Parts& parts = main.parts;
  parts.SAYMASIFIR = [this] { SAYMASIFIR(); };
  parts.PENCEREKUR = [this] { PENCEREKUR(); };
  parts.ACIL = [this] { ACIL(); };
  parts.NoticeAlert = [this] { NoticeAlert(); };
  parts.FreshReading = [this](double sent_at) { FreshReading(sent_at); };
  parts.timer_expiry[3] = [this] { Timer3_Timer(); };
  parts.timer_expiry[4] = [this] { Timer4_Timer(); };
  parts.timer_expiry[6] = [this] { Timer6_Timer(); };
  parts.timer_expiry[7] = [this] { Timer7_Timer(); };
}

void ShutdownController::SAYMASIFIR() {
  const double now = main_.platform.SecondsSinceMidnight();
  s_.STARTTIME = static_cast<int32_t>(std::floor(now));
  start_fraction_ = now - std::floor(now);
  start_steady_ = main_.platform.SteadySeconds();
}

void ShutdownController::PENCEREKUR() {
  SAYMASIFIR();
  last_tick_ = start_steady_;
  main_.Timer3->SetEnabled(true);
  main_.Timer3->SetInterval(1000);
  ACIL();
}

// Any alert takes over from a notice's all-clear, so that a power event that
// begins within its 15 s does not get a "CLOSE" in its middle.
void ShutdownController::ACIL() {
  if (notice_all_clear_) {
    main_.Timer4->SetEnabled(false);
    main_.Timer4->SetInterval(0);
    notice_all_clear_ = false;
  }
  s_.EMERGENCYTEXT = "1";
  s_.LOGLINE = s_.DETAILTEXT;
  main_.WRITELOG();
}

void ShutdownController::NoticeAlert() {
  ACIL();
  main_.StartAllClearTimer();
  notice_all_clear_ = true;
}

void ShutdownController::FreshReading(double poll_sent_at) {
  if (poll_sent_at > fresh_after_) held_ = false;
}

// A poll sent later than kGapSeconds after the last tick before a gap went
// out after the gap: had the program been running then, the countdown would
// have ticked in between. A reply to a poll sent before it tells nothing of
// what happened meanwhile.
void ShutdownController::NoteTick(double now) {
  const double since = now - last_tick_;
  last_tick_ = now;
  if (since > kGapSeconds) {
    held_ = true;
    fresh_after_ = now - since + kGapSeconds;
    held_for_ = 0;
    if (s_.SHUTDOWNFLAG == 1) return;
    s_.LOGLINE = "The countdown was held up for " +
                 std::to_string(std::lround(since)) +
                 " s (the PC slept or the program was stopped): the shutdown "
                 "waits for a fresh reading of the UPS, at most " +
                 std::to_string(std::lround(ReplyWatchdogSeconds(main_))) +
                 " s";
    main_.WRITELOG();
  } else if (held_ && s_.STOPPED == 0) {
    held_for_ += since;
  }
}

// The hold ends with a fresh reading or after one reply watchdog period of
// watching, the time the program gives any answer: a PC on battery is kept
// from its shutdown no longer than that.
bool ShutdownController::Held() {
  if (held_ && held_for_ + kTickSlack >= ReplyWatchdogSeconds(main_)) {
    held_ = false;
  }
  return held_;
}

int32_t ShutdownController::ElapsedSeconds() {
  const double since = main_.platform.SteadySeconds() - start_steady_;
  return static_cast<int32_t>(std::floor(start_fraction_ + since));
}

// A countdown needs a length: one restarted while DELAYSECONDS is still 0
// (no power failure has given it one) never reaches the final phase,
// whatever SAYMASIFIR does to its start meanwhile. Every power failure gives
// a length of at least 3 s. A countdown found past its end has run out, but
// after a gap the final phase waits for a fresh reading (Held): the mains may
// have come back while the PC slept. Once the flag is set, ticks past the end
// change nothing.
void ShutdownController::Timer3_Timer() {
  NoteTick(main_.platform.SteadySeconds());
  if (frame::NumericValue(s_.SETTINGS[frame::ENABLESHUT]) == 0) {
    s_.ALARMTEXT.clear();
    return;
  }
  if (s_.DELAYSECONDS <= 0) return;
  const int32_t left = s_.DELAYSECONDS - ElapsedSeconds();
  if (left < 0 && s_.SHUTDOWNFLAG == 1) return;
  if (left < 4 && (s_.SHUTDOWNFLAG == 1 || !Held())) {
    s_.ALARMTEXT = s_.Message(25);
    s_.SHUTDOWNFLAG = 1;
    return;
  }
  s_.ALARMTEXT = s_.Message(26) + " " + std::to_string(std::max(left, 0)) +
                 " " + s_.Message(27);
}

void ShutdownController::Timer4_Timer() {
  notice_all_clear_ = false;
  main_.Timer4->SetEnabled(false);
  main_.Timer4->SetInterval(0);
  s_.DETAILTEXT = s_.Message(28);
  s_.EMERGENCYTEXT = "0";
  for (int i = 1; i <= 3; ++i) s_.WINDOWMSGS[i] = "CLOSE";
}

void ShutdownController::Timer6_Timer() {
  if (main_.platform.PlatformNumber() == platform::kPlatformNt) {
    // The timer stays armed: STOPCON.BAT is started again at every tick
    // until it has ended the service from outside.
    main_.YUKLE(main_.ProgramFile("STOPCON.BAT"), platform::kWindowHidden);
    return;
  }
  main_.parts.CloseSnmpManager();
  main_.parts.CloseServerSocket();
  main_.UnloadMainWindow();
  main_.EndAtOnce(frame::kExitNormal);
}

// EXIT.EXE is started through YUKLE, so a start that fails is logged the
// same way as a batch file's; the program ends all the same.
void ShutdownController::Timer7_Timer() {
  if (s_.SHUTDOWNFLAG != 1) {
    s_.EXITCOUNT = 0;
    return;
  }
  if (++s_.EXITCOUNT < kExitTicks) return;
  main_.YUKLE(main_.ProgramFile("EXIT.EXE"), platform::kWindowNormalFocus);
  main_.UnloadMainWindow();
  main_.EndAtOnce(frame::kExitNormal);
}

}  // namespace power
