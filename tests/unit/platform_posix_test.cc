// What only the real platform on Linux can show: processes, the local
// date and the socket error numbers.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <tuple>
#include <utility>

#include "platform/real_platform.h"
#include "platform/socket_errors.h"
#include "platform/tcp_client.h"

namespace platform {
namespace {

namespace fs = std::filesystem;

// The real platform, with a folder of its own for scripts.
struct RealPlatformPosixTest : ::testing::Test {
  RealPlatformPosixTest() { folder = ::mkdtemp(pattern.data()) ? pattern : ""; }
  ~RealPlatformPosixTest() override { fs::remove_all(folder, ignored); }
  std::string pattern = fs::temp_directory_path() / "kovran-XXXXXX", folder;
  std::error_code ignored;
  RealPlatform p{/*exit_process=*/false};
};

TEST_F(RealPlatformPosixTest, StartProcessRunsOnlyExecutableFiles) {
  const std::string run = folder + "/run.sh", plain = folder + "/plain.sh";
  std::ofstream(run) << "#!/bin/sh\n";
  std::ofstream(plain) << "#!/bin/sh\n";
  fs::permissions(run, fs::perms::owner_all);
  for (const auto& path : {folder + "/missing.sh", plain, folder}) {
    EXPECT_FALSE(p.StartProcess(path, kWindowHidden)) << path;
  }
  EXPECT_TRUE(p.StartProcess(run, kWindowNormalFocus));
}

// EXIT.EXE's commands: the interpreter's statuses, a wait that ends in
// time, and the switch-off through systemctl found on PATH: a stand-in here
// (as is shutdown), so that no test can switch this machine off.
TEST_F(RealPlatformPosixTest, CommandsAndTheSwitchOffAreWaitedFor) {
  const CommandResult failed = p.RunCommand("echo x; exit 3", 5);
  EXPECT_EQ(std::tuple(failed.started, failed.ended, failed.exit_code),
            std::tuple(true, true, 3));
  EXPECT_FALSE(p.RunCommand("sleep 5", 0.2).ended);
  std::ofstream(folder + "/systemctl")
      << "#!/bin/sh\necho \"$@\" >>\"$0.asked\"\n"
         "[ \"$1\" = poweroff ] || { echo No swap >&2; exit 1; }\n";
  std::ofstream(folder + "/shutdown") << "#!/bin/sh\nexit 1\n";
  for (const char* name : {"/systemctl", "/shutdown"}) {
    fs::permissions(folder + name, fs::perms::owner_all);
  }
  const std::string path = std::getenv("PATH");
  ::setenv("PATH", (folder + ":" + path).c_str(), 1);
  const auto hibernated = p.Hibernate();
  const auto powered_off = p.PowerOff();
  ::setenv("PATH", path.c_str(), 1);
  ASSERT_TRUE(hibernated);
  EXPECT_EQ(std::tuple(hibernated->number, hibernated->text), std::tuple(1, "No swap"));
  EXPECT_FALSE(powered_off);
  std::ifstream asked_for(folder + "/systemctl.asked");
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(asked_for), {}),
            "hibernate\npoweroff\n");
}

// The program folder and the single-copy rule are shown by running the
// program itself.
TEST_F(RealPlatformPosixTest, TodayIsTheLocalDate) {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  ::localtime_r(&now, &local);
  const LocalDate today = p.Today();
  EXPECT_EQ(std::tuple(today.year, today.month, today.day),
            std::tuple(local.tm_year + 1900, local.tm_mon + 1, local.tm_mday));
}

TEST(SocketErrorsTest, OsErrorsBecomeWindowsSocketsNumbers) {
  // Low BSD numbers keep their meaning, offset by 10000.
  const std::pair<asio::error_code, int> cases[] = {
      {asio::error::connection_refused, wsa::kConnectionRefused},
      {asio::error::connection_reset, wsa::kConnectionReset},
      {asio::error::broken_pipe, wsa::kConnectionReset},
      {asio::error_code(EACCES, asio::system_category()), 10013}};
  for (const auto& [code, number] : cases) {
    EXPECT_EQ(ToSocketError(code).number, number) << code.message();
  }
}

}  // namespace
}  // namespace platform
