// Program folders on the fake platform for the power watch, shutdown and
// server link tests. The wall clock reads 10:00:00 on 23 November 2026 at
// virtual time 0.
#ifndef KOVRAN_TESTS_UNIT_PROGRAM_FIXTURE_H_
#define KOVRAN_TESTS_UNIT_PROGRAM_FIXTURE_H_

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "app/program.h"
#include "frame/main_window.h"
#include "platform/fake_platform.h"
#include "platform/fake_tcp_client.h"
#include "power/shutdown_controller.h"

namespace kovran_testing {

using ::testing::ElementsAre;
using namespace std::chrono_literals;
using Duration = platform::FakePlatform::Duration;
using State = platform::FakeTcpClient::State;

inline constexpr char kLogFile[] = "/kovran/SERLOGS/2026-11.CLG";
inline constexpr char kOn[] = "ENABLESHUT:1\r\n";
// Every text these parts show is distinct, and none holds a digit.
inline constexpr char kLanguage[] =
    "021 Connecting\r\n022 Server closed\r\n023 Retrying\r\n025 Going down\r\n"
    "026 Shutdown in\r\n027 seconds\r\n028 All clear\r\n029 Connected\r\n"
    "030 No answer\r\n031 Mains back\r\n032 Status read\r\n034 Refused\r\n"
    "033 Unknown reply\r\n042 On mains\r\n049 Settings reread\r\n051 started\r\n052 failed\r\n"
    "053 Battery test\r\n";

// Message n (two digits) of the test language file.
inline std::string Text(int n) {
  const std::string all = kLanguage;
  const auto at = all.find("0" + std::to_string(n) + " ") + 4;
  return all.substr(at, all.find('\r', at) - at);
}
// The countdown text for `left` seconds.
inline std::string Left(int left) {
  return Text(26) + " " + std::to_string(left) + " " + Text(27);
}
// A status record: "#", flags 2..5, four unread characters, the time field,
// three unread characters and the detail text.
inline std::string Header(const std::string& flags, const std::string& time) {
  return "#" + flags + "0000" + time;
}
inline std::string Record(const std::string& flags, const std::string& time,
                          const std::string& detail = "UPS report") {
  return Header(flags, time) + "000" + detail;
}

// A program folder on a fake platform; `settings` follow the base lines.
struct FolderRig {
  explicit FolderRig(std::string_view settings) {
    fake.folders.insert("/kovran/SERLOGS");
    fake.SetWallClock({2026, 11, 23}, 10 * 3600);
    fake.files["/kovran/upsser.cfg"] =
        "HOST:pavo.example\r\nCLIENTPORT:7000\r\n" + std::string(settings);
    fake.files["/kovran/LANGSE1.TXT"] = kLanguage;
  }
  void AdvanceTo(Duration t) { fake.Advance(t - fake.Now()); }
  // How many log lines read `text` after their time stamp.
  int LogCount(const std::string& text) {
    const std::string log = fake.files[kLogFile], line = ".." + text + "\r\n";
    int n = 0;
    for (size_t at = 0; (at = log.find(line, at)) != log.npos; ++at) ++n;
    return n;
  }

  platform::FakePlatform fake;
};

// The main window with only the shutdown controller plugged in: nothing
// polls, so the countdown texts are the controller's alone.
struct ControllerRig : FolderRig {
  using FolderRig::FolderRig;
  frame::MainWindow main{fake};
  power::ShutdownController controller{main};
  frame::ProgramState& s = main.state;
};

// The whole program; Winsock1 is the server socket a test answers on.
struct ProgramRig : FolderRig {
  explicit ProgramRig(std::string_view settings = kOn) : FolderRig(settings) {}
  platform::FakeTcpClient& server() { return *fake.tcp_clients.at(0); }
  // Plays the server's side of the attempt under way.
  void Answer(const std::string& reply) {
    EXPECT_EQ(server().state(), State::kConnecting);
    server().Accept();
    server().Deliver(reply);
    fake.RunReady();
  }

  app::Program program{fake};
  frame::MainWindow& main = program.main;
  frame::ProgramState& s = program.main.state;
};

}  // namespace kovran_testing

#endif  // KOVRAN_TESTS_UNIT_PROGRAM_FIXTURE_H_
