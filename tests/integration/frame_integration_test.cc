// The program frame as a whole: start-up, the event log, the ways the
// program ends and the single-instance rule, on the real binary.
#include <signal.h>

#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "tests/integration/harness.h"

namespace kovran::integration {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::SizeIs;

constexpr char kEndLine[] = "QueryUnload Program ended";

std::string StartLine(const std::string& language_file) {
  return "New Start /" + LanguageMessage(language_file, 51);
}

class FrameTest : public ::testing::Test {
 protected:
  const std::string start_line_ = StartLine(DistFile("LANGSE1.TXT"));

  // Starts the program in `folder` and waits for its start line.
  void StartAndWait(ProgramFolder& folder) {
    folder.Start();
    ASSERT_TRUE(folder.WaitForLog(start_line_)) << folder.Describe();
  }

  // Sends `sig` and expects the orderly end: the end line, status 0.
  void ExpectOrderlyEnd(ProgramFolder& folder, int sig = SIGTERM) {
    ASSERT_TRUE(folder.Signal(sig)) << folder.Describe();
    EXPECT_TRUE(folder.WaitForLog(kEndLine)) << folder.Describe();
    EXPECT_THAT(folder.WaitForExit(), ExitedWith(0)) << folder.Describe();
  }

  ProgramFolder folder_;
};

// --- Start and orderly end ---------------------------------------------------

TEST_F(FrameTest, StartLineIsFirstAndProgramKeepsRunning) {
  ASSERT_NE(LanguageMessage(DistFile("LANGSE1.TXT"), 51), "");
  StartAndWait(folder_);

  const std::vector<std::string> raw = folder_.RawLogLines();
  ASSERT_THAT(raw, SizeIs(1));
  EXPECT_TRUE(IsLogStamp(raw[0].substr(0, kStampLength))) << raw[0];
  EXPECT_EQ(raw[0].substr(kStampLength), start_line_);
  EXPECT_TRUE(folder_.IsRunning());

  // Nothing else happened in between: the end line follows directly.
  ExpectOrderlyEnd(folder_);
  EXPECT_THAT(folder_.LogLines(), ElementsAre(start_line_, kEndLine));
}

class FrameSignalTest : public FrameTest,
                        public ::testing::WithParamInterface<int> {};

TEST_P(FrameSignalTest, SignalEndsProgramInOrder) {
  StartAndWait(folder_);
  ExpectOrderlyEnd(folder_, GetParam());
  EXPECT_THAT(folder_.LogLines(), ElementsAre(start_line_, kEndLine));
}

INSTANTIATE_TEST_SUITE_P(CloseSignals, FrameSignalTest,
                         ::testing::Values(SIGTERM, SIGINT),
                         [](const ::testing::TestParamInfo<int>& info) {
                           return info.param == SIGTERM ? "Sigterm" : "Sigint";
                         });

TEST_F(FrameTest, RunsWithoutLogFolder) {
  folder_.RemoveFile("SERLOGS");
  folder_.Start();
  // No log to wait for: wait until the program handles SIGTERM itself.
  ASSERT_TRUE(folder_.program().WaitUntilCatching(SIGTERM))
      << folder_.Describe();
  EXPECT_TRUE(folder_.IsRunning());
  ASSERT_TRUE(folder_.Signal(SIGTERM));
  EXPECT_THAT(folder_.WaitForExit(), ExitedWith(0)) << folder_.Describe();
  EXPECT_FALSE(folder_.Exists("SERLOGS"));
}

// --- Language file -----------------------------------------------------------

TEST_F(FrameTest, MissingLanguageFileEndsWithError) {
  folder_.RemoveFile("LANGSE1.TXT");
  folder_.Start();
  EXPECT_THAT(folder_.WaitForExit(), ExitedWith(1)) << folder_.Describe();
  EXPECT_THAT(folder_.LogLines(), ElementsAre("Language support file error"));
}

TEST_F(FrameTest, LanguageTwoSelectsSecondLanguageFile) {
  std::string settings = DistFile("upsser.cfg");
  const auto at = settings.find("LANGUAGE:1");
  ASSERT_NE(at, std::string::npos);
  settings.replace(at, 10, "LANGUAGE:2");
  folder_.WriteSettings(settings);
  const std::string second_language =
      "000 KOVRAN messages, second language\r\n"
      "051 Zweite Sprache: KOVRAN gestartet\r\n";
  folder_.WriteFile("LANGSE2.TXT", second_language);

  folder_.Start();
  ASSERT_TRUE(folder_.WaitForLog(StartLine(second_language)))
      << folder_.Describe();
  EXPECT_THAT(folder_.LogLines(), ElementsAre(StartLine(second_language)));
  ExpectOrderlyEnd(folder_);
}

// --- Single instance ---------------------------------------------------------

TEST_F(FrameTest, SecondInstanceInSameFolderEndsAtOnce) {
  StartAndWait(folder_);
  std::vector<std::string> expected = folder_.LogLines();

  auto second = folder_.StartAnother();
  EXPECT_THAT(second->WaitForExit(), ExitedWith(0)) << folder_.Describe();
  expected.push_back(kEndLine);
  EXPECT_EQ(folder_.LogLines(), expected);
  EXPECT_TRUE(folder_.IsRunning());

  ExpectOrderlyEnd(folder_);
}

TEST_F(FrameTest, CopyInAnotherFolderRunsAlongside) {
  ProgramFolder other;
  StartAndWait(folder_);
  StartAndWait(other);
  EXPECT_TRUE(folder_.IsRunning());
  EXPECT_TRUE(other.IsRunning());

  ExpectOrderlyEnd(other);
  ExpectOrderlyEnd(folder_);
  EXPECT_THAT(folder_.LogLines(), ElementsAre(start_line_, kEndLine));
  EXPECT_THAT(other.LogLines(), ElementsAre(start_line_, kEndLine));
}

// --- Settings file -----------------------------------------------------------

TEST_F(FrameTest, MissingSettingsFileEndsWithError) {
  folder_.RemoveFile("upsser.cfg");
  folder_.Start();
  EXPECT_THAT(folder_.WaitForExit(), ExitedWith(1)) << folder_.Describe();
  const std::vector<std::string> lines = folder_.LogLines();
  ASSERT_THAT(lines, SizeIs(1));
  EXPECT_THAT(lines[0], HasSubstr(folder_.FilePath("upsser.cfg")));
}

TEST_F(FrameTest, SettingOutOfRangeEndsNamingTheLine) {
  folder_.WriteSettings(
      "# settings with one bad value\r\n"
      "LANGUAGE:1\r\n"
      "CLIENTPORT:40000\r\n"
      "HOST:127.0.0.1\r\n");
  folder_.Start();
  EXPECT_THAT(folder_.WaitForExit(), ExitedWith(1)) << folder_.Describe();
  const std::vector<std::string> lines = folder_.LogLines();
  ASSERT_THAT(lines, SizeIs(1));
  EXPECT_THAT(lines[0], HasSubstr("upsser.cfg"));
  EXPECT_THAT(lines[0], HasSubstr("line 3"));
  EXPECT_THAT(lines[0], HasSubstr("CLIENTPORT"));
}

}  // namespace
}  // namespace kovran::integration
