// The whole program in server mode through a power failure, in virtual
// time: the poll that brings the failure, the countdown, the shutdown flag,
// EXIT.EXE and the end; and the same road when the mains come back before or
// after the flag, or the server falls silent on the way.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>

#include "app/program.h"
#include "tests/unit/program_fixture.h"

namespace app {
namespace {

using kovran_testing::kLogFile;
using kovran_testing::Left;
using kovran_testing::ProgramRig;
using kovran_testing::Record;
using kovran_testing::Text;
using State = platform::FakeTcpClient::State;
using ::testing::ElementsAre;
using namespace std::chrono_literals;
using Duration = platform::FakePlatform::Duration;

// Plays the PAVO server while the program runs to `t` (or its end) in steps
// of 250 ms: accepts every connection at once and answers its request 250 ms
// later with `record`, unless `silent`.
struct PavoServer {
  void RunTo(Duration t) {
    constexpr Duration kStep = 250ms;
    while (true) {
      platform::FakeTcpClient& c = r.server();
      if (c.state() == State::kConnecting) {
        c.Accept();
        accepted_at = r.fake.Now();
      } else if (c.state() == State::kConnected && !silent &&
                 r.fake.Now() >= accepted_at + kStep) {
        c.Deliver(record + "\r\n");
      }
      r.fake.RunReady();
      if (r.fake.Now() >= t || r.fake.ended()) return;
      r.fake.Advance(std::min((r.fake.Now() / kStep + 1) * kStep, t) -
                     r.fake.Now());
    }
  }

  ProgramRig& r;
  std::string record = Record("1000", "0120", "Mains failure, on battery");
  bool silent = false;
  Duration accepted_at{0};
};

// Start-up at 10:00:00; the poll of 10:00:01, answered at 10:00:01.25, brings
// a 120 s countdown, whose flag comes at 10:01:58.25 and whose end 30 exit
// ticks later at 10:02:28. Polls follow every 5 s; at `change_at` the server
// falls silent or starts to report the mains back (logged at the next poll),
// and the all-clear follows 15 s after that report.
TEST(PowerFailureScenarioTest, RoadOfAPowerFailure) {
  enum Change { kNone, kSilent, kMainsBack };
  const std::string end = "23-11-2026--10:02:28..QueryUnload Program ended\r\n";
  const struct {
    const char* name;
    Change change;
    Duration change_at;
    std::string log_tail;  // after the two lines of the failure
  } cases[] = {
      {"no change", kNone, 0s, end},
      {"server silent", kSilent, 5s, end},
      {"mains back before the flag", kMainsBack, 60s,
       "23-11-2026--10:01:01..Mains restored\r\n"},
      {"mains back after the flag", kMainsBack, 120s,
       "23-11-2026--10:02:01..Mains restored\r\n" + end},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ProgramRig r("ENABLESHUT:1\r\nPOLLINGTIME:5\r\n");
    PavoServer server{r};
    r.program.Load();
    server.RunTo(2250ms);  // the countdown's first tick
    EXPECT_EQ(r.s.ALARMTEXT, Left(119));
    server.RunTo(c.change_at);
    server.silent = c.change == kSilent;
    if (c.change == kMainsBack) {
      server.record = Record("0000", "0000", "Mains restored");
      const Duration all_clear = c.change_at + 16250ms;
      server.RunTo(all_clear - 1ms);
      EXPECT_EQ(r.s.EMERGENCYTEXT, "1");
      r.AdvanceTo(all_clear);  // before that moment's poll is answered
      EXPECT_EQ(r.s.DETAILTEXT, Text(28));
      EXPECT_EQ(r.s.EMERGENCYTEXT, "0");
      EXPECT_THAT(r.s.WINDOWMSGS, ElementsAre("", "CLOSE", "CLOSE", "CLOSE"));
      r.s.WINDOWMSGS = {};  // the all-clear comes once
    }
    server.RunTo(3600s);
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
// length. The readings that follow take a new start at every poll, as a mains
// record does, and land in the same whole second as a countdown tick (the
// notice half a second after the poll, the readings a quarter): the countdown
// must still never end the program.
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
    EXPECT_TRUE(r.fake.starts.empty());
  }
}

}  // namespace
}  // namespace app
