// What only the real platform on Windows can show: paths in UTF-8, batch
// files run through cmd from a folder with blanks, commands waited for, the
// code pages, the instance lock and the native socket error numbers.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <tuple>

#include "platform/real_platform.h"
#include "platform/socket_errors.h"
#include "platform/tcp_client.h"

namespace platform {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using CodePage = Platform::CodePage;

bool RunUntil(RealPlatform& p, const std::function<bool()>& done) {
  for (int i = 0; i < 10000 && !done(); ++i) p.RunFor(1ms);
  return done();
}

TEST(WindowsPlatformTest, ProgramFolderIsTheExecutablesInUtf8) {
  RealPlatform p(/*exit_process=*/false);
  const std::string folder = p.ProgramFolder();
  EXPECT_EQ(p.PathSeparator(), '\\');
  ASSERT_FALSE(folder.empty());
  EXPECT_NE(folder.back(), '\\');
  EXPECT_TRUE(p.CanOpenForReading(folder + "\\kovran_unit_tests.exe"));
  EXPECT_FALSE(p.CanOpenForReading(folder));
  EXPECT_EQ(p.PlatformNumber(), kPlatformNt);
}

// A batch file in a folder with blanks runs hidden, without waiting, in
// its own folder, and its "pause" reads the empty input and ends; what
// cannot run is a failure at once. A command is waited for, up to a time.
TEST(WindowsPlatformTest, BatchFilesRunThroughCmdFromFoldersWithBlanks) {
  RealPlatform p(/*exit_process=*/false);
  const fs::path folder =
      fs::temp_directory_path() /
      ("kovran blanks " +
       std::to_string(std::chrono::steady_clock::now().time_since_epoch().count()));
  fs::create_directories(folder);
  const std::string batch = (folder / "RUN ME.BAT").string();
  std::ofstream(batch) << "@pause\r\n@echo ran> ran.txt\r\n";
  for (const std::string& path :
       {(folder / "MISSING.BAT").string(), (folder / "NONE.EXE").string(),
        folder.string(), std::string()}) {
    EXPECT_FALSE(p.StartProcess(path, kWindowHidden)) << path;
  }
  ASSERT_TRUE(p.StartProcess(batch, kWindowHidden));
  EXPECT_TRUE(RunUntil(p, [&] { return fs::exists(folder / "ran.txt"); }));
  const CommandResult run = p.RunCommand("cd \"" + folder.string() + "\" && exit 3", 10);
  EXPECT_EQ(std::tuple(run.started, run.ended, run.exit_code),
            std::tuple(true, true, 3));
  EXPECT_FALSE(p.RunCommand("ping -n 10 127.0.0.1", 0.2).ended);
  std::error_code ignored;
  fs::remove_all(folder, ignored);
}

// Whatever the machine's locale: an emoji has a place in no 8-bit code
// page, only where the system's code page is UTF-8 itself.
TEST(WindowsPlatformTest, TextsFitTheCodePagesExactlyOrNotAtAll) {
  RealPlatform p(/*exit_process=*/false);
  const std::string ascii = "C:\\Program Files\\KOVRAN UPS";
  const std::string emoji = "C:\\\xF0\x9F\x98\x80";
  for (CodePage page : {CodePage::kConsole, CodePage::kLog}) {
    EXPECT_EQ(p.InCodePage(ascii, page), ascii);
    const auto converted = p.InCodePage(emoji, page);
    EXPECT_TRUE(!converted || converted == emoji);
    EXPECT_EQ(p.InCodePage("C:\\\xFF", page), std::nullopt) << "not UTF-8";
  }
}

TEST(WindowsPlatformTest, SocketErrorsKeepTheirNativeNumbers) {
  EXPECT_EQ(ToSocketError(asio::error::connection_refused).number,
            wsa::kConnectionRefused);
  EXPECT_EQ(ToSocketError(asio::error::connection_reset).number,
            wsa::kConnectionReset);
  EXPECT_EQ(ToSocketError(asio::error::timed_out).number, wsa::kTimedOut);
  EXPECT_FALSE(ToSocketError(asio::error::connection_refused).description.empty());
  EXPECT_FALSE(ListenerReusesAddress());
}

}  // namespace
}  // namespace platform
