#include "power/shutdown_controller.h"

#include <cmath>
#include <string>

#include "frame/numeric.h"

namespace power {

namespace {
// Ticks of the exit timer from the shutdown flag to EXIT.EXE.
constexpr int kExitTicks = 30;
}  // namespace

ShutdownController::ShutdownController(frame::MainWindow& main)
    : main_(main), s_(main.state) {
  frame::Parts& parts = main.parts;
  parts.SAYMASIFIR = [this] { SAYMASIFIR(); };
  parts.PENCEREKUR = [this] { PENCEREKUR(); };
  parts.ACIL = [this] { ACIL(); };
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
  main_.Timer3->SetEnabled(true);
  main_.Timer3->SetInterval(1000);
  ACIL();
}

void ShutdownController::ACIL() {
  s_.EMERGENCYTEXT = "1";
  s_.LOGLINE = s_.DETAILTEXT;
  main_.WRITELOG();
}

int32_t ShutdownController::ElapsedSeconds() {
  const double since = main_.platform.SteadySeconds() - start_steady_;
  return static_cast<int32_t>(std::floor(start_fraction_ + since));
}

// A countdown needs a length: one restarted by a notice while DELAYSECONDS
// is still 0 (no power failure has given it one) never reaches the final
// phase, whatever SAYMASIFIR does to its start meanwhile; a busy or
// self-testing UPS is no reason to switch the PC off. Every power failure
// gives a length of at least 3 s. A countdown found past its end (its ticks
// were held up over its last seconds, by a long poll for instance) has run
// out: the UPS is on battery, so it goes to the final phase. Once the flag is
// set, ticks past the end change nothing.
void ShutdownController::Timer3_Timer() {
  if (frame::NumericValue(s_.SETTINGS[frame::ENABLESHUT]) == 0) {
    s_.ALARMTEXT.clear();
    return;
  }
  if (s_.DELAYSECONDS <= 0) return;
  const int32_t left = s_.DELAYSECONDS - ElapsedSeconds();
  if (left < 0 && s_.SHUTDOWNFLAG == 1) return;
  if (left < 4) {
    s_.ALARMTEXT = s_.Message(25);
    s_.SHUTDOWNFLAG = 1;
    return;
  }
  s_.ALARMTEXT =
      s_.Message(26) + " " + std::to_string(left) + " " + s_.Message(27);
}

void ShutdownController::Timer4_Timer() {
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
