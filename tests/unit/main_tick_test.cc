// The main tick in virtual time: the pace of the server link's attempts,
// the SNMP poll cycle against a scripted SNMP manager, discovery requests,
// and the reply watchdog's SNMP branch.
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
      polls.push_back(NowMs());
      if (polls.size() == 1) fake.Advance(first_poll_takes);
      s.SNMPVALUES[1] = v1;
      s.SNMPVALUES[2] = v2;
    };
    main.parts.OPENSNMP = [this] { return open; };
    main.parts.DISCOVERAGENTS = [this] { discoveries.push_back(NowMs()); };
    main.parts.PowerEvaluation = [this](const std::string& a,
                                        const std::string& b) {
      evaluations.push_back(NowMs());
      evaluated = a + "/" + b;
    };
    program.Load();
  }

  std::string v1, v2, evaluated;
  bool open = true;
  Duration first_poll_takes{0};
  Times polls, evaluations, discoveries;
};

// While STOPPED is 1 nothing polls and the poll cycle is reset. The first
// tick after it polls in the mode CONNECTION names; the next tick, the
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
    r.s.STOPPED = 1;
    r.s.POLLPHASE = 2;
    r.AdvanceTo(2s);
    EXPECT_EQ(r.s.POLLPHASE, 0);
    r.s.STOPPED = 0;
    r.AdvanceTo(3s);
    EXPECT_EQ(r.server().connects(), c.snmp ? 0 : 1);
    r.s.SETTINGS[frame::CONNECTION] = c.snmp ? "PAVO" : "SNMP";
    r.AdvanceTo(3000ms + (c.next_ms - 1) * 1ms);
    EXPECT_EQ(r.polls.size() + r.server().connects(), 1u);
    r.AdvanceTo(3000ms + c.next_ms * 1ms);
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
    EXPECT_THAT(r.polls, ElementsAreArray(c.polls));
    EXPECT_THAT(r.evaluations, ElementsAreArray(c.evaluations));
    EXPECT_EQ(r.evaluated, c.evaluations.empty() ? "" : "0/2");
    EXPECT_EQ(r.main.Timer2->Interval(), c.watchdog_ms);
    r.AdvanceTo((c.polls.back() + 1000) * 1ms);
    const bool answered = *c.v1 != 0 || *c.v2 != 0;
    EXPECT_EQ(r.s.STATUSTEXT, answered ? Text(32) : Text(23));
    EXPECT_EQ(r.main.Timer2->Enabled(), !answered);
    EXPECT_EQ(r.s.COMMOK, !c.fired);
    EXPECT_EQ(r.s.DETAILTEXT, c.fired && c.open ? Text(30) : Text(42));
    EXPECT_EQ(r.s.ALARMTEXT, c.fired && c.open ? "" : "alarm");
  }
}

// "3XX&" and "USE&" in place of the first value show their text, start the
// countdown with its length as it stands once per new text (logging it), and
// have the next poll sent half a second later; a reading in between does not
// make the same notice new again. Only "3XX&" clears COMMOK.
TEST(MainTickTest, NoticesStartTheCountdownOncePerNewText) {
  for (const std::string prefix : {"3XX&", "USE&"}) {
    SCOPED_TRACE(prefix);
    AgentRig r("CONNECTION:SNMP\r\nPOLLINGTIME:10\r\n");
    std::tie(r.v1, r.v2, r.s.DELAYSECONDS, r.s.COMMOK) =
        std::tuple(prefix + "UPS busy", "0", 200, 1);
    r.AdvanceTo(5s);
    EXPECT_THAT(r.polls, ElementsAre(1000, 2500, 4000));
    EXPECT_EQ(r.s.DETAILTEXT, "UPS busy");
    EXPECT_EQ(r.s.COMMOK, prefix == "USE&");
    EXPECT_FALSE(r.main.Timer2->Enabled());
    EXPECT_EQ(r.LogCount("UPS busy"), 1);
    EXPECT_EQ(r.s.ALARMTEXT, Left(197));
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

// A discovery asked for while a poll is out waits for the next send (here
// after the watchdog at 22 s); while it collects, no tick polls and no
// watchdog fires; the first tick after it polls.
TEST(MainTickTest, DiscoveryRequestTakesThePlaceOfAPoll) {
  AgentRig r("CONNECTION:SNMP\r\nPOLLINGTIME:10\r\n");
  r.AdvanceTo(1s);
  r.s.DISCOVERREQUEST = 1;
  r.AdvanceTo(22500ms);
  EXPECT_FALSE(r.main.Timer2->Enabled());
  r.AdvanceTo(120s);
  EXPECT_THAT(r.discoveries, ElementsAre(22500));
  EXPECT_THAT(r.polls, ElementsAre(1000));
  r.s.DISCOVERREQUEST = 0;  // the discovery has ended; ticks keep x.5 s
  r.AdvanceTo(120500ms);
  EXPECT_THAT(r.polls, ElementsAre(1000, 120500));
}

}  // namespace
}  // namespace kovran_testing
