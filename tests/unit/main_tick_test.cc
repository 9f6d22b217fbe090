// The main tick in virtual time: the pace of the server link's attempts,
// the SNMP poll cycle against a scripted SNMP manager, discovery requests,
// and the reply watchdog's SNMP branch.
#include "power/main_tick.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "tests/unit/program_fixture.h"

namespace power {
namespace {

using kovran_testing::kShutdownEnabled;
using kovran_testing::Ms;
using kovran_testing::ProgramRig;
using kovran_testing::Record;
using kovran_testing::Text;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using namespace std::chrono_literals;

// Plays the SNMP manager: every poll answers at once with `v1` and `v2`
// (an empty text is a value that did not come). Calls are recorded in
// virtual milliseconds.
struct FakeAgent {
  explicit FakeAgent(ProgramRig& rig) : rig(rig) {
    frame::Parts& parts = rig.main.parts;
    parts.POLLSNMP = [this] {
      polls.push_back(this->rig.NowMs());
      this->rig.s.SNMPVALUES[1] = v1;
      this->rig.s.SNMPVALUES[2] = v2;
    };
    parts.OPENSNMP = [this] { return open; };
    parts.DISCOVERAGENTS = [this] { discoveries.push_back(this->rig.NowMs()); };
    parts.PowerEvaluation = [this](const std::string& a, const std::string& b) {
      evaluations.push_back(this->rig.NowMs());
      evaluated = {a, b};
    };
  }

  ProgramRig& rig;
  std::string v1;
  std::string v2;
  bool open = true;
  std::vector<long long> polls;
  std::vector<long long> evaluations;
  std::vector<long long> discoveries;
  std::pair<std::string, std::string> evaluated;
};

std::string Settings(const std::string& lines) {
  return kShutdownEnabled + lines;
}

TEST(MainTickTest, ServerModeAttemptsComeEveryPollingTime) {
  const struct {
    const char* line;
    int period_ms;
  } cases[] = {
      {"POLLINGTIME:10\r\n", 10000},
      {"POLLINGTIME:120\r\n", 12000},
      {"POLLINGTIME: 10\r\n", 1000},
      {"POLLINGTIME:\r\n", 1000},
      {"", 1000},
      {"POLLINGTIME:-5\r\n", 1000},
      {"POLLINGTIME:abc\r\n", 1000},
      {"POLLINGTIME:7.9\r\n", 7000},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    ProgramRig r(Settings(c.line));
    r.program.Load();
    r.AdvanceTo(1s);
    EXPECT_EQ(r.server().connects(), 1);
    EXPECT_EQ(r.main.Timer1->Interval(), c.period_ms);
    r.Answer(Record("0000", "0000"));
    r.AdvanceTo(Ms(1000 + c.period_ms - 1));
    EXPECT_EQ(r.server().connects(), 1);
    r.AdvanceTo(Ms(1000 + c.period_ms));
    EXPECT_EQ(r.server().connects(), 2);
  }
}

TEST(MainTickTest, ModeIsChosenAnewOnEveryTick) {
  const struct {
    const char* line;
    bool snmp;
  } cases[] = {
      {"CONNECTION:SNMP\r\n", true},
      {"CONNECTION:SNMPv2\r\n", true},
      {"CONNECTION:snmp\r\n", false},
      {"CONNECTION: SNMP\r\n", false},
      {"CONNECTION:SNM\r\n", false},
      {"CONNECTION:PAVO\r\n", false},
      {"", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    ProgramRig r(Settings(c.line));
    FakeAgent agent(r);
    r.program.Load();
    r.AdvanceTo(1s);
    EXPECT_EQ(agent.polls.size(), c.snmp ? 1u : 0u);
    EXPECT_EQ(r.server().connects(), c.snmp ? 0 : 1);
    r.s.SETTINGS[frame::CONNECTION] = c.snmp ? "PAVO" : "SNMP";
    r.AdvanceTo(2s);
    EXPECT_EQ(agent.polls.size(), 1u);
    EXPECT_EQ(r.server().connects(), 1);
  }
}

TEST(MainTickTest, StoppedSuspendsWatchingInBothModes) {
  for (const char* mode : {"", "CONNECTION:SNMP\r\n"}) {
    SCOPED_TRACE(mode);
    ProgramRig r(Settings(std::string(mode) + "POLLINGTIME:10\r\n"));
    FakeAgent agent(r);
    r.program.Load();
    r.s.STOPPED = 1;
    r.s.POLLPHASE = 2;
    r.AdvanceTo(5s);
    EXPECT_THAT(agent.polls, IsEmpty());
    EXPECT_EQ(r.server().connects(), 0);
    EXPECT_EQ(r.s.POLLPHASE, 0);
    EXPECT_EQ(r.main.Timer1->Interval(), 1000);
    r.s.STOPPED = 0;
    r.AdvanceTo(5999ms);
    EXPECT_THAT(agent.polls, IsEmpty());
    EXPECT_EQ(r.server().connects(), 0);
    r.AdvanceTo(6s);
    EXPECT_EQ(agent.polls.size() + r.server().connects(), 1u);
  }
}

// A poll goes out, its values are evaluated on the next tick a second
// later, and the next poll follows the polling time after that evaluation.
TEST(MainTickTest, SnmpPollsAndEvaluationsFollowThePollingTime) {
  const struct {
    const char* line;
    std::vector<long long> polls;
    std::vector<long long> evaluations;
    int watchdog_ms;
  } cases[] = {
      {"POLLINGTIME:10\r\n",
       {1000, 12000, 23000, 34000},
       {2000, 13000, 24000},
       21000},
      {"POLLINGTIME:3\r\n",
       {1000, 5000, 9000, 13000},
       {2000, 6000, 10000},
       7000},
      {"", {1000, 2500, 4000, 5500}, {2000, 3500, 5000}, 1000},
      {"POLLINGTIME:-5\r\n",
       {1000, 2500, 4000, 5500},
       {2000, 3500, 5000},
       1000},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    ProgramRig r(Settings(std::string("CONNECTION:SNMP\r\n") + c.line));
    FakeAgent agent(r);
    agent.v1 = "0";
    agent.v2 = "2";
    r.program.Load();
    r.AdvanceTo(Ms(c.polls.back()));
    EXPECT_THAT(agent.polls, ElementsAreArray(c.polls));
    EXPECT_THAT(agent.evaluations, ElementsAreArray(c.evaluations));
    EXPECT_EQ(agent.evaluated,
              std::make_pair(std::string("0"), std::string("2")));
    EXPECT_TRUE(r.main.Timer2->Enabled());
    EXPECT_EQ(r.main.Timer2->Interval(), c.watchdog_ms);
    EXPECT_EQ(r.s.POLLPHASE, 2);
    r.AdvanceTo(Ms(c.polls.back() + 1000));
    EXPECT_EQ(r.s.STATUSTEXT, Text(32));
    EXPECT_FALSE(r.main.Timer2->Enabled());
    EXPECT_EQ(r.s.POLLPHASE, 1);
  }
}

TEST(MainTickTest, OneMissingValueIsNotEvaluated) {
  const std::pair<const char*, const char*> answers[] = {{"1", ""}, {"", "5"}};
  for (const auto& [v1, v2] : answers) {
    SCOPED_TRACE(std::string(v1) + "/" + v2);
    ProgramRig r(Settings("CONNECTION:SNMP\r\nPOLLINGTIME:10\r\n"));
    FakeAgent agent(r);
    agent.v1 = v1;
    agent.v2 = v2;
    r.program.Load();
    r.s.COMMOK = 1;
    r.s.ALARMTEXT = "alarm";
    r.AdvanceTo(2s);
    EXPECT_EQ(r.s.STATUSTEXT, Text(32));
    EXPECT_THAT(agent.evaluations, IsEmpty());
    EXPECT_EQ(r.s.COMMOK, 1);
    EXPECT_EQ(r.s.DETAILTEXT, Text(42));
    EXPECT_EQ(r.s.ALARMTEXT, "alarm");
    EXPECT_FALSE(r.main.Timer2->Enabled());
    r.AdvanceTo(11999ms);
    EXPECT_EQ(agent.polls.size(), 1u);
    r.AdvanceTo(12s);
    EXPECT_EQ(agent.polls.size(), 2u);
  }
}

// With no values the tick looks every 500 ms until the watchdog fires
// (2P + 1) s after the poll. When the watchdog falls on a look, it runs in
// that tick's yield and the tick's own 500 ms then stand; otherwise the
// next poll comes a second after it.
TEST(MainTickTest, WatchdogRestartsTheCycleWhenNoValuesCome) {
  const struct {
    const char* line;
    bool open;
    long long watchdog_at;
    long long next_poll_at;
  } cases[] = {
      {"POLLINGTIME:10\r\n", true, 22000, 22500},
      {"POLLINGTIME:10\r\n", false, 22000, 22500},
      {"", true, 2000, 2500},
      {"POLLINGTIME:.7\r\n", true, 3400, 4400},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.line) + (c.open ? " open" : " closed"));
    ProgramRig r(Settings(std::string("CONNECTION:SNMP\r\n") + c.line));
    FakeAgent agent(r);
    agent.open = c.open;
    r.program.Load();
    r.s.STATUSTEXT = "before";
    r.s.COMMOK = 1;
    r.s.ALARMTEXT = "alarm";
    r.AdvanceTo(Ms(c.watchdog_at - 1));
    EXPECT_EQ(r.s.STATUSTEXT, "before");
    EXPECT_EQ(r.s.COMMOK, 1);
    EXPECT_EQ(r.s.ALARMTEXT, "alarm");
    EXPECT_EQ(r.s.POLLPHASE, 2);
    r.AdvanceTo(Ms(c.watchdog_at));
    EXPECT_EQ(r.s.STATUSTEXT, Text(23));
    EXPECT_EQ(r.s.COMMOK, 0);
    EXPECT_EQ(r.s.POLLPHASE, 1);
    EXPECT_EQ(r.s.DETAILTEXT, c.open ? Text(30) : Text(42));
    EXPECT_EQ(r.s.ALARMTEXT, c.open ? "" : "alarm");
    r.AdvanceTo(Ms(c.next_poll_at - 1));
    EXPECT_EQ(agent.polls.size(), 1u);
    r.AdvanceTo(Ms(c.next_poll_at));
    EXPECT_THAT(agent.polls, ElementsAre(1000, c.next_poll_at));
  }
}

// The watchdog is armed when the poll returns, so a poll that takes 3 s
// (the loop runs other timers meanwhile) does not shorten it.
TEST(MainTickTest, SlowPollDoesNotShortenTheWatchdog) {
  ProgramRig r(Settings("CONNECTION:SNMP\r\nPOLLINGTIME:10\r\n"));
  FakeAgent agent(r);
  auto poll = r.main.parts.POLLSNMP;
  r.main.parts.POLLSNMP = [&r, poll] {
    poll();
    if (r.fake.Now() < 2s) r.fake.Advance(3s);
  };
  r.program.Load();
  r.s.STATUSTEXT = "before";
  r.AdvanceTo(24999ms);
  EXPECT_EQ(r.s.STATUSTEXT, "before");
  r.AdvanceTo(25s);
  EXPECT_EQ(r.s.STATUSTEXT, Text(23));
  r.AdvanceTo(25500ms);
  EXPECT_THAT(agent.polls, ElementsAre(1000, 25500));
}

// "3XX&" and "USE&" in place of the first value show their text, start the
// countdown once per new text, and have the next poll sent half a second
// later. Only "3XX&" clears COMMOK.
TEST(MainTickTest, NoticesStartTheCountdownOncePerNewText) {
  const struct {
    const char* prefix;
    int16_t commok_before;
    int16_t commok_after;
  } cases[] = {{"3XX&", 1, 0}, {"USE&", 1, 1}, {"USE&", 0, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.prefix);
    const std::string prefix = c.prefix;
    ProgramRig r(Settings("CONNECTION:SNMP\r\nPOLLINGTIME:10\r\n"));
    FakeAgent agent(r);
    int countdowns = 0;
    auto pencerekur = r.main.parts.PENCEREKUR;
    r.main.parts.PENCEREKUR = [&countdowns, pencerekur] {
      ++countdowns;
      pencerekur();
    };
    agent.v1 = prefix + "UPS busy";
    agent.v2 = "0";
    r.program.Load();
    r.s.DELAYSECONDS = 200;
    r.s.COMMOK = c.commok_before;

    r.AdvanceTo(2s);
    EXPECT_EQ(r.s.DETAILTEXT, "UPS busy");
    EXPECT_EQ(r.s.COMMOK, c.commok_after);
    EXPECT_EQ(r.s.STATUSTEXT, Text(32));
    EXPECT_EQ(countdowns, 1);
    EXPECT_TRUE(r.main.Timer3->Enabled());
    EXPECT_EQ(r.main.Timer3->Interval(), 1000);
    EXPECT_EQ(r.s.DELAYSECONDS, 200);
    EXPECT_EQ(r.LogCount("UPS busy"), 1);
    EXPECT_FALSE(r.main.Timer2->Enabled());
    EXPECT_THAT(agent.evaluations, IsEmpty());

    r.AdvanceTo(5500ms);
    EXPECT_THAT(agent.polls, ElementsAre(1000, 2500, 4000, 5500));
    EXPECT_EQ(countdowns, 1);

    agent.v1 = prefix + "UPS overload";
    r.AdvanceTo(8s);  // polled at 7 s, looked at 8 s
    EXPECT_EQ(r.s.DETAILTEXT, "UPS overload");
    EXPECT_EQ(countdowns, 2);

    // A reading in between does not make the same notice new again.
    agent.v1 = "0";
    agent.v2 = "2";
    r.AdvanceTo(9500ms);
    EXPECT_THAT(agent.evaluations, ElementsAre(9500));
    agent.v1 = prefix + "UPS overload";
    agent.v2 = "0";
    r.AdvanceTo(20500ms);  // polled at 19.5 s, looked at 20.5 s
    EXPECT_EQ(agent.polls.back(), 19500);
    EXPECT_EQ(r.s.DETAILTEXT, "UPS overload");
    EXPECT_EQ(countdowns, 2);
  }
}

// A discovery asked for while a poll is out waits for the next send (here
// after the watchdog at 22 s); while it collects, no tick polls and no
// watchdog fires.
TEST(MainTickTest, DiscoveryRequestTakesThePlaceOfAPoll) {
  ProgramRig r(Settings("CONNECTION:SNMP\r\nPOLLINGTIME:10\r\n"));
  FakeAgent agent(r);
  r.program.Load();
  r.AdvanceTo(1s);
  r.s.DISCOVERREQUEST = 1;
  r.AdvanceTo(22499ms);
  EXPECT_THAT(agent.discoveries, IsEmpty());
  r.AdvanceTo(22500ms);
  EXPECT_THAT(agent.discoveries, ElementsAre(22500));
  EXPECT_THAT(agent.polls, ElementsAre(1000));
  EXPECT_EQ(r.s.DISCOVERREQUEST, 2);
  EXPECT_EQ(r.s.POLLPHASE, 0);
  EXPECT_FALSE(r.main.Timer2->Enabled());

  r.s.DETAILTEXT = "collecting";
  r.AdvanceTo(120s);
  EXPECT_THAT(agent.discoveries, ElementsAre(22500));
  EXPECT_THAT(agent.polls, ElementsAre(1000));
  EXPECT_EQ(r.s.DETAILTEXT, "collecting");
  EXPECT_EQ(r.main.Timer1->Interval(), 1000);

  r.s.DISCOVERREQUEST = 0;  // the discovery has ended; ticks keep x.5 s
  r.AdvanceTo(120499ms);
  EXPECT_THAT(agent.polls, ElementsAre(1000));
  r.AdvanceTo(120500ms);
  EXPECT_THAT(agent.polls, ElementsAre(1000, 120500));
}

}  // namespace
}  // namespace power
