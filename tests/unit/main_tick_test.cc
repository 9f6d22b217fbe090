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
    main.parts.OPENSNMP = [] { return true; };
    main.parts.PowerEvaluation = [this](const std::string& a,
                                        const std::string& b) {
      evaluations.push_back(fake.Now() / 1ms);
      evaluated = a + "/" + b;
    };
    program.Load();
  }

  std::string v1, v2, evaluated;
  Duration first_poll_takes{0};
  Times polls, evaluations;
};

// The first tick polls in the mode CONNECTION names; the next tick, the
// polling time after a server-mode tick or a second after an SNMP poll, runs
// the other mode, switched to in between.
TEST(MainTickTest, ModeIsChosenOnEveryTickAndPacedByThePollingTime) {
  // settings, whether the first tick polls SNMP, the next tick's delay in ms
  const std::tuple<const char*, bool, int> cases[] = {
      {"CONNECTION:SNMP\r\nPOLLINGTIME:10\r\n", true, 1000},
      {"CONNECTION: SNMP\r\nPOLLINGTIME:120\r\n", false, 12000},
      {"POLLINGTIME:-5\r\n", false, 1000},
  };
  for (const auto& [lines, snmp, next_ms] : cases) {
    SCOPED_TRACE(lines);
    AgentRig r(lines);
    r.AdvanceTo(1s);
    EXPECT_EQ(r.server().connects(), snmp ? 0 : 1);
    r.s.SETTINGS[frame::CONNECTION] = snmp ? "PAVO" : "SNMP";
    r.AdvanceTo((1000 + next_ms - 1) * 1ms);
    EXPECT_EQ(r.polls.size() + r.server().connects(), 1u);
    r.AdvanceTo((1000 + next_ms) * 1ms);
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
  // v1, v2, first_poll_takes, the polls and evaluations by the last look, and
  // whether the watchdog has fired by then
  const std::tuple<const char*, const char*, Duration, Times, Times, bool>
      cases[] = {
          {"0", "2", 0s, {1000, 12000}, {2000}, false},
          {"1", "", 0s, {1000, 12000}, {}, false},
          {"", "", 3s, {1000, 25500}, {}, true},
      };
  for (const auto& [v1, v2, first_poll_takes, polls, evaluations, fired] :
       cases) {
    SCOPED_TRACE(std::string(v1) + "/" + v2);
    AgentRig r("CONNECTION:SNMP\r\nPOLLINGTIME:10\r\n");
    std::tie(r.v1, r.v2, r.first_poll_takes, r.s.COMMOK) =
        std::tuple(v1, v2, first_poll_takes, 1);
    r.s.ALARMTEXT = "alarm";
    r.AdvanceTo(polls.back() * 1ms);
    EXPECT_EQ(std::tuple(r.polls, r.evaluations, r.main.Timer2->Interval()),
              std::tuple(polls, evaluations, 21000));
    EXPECT_EQ(r.evaluated, evaluations.empty() ? "" : "0/2");
    r.AdvanceTo((polls.back() + 1000) * 1ms);
    const bool answered = *v1 != 0 || *v2 != 0;
    EXPECT_EQ(r.s.STATUSTEXT, answered ? Text(32) : Text(23));
    EXPECT_EQ(r.main.Timer2->Enabled(), !answered);
    EXPECT_EQ(r.s.COMMOK, !fired);
    EXPECT_EQ(r.s.DETAILTEXT, fired ? Text(30) : Text(42));
    EXPECT_EQ(r.s.ALARMTEXT, fired ? "" : "alarm");
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
    EXPECT_EQ(r.LogCount("UPS overload"), 1);
  }
}

}  // namespace
}  // namespace kovran_testing
