// The whole program in virtual time: countdowns carried past their end by a
// gap (the PC asleep, the process stopped), and notices that come outside a
// power event.
#include <algorithm>
#include <tuple>

#include "tests/unit/program_fixture.h"

namespace kovran_testing {
namespace {

// The UPS as the program reads it, in either mode: while `reading` is not
// empty, each attempt at the PAVO server is answered and each SNMP poll gets
// values. "battery" starts a countdown of 20 s (12 s in SNMP mode), "mains"
// ends it, "neutral" changes nothing (on battery, a code in no list); any
// other text is sent as it is.
struct UpsRig : ProgramRig {
  UpsRig(bool snmp, const std::string& polling)
      : ProgramRig(kOn + ("POLLINGTIME:" + polling + "\r\n") +
                   (snmp ? "CONNECTION:SNMP\r\nBACKUPTIME:0.2\r\nAGENTNO:1\r\n"
                           "TYPE:1\r\nBTNORMAL:2\r\nBTLOW:3\r\n"
                         : "")) {
    main.parts.POLLSNMP = [this] {
      const bool known = reading == "battery" || reading == "neutral";
      s.SNMPVALUES[1] = known ? "60" : reading == "mains" ? "0" : reading;
      s.SNMPVALUES[2] = reading.empty() ? "" : reading == "neutral" ? "9" : "2";
    };
    program.Load();
  }
  // Runs to `t`, answering each attempt at the server that started before.
  void RunTo(Duration t) {
    while (fake.Now() < t && !fake.ended()) {
      Serve();
      AdvanceTo(std::min(t, fake.Now() + 100ms));
    }
  }
  void Serve() {
    if (reading.empty() || server().state() != State::kConnecting) return;
    Answer(reading == "battery" ? Record("1000", "0020")
           : reading == "mains" ? Record("0000", "0000")
                                : reading + "\r\n");
  }
  std::string reading;
};

// Held from `stall_at` for `stall`, the program wakes to `then`: no flag
// before `quiet` after the wake, the flag by `flag_by` (0: never, and the
// all-clear comes instead). The reply watchdog's period bounds the wait:
// 18 s in server mode, 11 s in SNMP mode here, of watching: time while the
// watching is `stopped` (from the wake on) does not count.
TEST(PowerFailureScenarioTest, AfterAGapTheFinalPhaseWaitsForAFreshReading) {
  const struct {
    bool snmp;
    Duration stall_at, stall;
    const char* then;
    bool old_reply;  // the reply to the attempt under way comes at the wake
    Duration quiet, flag_by, stopped = 0s;
  } cases[] = {
      {false, 5500ms, 60s, "mains", false, 60s, 0s},
      // The values evaluated at the wake come from the poll sent before.
      {true, 7500ms, 60s, "battery", false, 5s, 7s},
      {false, 5500ms, 60s, "", false, 17999ms, 18s},
      {false, 5s, 14s, "", true, 17999ms, 18s},
      {false, 5500ms, 60s, "", false, 27999ms, 28s, 10s},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    UpsRig r(c.snmp, c.snmp ? "5" : "1");
    r.reading = "battery";
    r.RunTo(c.stall_at);
    ASSERT_TRUE(r.main.Timer3->Enabled());
    r.fake.Stall(c.stall);
    const Duration wake = r.fake.Now();
    r.fake.RunReady();
    if (c.old_reply) r.Serve();
    r.reading = c.then;
    r.s.STOPPED = c.stopped > 0s;
    r.RunTo(wake + c.stopped);
    r.s.STOPPED = 0;
    r.RunTo(wake + c.quiet);
    EXPECT_EQ(r.s.SHUTDOWNFLAG, 0);
    r.RunTo(wake + std::max(c.quiet, c.flag_by));
    EXPECT_EQ(r.s.SHUTDOWNFLAG, c.flag_by > 0s);
    EXPECT_EQ(r.s.WINDOWMSGS[1], c.flag_by > 0s ? "" : "CLOSE");
  }
}

// A notice ("USE&" from the server or the agent) at 10 s restarts the countdown
// of a power event in progress; outside one it raises the alert alone, ended by
// the all-clear 15 s later, unless a power event begins meanwhile. The length
// left over from an earlier outage (20 s) must not come back.
TEST(PowerFailureScenarioTest, ANoticeRestartsOnlyAPowerEventsCountdown) {
  const struct {
    bool snmp;
    const char* flags;  // LASTHEADER's flags 2..5 (server mode)
    int16_t on_battery, low, delay;
    bool running, event_next, restarts;
  } cases[] = {
      {false, "1000", 0, 0, 20, true, false, true},
      {false, "0010", 0, 0, 20, true, false, true},
      {false, "0000", 0, 0, 20, false, false, false},
      {false, "0000", 0, 0, 0, false, true, true},
      {true, "", 1, 0, 20, true, false, true},
      {true, "", 0, 1, 20, false, false, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    UpsRig r(c.snmp, "1");
    std::tie(r.s.ONBATTERY, r.s.BATTERYLOW, r.s.DELAYSECONDS) =
        std::tuple(c.on_battery, c.low, c.delay);
    r.s.LASTHEADER = Header(c.flags, "0020");
    if (c.running) r.main.parts.PENCEREKUR();
    r.reading = c.snmp ? "neutral" : "";
    r.RunTo(c.snmp ? 8500ms : 10s);
    r.reading = "USE&Self test";
    r.RunTo(c.snmp ? 10s : 10100ms);
    r.reading = c.snmp ? "neutral" : "";
    r.RunTo(15s);
    if (c.event_next) r.reading = "battery";
    r.RunTo(26s);
    EXPECT_EQ(r.s.WINDOWMSGS[1], c.restarts ? "" : "CLOSE");
    EXPECT_EQ(r.s.EMERGENCYTEXT, c.restarts ? "1" : "0");
    r.RunTo(60s);
    EXPECT_EQ(r.s.SHUTDOWNFLAG, c.restarts);
  }
}

}  // namespace
}  // namespace kovran_testing
