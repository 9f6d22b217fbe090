// The whole program in virtual time, fed notices that ask for no shutdown.
#include <tuple>

#include "tests/unit/program_fixture.h"

namespace kovran_testing {
namespace {

// A notice ("USE&" from the PAVO server, "3XX&" from the SNMP agent) right
// after start-up restarts a countdown that no power failure has given a
// length. The readings that follow restart it at every poll, as a mains
// record does, in the same whole second as a countdown tick (the notice half
// a second after the poll, the readings a quarter): it must never end the
// program.
TEST(PowerFailureScenarioTest, NoticeWithoutLengthNeverShutsDown) {
  for (const bool snmp : {false, true}) {
    SCOPED_TRACE(snmp ? "3XX&" : "USE&");
    ProgramRig r(std::string("ENABLESHUT:1\r\nPOLLINGTIME:1\r\n") +
                 (snmp ? "CONNECTION:SNMP\r\n" : ""));
    int polls = 0;
    r.main.parts.POLLSNMP = [&] {
      std::tie(r.s.SNMPVALUES[1], r.s.SNMPVALUES[2]) =
          std::tuple(polls++ == 0 ? "3XX&Agent busy" : "0", "2");
    };
    r.main.parts.PowerEvaluation = [&](const std::string&, const std::string&) {
      r.main.parts.SAYMASIFIR();
    };
    r.program.Load();
    if (!snmp) {
      r.AdvanceTo(1500ms);
      r.Answer("USE&UPS self test\r\n");
      for (Duration t = 2250ms; t < 120s && !r.fake.ended(); t += 1s) {
        r.AdvanceTo(t);
        r.Answer(Record("0000", "0000", "Mains OK") + "\r\n");
      }
    }
    r.AdvanceTo(120s);
    EXPECT_EQ(std::tuple(r.s.EMERGENCYTEXT, r.s.SHUTDOWNFLAG,
                         r.LogCount(snmp ? "Agent busy" : "UPS self test")),
              std::tuple("1", 0, 1));
  }
}

}  // namespace
}  // namespace kovran_testing
