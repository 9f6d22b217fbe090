// The link to the PAVO server, run by the whole program on the fake
// platform: link states and status texts, the request line, socket events,
// the reply watchdog, and the reply handler's reading of status records.
#include "serverlink/server_link.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "tests/unit/program_fixture.h"

namespace serverlink {
namespace {

using kovran_testing::Header;
using kovran_testing::Left;
using kovran_testing::ProgramRig;
using kovran_testing::Record;
using kovran_testing::Text;
using platform::FakeTcpClient;
using State = platform::FakeTcpClient::State;
using namespace std::chrono_literals;

bool CountdownRuns(ProgramRig& r) {
  return r.main.Timer3->Enabled() && r.main.Timer3->Interval() == 1000;
}
bool AllClearArmed(ProgramRig& r) {
  return r.main.Timer4->Enabled() && r.main.Timer4->Interval() == 15000;
}
bool WatchdogArmed(ProgramRig& r) {
  return r.main.Timer2->Enabled() && r.main.Timer2->Interval() == 18000;
}

TEST(ServerLinkTest, FirstTickConnectsAndTheConnectSendsTheRequest) {
  const struct {
    const char* address;
    const char* request;
  } cases[] = {{"192.168.1.20", "H:CL10>IP:192.168.1.20>C:DRY1\r\n"},
               {"10.0.0.7", "H:CL10>IP:10.0.0.7>C:DRY1\r\n"}};
  for (const auto& c : cases) {
    ProgramRig r;
    r.fake.local_ipv4 = c.address;
    r.program.Load();
    r.AdvanceTo(999ms);
    EXPECT_EQ(r.server().connects(), 0);
    r.AdvanceTo(1s);
    EXPECT_EQ(r.server().connects(), 1);
    EXPECT_EQ(r.server().host(), "pavo.example");
    EXPECT_EQ(r.server().port(), 7000);
    EXPECT_EQ(r.s.LINKSTATE, kConnecting);
    EXPECT_EQ(r.s.STATUSTEXT, Text(21));
    EXPECT_TRUE(WatchdogArmed(r));
    EXPECT_EQ(r.server().sent(), "");
    r.server().Accept();
    r.fake.RunReady();
    EXPECT_EQ(r.s.LINKSTATE, kRequestSent);
    EXPECT_EQ(r.s.STATUSTEXT, Text(29));
    EXPECT_EQ(r.server().sent(), c.request);
  }
  EXPECT_EQ(std::string(cases[0].request).size(), 31u);
}

TEST(ServerLinkTest, TicksWhileAnAttemptIsUnderWayDoNothing) {
  for (bool accepted : {false, true}) {
    SCOPED_TRACE(accepted);
    ProgramRig r;
    r.program.Load();
    r.AdvanceTo(1s);
    if (accepted) {
      r.server().Accept();
      r.fake.RunReady();
    }
    const int16_t link = r.s.LINKSTATE;
    const std::string status = r.s.STATUSTEXT;
    const int closes = r.server().closes();
    r.AdvanceTo(18999ms);
    EXPECT_EQ(r.server().connects(), 1);
    EXPECT_EQ(r.server().closes(), closes);
    EXPECT_EQ(r.server().sent(),
              accepted ? "H:CL10>IP:192.168.1.20>C:DRY1\r\n" : "");
    EXPECT_EQ(r.s.LINKSTATE, link);
    EXPECT_EQ(r.s.STATUSTEXT, status);
  }
}

TEST(ServerLinkTest, EachOutcomeOfAnAttemptSetsLinkStateAndStatusText) {
  const struct {
    const char* name;
    std::function<void(FakeTcpClient&)> play;
    int16_t link;
    std::string status;
    std::string status_at_next_attempt;
  } cases[] = {
      {"status record",
       [](FakeTcpClient& c) {
         c.Accept();
         c.Deliver(Record("0000", "0000"));
       },
       kReplyHandled, Text(32), Text(32)},
      {"server closes after the request",
       [](FakeTcpClient& c) {
         c.Accept();
         c.PeerClose();
       },
       kClosedByServer, Text(29), Text(22)},
      {"server closes at once", [](FakeTcpClient& c) { c.PeerClose(); },
       kClosedByServer, Text(21), Text(22)},
      {"refused", [](FakeTcpClient& c) { c.Refuse(); }, kSocketError, Text(34),
       Text(23)},
      {"reset", [](FakeTcpClient& c) { c.RaiseError(10054, "Reset"); },
       kSocketError, Text(21), Text(23)},
      {"timed out",
       [](FakeTcpClient& c) { c.RaiseError(10060, "Connection timed out"); },
       kSocketError, " 10060 Connection timed out", Text(23)},
      {"host not found",
       [](FakeTcpClient& c) { c.RaiseError(11001, "Host not found"); },
       kSocketError, " 11001 Host not found", Text(23)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ProgramRig r;
    r.program.Load();
    r.AdvanceTo(1s);
    c.play(r.server());
    r.fake.RunReady();
    EXPECT_EQ(r.s.LINKSTATE, c.link);
    EXPECT_EQ(r.s.STATUSTEXT, c.status);
    EXPECT_EQ(r.server().state(), State::kClosed);
    r.fake.Advance(3s);  // the next attempt, 1 s or (after a reset) 3 s on
    EXPECT_EQ(r.server().connects(), 2);
    EXPECT_EQ(r.s.LINKSTATE, kConnecting);
    EXPECT_EQ(r.s.STATUSTEXT, c.status_at_next_attempt);
  }
}

TEST(ServerLinkTest, ResetBringsTheNextAttemptThreeSecondsAfterTheError) {
  ProgramRig r;
  r.program.Load();
  r.AdvanceTo(1500ms);
  r.server().RaiseError(10054, "Connection reset by peer");
  r.fake.RunReady();
  EXPECT_EQ(r.s.STATUSTEXT, Text(21));
  EXPECT_EQ(r.s.DETAILTEXT, Text(42));
  EXPECT_EQ(r.s.ALARMTEXT, "");
  r.AdvanceTo(4499ms);
  EXPECT_EQ(r.server().connects(), 1);
  r.AdvanceTo(4500ms);
  EXPECT_EQ(r.server().connects(), 2);
  // The tick sets its own period again.
  r.server().Refuse();
  r.AdvanceTo(5499ms);
  EXPECT_EQ(r.server().connects(), 2);
  r.AdvanceTo(5500ms);
  EXPECT_EQ(r.server().connects(), 3);
}

TEST(ServerLinkTest, SilentServerIsGivenUpEighteenSecondsAfterEachAttempt) {
  ProgramRig r;
  r.program.Load();
  r.AdvanceTo(1s);
  r.server().Accept();
  r.fake.RunReady();
  r.s.COMMOK = 1;
  r.s.ALARMTEXT = "Shutdown in 99 seconds";
  r.AdvanceTo(18999ms);
  EXPECT_EQ(r.s.LINKSTATE, kRequestSent);
  EXPECT_EQ(r.s.COMMOK, 1);
  EXPECT_EQ(r.s.DETAILTEXT, Text(42));
  EXPECT_EQ(r.s.ALARMTEXT, "Shutdown in 99 seconds");
  EXPECT_EQ(r.server().state(), State::kConnected);
  r.AdvanceTo(19s);
  EXPECT_EQ(r.s.LINKSTATE, kNoReply);
  EXPECT_EQ(r.s.COMMOK, 0);
  EXPECT_EQ(r.s.DETAILTEXT, Text(30));
  EXPECT_EQ(r.s.ALARMTEXT, "");
  EXPECT_EQ(r.s.STATUSTEXT, Text(29));
  EXPECT_EQ(r.server().state(), State::kClosed);

  r.AdvanceTo(20s);
  EXPECT_EQ(r.s.STATUSTEXT, Text(23));
  EXPECT_EQ(r.server().connects(), 2);
  r.AdvanceTo(37999ms);
  EXPECT_EQ(r.s.LINKSTATE, kConnecting);
  r.AdvanceTo(38s);
  EXPECT_EQ(r.s.LINKSTATE, kNoReply);

  // The watchdog does not disarm itself: with watching suspended no attempt
  // re-arms it, and it fires again a period later.
  r.s.STOPPED = 1;
  r.s.DETAILTEXT = "On mains";
  r.AdvanceTo(55999ms);
  EXPECT_EQ(r.s.DETAILTEXT, "On mains");
  r.AdvanceTo(56s);
  EXPECT_EQ(r.s.DETAILTEXT, Text(30));
}

TEST(ServerLinkTest, WatchdogThatCannotCloseTheSocketSaysSo) {
  ProgramRig r;
  r.program.Load();
  r.AdvanceTo(1s);
  r.server().fail_close = true;
  r.AdvanceTo(19s);
  EXPECT_EQ(r.s.STATUSTEXT, "CLOSING PROBLEM");
  EXPECT_EQ(r.s.LINKSTATE, kNoReply);
  r.AdvanceTo(20s);
  EXPECT_EQ(r.s.STATUSTEXT, Text(23));
  EXPECT_EQ(r.server().connects(), 2);
}

TEST(ServerLinkTest, InSnmpModeSocketEventsOnlyClose) {
  const struct {
    const char* name;
    std::function<void(FakeTcpClient&)> play;
    int16_t link;
  } cases[] = {
      {"refused", [](FakeTcpClient& c) { c.Refuse(); }, kRequestSent},
      {"reset", [](FakeTcpClient& c) { c.RaiseError(10054, "Reset"); },
       kRequestSent},
      {"other error", [](FakeTcpClient& c) { c.RaiseError(10060, "Late"); },
       kRequestSent},
      {"status record",
       [](FakeTcpClient& c) { c.Deliver(Record("1000", "0120")); },
       kRequestSent},
      {"server closes", [](FakeTcpClient& c) { c.PeerClose(); },
       kClosedByServer},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ProgramRig r;
    r.program.Load();
    r.AdvanceTo(1s);
    r.server().Accept();
    r.fake.RunReady();
    r.s.SETTINGS[frame::CONNECTION] = "SNMP";
    c.play(r.server());
    r.fake.RunReady();
    EXPECT_EQ(r.server().state(), State::kClosed);
    EXPECT_EQ(r.s.LINKSTATE, c.link);
    EXPECT_EQ(r.s.STATUSTEXT, Text(29));
    EXPECT_EQ(r.s.DETAILTEXT, Text(42));
    EXPECT_EQ(r.s.REPLYTEXT, "");
    EXPECT_EQ(r.s.LASTHEADER, "#00000000");
    EXPECT_EQ(r.s.COMMOK, 0);
    EXPECT_FALSE(CountdownRuns(r));
    EXPECT_EQ(r.main.Timer1->Interval(), 1000);
  }
}

// How the count of a countdown that was already running (999 s, started at
// 10:00:00.5) goes on after the record at 10:00:01.
enum class Count {
  kRunsOn,     // untouched: its next tick at 1.5 s shows 998
  kRecounted,  // start second moved to 1 s: its tick at 1.5 s shows 999
  kRestarted,  // restarted with the new length: next tick at 2 s
  kStopped,    // no tick any more
};

TEST(ServerReplyTest, FlagEdgesAgainstTheLastHeader) {
  const struct {
    const char* name;
    std::string last;
    const char* flags;
    const char* time;
    int16_t delay;  // 999 when unchanged
    Count count;
    bool all_clear;
    std::string alarm;  // "before" when unchanged
    int logs;           // log lines of the detail text
    const char* emergency;
  } cases[] = {
      {"flag 2 rises, numeric time", "#00000000", "1000", "0120", 120,
       Count::kRestarted, false, "before", 2, "1"},
      {"flag 2 rises, ATBT", "#00000000", "1000", "ATBT", 999, Count::kRunsOn,
       false, Text(53), 1, "1"},
      {"flag 2 rises, ATBT, flag 3 rises", "#00000000", "1100", "ATBT", 15,
       Count::kRestarted, false, Text(53), 2, "1"},
      {"flag 2 stays 1", Header("1000", "0120"), "1000", "0120", 999,
       Count::kRunsOn, false, "before", 0, "0"},
      {"flag 2 stays 1, ATBT, flag 3 rises", Header("1000", "ATBT"), "1100",
       "ATBT", 15, Count::kRestarted, false, "before", 1, "1"},
      {"flag 2 stays 1, ATBT, flag 3 stays 1", Header("1100", "ATBT"), "1100",
       "ATBT", 999, Count::kRunsOn, false, "before", 0, "0"},
      {"flag 3 rises, numeric time", Header("1000", "0120"), "1100", "0120",
       999, Count::kRunsOn, false, "before", 0, "0"},
      {"flag 3 rises with ATBT under flag 2 = 0", "#00000000", "0100", "ATBT",
       999, Count::kRecounted, false, "before", 0, "0"},
      {"flag 2 neither 0 nor 1, ATBT, flag 3 rises", "#00000000", "x100",
       "ATBT", 15, Count::kRestarted, false, "before", 1, "1"},
      {"flag 4 rises under flag 2 = 0", "#00000000", "0010", "0000", 60,
       Count::kRestarted, false, "before", 1, "1"},
      {"flag 4 rises under flag 2 = 1", Header("1000", "0120"), "1010", "0120",
       999, Count::kRunsOn, false, "before", 0, "0"},
      {"flag 4 stays 1", Header("0010", "0000"), "0010", "0000", 999,
       Count::kRunsOn, false, "before", 0, "0"},
      {"flag 4 falls", Header("0010", "0000"), "0000", "0000", 999,
       Count::kStopped, true, Text(31), 0, "0"},
      {"flag 4 falls, flag 5 set", Header("0010", "0000"), "0001", "0000", 999,
       Count::kStopped, true, Text(31), 0, "0"},
      {"flags 4 and 5 at 0", Header("0000", "0000"), "0000", "0000", 999,
       Count::kRecounted, false, "before", 0, "0"},
      {"flags 4 and 5 at 0, flag 3 set", Header("0000", "0000"), "0100", "0000",
       999, Count::kRecounted, false, "before", 0, "0"},
      {"flag 5 set", Header("0000", "0000"), "0001", "0000", 999,
       Count::kRunsOn, false, "before", 0, "0"},
      {"flag 2 falls", Header("1000", "0120"), "0000", "0000", 999,
       Count::kStopped, true, "", 1, "1"},
      {"flag 2 falls as flag 4 rises", Header("1000", "0120"), "0010", "0000",
       60, Count::kStopped, true, "", 2, "1"},
      {"flag 2 falls as flag 4 falls", Header("1010", "0120"), "0000", "0000",
       999, Count::kStopped, true, "", 1, "1"},
      {"flag 2 rises as flag 4 falls", Header("0010", "0000"), "1000", "0045",
       45, Count::kRestarted, false, "before", 2, "1"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ProgramRig r;
    r.program.Load();
    r.AdvanceTo(500ms);
    r.s.DETAILTEXT = "";
    r.s.DELAYSECONDS = 999;
    r.main.parts.PENCEREKUR();
    r.AdvanceTo(1s);
    r.s.LASTHEADER = c.last;
    r.s.ALARMTEXT = "before";
    r.s.EMERGENCYTEXT = "0";
    r.Answer(Record(c.flags, c.time, "UPS report"));

    EXPECT_EQ(r.s.LASTHEADER, Header(c.flags, c.time));
    EXPECT_EQ(r.s.STATUSTEXT, Text(32));
    EXPECT_EQ(r.s.DELAYSECONDS, c.delay);
    EXPECT_EQ(r.s.ALARMTEXT, c.alarm);
    EXPECT_EQ(r.s.EMERGENCYTEXT, c.emergency);
    EXPECT_EQ(r.LogCount("UPS report"), c.logs);
    EXPECT_EQ(AllClearArmed(r), c.all_clear);

    const std::string after = r.s.ALARMTEXT;
    r.AdvanceTo(1500ms);
    switch (c.count) {
      case Count::kRunsOn:
        EXPECT_EQ(r.s.ALARMTEXT, Left(998));
        break;
      case Count::kRecounted:
        EXPECT_EQ(r.s.ALARMTEXT, Left(999));
        break;
      case Count::kRestarted:
      case Count::kStopped:
        EXPECT_EQ(r.s.ALARMTEXT, after);
        break;
    }
    r.AdvanceTo(2s);
    if (c.count == Count::kRestarted) {
      EXPECT_EQ(r.s.ALARMTEXT, Left(c.delay - 1));
    } else if (c.count == Count::kStopped) {
      EXPECT_EQ(r.s.ALARMTEXT, after);
      EXPECT_FALSE(r.main.Timer3->Enabled());
    }
  }
}

// The time field is read as a number; a value beyond 16 bits is held to
// 32767, and anything below 3 s (no number, zero, negative) gives the
// shortest countdown, 3 s, which ends at its first tick.
TEST(ServerReplyTest, TimeFieldGivesTheCountdownLength) {
  const struct {
    const char* time;
    int16_t delay;
  } cases[] = {
      {"0120", 120}, {"  45", 45},   {"12.5", 12},    {"13.5", 14},
      {"-5  ", 3},   {"1e3 ", 1000}, {"1 2 ", 12},    {"abcd", 3},
      {"    ", 3},   {"atbt", 3},    {"9e99", 32767}, {"-9e9", 3},
      {"0000", 3},   {"0002", 3},    {"0003", 3},     {"0004", 4},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.time);
    ProgramRig r;
    r.program.Load();
    r.AdvanceTo(1s);
    r.Answer(Record("1000", c.time));
    EXPECT_EQ(r.s.DELAYSECONDS, c.delay);
    EXPECT_TRUE(CountdownRuns(r));
    EXPECT_EQ(r.s.ALARMTEXT, "");
  }
}

// A position beyond the end of a record reads as nothing, which is neither
// "0" nor "1": a short header hides the edges at its missing positions.
TEST(ServerReplyTest, ShortRecordsHideTheEdgesAtTheirMissingPositions) {
  struct Step {
    std::string reply;
    std::string header;
    bool countdown;
  };
  const std::vector<std::vector<Step>> runs = {
      {{"#0", "#0", false},
       {Record("0010", "0000"), Header("0010", "0000"), false}},
      {{"#", "#", false},
       {Record("1000", "0120"), Header("1000", "0120"), false},
       {Record("1000", "0120"), Header("1000", "0120"), false}},
      {{"#0", "#0", false},
       {Record("1000", "0120"), Header("1000", "0120"), true}},
  };
  for (const auto& run : runs) {
    SCOPED_TRACE(run.front().reply + " then " + run[1].reply);
    ProgramRig r;
    r.program.Load();
    for (const Step& step : run) {
      r.NextPoll(step.reply);
      EXPECT_EQ(r.s.LASTHEADER, step.header);
      EXPECT_EQ(CountdownRuns(r), step.countdown);
      EXPECT_EQ(r.s.STATUSTEXT, Text(32));
      EXPECT_EQ(r.s.LINKSTATE, kReplyHandled);
    }
    EXPECT_EQ(r.s.EMERGENCYTEXT, run.back().countdown ? "1" : "0");
    r.NextPoll("#0");
    EXPECT_EQ(r.s.DETAILTEXT, "");
  }
}

TEST(ServerReplyTest, OnlyTheFirstLineOfAReplyIsRead) {
  const struct {
    std::string reply;
    std::string detail;
    std::string header;
  } cases[] = {
      {Record("0000", "0000", "Mains OK") + "\r\n" + Record("1000", "0120"),
       "Mains OK", Header("0000", "0000")},
      {Record("0000", "0000", "Mains OK"), "Mains OK", Header("0000", "0000")},
      {Record("0000", "0000", "Mains OK\n"), "Mains OK\n",
       Header("0000", "0000")},
      {Record("0000", "0000", "Mains\rOK\r\n"), "Mains\rOK",
       Header("0000", "0000")},
      {Header("0000", "0000"), "", Header("0000", "0000")},
      {Header("0000", "0000") + "000", "", Header("0000", "0000")},
      {"#00\r\n0000000000000later", "", "#00"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.reply);
    ProgramRig r;
    r.program.Load();
    r.NextPoll(c.reply);
    EXPECT_EQ(r.s.DETAILTEXT, c.detail);
    EXPECT_EQ(r.s.LASTHEADER, c.header);
    EXPECT_FALSE(CountdownRuns(r));
    EXPECT_EQ(r.s.STATUSTEXT, Text(32));
  }
}

// Anything that is not a status record only says so; the watchdog stays
// armed and marks the link 18 s after the attempt.
TEST(ServerReplyTest, OtherRepliesSetStatus33AndLeaveTheWatchdogArmed) {
  const std::string replies[] = {
      "",
      "\r\n",
      "HELLO\r\n",
      " " + Record("1000", "0120"),
      "\r\n" + Record("1000", "0120"),
      "use&in use\r\n",
      std::string("\0#1000", 6),
  };
  for (const auto& reply : replies) {
    SCOPED_TRACE(reply);
    ProgramRig r("ENABLESHUT:1\r\nPOLLINGTIME:20\r\n");
    r.program.Load();
    r.AdvanceTo(1s);
    r.Answer(reply);
    EXPECT_EQ(r.s.STATUSTEXT, Text(33));
    EXPECT_EQ(r.s.COMMOK, 1);
    EXPECT_EQ(r.s.LINKSTATE, kReplyHandled);
    EXPECT_EQ(r.s.LASTHEADER, "#00000000");
    EXPECT_EQ(r.s.DETAILTEXT, Text(42));
    EXPECT_EQ(r.s.EMERGENCYTEXT, "0");
    EXPECT_FALSE(CountdownRuns(r));
    EXPECT_EQ(r.server().state(), State::kClosed);
    r.AdvanceTo(18999ms);
    EXPECT_EQ(r.s.LINKSTATE, kReplyHandled);
    EXPECT_EQ(r.s.COMMOK, 1);
    r.AdvanceTo(19s);
    EXPECT_EQ(r.s.LINKSTATE, kNoReply);
    EXPECT_EQ(r.s.COMMOK, 0);
    EXPECT_EQ(r.s.DETAILTEXT, Text(30));
    r.AdvanceTo(21s);
    EXPECT_EQ(r.s.STATUSTEXT, Text(23));
    EXPECT_EQ(r.server().connects(), 2);
  }
}

// A use-reply starts the countdown with the length as it stands, keeps
// COMMOK, and leaves the connection to the server.
TEST(ServerReplyTest, UseReplyStartsTheCountdownAndLeavesTheConnectionOpen) {
  const struct {
    const char* reply;
    const char* detail;
    int16_t commok;
    bool server_closes;
  } cases[] = {
      {"USE&Server in use\r\n", "Server in use", 1, true},
      {"USE&Server in use", "Server in use", 0, false},
      {"USE&first\r\nsecond\r\n", "first", 1, false},
      {"USE&\r\n", "", 0, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.reply);
    ProgramRig r;
    r.program.Load();
    r.AdvanceTo(1s);
    r.s.COMMOK = c.commok;
    r.s.DELAYSECONDS = 200;
    r.Answer(c.reply);
    EXPECT_EQ(r.s.DETAILTEXT, c.detail);
    EXPECT_EQ(r.s.COMMOK, c.commok);
    EXPECT_EQ(r.s.LINKSTATE, kReplyHandled);
    EXPECT_EQ(r.s.STATUSTEXT, Text(32));
    EXPECT_FALSE(r.main.Timer2->Enabled());
    EXPECT_EQ(r.main.Timer2->Interval(), 0);
    EXPECT_EQ(r.s.LASTHEADER, "#00000000");
    EXPECT_EQ(r.s.EMERGENCYTEXT, "1");
    EXPECT_EQ(r.s.DELAYSECONDS, 200);
    EXPECT_TRUE(CountdownRuns(r));
    EXPECT_EQ(r.LogCount(c.detail), std::string(c.detail).size() >= 5 ? 1 : 0);
    EXPECT_EQ(r.server().state(), State::kConnected);

    if (c.server_closes) {
      r.server().PeerClose();
      r.fake.RunReady();
      EXPECT_EQ(r.s.LINKSTATE, kClosedByServer);
    }
    r.AdvanceTo(2s);
    EXPECT_EQ(r.s.ALARMTEXT, Left(199));
    EXPECT_EQ(r.server().connects(), 2);
    EXPECT_EQ(r.s.STATUSTEXT, c.server_closes ? Text(22) : Text(32));
  }
}

TEST(ServerReplyTest, OnlyWhatHasArrivedWhenTheDataEventRunsIsRead) {
  {
    SCOPED_TRACE("the first byte alone");
    ProgramRig r;
    r.program.Load();
    r.NextPoll("#");
    EXPECT_EQ(r.s.LASTHEADER, "#");
    EXPECT_EQ(r.s.DETAILTEXT, "");
    EXPECT_EQ(r.server().state(), State::kClosed);
    // The rest of that record is never read, and the header it left has no
    // flag 2 for the next record to rise from.
    r.NextPoll(Record("1000", "0120"));
    EXPECT_FALSE(CountdownRuns(r));
  }
  {
    SCOPED_TRACE("two pieces before the event");
    ProgramRig r;
    r.program.Load();
    r.AdvanceTo(1s);
    const std::string record = Record("1000", "0120", "On battery") + "\r\n";
    r.server().Accept();
    r.server().Deliver(record.substr(0, 7));
    r.server().Deliver(record.substr(7));
    r.fake.RunReady();
    EXPECT_EQ(r.s.DELAYSECONDS, 120);
    EXPECT_EQ(r.s.DETAILTEXT, "On battery");
    EXPECT_EQ(r.s.STATUSTEXT, Text(32));
    EXPECT_EQ(r.LogCount("On battery"), 2);
  }
}

// Bytes that come in as the watchdog gives the attempt up belong to a
// closed connection.
TEST(ServerReplyTest, ReplyArrivingAsTheWatchdogFiresIsNeverRead) {
  ProgramRig r;
  r.program.Load();
  r.AdvanceTo(1s);
  r.server().Accept();
  r.fake.RunReady();
  auto watchdog = r.main.parts.timer_expiry[2];
  r.main.parts.timer_expiry[2] = [&r, watchdog] {
    r.server().Deliver(Record("1000", "0120"));
    watchdog();
  };
  r.AdvanceTo(19s);
  r.fake.RunReady();
  EXPECT_EQ(r.s.LINKSTATE, kNoReply);
  EXPECT_EQ(r.s.REPLYTEXT, "");
  EXPECT_EQ(r.s.LASTHEADER, "#00000000");
  EXPECT_EQ(r.s.DETAILTEXT, Text(30));
  EXPECT_EQ(r.s.DELAYSECONDS, 0);
  EXPECT_FALSE(CountdownRuns(r));
}

TEST(ServerReplyTest, BinaryAndHugeRepliesLeaveTheCountdownRunning) {
  ProgramRig r;
  r.program.Load();
  r.NextPoll(Record("1000", "0300", "Mains failure"));  // at 10:00:01
  ASSERT_TRUE(CountdownRuns(r));
  std::string all_bytes;
  for (int b = 0; b < 256; ++b) all_bytes += static_cast<char>(b);
  const std::string megabyte(1 << 20, 'A');
  const struct {
    std::string reply;
    std::string status;
  } cases[] = {
      {all_bytes, Text(33)},
      {"#" + all_bytes, Text(32)},
      {megabyte, Text(33)},
      {Record("1000", "0300", megabyte), Text(32)},
      {Record("\xff\xfe\x80\x01", std::string_view("\0\0\xff\xff", 4)),
       Text(32)},
  };
  for (const auto& c : cases) {
    r.NextPoll(c.reply);
    EXPECT_EQ(r.s.STATUSTEXT, c.status);
    EXPECT_TRUE(CountdownRuns(r));
  }
  EXPECT_EQ(r.LogCount("Mains failure"), 2);
  r.AdvanceTo(297999ms);
  EXPECT_EQ(r.s.ALARMTEXT, Left(4));
  EXPECT_EQ(r.s.SHUTDOWNFLAG, 0);
  r.AdvanceTo(330s);
  EXPECT_EQ(r.s.SHUTDOWNFLAG, 1);
  EXPECT_TRUE(r.fake.ended());
  ASSERT_EQ(r.fake.starts.size(), 1u);
  EXPECT_EQ(r.fake.starts[0].command_line, "/kovran/EXIT.EXE");
}

}  // namespace
}  // namespace serverlink
