// Program folders on the fake platform for the power watch, shutdown and
// server link tests: a settings file, a language file in which every text
// those parts show is distinct, and the log folder. The wall clock reads
// 10:00:00 on 23 November 2026 at virtual time 0.
#ifndef KOVRAN_TESTS_UNIT_PROGRAM_FIXTURE_H_
#define KOVRAN_TESTS_UNIT_PROGRAM_FIXTURE_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "app/program.h"
#include "frame/main_window.h"
#include "platform/fake_platform.h"
#include "platform/fake_tcp_client.h"
#include "power/shutdown_controller.h"

namespace kovran_testing {

inline constexpr int kStampLength = 22;
inline constexpr char kLogFile[] = "/kovran/SERLOGS/2026-11.CLG";

// Settings every rig starts from; a rig appends its own lines, and a later
// line overrides an earlier one.
inline constexpr char kBaseSettings[] =
    "HOST:pavo.example\r\nCLIENTPORT:7000\r\nMAXLOCALUSERS:3\r\n";
inline constexpr char kShutdownEnabled[] = "ENABLESHUT:1\r\n";

// Message n of the test language file.
inline const std::string& Text(int n) {
  static const std::map<int, std::string> texts = {
      {21, "Connecting"},
      {22, "Server closed the link"},
      {23, "Connecting again"},
      {25, "Shutting down now"},
      {26, "Shutdown in"},
      {27, "seconds"},
      {28, "Mains restored, alarm closed"},
      {29, "Connected"},
      {30, "Server does not answer"},
      {31, "Mains back"},
      {32, "Status received"},
      {33, "Unknown reply"},
      {34, "Connection refused"},
      {42, "On mains"},
      {51, "started"},
      {52, "could not start"},
      {53, "Battery test"},
  };
  static const std::string none;
  const auto it = texts.find(n);
  return it == texts.end() ? none : it->second;
}

// The countdown text for `left` seconds.
inline std::string Left(int left) {
  return Text(26) + " " + std::to_string(left) + " " + Text(27);
}

// The status header of a record: "#", flags 2..5, four unread characters
// and the time field.
inline std::string Header(std::string_view flags, std::string_view time) {
  return "#" + std::string(flags) + "0000" + std::string(time);
}

// A status record: the header, three unread characters, the detail text.
inline std::string Record(std::string_view flags, std::string_view time,
                          std::string_view detail = "UPS report") {
  return Header(flags, time) + "000" + std::string(detail);
}

inline std::chrono::milliseconds Ms(long long ms) {
  return std::chrono::milliseconds(ms);
}

// A program folder on a fake platform, without the program.
struct FolderRig {
  explicit FolderRig(std::string_view settings = kShutdownEnabled) {
    fake.folders.insert("/kovran/SERLOGS");
    fake.SetWallClock({2026, 11, 23}, 10 * 3600);
    fake.files["/kovran/upsser.cfg"] = kBaseSettings + std::string(settings);
    std::string language;
    for (int n = 1; n <= 199; ++n) {
      if (!Text(n).empty()) {
        const std::string number = std::to_string(n);
        language += std::string(3 - number.size(), '0') + number + " " +
                    Text(n) + "\r\n";
      }
    }
    fake.files["/kovran/LANGSE1.TXT"] = language;
  }

  // Moves virtual time to `t` after the start.
  void AdvanceTo(platform::FakePlatform::Duration t) {
    ASSERT_LE(fake.Now(), t);
    fake.Advance(t - fake.Now());
  }
  long long NowMs() const {
    return std::chrono::duration_cast<std::chrono::milliseconds>(fake.Now())
        .count();
  }

  // Every log line, in order, without its time stamp.
  std::vector<std::string> Log() const {
    std::vector<std::string> lines;
    const auto it = fake.files.find(kLogFile);
    if (it == fake.files.end()) return lines;
    const std::string& content = it->second;
    for (std::size_t at = 0; at < content.size();) {
      const auto end = content.find("\r\n", at);
      lines.push_back(
          content.substr(at + kStampLength, end - at - kStampLength));
      at = end == std::string::npos ? content.size() : end + 2;
    }
    return lines;
  }
  int LogCount(const std::string& text) const {
    const auto lines = Log();
    return static_cast<int>(std::count(lines.begin(), lines.end(), text));
  }

  platform::FakePlatform fake;
};

// The main window with only the shutdown controller plugged in: nothing
// polls, so the countdown texts are the controller's alone.
struct ControllerRig : FolderRig {
  explicit ControllerRig(std::string_view settings = kShutdownEnabled)
      : FolderRig(settings) {}

  frame::MainWindow main{fake};
  power::ShutdownController controller{main};
  frame::ProgramState& s = main.state;
};

// The whole program; Winsock1 is the server socket a test answers on.
struct ProgramRig : FolderRig {
  explicit ProgramRig(std::string_view settings = kShutdownEnabled)
      : FolderRig(settings) {}

  platform::FakeTcpClient& server() { return *fake.tcp_clients.at(0); }

  // Plays the server's side of the attempt under way: accepts, delivers
  // `reply`, and lets the program handle both.
  void Answer(const std::string& reply) {
    EXPECT_EQ(server().state(), platform::FakeTcpClient::State::kConnecting);
    server().Accept();
    server().Deliver(reply);
    fake.RunReady();
  }
  // The next one-second tick, and its attempt answered with `reply`.
  void NextPoll(const std::string& reply) {
    fake.Advance(std::chrono::seconds(1));
    Answer(reply);
  }

  app::Program program{fake};
  frame::MainWindow& main = program.main;
  frame::ProgramState& s = program.main.state;
};

}  // namespace kovran_testing

#endif  // KOVRAN_TESTS_UNIT_PROGRAM_FIXTURE_H_
