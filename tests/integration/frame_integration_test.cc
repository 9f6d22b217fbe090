// The program frame on the real binary: start-up, the event log, the ways the
// program ends and the single-instance rule.
#include "gmock/gmock.h"
#include "tests/integration/harness.h"

namespace kovran::integration {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::MatchesRegex;

// The stamped start line is the only line until SIGTERM, SIGINT or SIGHUP (a
// log-off) ends the program in order. Meanwhile a second copy from the same
// folder logs the end line and ends at once with status 0, while a copy in
// another folder runs on.
class FrameEndTest : public ::testing::TestWithParam<int> {};

TEST_P(FrameEndTest, StartsAndEndsInOrderOneCopyPerFolder) {
  ProgramFolder folder, other;
  Program& program = folder.Start();
  ASSERT_TRUE(folder.WaitForLog(kStartLine));
  // The fixed ports are this copy's before the other starts.
  ASSERT_TRUE(Window().Ready());
  Program& beside = other.Start();
  ASSERT_TRUE(other.WaitForLog(kStartLine));
  EXPECT_EQ(folder.Start().WaitForExit(), 0);
  EXPECT_TRUE(beside.Running());
  program.ExpectOrderlyEnd(GetParam());
  EXPECT_THAT(folder.Log(), ElementsAre(kStartLine, kEndLine, kEndLine));
  EXPECT_THAT(folder.Log(/*stamps=*/true),
              Each(MatchesRegex("[0-3][0-9]-[01][0-9]-[0-9]{4}--[0-2][0-9]:"
                                "[0-5][0-9]:[0-5][0-9]\\.\\..+")));
}

INSTANTIATE_TEST_SUITE_P(Ends, FrameEndTest,
                         ::testing::Values(SIGTERM, SIGINT, SIGHUP));

// The program logs why in one line and ends with status 1.
TEST(FrameTest, UnusableFileEndsWithStatusOne) {
  ProgramFolder no_language, no_settings, bad_setting;
  fs::remove(no_language.Path("LANGSE1.TXT"));
  fs::remove(no_settings.Path("upsser.cfg"));
  bad_setting.Write("upsser.cfg",
                    "# bad\r\nLANGUAGE:1\r\nCLIENTPORT:40000\r\n");
  const std::string settings = "Settings file ", ends = "; the program ends";
  for (const auto& [folder, line] :
       {std::pair{&no_language, std::string("Language support file error")},
        {&no_settings,
         settings + no_settings.Path("upsser.cfg") + " cannot be read" + ends},
        {&bad_setting, settings + bad_setting.Path("upsser.cfg") +
                           " line 3: CLIENTPORT: value is not within "
                           "-32768..32767" +
                           ends}}) {
    EXPECT_EQ(folder->Start().WaitForExit(), 1);
    EXPECT_THAT(folder->Log(), ElementsAre(line));
  }
}

}  // namespace
}  // namespace kovran::integration
