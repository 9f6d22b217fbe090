// The program frame as a whole: start-up, the event log, the ways the
// program ends and the single-instance rule, on the real binary.
#include <signal.h>
#include <string.h>

#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "tests/integration/harness.h"

namespace kovran::integration {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

class FrameSignalTest : public ::testing::TestWithParam<int> {};

// The start line, stamped "dd-mm-yyyy--hh:mm:ss..", is the only line until
// SIGTERM, SIGINT or SIGHUP (a log-off) ends the program in order.
TEST_P(FrameSignalTest, StartsAndEndsInOrder) {
  ProgramFolder folder;
  Program& program = folder.Start();
  ASSERT_TRUE(folder.WaitForLog(StartLine())) << folder.Describe();
  EXPECT_THAT(
      folder.Log(/*stamps=*/true),
      ElementsAre(MatchesRegex("[0-3][0-9]-[01][0-9]-[0-9]{4}--[0-2][0-9]:"
                               "[0-5][0-9]:[0-5][0-9]\\.\\.New Start /.*")))
      << folder.Describe();
  ExpectOrderlyEnd(folder, program, GetParam());
  EXPECT_THAT(folder.Log(), ElementsAre(StartLine(), kEndLine));
}

INSTANTIATE_TEST_SUITE_P(CloseSignals, FrameSignalTest,
                         ::testing::Values(SIGTERM, SIGINT, SIGHUP),
                         [](const ::testing::TestParamInfo<int>& info) {
                           return std::string(sigabbrev_np(info.param));
                         });

TEST(FrameTest, RunsAndEndsWithoutLogFolder) {
  ProgramFolder folder;
  folder.Remove("SERLOGS");
  Program& program = folder.Start();
  // No log to wait for: wait until the program handles SIGTERM itself.
  ASSERT_TRUE(program.WaitUntilCatching(SIGTERM)) << folder.Describe();
  ASSERT_TRUE(program.Signal(SIGTERM));
  EXPECT_EQ(program.WaitForExit(), 0) << folder.Describe();
  EXPECT_FALSE(folder.Exists("SERLOGS"));
}

// Each folder lacks a file or has a bad setting: the program logs why in one
// line and ends with status 1.
TEST(FrameTest, UnusableFileEndsWithStatusOne) {
  ProgramFolder no_language;
  no_language.Remove("LANGSE1.TXT");
  ProgramFolder no_settings;
  no_settings.Remove("upsser.cfg");
  ProgramFolder bad_setting;
  bad_setting.Write("upsser.cfg",
                    "# settings with one bad value\r\n"
                    "LANGUAGE:1\r\n"
                    "CLIENTPORT:40000\r\n");
  const std::string bad_file =
      "Settings file " + bad_setting.Path("upsser.cfg") + " line 3: ";
  const std::pair<ProgramFolder*, ::testing::Matcher<std::string>> cases[] = {
      {&no_language, "Language support file error"},
      {&no_settings, "Settings file " + no_settings.Path("upsser.cfg") +
                         " cannot be read; the program ends"},
      {&bad_setting, AllOf(StartsWith(bad_file), HasSubstr("CLIENTPORT"),
                           EndsWith("; the program ends"))},
  };
  for (auto& [folder, line] : cases) {
    EXPECT_EQ(folder->Start().WaitForExit(), 1) << folder->Describe();
    EXPECT_THAT(folder->Log(), ElementsAre(line)) << folder->Describe();
  }
}

TEST(FrameTest, LanguageTwoReadsTheSecondLanguageFile) {
  ProgramFolder folder;
  folder.SetSetting("LANGUAGE", "2");
  folder.Write("LANGSE2.TXT",
               "000 KOVRAN messages, second language\r\n"
               "051 Zweite Sprache: KOVRAN gestartet\r\n");
  const std::string start_line = "New Start /Zweite Sprache: KOVRAN gestartet";
  Program& program = folder.Start();
  ASSERT_TRUE(folder.WaitForLog(start_line)) << folder.Describe();
  ExpectOrderlyEnd(folder, program);
  EXPECT_THAT(folder.Log(), ElementsAre(start_line, kEndLine));
}

// A second copy started from the same folder logs the end line and ends at
// once with status 0; the first copy and a copy in another folder run on.
TEST(FrameTest, OneRunningCopyPerFolder) {
  ProgramFolder folder;
  ProgramFolder other;
  Program& first = folder.Start();
  ASSERT_TRUE(folder.WaitForLog(StartLine())) << folder.Describe();
  Program& beside = other.Start();
  ASSERT_TRUE(other.WaitForLog(StartLine())) << other.Describe();

  EXPECT_EQ(folder.Start().WaitForExit(), 0) << folder.Describe();
  EXPECT_TRUE(first.Running());
  EXPECT_TRUE(beside.Running());

  ExpectOrderlyEnd(other, beside);
  ExpectOrderlyEnd(folder, first);
  EXPECT_THAT(folder.Log(), ElementsAre(StartLine(), kEndLine, kEndLine));
  EXPECT_THAT(other.Log(), ElementsAre(StartLine(), kEndLine));
}

}  // namespace
}  // namespace kovran::integration
