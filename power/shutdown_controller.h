// The shutdown controller: everything between the power watch's decision
// that the PC must go down and the end of the program. It owns SAYMASIFIR,
// PENCEREKUR and ACIL and the handlers of the countdown (Timer3), all-clear
// (Timer4), end-program (Timer6) and exit (Timer7) timers.
#ifndef KOVRAN_POWER_SHUTDOWN_CONTROLLER_H_
#define KOVRAN_POWER_SHUTDOWN_CONTROLLER_H_

#include "frame/main_window.h"

namespace power {

class ShutdownController {
 public:
  // Registers the procedures and timer handlers with `main`.
  explicit ShutdownController(frame::MainWindow& main);

  // STARTTIME := the current whole second since local midnight.
  void SAYMASIFIR();
  // Starts (or restarts) the countdown of DELAYSECONDS from this second.
  void PENCEREKUR();
  // Raises the alert for the local windows and logs the detail text.
  void ACIL();
  // A notice while no power event is in progress: the alert without a
  // countdown, ended by the all-clear 15 s later unless another alert comes
  // first.
  void NoticeAlert();
  // A reading of the UPS came from a poll sent at `poll_sent_at` (steady
  // clock): after a gap it lets the countdown reach its final phase.
  void FreshReading(double poll_sent_at);

  void Timer3_Timer();  // countdown tick
  void Timer4_Timer();  // all-clear
  void Timer6_Timer();  // end-program
  void Timer7_Timer();  // exit

  // Whole seconds since the countdown's start, as the countdown counts them.
  int32_t ElapsedSeconds();

 private:
  frame::MainWindow& main_;
  frame::ProgramState& s_;
  // The countdown's start on the steady clock, with the fraction of the
  // wall-clock second it began in. Elapsed time is counted from here, so a
  // countdown runs on across local midnight and is not moved when the wall
  // clock is set.
  double start_steady_ = 0;
  double start_fraction_ = 0;

  // Notes a countdown tick at `now` (steady clock): a gap holds the final
  // phase back; watching time since the gap counts towards its end.
  void NoteTick(double now);
  // Whether the final phase is held back by a gap.
  bool Held();

  double last_tick_ = 0;     // the last countdown tick, or the countdown's start
  bool held_ = false;
  double fresh_after_ = 0;   // readings of polls sent later than this count
  double held_for_ = 0;      // seconds of watching since the gap
  bool notice_all_clear_ = false;  // Timer4 was armed by NoticeAlert
};

}  // namespace power

#endif  // KOVRAN_POWER_SHUTDOWN_CONTROLLER_H_
