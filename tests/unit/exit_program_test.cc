// EXIT.EXE on the fake platform: what it runs, orders and logs for each
// EXITACTION, with the EXITBEFORE command and the system failing or not.
#include "exit/exit_program.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>

#include "platform/fake_platform.h"

namespace exitprogram {
namespace {

TEST(ExitProgramTest, ActsAsTheSettingsSayAndLogsEachStep) {
  const platform::CommandResult not_started{.error = {2, "No such file or directory"}},
      hung{.started = true, .error = {}},
      failing{.started = true, .error = {}, .ended = true, .exit_code = 3};
  const struct {
    const char* settings;                   // nullptr: no upsser.cfg
    const platform::CommandResult* before;  // nullptr: no EXITBEFORE
    bool hibernate_fails;
    std::vector<std::string> switch_offs, log;
  } cases[] = {
      // Without its settings it still switches the PC off.
      {nullptr, nullptr, false, {"poweroff"},
       {"upsser.cfg cannot be read", "switching the PC off"}},
      {"EXITACTION:TEST\r\nEXITBEFORE: stop-db \r\n", &failing, false, {},
       {"EXITBEFORE stop-db ended with status 3",
        "EXITACTION:TEST: the PC would be switched off now"}},
      {"EXITACTION: hibernate\r\nEXITBEFORE:stop-db\r\n", &hung, false, {"hibernate"},
       {"EXITBEFORE stop-db did not end within 30 s", "hibernating the PC"}},
      {"EXITACTION:HIBERNATE\r\nEXITBEFORE:stop-db\r\n", &not_started, true,
       {"hibernate", "poweroff"},
       {"EXITBEFORE stop-db could not be started: 2 No such file or directory",
        "hibernating the PC",
        "hibernating failed: 5 Access is denied; switching the PC off instead"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.settings);
    platform::FakePlatform fake;
    fake.folders.insert("/kovran/SERLOGS");
    if (c.settings) fake.files["/kovran/upsser.cfg"] = c.settings;
    if (c.before) fake.command_results["stop-db"] = *c.before;
    if (c.hibernate_fails) fake.hibernate_error = platform::SystemError{5, "Access is denied"};
    EXPECT_EQ(exitprogram::Run(fake), 0);
    EXPECT_EQ(fake.switch_offs, c.switch_offs);
    EXPECT_EQ(fake.Now(), std::chrono::seconds(c.before == &hung ? 30 : 0));
    // The log lines without their time stamps, each ended by '|'.
    std::string expected;
    for (const std::string& line : c.log) expected += "EXIT.EXE: " + line + "|";
    EXPECT_EQ(std::regex_replace(fake.files["/kovran/SERLOGS/2026-11.CLG"],
                                 std::regex(".{22}(.*)\r\n"), "$1|"),
              expected);
  }
}

}  // namespace
}  // namespace exitprogram
