// Server mode on the real binary against the PAVO server simulator. The
// program may be late, never early: lower bounds come from its own timers,
// upper bounds are generous deadlines.
#include <cmath>
#include <regex>
#include <thread>

#include "gmock/gmock.h"
#include "tests/integration/harness.h"

namespace kovran::integration {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::MatchesRegex;
using ::testing::Not;

// EXIT.EXE creates this file: its time is when EXIT.EXE ran.
constexpr char kExitRan[] = "EXIT-RAN";
constexpr char kFailure[] = "Mains failure, UPS on battery";

// A connection the simulator served, times in seconds after its start.
struct Poll {
  double accepted, ended;
  std::string request, outcome;
};

class ServerModeTest : public ::testing::Test {
 protected:
  // Starts the simulator playing `script`, then the program polling it every
  // second (the shipped settings: 127.0.0.1:3052, shutdown enabled).
  void Start(const std::string& script) {
    folder_.SetSetting("POLLINGTIME:1");
    folder_.Write("EXIT.EXE", "#!/bin/sh\n: > " + folder_.Path(kExitRan));
    fs::permissions(folder_.Path("EXIT.EXE"), fs::perms::all);
    folder_.Write("script", script);
    folder_.Start({PAVO_SIM_BINARY, "--port", "3052", "--script",
                   folder_.Path("script")});
    program_ = &folder_.Start();
    ASSERT_TRUE(folder_.WaitForLog(kStartLine));
  }

  // The connections the simulator has finished, in the order it accepted
  // them.
  std::vector<Poll> Polls() const {
    static const std::regex kLine(
        R"(\[(\S+) s, (\S+) s\] request (.*) -> (.*))");
    std::vector<Poll> polls;
    std::istringstream lines(ReadFile(folder_.Path("0.out")));  // simulator's
    std::smatch m;
    for (std::string line; std::getline(lines, line) && !lines.eof();) {
      if (!std::regex_match(line, m, kLine)) continue;
      polls.push_back({std::stod(m[1]), std::stod(m[2]), m[3], m[4]});
    }
    std::ranges::sort(polls, {}, &Poll::accepted);
    return polls;
  }
  long Count(const std::string& outcome) const {
    return std::ranges::count(Polls(), outcome, &Poll::outcome);
  }

  ProgramFolder folder_;
  Program* program_ = nullptr;
};

// Refused, then reset, then silent, then answering (the program polls near
// whole seconds, the script switches between them): after a reset the
// program waits 3 s, a silent server gets 18 s, every request is exactly one
// request line, and records without a change log nothing.
TEST_F(ServerModeTest, TroubledServerIsRetriedUntilItAnswers) {
  const std::string quiet = "#000000000000000Mains normal, UPS ok";
  Start("0 !refuse\n3.5 !reset\n9.5 !silent\n13.5 " + quiet + "\n");
  ASSERT_TRUE(
      WaitUntil([&] { return Count(quiet) >= 3; }, std::chrono::seconds(50)));
  const std::vector<Poll> polls = Polls();
  EXPECT_GE(Count("reset"), 2);
  EXPECT_EQ(Count("silent; closed by the client"), 1);
  for (std::size_t i = 0; i < polls.size(); ++i) {
    SCOPED_TRACE(i);
    const Poll& poll = polls[i];
    // From the simulator's close, which the program sees a moment later.
    const double gap =
        i + 1 < polls.size() ? polls[i + 1].accepted - poll.ended : INFINITY;
    EXPECT_EQ(poll.request, "H:CL10>IP:127.0.0.1>C:DRY1\\x0D\\x0A");
    EXPECT_TRUE(poll.outcome != "reset" || gap >= 2.5) << gap;
    // 18 s from the program's attempt, which the simulator sees a moment
    // later.
    EXPECT_TRUE(!poll.outcome.starts_with("silent") ||
                (gap >= 0 && poll.ended - poll.accepted >= 17.5));
  }
  program_->ExpectOrderlyEnd();
  EXPECT_THAT(folder_.Log(), ElementsAre(kStartLine, kEndLine));
}

// The program is held (SIGSTOP, as a PC put to sleep) for 25 s through the
// end of a 10 s countdown while the mains come back. Woken, it waits for a
// fresh reading, which stops the countdown: no "SHUTDOWN", no EXIT.EXE, and
// the all-clear follows.
TEST_F(ServerModeTest, WokenPastTheEndItWaitsForAFreshReading) {
  const std::string failure = std::string("#100000000010000") + kFailure;
  Start("0 " + failure + "\n5 #000000000000000Mains power is back\n");
  Window window;
  ASSERT_TRUE(WaitUntil([&] { return Count(failure) > 0; }));
  ASSERT_EQ(::kill(program_->pid(), SIGSTOP), 0);
  std::this_thread::sleep_for(std::chrono::seconds(25));  // the PC sleeps
  ASSERT_EQ(::kill(program_->pid(), SIGCONT), 0);
  std::vector<std::string> answers;
  ASSERT_TRUE(WaitUntil(
      [&] { return answers.emplace_back(window.Ask("LABELS")) == "CLOSE"; },
      std::chrono::seconds(25)));
  EXPECT_THAT(answers, Not(Contains("SHUTDOWN")));
  EXPECT_FALSE(fs::exists(folder_.Path(kExitRan)));
  program_->ExpectOrderlyEnd();
  EXPECT_THAT(folder_.Log(),
              ElementsAre(kStartLine, kFailure, kFailure,
                          MatchesRegex("The countdown was held up for 2[4-7] s .*"),
                          "Mains power is back", kEndLine));
}

}  // namespace
}  // namespace kovran::integration
