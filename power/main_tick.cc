#include "power/main_tick.h"

#include "frame/numeric.h"

namespace power {

namespace {

int32_t Milliseconds(double seconds) {
  return static_cast<int32_t>(frame::RoundHalfEven(seconds * 1000));
}

}  // namespace

double PollingSeconds(const std::string& POLLINGTIME) {
  const double p = frame::NumericValue(POLLINGTIME.substr(0, 2));
  return p > 0 ? p : 0;
}

double ReplyWatchdogSeconds(const frame::MainWindow& main) {
  if (!main.SnmpMode()) return frame::kServerReplyWatchdogMs / 1000.0;
  return 2 * PollingSeconds(main.state.SETTINGS[frame::POLLINGTIME]) + 1;
}

MainTick::MainTick(frame::MainWindow& main) : main_(main), s_(main.state) {
  main.parts.timer_expiry[1] = [this] { Timer1_Timer(); };
  main.parts.timer_expiry[2] = [this] { Timer2_Timer(); };
}

// An expiry of Timer1 that comes due while a tick runs (it yields, and a
// poll may block for seconds) is not nested: it runs once, right after the
// tick, unless the tick has set the period anew, which starts the count
// again from that setting.
void MainTick::Timer1_Timer() {
  main_.Timer1->SetInterval(1000);
  if (s_.STOPPED == 1) {
    s_.POLLPHASE = 0;
    return;
  }
  if (main_.SnmpMode()) {
    SnmpStep();
  } else {
    ServerStep();
  }
}

void MainTick::PaceByPollingTime() {
  const double p = PollingSeconds(s_.SETTINGS[frame::POLLINGTIME]);
  if (p != 0) main_.Timer1->SetInterval(Milliseconds(p));
}

void MainTick::ServerStep() {
  PaceByPollingTime();
  main_.parts.PollStep();
}

void MainTick::SnmpStep() {
  if (s_.DISCOVERREQUEST == 2) return;
  if (s_.POLLPHASE == 0) s_.POLLPHASE = 1;
  if (s_.POLLPHASE == 1) {
    SendPoll();
  } else if (s_.POLLPHASE == 2) {
    LookForAnswer();
  }
}

void MainTick::SendPoll() {
  main_.platform.Yield();
  if (main_.ending()) return;
  if (s_.DISCOVERREQUEST == 1) {
    s_.DISCOVERREQUEST = 2;
    main_.parts.DISCOVERAGENTS();
    s_.POLLPHASE = 0;
    main_.Timer2->SetEnabled(false);
    return;
  }
  s_.SNMPVALUES[1].clear();
  s_.SNMPVALUES[2].clear();
  poll_sent_at_ = main_.platform.SteadySeconds();
  main_.parts.POLLSNMP();
  if (main_.ending()) return;
  s_.POLLPHASE = 2;
  main_.Timer2->SetInterval(Milliseconds(ReplyWatchdogSeconds(main_)));
  main_.Timer2->SetEnabled(true);
}

void MainTick::LookForAnswer() {
  main_.platform.Yield();
  if (main_.ending()) return;
  main_.Timer1->SetInterval(500);
  const std::string V1 = s_.SNMPVALUES[1];
  const std::string V2 = s_.SNMPVALUES[2];
  if (V1.empty() && V2.empty()) return;
  main_.Timer2->SetEnabled(false);
  s_.STATUSTEXT = s_.Message(32);
  if (V1.empty() || V2.empty()) return Tail();
  if (V1.starts_with("3XX&") || V1.starts_with("USE&")) return Notice(V1);
  main_.parts.PowerEvaluation(V1, V2);
  main_.parts.FreshReading(poll_sent_at_);
  Tail();
}

void MainTick::Notice(const std::string& V1) {
  s_.DETAILTEXT = V1.substr(4);
  s_.POLLPHASE = 0;
  if (V1.starts_with("3XX&")) s_.COMMOK = 0;
  if (V1 != s_.LASTSNMPTEXT) {
    s_.LASTSNMPTEXT = V1;
    // Only a power event is restarted by a notice: on mains (the state that
    // a mains return with a low battery leaves included) it is an alert.
    if (s_.ONBATTERY == 1) {
      main_.parts.PENCEREKUR();
    } else {
      main_.parts.NoticeAlert();
    }
  }
}

void MainTick::Tail() {
  PaceByPollingTime();
  s_.POLLPHASE = 1;
}

void MainTick::Timer2_Timer() {
  s_.POLLPHASE = 0;
  s_.COMMOK = 0;
  if (!main_.SnmpMode()) {
    main_.parts.ServerWatchdog();
    return;
  }
  s_.STATUSTEXT = s_.Message(23);
  s_.POLLPHASE = 1;
  main_.Timer1->SetInterval(1000);
  if (main_.parts.OPENSNMP()) {
    s_.DETAILTEXT = s_.Message(30);
    s_.ALARMTEXT.clear();
  }
}

}  // namespace power
