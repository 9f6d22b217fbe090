// Server mode on the real binary: the program polls a PAVO server that the
// test runs on 127.0.0.1 (PavoServer), and the test checks the request on
// the wire, the road of a power failure to EXIT.EXE, the mains coming back
// in time, and how the link rides out refused, reset and silent servers.
//
// Timing rule: the program may be late, never early. Lower bounds are what
// the program's timers guarantee; upper bounds are generous deadlines.
#include <signal.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "tests/integration/harness.h"
#include "tests/integration/pavo_server.h"

namespace kovran::integration {
namespace {

using ::testing::ElementsAre;
using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;
using std::chrono::milliseconds;

constexpr uint16_t kPort = 3052;
constexpr char kRequest[] = "H:CL10>IP:127.0.0.1>C:DRY1\r\n";
constexpr char kEndLine[] = "QueryUnload Program ended";
// EXIT.EXE writes the wall-clock time it ran here (via a temporary file, so
// the test never reads it half written).
constexpr char kExitRan[] = "EXIT-RAN";

// Ticks of the exit timer from the shutdown flag to EXIT.EXE.
constexpr Seconds kExitDelay{30};

const std::string kQuiet = StatusRecord("0000", "0000", "Mains normal, UPS ok");

Seconds Between(SteadyTime from, SteadyTime to) { return to - from; }

// `bytes` with CR and LF shown as \r and \n.
std::string Escaped(const std::string& bytes) {
  std::string text;
  for (char c : bytes) {
    text += c == '\r' ? "\\r" : c == '\n' ? "\\n" : std::string(1, c);
  }
  return text;
}

const char* BehaviourName(PavoBehaviour behaviour) {
  switch (behaviour) {
    case PavoBehaviour::kAnswer:
      return "answered";
    case PavoBehaviour::kSilent:
      return "silent";
    case PavoBehaviour::kReset:
      return "reset";
    case PavoBehaviour::kRefuse:
      break;
  }
  return "refused";
}

// `text` with the line "KEY:..." replaced by "KEY:value".
std::string WithSetting(std::string text, const std::string& key,
                        const std::string& value) {
  const std::string prefix = key + ":";
  const auto at = text.find("\n" + prefix);
  if (at == std::string::npos) throw std::logic_error("no setting " + key);
  const auto end = text.find('\n', at + 1);
  return text.replace(at + 1, end - at - 1, prefix + value + "\r");
}

std::size_t CountSince(const PavoServer::Connections& connections,
                       SteadyTime from) {
  std::size_t count = 0;
  for (const auto& c : connections) count += c.accepted >= from ? 1 : 0;
  return count;
}

std::size_t CountServed(const PavoServer::Connections& connections,
                        const std::string& reply) {
  std::size_t count = 0;
  for (const auto& c : connections) count += c.served && c.reply == reply;
  return count;
}

// The first connection that was answered with `reply`.
const PavoConnection* FirstServed(const PavoServer::Connections& connections,
                                  const std::string& reply) {
  for (const auto& c : connections) {
    if (c.served && c.reply == reply) return &c;
  }
  return nullptr;
}

class ServerModeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string settings = DistFile("upsser.cfg");
    settings = WithSetting(settings, "CONNECTION", "SERVER");
    settings = WithSetting(settings, "HOST", "127.0.0.1");
    settings = WithSetting(settings, "CLIENTPORT", std::to_string(kPort));
    settings = WithSetting(settings, "POLLINGTIME", "1");
    settings = WithSetting(settings, "ENABLESHUT", "1");
    folder_.WriteSettings(settings);
    const std::string ran = "'" + folder_.FilePath(kExitRan) + "'";
    const std::string tmp = "'" + folder_.FilePath(kExitRan) + ".tmp'";
    folder_.WriteExecutable("EXIT.EXE", "#!/bin/sh\ndate +%s.%N > " + tmp +
                                            "\nmv " + tmp + " " + ran + "\n");
  }

  void StartAndWait() {
    folder_.Start();
    ASSERT_TRUE(folder_.WaitForLog(start_line_)) << Describe();
  }

  // SIGTERM, the end line, status 0.
  void ExpectOrderlyEnd() {
    ASSERT_TRUE(folder_.Signal(SIGTERM)) << Describe();
    EXPECT_TRUE(folder_.WaitForLog(kEndLine)) << Describe();
    EXPECT_THAT(folder_.WaitForExit(), ExitedWith(0)) << Describe();
  }

  // Waits until the program has made `count` connections at or after
  // `from`; gives up at `deadline`.
  bool WaitForPollsSince(std::size_t count, SteadyTime from,
                         SteadyTime deadline) {
    return server_.WaitFor(
        [&](const auto& c) { return CountSince(c, from) >= count; },
        std::chrono::duration_cast<milliseconds>(deadline - Clock::now()));
  }

  // When EXIT.EXE ran, on this process's steady clock.
  SteadyTime ExitRanAt() const {
    const Seconds wall{
        std::strtod(folder_.ReadFile(kExitRan).c_str(), nullptr)};
    const Seconds now = std::chrono::system_clock::now().time_since_epoch();
    return Clock::now() -
           std::chrono::duration_cast<Clock::duration>(now - wall);
  }

  std::string Describe() const {
    std::string text = folder_.Describe() + "server connections:\n";
    for (const auto& c : server_.connections()) {
      text += "  +" + std::to_string(Between(started_, c.accepted).count()) +
              " s " + BehaviourName(c.behaviour) + " request \"" +
              Escaped(c.request) + "\" reply \"" + c.reply + "\"";
      if (c.served) {
        text +=
            " served +" + std::to_string(Between(started_, *c.served).count());
      }
      if (c.peer_closed) {
        text += " closed +" +
                std::to_string(Between(started_, *c.peer_closed).count());
      }
      text += "\n";
    }
    return text;
  }

  const std::string start_line_ =
      "New Start /" + LanguageMessage(DistFile("LANGSE1.TXT"), 51);
  const SteadyTime started_ = Clock::now();
  // The server outlives the program folder, which kills the program first.
  PavoServer server_{kPort};
  ProgramFolder folder_;
};

// --- The request -------------------------------------------------------------

TEST_F(ServerModeTest, RequestOnTheWireIsExactlyTheRequestLine) {
  server_.Answer(kQuiet);
  StartAndWait();
  ASSERT_TRUE(server_.WaitFor(
      [](const auto& c) { return CountServed(c, kQuiet) >= 3; }, kTimeout * 2))
      << Describe();
  for (const auto& c : server_.connections()) {
    if (c.served) {
      EXPECT_EQ(c.request, kRequest) << Describe();
    }
  }
  // A record without a change logs nothing.
  ExpectOrderlyEnd();
  EXPECT_THAT(folder_.LogLines(), ElementsAre(start_line_, kEndLine));
}

// --- Power failure to EXIT.EXE -----------------------------------------------

TEST_F(ServerModeTest, MainsFailureStartsExitExeThirtySecondsAfterTheFlag) {
  constexpr int kDelay = 5;
  const std::string detail = "Mains failure, UPS on battery";
  const std::string failure = StatusRecord("1000", "0005", detail);
  server_.Answer(failure);
  StartAndWait();
  ASSERT_TRUE(server_.WaitFor(
      [&](const auto& c) { return FirstServed(c, failure) != nullptr; },
      kTimeout))
      << Describe();
  // The program cannot have read the record before this.
  const SteadyTime served =
      *FirstServed(server_.connections(), failure)->served;
  // The countdown runs on whole seconds of the clock, so fewer than 4 s are
  // left at the earliest kDelay - 4 s after the record (a start late in its
  // second); nominally kDelay - 3 s after it.
  const SteadyTime earliest_flag = served + std::chrono::seconds(kDelay - 4);
  const SteadyTime nominal_flag = served + std::chrono::seconds(kDelay - 3);
  const SteadyTime latest_exit = nominal_flag + std::chrono::seconds(40);

  ASSERT_TRUE(WaitUntil(
      [&] { return folder_.Exists(kExitRan); },
      std::chrono::duration_cast<milliseconds>(latest_exit - Clock::now()) +
          milliseconds(1000)))
      << "EXIT.EXE did not run\n"
      << Describe();
  const SteadyTime exit_ran = ExitRanAt();
  EXPECT_GE(Between(nominal_flag, exit_ran).count(), 25) << Describe();
  EXPECT_LE(Between(nominal_flag, exit_ran).count(), 40) << Describe();
  // The exit timer counts 29 full periods after its first tick behind the
  // flag. That tick keeps the timer's cadence, so it may have been due a
  // moment before the flag: allow for that and for reading two clocks.
  EXPECT_GE(Between(earliest_flag, exit_ran).count(),
            (kExitDelay - Seconds(1) - Seconds(0.25)).count())
      << Describe();

  EXPECT_TRUE(folder_.WaitForLog(kEndLine)) << Describe();
  EXPECT_THAT(folder_.WaitForExit(), ExitedWith(0)) << Describe();
  // The detail text is logged twice when the countdown starts.
  EXPECT_THAT(folder_.LogLines(),
              ElementsAre(start_line_, detail, detail, kEndLine))
      << Describe();
}

TEST_F(ServerModeTest, MainsBackBeforeTheFinalPhaseStopsTheCountdown) {
  constexpr int kDelay = 15;
  const std::string failure_detail = "Mains failure, UPS on battery";
  const std::string back_detail = "Mains power is back";
  const std::string failure = StatusRecord("1000", "0015", failure_detail);
  // Flag 5 set: a record with flags 4 and 5 both "0" would restart the
  // countdown's start at every poll, so only stopping the countdown keeps
  // EXIT.EXE from running here.
  const std::string back = StatusRecord("0001", "0015", back_detail);
  server_.Answer(failure);
  StartAndWait();
  ASSERT_TRUE(server_.WaitFor(
      [&](const auto& c) { return FirstServed(c, failure) != nullptr; },
      kTimeout))
      << Describe();
  const SteadyTime served =
      *FirstServed(server_.connections(), failure)->served;

  // Let the countdown run for four more polls, then bring the mains back.
  ASSERT_TRUE(server_.WaitFor(
      [&](const auto& c) { return CountServed(c, failure) >= 5; },
      kTimeout * 2))
      << Describe();
  server_.Answer(back);
  ASSERT_TRUE(server_.WaitFor(
      [&](const auto& c) { return FirstServed(c, back) != nullptr; }, kTimeout))
      << Describe();
  const SteadyTime back_served =
      *FirstServed(server_.connections(), back)->served;
  ASSERT_LT(back_served, served + std::chrono::seconds(kDelay - 4))
      << "the mains came back too late to be in time: the test is void\n"
      << Describe();
  EXPECT_TRUE(folder_.WaitForLog(back_detail)) << Describe();

  // Well past the latest moment EXIT.EXE would have run (see the test
  // above), the program still polls.
  const SteadyTime past_exit = served + std::chrono::seconds(kDelay - 3 + 40);
  ASSERT_TRUE(WaitForPollsSince(3, past_exit, past_exit + kTimeout))
      << Describe();
  EXPECT_TRUE(folder_.IsRunning()) << Describe();
  EXPECT_FALSE(folder_.Exists(kExitRan)) << Describe();
  EXPECT_THAT(folder_.LogLines(), ElementsAre(start_line_, failure_detail,
                                              failure_detail, back_detail))
      << Describe();

  ExpectOrderlyEnd();
  EXPECT_FALSE(folder_.Exists(kExitRan)) << Describe();
}

// --- Refused, reset and silent servers ---------------------------------------

TEST_F(ServerModeTest, RefusedConnectionIsRetriedUntilTheServerListens) {
  const std::optional<long long> failed_before = TcpStatistic("AttemptFails");
  ASSERT_TRUE(failed_before.has_value());
  StartAndWait();
  // Refused attempts leave no trace at the server; the namespace's own
  // statistics count them (the program is the only client in it).
  ASSERT_TRUE(WaitUntil(
      [&] { return TcpStatistic("AttemptFails") >= *failed_before + 2; },
      kTimeout))
      << Describe();
  ASSERT_TRUE(server_.connections().empty());

  // The port was closed until now.
  const SteadyTime listening = Clock::now();
  server_.Answer(kQuiet);
  ASSERT_TRUE(server_.WaitFor(
      [](const auto& c) { return CountServed(c, kQuiet) >= 1; }, kTimeout))
      << "no connection once the server listens\n"
      << Describe();
  const auto connections = server_.connections();
  EXPECT_GE(connections[0].accepted, listening);
  EXPECT_EQ(connections[0].request, kRequest);
  // And it goes on polling.
  EXPECT_TRUE(server_.WaitFor(
      [](const auto& c) { return CountServed(c, kQuiet) >= 3; }, kTimeout))
      << Describe();

  ExpectOrderlyEnd();
  EXPECT_THAT(folder_.LogLines(), ElementsAre(start_line_, kEndLine));
}

TEST_F(ServerModeTest, ResetConnectionIsRetriedThreeSecondsLater) {
  server_.Reset();
  StartAndWait();
  ASSERT_TRUE(server_.WaitFor([](const auto& c) { return c.size() >= 3; },
                              kTimeout * 2))
      << Describe();
  const auto connections = server_.connections();
  for (std::size_t i = 0; i + 1 < 3; ++i) {
    ASSERT_TRUE(connections[i].served.has_value()) << Describe();
    EXPECT_EQ(connections[i].request, kRequest) << Describe();
    // The reset reaches the program after the server's close, and the
    // program waits 3 s from then.
    EXPECT_GE(
        Between(*connections[i].served, connections[i + 1].accepted).count(),
        2.5)
        << "connection " << i + 1 << "\n"
        << Describe();
  }

  // Once the server answers again, the program polls as before.
  server_.Answer(kQuiet);
  EXPECT_TRUE(server_.WaitFor(
      [](const auto& c) { return CountServed(c, kQuiet) >= 3; }, kTimeout * 2))
      << Describe();
  ExpectOrderlyEnd();
  EXPECT_THAT(folder_.LogLines(), ElementsAre(start_line_, kEndLine));
}

TEST_F(ServerModeTest, SilentServerIsGivenUpAfterEighteenSeconds) {
  server_.StaySilent();
  StartAndWait();
  ASSERT_TRUE(
      server_.WaitFor([](const auto& c) { return !c.empty(); }, kTimeout))
      << Describe();
  // The next connection is answered.
  server_.Answer(kQuiet);
  const SteadyTime silent_accepted = server_.connections()[0].accepted;
  ASSERT_TRUE(server_.WaitFor(
      [](const auto& c) { return c.size() >= 2 && c[0].peer_closed; },
      std::chrono::duration_cast<milliseconds>(silent_accepted +
                                               std::chrono::seconds(18) +
                                               kTimeout * 2 - Clock::now())))
      << Describe();
  const auto connections = server_.connections();
  // Everything the program sent on the silent connection until it gave up.
  EXPECT_EQ(connections[0].request, kRequest) << Describe();
  // The program counts its 18 s from its connection attempt, which the
  // server sees a moment later; half a second covers that moment.
  EXPECT_GE(Between(silent_accepted, *connections[0].peer_closed).count(), 17.5)
      << Describe();
  EXPECT_GE(Between(silent_accepted, connections[1].accepted).count(), 17.5)
      << Describe();
  EXPECT_GE(connections[1].accepted, *connections[0].peer_closed) << Describe();

  EXPECT_TRUE(server_.WaitFor(
      [](const auto& c) { return CountServed(c, kQuiet) >= 3; }, kTimeout * 2))
      << Describe();
  ExpectOrderlyEnd();
  EXPECT_THAT(folder_.LogLines(), ElementsAre(start_line_, kEndLine));
}

}  // namespace
}  // namespace kovran::integration
