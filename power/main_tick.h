// The main tick: Timer1's handler, the program's heartbeat. It chooses the
// mode on every tick and paces the polls: the poll step of the server link in
// server mode, the poll cycle of the SNMP agent link in SNMP mode. Also the
// reply watchdog Timer2, whose server-mode branch belongs to the server link.
#ifndef KOVRAN_POWER_MAIN_TICK_H_
#define KOVRAN_POWER_MAIN_TICK_H_

#include <string>

#include "frame/main_window.h"

namespace power {

// The polling time in seconds: the numeric value of the first two characters
// of POLLINGTIME ("10" 10, "120" 12, " 10" 1, "" 0). A negative value counts
// as 0, so that neither the tick nor the watchdog can be switched off by it.
double PollingSeconds(const std::string& POLLINGTIME);

// The reply watchdog's period in the mode the settings select: 18 s in
// server mode, (2P + 1) s in SNMP mode.
double ReplyWatchdogSeconds(const frame::MainWindow& main);

class MainTick {
 public:
  // Registers the handlers of Timer1 and Timer2 with `main`.
  explicit MainTick(frame::MainWindow& main);

  void Timer1_Timer();  // the main tick
  void Timer2_Timer();  // the reply watchdog

 private:
  void ServerStep();
  void SnmpStep();
  // Phase 1 of the poll cycle: send a poll (or start a discovery).
  void SendPoll();
  // Phase 2: look for the values of the poll that was sent.
  void LookForAnswer();
  // A "3XX&" or "USE&" notice in place of the first value.
  void Notice(const std::string& V1);
  void Tail();
  // Sets Timer1 to the polling time, when that is not 0.
  void PaceByPollingTime();

  frame::MainWindow& main_;
  frame::ProgramState& s_;
  // When the poll under way was sent, on the steady clock.
  double poll_sent_at_ = 0;
};

}  // namespace power

#endif  // KOVRAN_POWER_MAIN_TICK_H_
