// The link to the PAVO server, run by the whole program on the fake
// platform: link states and status texts, the request line, socket events,
// the reply watchdog, and the reply handler's reading of replies.
#include "serverlink/server_link.h"

#include <tuple>

#include "tests/unit/program_fixture.h"

namespace kovran_testing {
namespace {

using serverlink::kClosedByServer, serverlink::kNoReply, serverlink::kReplyHandled,
    serverlink::kSocketError;

struct Rig : ProgramRig {
  Rig() { program.Load(); }
};

// One attempt from the first tick on: the request, and the watchdog giving
// it up 18 s after it started. A reply that
// comes as the watchdog fires belongs to the closed connection.
TEST(ServerLinkTest, SilentServerIsGivenUpEighteenSecondsAfterEachAttempt) {
  for (bool fail_close : {false, true}) {
    SCOPED_TRACE(fail_close);
    Rig r;
    r.AdvanceTo(5s);
    r.server().Accept();
    r.fake.RunReady();
    EXPECT_EQ(std::tuple(r.s.STATUSTEXT, r.server().sent()),
              std::tuple(Text(29), "H:CL10>IP:192.168.1.20>C:DRY1\r\n"));
    std::tie(r.s.COMMOK, r.s.ALARMTEXT, r.server().fail_close) =
        std::tuple(1, "alarm", fail_close);
    r.main.parts.timer_expiry[2] = [&r, watchdog = r.main.parts.timer_expiry[2],
                                    fail_close] {
      if (!fail_close) r.server().Deliver(Record("1000", "0120"));
      watchdog();
    };
    r.AdvanceTo(19s);
    r.fake.RunReady();
    EXPECT_EQ(std::tuple(r.s.LINKSTATE, r.s.COMMOK, r.s.DETAILTEXT,
                         r.s.ALARMTEXT, r.s.STATUSTEXT, r.server().state()),
              std::tuple(kNoReply, 0, Text(30), "",
                         fail_close ? "CLOSING PROBLEM" : Text(29),
                         fail_close ? State::kConnected : State::kClosed));
    r.AdvanceTo(20s);
    EXPECT_EQ(std::tuple(r.s.STATUSTEXT, r.server().connects()), std::tuple(Text(23), 2));
  }
}

// How each outcome of the first attempt (at 1 s) leaves the link, and when
// and with which status text the next attempt starts. COMMOK is 1 once a
// reply is read; only a status record disarms the watchdog.
TEST(ServerLinkTest, EachOutcomeOfAnAttemptSetsLinkStateAndStatusText) {
  const struct {
    bool accept;
    int error;  // 0: `text` arrives; -1: the server closes
    std::string text;
    int16_t link;
    std::string status;
    int next_ms;
    std::string next_status;
  } cases[] = {
      {true, 0, Record("0000", "0000"), kReplyHandled, Text(32), 2000, Text(32)},
      {true, -1, "", kClosedByServer, Text(29), 2000, Text(22)},
      {false, 10061, "Refused", kSocketError, Text(34), 2000, Text(23)},
      {false, 10054, "Reset", kSocketError, Text(21), 4000, Text(23)},
      {true, 10060, "Connection timed out", kSocketError, " 10060 Connection timed out",
       2000, Text(23)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.error << c.text);
    Rig r;
    r.AdvanceTo(1s);
    if (c.accept) r.server().Accept();
    r.fake.RunReady();
    if (c.error == 0) r.server().Deliver(c.text);
    if (c.error == -1) r.server().PeerClose();
    if (c.error > 0) r.server().RaiseError(c.error, c.text);
    r.fake.RunReady();
    EXPECT_EQ(std::tuple(r.s.LINKSTATE, r.s.STATUSTEXT, r.s.COMMOK,
                         r.main.Timer2->Enabled(), r.server().state()),
              std::tuple(c.link, c.status, c.link == kReplyHandled,
                         c.status != Text(32), State::kClosed));
    r.AdvanceTo((c.next_ms - 1) * 1ms);
    EXPECT_EQ(r.server().connects(), 1);
    r.AdvanceTo(c.next_ms * 1ms);
    EXPECT_EQ(std::tuple(r.server().connects(), r.s.STATUSTEXT), std::tuple(2, c.next_status));
  }
}

// Each row: the flags of the last header, the record's flags and time
// field, and what follows. A countdown already runs (999 s, started at
// 10:00:00.5); the record comes at 10:00:01, and at 10:00:02 the text shows
// it untouched (998), moved to start at 1 s (999), restarted with the new
// length, in its final phase when restarted with 4 s or less, or ("")
// stopped, its text left as the record set it.
TEST(ServerReplyTest, FlagEdgesAgainstTheLastHeader) {
  const std::string kSame = "before";
  const struct {
    const char *last, *flags, *time;
    int16_t delay;  // 999 when unchanged
    std::string alarm;
    int logs;  // log lines of the detail text
    std::string at_2s;
  } cases[] = {
      {"0000", "1000", "ATBT", 999, Text(53), 1, Left(998)},
      {"1000", "1100", "ATBT", 15, kSame, 1, Left(14)},
      {"1000", "1100", "0120", 999, kSame, 0, Left(998)},
      {"0000", "0100", "ATBT", 999, kSame, 0, Left(999)},
      {"1000", "0010", "0000", 60, "", 2, ""},
      {"0010", "0000", "0000", 999, Text(31), 0, ""},
      // The time field read as a number: a value beyond 16 bits is held to
      // 32767, one below 3 s gives the shortest countdown, 3 s.
      {"0000", "1000", "9e99", 32767, kSame, 2, Left(32766)},
      {"0000", "1000", "0002", 3, kSame, 2, Text(25)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.last) + " to " + c.flags + " " + c.time);
    Rig r;
    r.AdvanceTo(500ms);
    r.s.DELAYSECONDS = 999;
    r.main.parts.PENCEREKUR();
    r.AdvanceTo(1s);
    std::tie(r.s.LASTHEADER, r.s.ALARMTEXT) = std::tuple(Header(c.last, "0120"), kSame);
    r.Answer(Record(c.flags, c.time));
    EXPECT_EQ(
        std::tuple(r.s.DELAYSECONDS, r.s.ALARMTEXT, r.LogCount("UPS report")),
        std::tuple(c.delay, c.alarm, c.logs));
    r.AdvanceTo(2s);
    const bool off = c.at_2s.empty();
    EXPECT_EQ(r.s.ALARMTEXT, off ? c.alarm : c.at_2s);
    // A fall raises the all-clear 15 s later: alert down, windows closed.
    r.AdvanceTo(15999ms);
    EXPECT_EQ(r.s.EMERGENCYTEXT, "1");
    r.AdvanceTo(16s);
    const std::string closed = off ? "CLOSE" : "";
    EXPECT_EQ(std::tuple(r.s.EMERGENCYTEXT, r.s.DETAILTEXT == Text(28)),
              std::tuple(off ? "0" : "1", off));
    EXPECT_THAT(r.s.WINDOWMSGS, ElementsAre("", closed, closed, closed));
  }
}

// Only the first line is read, cut at its first CR LF alone; a short one
// leaves a short header.
TEST(ServerReplyTest, RecordsAreReadUpToTheirFirstLineEnd) {
  const struct {
    std::string reply, header, detail;
  } cases[] = {
      {Record("0000", "0000", "Mains\rOK\n\r\n"), Header("0000", "0000"), "Mains\rOK\n"},
      {"#00\r\n0000000000000later", "#00", ""},
      {Record("0000", "0000", "X"), Header("0000", "0000"), "X"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.reply);
    Rig r;
    r.fake.Advance(1s);
    r.Answer(c.reply);
    EXPECT_EQ(std::tuple(r.s.LASTHEADER, r.s.DETAILTEXT, r.s.EMERGENCYTEXT),
              std::tuple(c.header, c.detail, "0"));
  }
}

// A use-reply in a power failure shows its first line, restarts the
// countdown with the length as it stands, keeps COMMOK, and leaves the
// connection open.
TEST(ServerReplyTest, UseReplyStartsTheCountdownAndLeavesTheConnectionOpen) {
  Rig r;
  r.AdvanceTo(1s);
  r.s.LASTHEADER = Header("1000", "0200");
  r.s.DELAYSECONDS = 200;
  r.s.COMMOK = 1;
  r.Answer("USE&first\r\nsecond\r\n");
  EXPECT_EQ(std::tuple(r.s.COMMOK, r.s.DETAILTEXT, r.LogCount("first"), r.s.STATUSTEXT,
                       r.server().state()),
            std::tuple(1, "first", 1, Text(32), State::kConnected));
  r.AdvanceTo(2s);
  EXPECT_EQ(r.s.ALARMTEXT, Left(199));
}

}  // namespace
}  // namespace kovran_testing
