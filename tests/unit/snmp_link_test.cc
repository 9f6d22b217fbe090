// SNMP mode on the fake platform: the power evaluation's transitions, the
// status poll against agents the test plays on the fake network, and the
// discovery's timeline in virtual time.
#include "tests/unit/program_fixture.h"

#include <algorithm>
#include <tuple>

#include "snmp/message.h"

namespace kovran_testing {
namespace {

constexpr char kType[] =
    "CONNECTION:SNMP\r\nPOLLINGTIME:60\r\nBACKUPTIME:5\r\nLOWTIME:1\r\n"
    "AGENTNO:2\r\nTYPE:2\r\nSYSOBJE:1.3.6.1.4.1.9.1\r\nBATSTAT:1.3.6.1.2.1.33.1.2.2.0\r\n"
    "TIME:1.3.6.1.2.1.33.1.2.1.0\r\nSHORT:UPS\r\nBTNORMAL:2\r\nBTLOW:3\r\nBTLOW:100\r\nBTLOW:7\r\n";
constexpr char kBatstat[] = "1.3.6.1.2.1.33.1.2.2.0", kTime[] = "1.3.6.1.2.1.33.1.2.1.0";
// Detail texts of the evaluation, which the test language file adds.
constexpr char kTexts[] = "039 On battery\r\n040 Power back\r\n041 Battery low\r\n";

// The program in SNMP mode; agents at other addresses answer each request
// after `delay` with what `answer` makes of it (nothing when it returns
// nullopt).
struct SnmpRig : ProgramRig {
  explicit SnmpRig(const std::string& extra = "") : ProgramRig(kOn + std::string(kType) + extra) {
    fake.files["/kovran/LANGSE1.TXT"] += kTexts;
    fake.network.on_remote_send = [this](platform::FakeUdpSocket& from,
                                         const std::string& to, int, const std::string& data) {
      requests.push_back(to);
      snmp::Message m = snmp::Decode(data).message;
      for (const std::string& agent : to == "255.255.255.255" ? agents : std::vector{to}) {
        auto reply = answer(agent, m);
        if (!reply) continue;
        reply->type = snmp::PduType::kGetResponse;
        fake.At(delay, [&from, agent, bytes = snmp::Encode(*reply).bytes] {
          from.Deliver(bytes, agent, 161);
        });
      }
    };
    fake.hosts["pavo.example"] = "10.0.0.9";
    program.Load();
    s.STOPPED = 1;  // no tick polls unless a test lets it
  }
  snmp::AgentLink& link = program.agent_link;
  std::vector<std::string> agents, requests;
  Duration delay = 100ms;
  std::function<std::optional<snmp::Message>(const std::string&, snmp::Message)> answer =
      [](const std::string&, snmp::Message m) -> std::optional<snmp::Message> {
    for (auto& b : m.bindings) b = {b.oid, snmp::ValueKind::kInteger, b.oid == kBatstat ? "0" : "2"};
    return m;
  };
};

TEST(PowerEvaluationTest, ReadingsMoveThePowerStateAndTheCountdown) {
  const struct {
    const char *v1, *v2;
    int on_battery, low, delay;
    const char* detail;
  } steps[] = {
      {"0", "2", 0, 0, 0, "On mains"},          {"1800", "2", 1, 0, 300, "On battery"},
      {"1800", "3.0", 1, 1, 70, "Battery low"}, {"1800", "2", 1, 0, 70, "On battery"},
      {"1800", "7", 1, 0, 70, "On battery"},    {"x", "3", 0, 0, 0, "On mains"},
      {"9", "3", 1, 1, 70, "Battery low"},      {"0", "3", 0, 1, 0, "Power back"},
      {"9", "3", 1, 1, 0, "Battery low"},
  };
  SnmpRig r;
  for (const auto& c : steps) {
    SCOPED_TRACE(&c - steps);
    r.main.parts.PowerEvaluation(c.v1, c.v2);
    EXPECT_EQ(std::tuple(r.s.ONBATTERY, r.s.BATTERYLOW, r.s.DETAILTEXT,
                         r.main.Timer3->Enabled() ? r.s.DELAYSECONDS : 0),
              std::tuple(c.on_battery, c.low, c.detail, c.delay));
  }
  EXPECT_EQ(r.LogCount("Power back"), 2);
  EXPECT_EQ(r.s.COMMOK, 1);
}

// In SNMP mode a countdown setting that holds no number or gives less than
// 3 s is named at start-up, and again after "SETUPR".
TEST(PowerEvaluationTest, CountdownSettingsUnderThreeSecondsAreLogged) {
  SnmpRig r("BACKUPTIME:0\r\nLOWTIME: \r\nLOCALWINDOWPORT:5000\r\nMAXLOCALUSERS:1\r\n");
  const std::string backup = "BACKUPTIME:0 gives less than 3 s: in SNMP mode a "
                             "power failure switches the PC off after a countdown of 3 s";
  EXPECT_EQ(r.LogCount(backup), 1);
  r.fake.network.udp_bound.at(5001)->Deliver("SETUPR");
  r.fake.RunReady();
  EXPECT_EQ(r.LogCount(backup), 2);
}

TEST(SnmpPollTest, RepliesFillTheValuesBySlot) {
  using enum snmp::ValueKind;
  const struct {
    std::vector<snmp::VarBind> reply;
    std::vector<std::string> values, trace;
    int32_t error_status = 0;
  } cases[] = {
      {{{kBatstat, kInteger, "-5"}, {kTime, kGauge32, "3"}}, {"", "-5", "3"}, {"-5", "3"}},
      {{{"1.3.9", kOctetString, "a"}, {kTime, kInteger, "2"}, {"1.3.9", kObjectId, "1.3.6"}},
       {"a", "", "1.3.6"}, {"a", "2", "1.3.6"}},
      {{{kBatstat, kNoSuchInstance, ""}}, {"", "", ""}, {"NETWORK ERROR"}},
      {{{kBatstat, kInteger, "1"}}, {"", "", ""}, {"NETWORK ERROR"}, 2},
  };
  for (const auto& c : cases) {
    SnmpRig r;
    r.answer = [&](const std::string&, snmp::Message m) -> std::optional<snmp::Message> {
      m.bindings = c.reply;
      m.error_status = c.error_status;
      return m;
    };
    r.link.POLLSNMP();
    EXPECT_EQ(std::vector(r.s.SNMPVALUES.begin(), r.s.SNMPVALUES.begin() + 3), c.values);
    std::vector<std::string> trace{"pavo.example", kBatstat, kTime};
    trace.insert(trace.end(), c.trace.begin(), c.trace.end());
    EXPECT_EQ(r.link.List1, trace);
  }
}

// Only the reply with the poll's id from the agent's address ends the wait.
// Timers run while it waits.
TEST(SnmpPollTest, TheWaitTakesOnlyItsOwnReplyAndKeepsTheProgramServing) {
  SnmpRig r;
  r.answer = [&](const std::string&, snmp::Message m) -> std::optional<snmp::Message> {
    for (auto& b : m.bindings) b.text = "7", b.kind = snmp::ValueKind::kInteger;
    m.type = snmp::PduType::kGetResponse;
    snmp::Message wrong_id = m;
    wrong_id.request_id ^= 1;
    for (const auto& [reply, sender] : {std::pair{wrong_id, "10.0.0.9"}, {m, "10.0.0.8"}}) {
      r.fake.At(50ms, [&r, bytes = snmp::Encode(reply).bytes, sender] {
        r.fake.network.udp_bound.at(162)->Deliver(bytes, sender, 161);
      });
    }
    m.bindings.resize(1);
    return m;
  };
  r.main.parts.PowerEvaluation("1", "2");
  r.link.POLLSNMP();
  EXPECT_EQ(r.s.SNMPVALUES[1], "7");
  EXPECT_EQ(r.fake.Now(), 100ms);

  r.answer = [](auto&, auto) { return std::nullopt; };
  r.link.POLLSNMP();
  EXPECT_EQ(r.fake.Now(), 10100ms);
  EXPECT_EQ(r.s.ALARMTEXT, Left(290));
}

TEST(SnmpPollTest, ClosingTheManagerEndsTheWait) {
  SnmpRig r;
  r.answer = [](auto&, auto) { return std::nullopt; };
  r.fake.At(1s, [&] { r.main.parts.CloseSnmpManager(); });
  r.link.POLLSNMP();
  EXPECT_EQ(r.fake.Now(), 1s);
}

// Two agents answer the broadcast; one is identified by its sysObjectID,
// one answers twice, one never answers the identification.
TEST(DiscoveryTest, CollectsForTwoSecondsThenIdentifiesEveryEntry) {
  SnmpRig r;
  r.agents = {"10.0.0.2", "10.0.0.3", "10.0.0.2", "10.0.0.4"};
  r.answer = [](const std::string& agent, snmp::Message m) -> std::optional<snmp::Message> {
    if (m.bindings[0].oid != snmp::kSysObjectIdOid) return m;
    if (agent == "10.0.0.4") return std::nullopt;
    m.bindings[0] = {m.bindings[0].oid, snmp::ValueKind::kObjectId,
                     agent == "10.0.0.2" ? "1.3.6.1.4.1.9.1" : "1.3.6.1.4.1.9.2"};
    return m;
  };
  r.s.STOPPED = 0;
  r.s.DISCOVERREQUEST = 1;
  r.AdvanceTo(1s);
  EXPECT_EQ(r.requests, std::vector<std::string>{"255.255.255.255"});
  r.AdvanceTo(3s);  // the step waits in virtual time: 3 answers, 1 time-out
  EXPECT_EQ(r.fake.Now(), 6300ms);
  EXPECT_EQ(r.s.WINDOWMSG, "DISCOVERUPS-10.0.0.2\r\n10.0.0.3\r\nUPS-10.0.0.2\r\n10.0.0.4\r\n");
  EXPECT_EQ(r.s.DISCOVERREQUEST, 0);
}

// A second "DISCOV" inside the collection window empties the list; the
// collection step comes before the next tick and reports what came after
// (one agent, whose identification times out), and a "DISCOV" during the
// step waits for that result: one broadcast, one result.
TEST(DiscoveryTest, TheCollectionStepAbsorbsLaterRequests) {
  SnmpRig r("LOCALWINDOWPORT:5000\r\nMAXLOCALUSERS:2\r\n");
  r.agents = {"10.0.0.4"};
  r.delay = 1800ms;  // after the second "DISCOV"
  r.answer = [](const std::string&, snmp::Message m) {  // no identification
    return m.bindings[0].oid == snmp::kSysObjectIdOid ? std::nullopt : std::optional(m);
  };
  r.AdvanceTo(500ms);  // as the tick starts it, between two ticks
  std::tie(r.s.STOPPED, r.s.DISCOVERREQUEST) = std::tuple(0, 2);
  r.link.DISCOVERAGENTS();
  r.fake.At(1700ms, [&] { r.fake.network.udp_bound.at(5001)->Deliver("DISCOV"); });
  r.fake.At(3500ms, [&] { r.fake.network.udp_bound.at(5003)->Deliver("DISCOV"); });
  r.AdvanceTo(3s);  // the step waits for the identification until 5.5 s
  EXPECT_EQ(r.fake.Now(), 5500ms);
  EXPECT_EQ(r.s.WINDOWMSG, "DISCOVER10.0.0.4\r\n");
  r.AdvanceTo(12s);
  EXPECT_EQ(std::ranges::count(r.requests, "255.255.255.255"), 1);
  EXPECT_EQ(r.s.WINDOWMSGS[2], "DISCOVER");
}

}  // namespace
}  // namespace kovran_testing
