// Server mode on the real binary: the program polls a PAVO server that the
// test runs on 127.0.0.1 (PavoServer), and the test checks the road of a
// power failure to EXIT.EXE, the mains coming back in time, and how the link
// rides out refused, reset and silent servers with the exact request bytes.
//
// Timing rule: the program may be late, never early. Lower bounds are what
// the program's timers guarantee; upper bounds are generous deadlines.
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "tests/integration/harness.h"
#include "tests/integration/pavo_server.h"

namespace kovran::integration {
namespace {

using ::testing::ElementsAre;
using ::testing::PrintToString;
using Mode = PavoServer::Mode;
using std::chrono::seconds;

constexpr uint16_t kPort = 3052;
constexpr char kRequest[] = "H:CL10>IP:127.0.0.1>C:DRY1\r\n";
// EXIT.EXE creates this file; its modification time is when EXIT.EXE ran.
constexpr char kExitRan[] = "EXIT-RAN";
constexpr char kFailureDetail[] = "Mains failure, UPS on battery";

const std::string kQuiet = StatusRecord("0000", "0000", "Mains normal, UPS ok");

double Between(SteadyTime from, SteadyTime to) {
  return std::chrono::duration<double>(to - from).count();
}

class ServerModeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    folder_.SetSetting("CONNECTION", "SERVER");
    folder_.SetSetting("HOST", "127.0.0.1");
    folder_.SetSetting("CLIENTPORT", std::to_string(kPort));
    folder_.SetSetting("POLLINGTIME", "1");
    folder_.SetSetting("ENABLESHUT", "1");
    folder_.Write("EXIT.EXE",
                  "#!/bin/sh\n: > '" + folder_.Path(kExitRan) + "'\n",
                  /*executable=*/true);
  }

  void Start() {
    program_ = &folder_.Start();
    ASSERT_TRUE(folder_.WaitForLog(StartLine())) << Describe();
  }

  // The connections answered with `reply` so far.
  PavoServer::Connections Answered(const std::string& reply) const {
    PavoServer::Connections answered;
    for (const auto& c : server_.connections()) {
      if (c.served && c.reply == reply) answered.push_back(c);
    }
    return answered;
  }

  bool AwaitAnswered(const std::string& reply, std::size_t count = 1,
                     Clock::duration timeout = 2 * kTimeout) {
    return WaitUntil([&] { return Answered(reply).size() >= count; }, timeout);
  }

  // When EXIT.EXE ran, on the steady clock.
  SteadyTime ExitRanAt() const {
    const auto ran = std::chrono::file_clock::to_sys(
        std::filesystem::last_write_time(folder_.Path(kExitRan)));
    return Clock::now() - (std::chrono::system_clock::now() - ran);
  }

  // The program's log and output, and the server's connections with their
  // times in seconds after the test started.
  std::string Describe() const {
    const auto at = [&](const char* what, std::optional<SteadyTime> time) {
      return time ? what + std::to_string(Between(started_, *time)) : "";
    };
    std::string text = folder_.Describe() + "server connections:\n";
    for (const auto& c : server_.connections()) {
      text += at("  accepted +", c.accepted) + at(" served +", c.served) +
              at(" closed +", c.closed) + " request " +
              PrintToString(c.request) + " reply " + PrintToString(c.reply) +
              "\n";
    }
    return text;
  }

  const SteadyTime started_ = Clock::now();
  // The server outlives the program folder, which kills the program first.
  PavoServer server_{kPort};
  ProgramFolder folder_;
  Program* program_ = nullptr;
};

// --- Power failure to EXIT.EXE -----------------------------------------------

TEST_F(ServerModeTest, MainsFailureStartsExitExeThirtySecondsAfterTheFlag) {
  // The time field gives 5 s on battery.
  const std::string failure = StatusRecord("1000", "0005", kFailureDetail);
  server_.Set(Mode::kAnswer, failure);
  Start();
  ASSERT_TRUE(AwaitAnswered(failure)) << Describe();
  // The program cannot have read the record before this. The countdown runs
  // on whole seconds of the clock, so fewer than 4 s are left at the
  // earliest 5 - 4 s after the record (a start late in its second);
  // nominally 5 - 3 s after it.
  const SteadyTime served = *Answered(failure)[0].served;
  const SteadyTime earliest_flag = served + seconds(1);
  const SteadyTime nominal_flag = served + seconds(2);

  // EXIT.EXE runs about 30 s after the flag; 40 s is late.
  ASSERT_TRUE(WaitUntil([&] { return folder_.Exists(kExitRan); },
                        nominal_flag + seconds(40) - Clock::now()))
      << "EXIT.EXE did not run\n"
      << Describe();
  // The exit timer counts 29 full periods after its first tick behind the
  // flag. That tick keeps the timer's cadence, so it may have been due a
  // moment before the flag: allow 1 s for that and a little for the clocks.
  EXPECT_GE(Between(earliest_flag, ExitRanAt()), 30 - 1 - 0.25) << Describe();

  EXPECT_EQ(program_->WaitForExit(), 0) << Describe();
  // The detail text is logged twice when the countdown starts.
  EXPECT_THAT(folder_.Log(), ElementsAre(StartLine(), kFailureDetail,
                                         kFailureDetail, kEndLine))
      << Describe();
}

TEST_F(ServerModeTest, MainsBackBeforeTheFinalPhaseStopsTheCountdown) {
  const std::string back_detail = "Mains power is back";
  // 15 s on battery.
  const std::string failure = StatusRecord("1000", "0015", kFailureDetail);
  // Flag 5 set: a record with flags 4 and 5 both "0" would restart the
  // countdown's start at every poll, so only stopping the countdown keeps
  // EXIT.EXE from running here.
  const std::string back = StatusRecord("0001", "0015", back_detail);
  server_.Set(Mode::kAnswer, failure);
  Start();
  // Let the countdown run for four more polls, then bring the mains back.
  ASSERT_TRUE(AwaitAnswered(failure, 5)) << Describe();
  const SteadyTime served = *Answered(failure)[0].served;
  server_.Set(Mode::kAnswer, back);
  ASSERT_TRUE(AwaitAnswered(back)) << Describe();
  ASSERT_LT(*Answered(back)[0].served, served + seconds(15 - 4))
      << "the mains came back too late to be in time: the test is void\n"
      << Describe();

  // Well past the latest moment EXIT.EXE would have run (see the test
  // above), the program still polls.
  const SteadyTime past_exit = served + seconds(15 - 3 + 40);
  ASSERT_TRUE(WaitUntil(
      [&] {
        const auto polls = Answered(back);
        return polls.size() >= 3 &&
               polls[polls.size() - 3].accepted >= past_exit;
      },
      past_exit + kTimeout - Clock::now()))
      << Describe();
  ExpectOrderlyEnd(folder_, *program_);
  EXPECT_THAT(folder_.Log(), ElementsAre(StartLine(), kFailureDetail,
                                         kFailureDetail, back_detail, kEndLine))
      << Describe();
  EXPECT_FALSE(folder_.Exists(kExitRan)) << Describe();
}

// --- Refused, reset and silent servers -------------------------------------

// The link rides out a server that refuses, then resets, then stays silent,
// and sends the exact request line on every connection. Records without a
// change log nothing.
TEST_F(ServerModeTest, TroubledServerIsRetriedUntilItAnswers) {
  const long long failed_before = TcpStatistic("AttemptFails");
  Start();
  // Refused attempts leave no trace at the server; the namespace's own
  // statistics count them (the program is the only client in it).
  ASSERT_TRUE(WaitUntil([&] {
    return TcpStatistic("AttemptFails") >= failed_before + 2;
  })) << Describe();

  server_.Set(Mode::kReset);
  ASSERT_TRUE(WaitUntil([&] { return server_.connections().size() >= 3; },
                        2 * kTimeout))
      << Describe();
  server_.Set(Mode::kSilent);
  // The next connection comes about 3 s after the last reset, so it is the
  // first one the server keeps silent.
  const std::size_t silent = server_.connections().size();
  ASSERT_TRUE(WaitUntil([&] { return server_.connections().size() > silent; }))
      << Describe();
  server_.Set(Mode::kAnswer, kQuiet);
  ASSERT_TRUE(AwaitAnswered(kQuiet, 3, seconds(18) + 2 * kTimeout))
      << Describe();

  const auto connections = server_.connections();
  for (std::size_t i = 0; i < silent; ++i) {
    // The reset reaches the program after the server's close, and the
    // program waits 3 s from then before its next connection.
    EXPECT_GE(Between(*connections[i].served, connections[i + 1].accepted), 2.5)
        << "connection " << i + 1 << "\n"
        << Describe();
  }
  ASSERT_TRUE(connections[silent].closed.has_value()) << Describe();
  // The program counts its 18 s from its connection attempt, which the
  // server sees a moment later; half a second covers that moment.
  EXPECT_GE(Between(connections[silent].accepted, *connections[silent].closed),
            17.5)
      << Describe();
  EXPECT_GE(connections[silent + 1].accepted, *connections[silent].closed)
      << Describe();
  // Resets, the silent one and two answered: all ended.
  for (std::size_t i = 0; i < silent + 3; ++i) {
    EXPECT_EQ(connections[i].request, kRequest) << i << "\n" << Describe();
  }
  ExpectOrderlyEnd(folder_, *program_);
  EXPECT_THAT(folder_.Log(), ElementsAre(StartLine(), kEndLine));
}

}  // namespace
}  // namespace kovran::integration
