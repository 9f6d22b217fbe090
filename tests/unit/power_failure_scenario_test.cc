// The whole program in server mode through a power failure, in virtual
// time: the poll that brings the failure, the countdown, the shutdown flag,
// EXIT.EXE and the end; and the same road when the mains come back before or
// after the flag, or the server falls silent on the way.
#include <algorithm>

#include "tests/unit/program_fixture.h"

namespace kovran_testing {
namespace {

// Start-up at 10:00:00; the poll of 10:00:01, answered at 10:00:01.25 with
// `record`, brings a 120 s countdown, whose flag comes at 10:01:58.25 and
// whose end 30 exit ticks later at 10:02:28. Polls follow every 5 s. At
// `change_at` the server falls silent or starts to report the mains back
// (logged at the next poll); the all-clear follows 15 s after that report.
TEST(PowerFailureScenarioTest, RoadOfAPowerFailure) {
  enum Change { kNone, kSilent, kMainsBack };
  const std::string end = "23-11-2026--10:02:28..QueryUnload Program ended\r\n";
  const struct {
    Change change;
    Duration change_at;
    std::string log_tail;  // after the two lines of the failure
  } cases[] = {
      {kNone, 0s, end},
      {kSilent, 5s, end},
      {kMainsBack, 60s, "23-11-2026--10:01:01..Mains restored\r\n"},
      {kMainsBack, 120s, "23-11-2026--10:02:01..Mains restored\r\n" + end},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.change_at / 1s);
    ProgramRig r("ENABLESHUT:1\r\nPOLLINGTIME:5\r\n");
    std::string record = Record("1000", "0120", "Mains failure, on battery");
    Duration answer_at = 1250ms;  // the next poll's answer
    const auto run_to = [&](Duration t) {
      for (; answer_at <= t; answer_at += 5s) {
        r.AdvanceTo(answer_at);
        if (!record.empty() && !r.fake.ended()) r.Answer(record + "\r\n");
      }
      r.AdvanceTo(t);
    };
    r.program.Load();
    run_to(2250ms);  // the countdown's first tick
    EXPECT_EQ(r.s.ALARMTEXT, Left(119));
    run_to(c.change_at);
    if (c.change == kSilent) record.clear();
    if (c.change == kMainsBack) {
      record = Record("0000", "0000", "Mains restored");
      const Duration all_clear = c.change_at + 16250ms;
      run_to(all_clear - 1ms);
      EXPECT_EQ(r.s.EMERGENCYTEXT, "1");
      r.AdvanceTo(all_clear);  // before that moment's poll is answered
      EXPECT_EQ(r.s.DETAILTEXT, Text(28));
      EXPECT_EQ(r.s.EMERGENCYTEXT, "0");
      EXPECT_THAT(r.s.WINDOWMSGS, ElementsAre("", "CLOSE", "CLOSE", "CLOSE"));
      r.s.WINDOWMSGS = {};  // the all-clear comes once
    }
    run_to(3600s);
    EXPECT_EQ(r.fake.files[kLogFile],
              "23-11-2026--10:00:00..New Start /started\r\n"
              "23-11-2026--10:00:01..Mains failure, on battery\r\n"
              "23-11-2026--10:00:01..Mains failure, on battery\r\n" +
                  c.log_tail);
    EXPECT_THAT(r.s.WINDOWMSGS, ElementsAre("", "", "", ""));
    ASSERT_EQ(r.fake.starts.size(), r.fake.ended() ? 1u : 0u);
    for (const auto& start : r.fake.starts) {
      EXPECT_EQ(start.command_line, "/kovran/EXIT.EXE");
    }
  }
}

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
      r.s.SNMPVALUES[1] = polls++ == 0 ? "3XX&Agent busy" : "0";
      r.s.SNMPVALUES[2] = "2";
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
    EXPECT_EQ(r.s.EMERGENCYTEXT, "1");
    EXPECT_EQ(r.LogCount(snmp ? "Agent busy" : "UPS self test"), 1);
    EXPECT_EQ(r.s.SHUTDOWNFLAG, 0);
    r.fake.Advance(60s);
    EXPECT_FALSE(r.fake.ended());
  }
}

}  // namespace
}  // namespace kovran_testing
