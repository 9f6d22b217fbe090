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
using namespace std::chrono_literals;

struct TempFolder {
  TempFolder() { folder = ::mkdtemp(pattern.data()) ? pattern : ""; }
  ~TempFolder() { fs::remove_all(folder, ignored); }
  std::string pattern = fs::temp_directory_path() / "kovran-XXXXXX", folder;
  std::error_code ignored;
};

bool RunUntil(RealPlatform& p, const std::function<bool()>& done) {
  for (int i = 0; i < 5000 && !done(); ++i) p.RunFor(1ms);
  return done();
}

TEST(RealPlatformTest, StartProcessRunsExecutableFilesWithoutWaiting) {
  TempFolder d;
  RealPlatform p(/*exit_process=*/false);
  // The runnable script leaves its mark half a second after it started.
  const std::string run = d.folder + "/run.sh", plain = d.folder + "/plain.sh";
  std::ofstream(run) << "#!/bin/sh\nsleep 0.5\ntouch \"$0.ran\"\n";
  std::ofstream(plain) << "#!/bin/sh\n";
  fs::permissions(run, fs::perms::owner_all);
  for (const auto& path : {d.folder + "/missing.sh", plain, d.folder}) {
    EXPECT_FALSE(p.StartProcess(path, kWindowHidden)) << path;
  }
  ASSERT_TRUE(p.StartProcess(run, kWindowNormalFocus));
  EXPECT_FALSE(fs::exists(run + ".ran")) << "waited for the process";
  EXPECT_TRUE(RunUntil(p, [&] { return fs::exists(run + ".ran"); }));
}

// EXIT.EXE's commands: the interpreter's statuses, a wait that ends in
// time, and the switch-off through systemctl found on PATH: a stand-in here,
// so that no test can switch this machine off.
TEST(RealPlatformTest, CommandsAndTheSwitchOffAreWaitedFor) {
  TempFolder d;
  RealPlatform p(/*exit_process=*/false);
  const CommandResult failed = p.RunCommand("echo x; exit 3", 5);
  EXPECT_EQ(std::tuple(failed.started, failed.ended, failed.exit_code),
            std::tuple(true, true, 3));
  const auto asked = std::chrono::steady_clock::now();
  EXPECT_FALSE(p.RunCommand("sleep 5", 0.2).ended);
  EXPECT_LT(std::chrono::steady_clock::now() - asked, 2s);
  std::ofstream(d.folder + "/systemctl")
      << "#!/bin/sh\necho \"$@\" >>\"$0.asked\"\n"
         "[ \"$1\" = poweroff ] || { echo No swap >&2; exit 1; }\n";
  std::ofstream(d.folder + "/shutdown") << "#!/bin/sh\nexit 1\n";
  for (const char* name : {"/systemctl", "/shutdown"}) {
    fs::permissions(d.folder + name, fs::perms::owner_all);
  }
  const std::string path = std::getenv("PATH");
  ::setenv("PATH", (d.folder + ":" + path).c_str(), 1);
  const auto hibernated = p.Hibernate();
  const auto powered_off = p.PowerOff();
  ::setenv("PATH", path.c_str(), 1);
  ASSERT_TRUE(hibernated);
  EXPECT_EQ(std::tuple(hibernated->number, hibernated->text),
            std::tuple(1, "No swap"));
  EXPECT_FALSE(powered_off);
  std::ifstream asked_for(d.folder + "/systemctl.asked");
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(asked_for), {}),
            "hibernate\npoweroff\n");
}

// The program folder and the single-copy rule are shown by running the
// program itself.
TEST(RealPlatformTest, TodayIsTheLocalDate) {
  RealPlatform p(/*exit_process=*/false);
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  ::localtime_r(&now, &local);
  const LocalDate today = p.Today();
  EXPECT_EQ(std::tuple(today.year, today.month, today.day),
            std::tuple(local.tm_year + 1900, local.tm_mon + 1, local.tm_mday));
}

TEST(SocketErrorsTest, OsErrorsBecomeWindowsSocketsNumbers) {
  auto os = [](int e) { return asio::error_code(e, asio::system_category()); };
  // Low BSD numbers keep their meaning, offset by 10000; anything else still
  // gets a number that is neither reset nor refused.
  const std::pair<asio::error_code, int> cases[] = {
      {asio::error::connection_refused, wsa::kConnectionRefused},
      {asio::error::connection_reset, wsa::kConnectionReset},
      {asio::error::broken_pipe, wsa::kConnectionReset},
      {asio::error::host_not_found, wsa::kHostNotFound},
      {os(EACCES), 10013},
      {os(ENOTRECOVERABLE), 10000}};
  for (const auto& [code, number] : cases) {
    EXPECT_EQ(ToSocketError(code).number, number) << code.message();
  }
}

}  // namespace
}  // namespace platform
