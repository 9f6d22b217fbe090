// The whole program in server mode through a power failure, in virtual
// time: the poll that brings the failure, the countdown, the shutdown flag,
// EXIT.EXE and the end; and the same road when the mains come back or the
// server falls silent on the way.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>

#include "app/program.h"
#include "serverlink/server_link.h"
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

constexpr char kRequest[] = "H:CL10>IP:192.168.1.20>C:DRY1\r\n";
constexpr char kFailure[] = "Mains failure, on battery";
constexpr char kRestored[] = "Mains restored";

// Plays the PAVO server: accepts every connection at once and answers its
// request 250 ms later with `record`, unless `silent`.
class PavoServer {
 public:
  explicit PavoServer(ProgramRig& r) : r_(r) {}

  // Runs the program to `t` in steps of 250 ms, serving on the way.
  void RunTo(Duration t) {
    constexpr Duration kStep = 250ms;
    Serve();
    while (r_.fake.Now() < t && !r_.fake.ended()) {
      const Duration next = (r_.fake.Now() / kStep + 1) * kStep;
      r_.fake.Advance(std::min(next, t) - r_.fake.Now());
      Serve();
    }
  }

  std::string record = Record("1000", "0120", kFailure);
  bool silent = false;
  int answered = 0;

 private:
  void Serve() {
    platform::FakeTcpClient& c = r_.server();
    if (c.state() == State::kConnecting) {
      c.Accept();
      r_.fake.RunReady();
      accepted_at_ = r_.fake.Now();
      return;
    }
    if (c.state() != State::kConnected || silent || answered_ == c.connects() ||
        r_.fake.Now() < accepted_at_ + 250ms) {
      return;
    }
    EXPECT_EQ(c.sent(), kRequest);
    answered_ = c.connects();
    ++answered;
    c.Deliver(record + "\r\n");
    r_.fake.RunReady();
  }

  ProgramRig& r_;
  Duration accepted_at_{0};
  int answered_ = 0;
};

// Start-up at 10:00:00 and the first poll at 10:00:01, answered with the
// failure record at 10:00:01.25: a 120 s countdown from there.
void FirstPollBringsTheFailure(ProgramRig& r, PavoServer& server) {
  r.program.Load();
  r.AdvanceTo(1s);
  EXPECT_EQ(r.s.STATUSTEXT, Text(21));
  EXPECT_EQ(r.s.LINKSTATE, serverlink::kConnecting);
  server.RunTo(1250ms);
  EXPECT_EQ(server.answered, 1);
  EXPECT_EQ(r.s.LINKSTATE, serverlink::kReplyHandled);
  EXPECT_EQ(r.s.STATUSTEXT, Text(32));
  EXPECT_EQ(r.s.COMMOK, 1);
  EXPECT_EQ(r.s.DELAYSECONDS, 120);
  EXPECT_EQ(r.s.EMERGENCYTEXT, "1");
  EXPECT_EQ(r.s.DETAILTEXT, kFailure);
  EXPECT_FALSE(r.main.Timer2->Enabled());
  EXPECT_EQ(r.server().state(), State::kClosed);
  EXPECT_THAT(r.Log(), ElementsAre("New Start /started", kFailure, kFailure));
}

// The flag at 10:01:58.25, 117 s into the countdown; the exit timer's 30th
// tick after it at 10:02:28.
void FlagAndEnd(ProgramRig& r, PavoServer& server) {
  server.RunTo(118249ms);
  EXPECT_EQ(r.s.ALARMTEXT, Left(4));
  EXPECT_EQ(r.s.SHUTDOWNFLAG, 0);
  r.AdvanceTo(118250ms);
  EXPECT_EQ(r.s.ALARMTEXT, Text(25));
  EXPECT_EQ(r.s.SHUTDOWNFLAG, 1);
  server.RunTo(147999ms);
  EXPECT_FALSE(r.fake.ended());
  EXPECT_TRUE(r.fake.starts.empty());
  r.AdvanceTo(148s);
  ASSERT_TRUE(r.fake.ended());
  EXPECT_EQ(r.fake.exit_code(), frame::kExitNormal);
  ASSERT_EQ(r.fake.starts.size(), 1u);
  EXPECT_EQ(r.fake.starts[0].command_line, "/kovran/EXIT.EXE");
  EXPECT_EQ(r.fake.starts[0].window_style, platform::kWindowNormalFocus);
}

TEST(PowerFailureScenarioTest, FailureRunsFromThePollToExitExe) {
  ProgramRig r("ENABLESHUT:1\r\nPOLLINGTIME:5\r\n");
  PavoServer server(r);
  FirstPollBringsTheFailure(r, server);

  server.RunTo(2249ms);
  EXPECT_EQ(r.s.ALARMTEXT, "");
  server.RunTo(2250ms);
  EXPECT_EQ(r.s.ALARMTEXT, Left(119));
  server.RunTo(60s);
  EXPECT_EQ(r.s.ALARMTEXT, Left(62));
  EXPECT_EQ(r.s.STATUSTEXT, Text(32));
  EXPECT_EQ(r.s.COMMOK, 1);
  EXPECT_EQ(r.s.EMERGENCYTEXT, "1");

  FlagAndEnd(r, server);
  // One poll every 5 s; the same record each time started nothing more.
  EXPECT_EQ(r.server().connects(), 30);
  EXPECT_EQ(server.answered, 30);
  EXPECT_EQ(r.fake.files[kLogFile],
            "23-11-2026--10:00:00..New Start /started\r\n"
            "23-11-2026--10:00:01..Mains failure, on battery\r\n"
            "23-11-2026--10:00:01..Mains failure, on battery\r\n"
            "23-11-2026--10:02:28..QueryUnload Program ended\r\n");

  r.fake.Advance(3600s);
  EXPECT_EQ(r.server().connects(), 30);
  EXPECT_EQ(r.fake.starts.size(), 1u);
}

TEST(PowerFailureScenarioTest, MainsBackBeforeTheFlagEndNothing) {
  ProgramRig r("ENABLESHUT:1\r\nPOLLINGTIME:5\r\n");
  PavoServer server(r);
  FirstPollBringsTheFailure(r, server);
  server.RunTo(60s);
  server.record = Record("0000", "0000", kRestored);
  server.RunTo(61249ms);
  EXPECT_EQ(r.s.ALARMTEXT, Left(61));
  server.RunTo(61250ms);  // the poll of 10:01:01 answered
  EXPECT_EQ(r.s.ALARMTEXT, "");
  EXPECT_EQ(r.s.DETAILTEXT, kRestored);
  EXPECT_FALSE(r.main.Timer3->Enabled());

  server.RunTo(76249ms);
  EXPECT_EQ(r.s.EMERGENCYTEXT, "1");
  EXPECT_THAT(r.s.WINDOWMSGS, ElementsAre("", "", "", ""));
  r.AdvanceTo(76250ms);
  EXPECT_EQ(r.s.DETAILTEXT, Text(28));
  EXPECT_EQ(r.s.EMERGENCYTEXT, "0");
  EXPECT_THAT(r.s.WINDOWMSGS, ElementsAre("", "CLOSE", "CLOSE", "CLOSE"));

  server.RunTo(3600s);
  EXPECT_FALSE(r.fake.ended());
  EXPECT_TRUE(r.fake.starts.empty());
  EXPECT_EQ(r.s.SHUTDOWNFLAG, 0);
  EXPECT_EQ(r.s.ALARMTEXT, "");
  EXPECT_EQ(r.server().connects(), 720);
  EXPECT_THAT(r.Log(),
              ElementsAre("New Start /started", kFailure, kFailure, kRestored));
}

TEST(PowerFailureScenarioTest, MainsBackAfterTheFlagStillEnd) {
  ProgramRig r("ENABLESHUT:1\r\nPOLLINGTIME:5\r\n");
  PavoServer server(r);
  FirstPollBringsTheFailure(r, server);
  server.RunTo(120s);
  ASSERT_EQ(r.s.SHUTDOWNFLAG, 1);
  server.record = Record("0000", "0000", kRestored);
  server.RunTo(136250ms);
  EXPECT_EQ(r.s.EMERGENCYTEXT, "0");
  server.RunTo(147999ms);
  EXPECT_FALSE(r.fake.ended());
  r.AdvanceTo(148s);
  EXPECT_TRUE(r.fake.ended());
  EXPECT_EQ(r.fake.starts.size(), 1u);
  EXPECT_THAT(r.Log(), ElementsAre("New Start /started", kFailure, kFailure,
                                   kRestored, "QueryUnload Program ended"));
}

// The watchdog marks every unanswered attempt and clears the alarm text,
// but the countdown writes it again at its next tick and runs to the end.
TEST(PowerFailureScenarioTest, SilentServerDoesNotStopTheCountdown) {
  ProgramRig r("ENABLESHUT:1\r\nPOLLINGTIME:5\r\n");
  PavoServer server(r);
  FirstPollBringsTheFailure(r, server);
  server.silent = true;
  server.RunTo(23999ms);
  EXPECT_EQ(r.s.LINKSTATE, serverlink::kRequestSent);
  server.RunTo(24s);  // 18 s after the attempt of 10:00:06
  EXPECT_EQ(r.s.LINKSTATE, serverlink::kNoReply);
  EXPECT_EQ(r.s.DETAILTEXT, Text(30));
  EXPECT_EQ(r.s.ALARMTEXT, "");
  EXPECT_EQ(r.s.COMMOK, 0);
  server.RunTo(24250ms);
  EXPECT_EQ(r.s.ALARMTEXT, Left(97));
  r.AdvanceTo(26s);
  EXPECT_EQ(r.s.STATUSTEXT, Text(23));
  EXPECT_EQ(r.server().connects(), 3);
  FlagAndEnd(r, server);
  EXPECT_EQ(server.answered, 1);
}

}  // namespace
}  // namespace app
