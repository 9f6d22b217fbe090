// The main tick in virtual time: the pace of the server link's attempts,
// the SNMP poll cycle against a scripted SNMP manager, and the reply
// watchdog's SNMP branch.
#include "power/main_tick.h"

#include <tuple>

#include "tests/unit/program_fixture.h"

namespace kovran_testing {
namespace {

using Times = std::vector<long long>;

// The program, loaded, its SNMP manager played by the test: every poll
// answers at once with `v1` and `v2` (empty: that value did not come), the
// first after `first_poll_takes`. Calls are recorded in virtual ms.
struct AgentRig : ProgramRig {
  explicit AgentRig(const std::string& settings) : ProgramRig(kOn + settings) {
    main.parts.POLLSNMP = [this] {
      polls.push_back(fake.Now() / 1ms);
      if (polls.size() == 1) fake.Advance(first_poll_takes);
      std::tie(s.SNMPVALUES[1], s.SNMPVALUES[2]) = std::tie(v1, v2);
    };
    main.parts.OPENSNMP = [this] { return open; };
    main.parts.PowerEvaluation = [this](const std::string& a,
                                        const std::string& b) {
      evaluations.push_back(fake.Now() / 1ms);
      evaluated = a + "/" + b;
    };
    program.Load();
  }

  std::string v1, v2, evaluated;
  bool open = true;
  Duration first_poll_takes{0};
  Times polls, evaluations;
};

// The first tick polls in the mode CONNECTION names; the next tick, the
// polling time after a server-mode tick or a second after an SNMP poll, runs
// the other mode, switched to in between.
TEST(MainTickTest, ModeIsChosenOnEveryTickAndPacedByThePollingTime) {
  const struct {
    const char* lines;
    bool snmp;
    int next_ms;
  } cases[] = {
      {"CONNECTION:SNMP\r\nPOLLINGTIME:10\r\n", true, 1000},
      {"CONNECTION:SNMPv2\r\n", true, 1000},
      {"CONNECTION:snmp\r\nPOLLINGTIME:10\r\n", false, 10000},
      {"CONNECTION: SNMP\r\nPOLLINGTIME:120\r\n", false, 12000},
      {"CONNECTION:SNM\r\nPOLLINGTIME: 10\r\n", false, 1000},
      {"POLLINGTIME:-5\r\n", false, 1000},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.lines);
    AgentRig r(c.lines);
    r.AdvanceTo(1s);
    EXPECT_EQ(r.server().connects(), c.snmp ? 0 : 1);
    r.s.SETTINGS[frame::CONNECTION] = c.snmp ? "PAVO" : "SNMP";
    r.AdvanceTo((1000 + c.next_ms - 1) * 1ms);
    EXPECT_EQ(r.polls.size() + r.server().connects(), 1u);
    r.AdvanceTo((1000 + c.next_ms) * 1ms);
    EXPECT_EQ(r.polls.size() + r.server().connects(), 2u);
  }
}

// A poll goes out; the tick a second later looks for its values and, when
// both came, evaluates them; the next poll follows the polling time after
// that look. With no values the tick looks every 500 ms until the watchdog
// fires (2P + 1) s after the poll has returned; when that falls on a look
// it runs in that tick's yield and the tick's own 500 ms stand, otherwise
// the next poll comes a second later.
TEST(MainTickTest, SnmpPollCycleFollowsThePollingTime) {
  const struct {
    const char *time, *v1, *v2;
    bool open;
    Duration first_poll_takes;
    Times polls, evaluations;
    int watchdog_ms;
    bool fired;  // the watchdog has fired by the last look
  } cases[] = {
      {"10", "0", "2", true, 0s, {1000, 12000}, {2000}, 21000, false},
      {"", "0", "2", true, 0s, {1000, 2500, 4000}, {2000, 3500}, 1000, true},
      {"10", "1", "", true, 0s, {1000, 12000}, {}, 21000, false},
      {"10", "", "5", true, 0s, {1000, 12000}, {}, 21000, false},
      {"10", "", "", true, 0s, {1000, 22500}, {}, 21000, true},
      {"10", "", "", false, 0s, {1000, 22500}, {}, 21000, true},
      {"10", "", "", true, 3s, {1000, 25500}, {}, 21000, true},
      {".7", "", "", true, 0s, {1000, 4400}, {}, 2400, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.time) + " " + c.v1 + "/" + c.v2);
    AgentRig r("CONNECTION:SNMP\r\nPOLLINGTIME:" + std::string(c.time) +
               "\r\n");
    std::tie(r.v1, r.v2, r.open, r.first_poll_takes, r.s.COMMOK) =
        std::tuple(c.v1, c.v2, c.open, c.first_poll_takes, 1);
    r.s.ALARMTEXT = "alarm";
    r.AdvanceTo(c.polls.back() * 1ms);
    EXPECT_EQ(std::tuple(r.polls, r.evaluations, r.main.Timer2->Interval()),
              std::tuple(c.polls, c.evaluations, c.watchdog_ms));
    EXPECT_EQ(r.evaluated, c.evaluations.empty() ? "" : "0/2");
    r.AdvanceTo((c.polls.back() + 1000) * 1ms);
    const bool answered = *c.v1 != 0 || *c.v2 != 0;
    EXPECT_EQ(r.s.STATUSTEXT, answered ? Text(32) : Text(23));
    EXPECT_EQ(r.main.Timer2->Enabled(), !answered);
    EXPECT_EQ(r.s.COMMOK, !c.fired);
    EXPECT_EQ(r.s.DETAILTEXT, c.fired && c.open ? Text(30) : Text(42));
    EXPECT_EQ(r.s.ALARMTEXT, c.fired && c.open ? "" : "alarm");
  }
}

// "3XX&" and "USE&" in place of the first value show their text, restart the
// countdown on battery with its length as it stands once per new text
// (logging it), and
// have the next poll sent half a second later; a reading in between does not
// make the same notice new again. Only "3XX&" clears COMMOK.
TEST(MainTickTest, NoticesStartTheCountdownOncePerNewText) {
  for (const std::string prefix : {"3XX&", "USE&"}) {
    SCOPED_TRACE(prefix);
    AgentRig r("CONNECTION:SNMP\r\nPOLLINGTIME:10\r\n");
    std::tie(r.v1, r.v2, r.s.DELAYSECONDS, r.s.COMMOK, r.s.ONBATTERY) =
        std::tuple(prefix + "UPS busy", "0", 200, 1, 1);
    r.AdvanceTo(5s);
    EXPECT_THAT(r.polls, ElementsAre(1000, 2500, 4000));
    EXPECT_EQ(std::tuple(r.s.DETAILTEXT, r.s.COMMOK, r.main.Timer2->Enabled(),
                         r.LogCount("UPS busy"), r.s.ALARMTEXT),
              std::tuple("UPS busy", prefix == "USE&", false, 1, Left(197)));
    r.v1 = prefix + "UPS overload";
    r.AdvanceTo(6500ms);
    std::tie(r.v1, r.v2) = std::tuple("0", "2");
    r.AdvanceTo(8s);  // a reading
    std::tie(r.v1, r.v2) = std::tuple(prefix + "UPS overload", "0");
    r.AdvanceTo(19s);  // polled at 18 s
    EXPECT_EQ(r.s.POLLPHASE, 0);
    EXPECT_EQ(r.LogCount("UPS overload"), 1);
  }
}

}  // namespace
}  // namespace kovran_testing
