// The text readers: numbers, the settings file and the language file.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>
#include <optional>
#include <string>
#include <tuple>
#include <utility>

#include "frame/language.h"
#include "frame/numeric.h"
#include "frame/settings.h"

namespace frame {
namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();

// Blanks, tabs and line feeds inside a number are skipped; a CR is not.
TEST(NumericValueTest, ReadsTheLeadingNumber) {
  const std::pair<const char*, double> cases[] = {
      {"abc", 0},    {"  42  ", 42},   {"- 17", -17},  {"3.25", 3.25},
      {"12abc", 12}, {"1d3", 1000},    {"1D-2", 0.01}, {"&hff", 255},
      {"&O17", 15},  {"4\t2\n0", 420}, {"\r5", 0},     {"1e999", kInf}};
  for (const auto& [text, value] : cases) {
    EXPECT_EQ(NumericValue(text), value) << '"' << text << '"';
  }
}

TEST(ToInt16Test, RoundsHalfToEvenAndAcceptsOnlyWhatFits) {
  const std::optional<int16_t> kNo;
  const std::pair<double, std::optional<int16_t>> cases[] = {
      {0.5, 0},    {1.5, 2},       {2.5, 2},         {-0.5, 0},    {-2.5, -2},
      {2.5001, 3}, {32767, 32767}, {-32768, -32768}, {32768, kNo}, {kInf, kNo}};
  for (const auto& [in, out] : cases) EXPECT_EQ(ToInt16(in), out) << in;
}

TEST(ParseSettingsTest, FillsTheTypeTableByBlocksAfresh) {
  using Codes = std::array<int16_t, kBatteryCodes>;
  const Codes kEmpty = {0, 100, 100, 100, 100, 100};
  SettingsItems s;
  const Status status = ParseSettings(
      "NAME:no block yet\r\nBTNORMAL:7\r\nTYPE:2.5\r\nSHORT:S2\r\n"
      "NAME:N2\r\nSYSOBJE:1.3.6\r\nBATSTAT:1.1\r\nTIME:1.2\r\n"
      "BTNORMAL:1\r\nBTNORMAL:2\r\nBTNORMAL:3\r\nBTLOW:-4\r\n"
      "TYPE:10\r\nBTLOW:9\r\nTYPE:2\r\nBTNORMAL:5\r\n",
      s);
  ASSERT_TRUE(status.ok());
  EXPECT_EQ(s.UPSTYPES[2], (std::array<std::string, kUpsTypeFields>{
                               "", "N2", "1.3.6", "1.1", "1.2", "S2"}));
  EXPECT_EQ(s.BTNORMAL[2], (Codes{0, 5, 2, 3, 100, 100}));  // again from 1
  EXPECT_EQ(s.BTLOW[2], (Codes{0, -4, 100, 100, 100, 100}));
  ASSERT_TRUE(ParseSettings("CLIENTPORT:1", s).ok());
  EXPECT_EQ(s.UPSTYPES[2][NAME], "");
  EXPECT_EQ(s.BTNORMAL[2], kEmpty);
}

TEST(ParseSettingsTest, NamesTheLineThatBreaksALimit) {
  const std::pair<const char*, const char*> cases[] = {
      // nullptr: accepted
      {"CLIENTPORT:40000\r\nHOST:a\r\n", "line 1:"},
      {"TYPE:1\nBTNORMAL:1\nBTNORMAL:2\nBTNORMAL:3\nBTNORMAL:4\nBTNORMAL:"
       "5\nBTNORMAL:6\n",
       "line 7:"},
      {"TYPE:99\r\nHOST:x\r\nTYPE:0\r\nNAME:n", nullptr}};
  for (const auto& [text, where] : cases) {
    SettingsItems s;
    const Status status = ParseSettings(text, s);
    EXPECT_EQ(status.message().substr(0, 7), where ? where : "") << text;
  }
}

TEST(LanguageTest, ReadsNumberSeparatorAndText) {
  std::array<std::string, kMessageCount> m;
  m[23] = m[24] = "kept";
  // "51 Hello": "51 " is the number, 'H' the separator; a tab is no blank,
  // but the number skips it.
  ParseLanguage(
      "000 heading\r\n  021 Connecting now   \r\n022:colon\r51 Hello\n023\r\n"
      "024 \r\n025 first\r\n025 second\r\n1.5 rounded\r\n199 last\r\n"
      "200 too high\r\n-01 negative\r\n\t26 tab\r\n",
      m);
  std::string got;
  for (int n = 0; n < kMessageCount; ++n)
    if (!m[n].empty()) got += std::to_string(n) + "=" + m[n] + ";";
  EXPECT_EQ(got,
            "2=rounded;21=Connecting now;22=colon;23=kept;24=kept;25=second;"
            "26=tab;51=ello;199=last;");
}

}  // namespace
}  // namespace frame
