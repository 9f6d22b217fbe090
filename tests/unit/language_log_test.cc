#include <gtest/gtest.h>

#include "frame/event_log.h"
#include "frame/language.h"
#include "tests/unit/frame_fixture.h"

namespace frame {
namespace {

TEST(LanguageTest, FileNameTakesTheFirstCharacterOfLanguage) {
  EXPECT_EQ(LanguageFileName(""), "LANGSE1.TXT");
  EXPECT_EQ(LanguageFileName("2"), "LANGSE2.TXT");
  EXPECT_EQ(LanguageFileName("2B"), "LANGSE2.TXT");
  EXPECT_EQ(LanguageFileName(" 3"), "LANGSE .TXT");
}

TEST(LanguageTest, ReadsNumberSeparatorAndText) {
  std::array<std::string, kMessageCount> m;
  m[23] = "kept";
  m[24] = "kept";
  ParseLanguage(
      "000 heading line\r\n"
      "  021 Connecting now   \r\n"  // outer blanks go
      "022:colon separator\r"
      "51 Hello\n"                   // two digits: "51 " is the number, 'H'
                                     // the separator
      "023\r\n"                      // number only: no change
      "024 \r\n"                     // nothing after the separator
      "025 first\r\n025 second\r\n"  // a later line replaces
      "1.5 rounded\r\n"              // 1.5 -> 2
      "199 last\r\n200 too high\r\n-01 negative\r\nabc no number\r\n"
      "\t26 tab\r\n",
      m);
  EXPECT_EQ(m[21], "Connecting now");
  EXPECT_EQ(m[22], "colon separator");
  EXPECT_EQ(m[51], "ello");
  EXPECT_EQ(m[23], "kept");
  EXPECT_EQ(m[24], "kept");
  EXPECT_EQ(m[25], "second");
  EXPECT_EQ(m[2], "rounded");
  EXPECT_EQ(m[199], "last");
  EXPECT_EQ(m[0], "");
  EXPECT_EQ(m[200], "");
  EXPECT_EQ(m[1], "");
  EXPECT_EQ(m[26], "tab");  // a tab is no blank, but the number skips it
}

TEST(EventLogTest, StampAndFileNameFormats) {
  EXPECT_EQ(LogStamp({2026, 12, 5}, 9 * 3600 + 7 * 60 + 3.9),
            "05-12-2026--09:07:03..");
  EXPECT_EQ(LogStamp({2026, 12, 5}, 9 * 3600 + 7 * 60 + 3.9).size(), 22u);
  EXPECT_EQ(LogStamp({2027, 1, 31}, 86399.99), "31-01-2027--23:59:59..");
  EXPECT_EQ(LogFileName({2026, 12, 5}), "2026-12.CLG");
  EXPECT_EQ(LogFileName({987, 3, 1}), "0987-03.CLG");
}

class WriteLogTest : public FrameTest {};

TEST_F(WriteLogTest, WritesLinesOfFiveCharactersOrMore) {
  fake_.SetWallClock({2026, 12, 5}, 9 * 3600 + 7 * 60 + 3);
  main_.state.LOGLINE = "abcd";
  main_.WRITELOG();
  EXPECT_EQ(main_.state.LOGLINE, "abcd");
  main_.state.LOGLINE = "abcde";
  main_.WRITELOG();
  EXPECT_EQ(main_.state.LOGLINE, "05-12-2026--09:07:03..abcde");
  main_.state.LOGLINE = "fghij";
  main_.WRITELOG();
  EXPECT_EQ(fake_.files["/kovran/SERLOGS/2026-12.CLG"],
            "05-12-2026--09:07:03..abcde\r\n05-12-2026--09:07:03..fghij\r\n");
}

TEST_F(WriteLogTest, ANewMonthStartsANewFile) {
  fake_.SetWallClock({2026, 12, 31}, 86399.5);
  main_.state.LOGLINE = "old year";
  main_.WRITELOG();
  fake_.Advance(std::chrono::seconds(1));
  main_.state.LOGLINE = "new year";
  main_.WRITELOG();
  EXPECT_EQ(fake_.files["/kovran/SERLOGS/2026-12.CLG"],
            "31-12-2026--23:59:59..old year\r\n");
  EXPECT_EQ(fake_.files["/kovran/SERLOGS/2027-01.CLG"],
            "01-01-2027--00:00:00..new year\r\n");
}

TEST_F(WriteLogTest, FailuresAreSwallowed) {
  fake_.folders.erase("/kovran/SERLOGS");
  main_.state.LOGLINE = "no folder";
  main_.WRITELOG();
  fake_.folders.insert("/kovran/SERLOGS");
  fake_.unwritable.insert("/kovran/SERLOGS/2026-11.CLG");
  main_.state.LOGLINE = "locked file";
  main_.WRITELOG();
  EXPECT_TRUE(LogTexts().empty());
  EXPECT_FALSE(fake_.files.count("/kovran/SERLOGS/2026-11.CLG"));
}

}  // namespace
}  // namespace frame
