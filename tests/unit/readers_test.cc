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
      {"", 0},          {"abc", 0},    {"  42  ", 42},  {"-17", -17},
      {"+17", 17},      {"- 17", -17}, {"3.25", 3.25},  {".5", 0.5},
      {"5.", 5},        {".", 0},      {"-", 0},        {"12abc", 12},
      {"1e3", 1000},    {"1E3", 1000}, {"1d3", 1000},   {"1D-2", 0.01},
      {"2e", 2},        {"2e+", 2},    {"2,5", 2},      {"1.2.3", 1.2},
      {"&H1F", 31},     {"&hff", 255}, {"&O17", 15},    {"&o8", 0},
      {"&H", 0},        {"&X1", 0},    {"0120", 120},   {"4 2", 42},
      {"4\t2\n0", 420}, {"\r5", 0},    {"1e999", kInf}, {"1e-999", 0}};
  for (const auto& [text, value] : cases) {
    EXPECT_EQ(NumericValue(text), value) << '"' << text << '"';
  }
  EXPECT_EQ(NumericValue("&HFFFFFFFF"), 4294967295.0);
  EXPECT_EQ(NumericValue("&H" + std::string(300, 'F')), kInf);
}

TEST(ToInt16Test, RoundsHalfToEvenAndAcceptsOnlyWhatFits) {
  const std::optional<int16_t> kNo;
  const std::pair<double, std::optional<int16_t>> cases[] = {
      {0.5, 0},         {1.5, 2},           {2.5, 2},       {3.5, 4},
      {-0.5, 0},        {-1.5, -2},         {-2.5, -2},     {2.4999, 2},
      {2.5001, 3},      {-2.6, -3},         {32767, 32767}, {-32768, -32768},
      {32766.5, 32766}, {-32768.5, -32768}, {32767.5, kNo}, {32768, kNo},
      {kInf, kNo},      {std::nan(""), kNo}};
  for (const auto& [in, out] : cases) EXPECT_EQ(ToInt16(in), out) << in;
}

TEST(ParseSettingsTest, StoresValuesAsTheFileWritesThem) {
  // Keys are case-sensitive and start the line; only the first colon splits;
  // a CR or a LF alone ends a line too.
  SettingsItems s;
  const Status status = ParseSettings(
      "HOST: 10.0.0.5\r\nhost:x\r\n HOST:x\r\nHOST :x\r\n:HOST:x\r\n"
      "HOST\r\nCLIENTPORT: 3 0 5 2 \r\nCONNECTION:a:b\r\n"
      "MAXLOCALUSERS:\r\nLOCALWINDOWPORT:&H1388\rPOLLINGTIME:10 \n"
      "LANGUAGE:2B\r\nAGENTNO:2.5\r\nBACKUPTIME:5\r\nLOWTIME:1\r\n"
      "ENABLESHUT:1\r\nSTARTUP:x\r\nPCPOWEROFF:y",
      s);
  ASSERT_TRUE(status.ok());
  EXPECT_EQ(s.SETTINGS,
            (std::array<std::string, 21>{"", " 10.0.0.5", "10 ", "x", "a:b",
                                         "5", "1", "1", "y"}));
  EXPECT_EQ(std::tuple(s.CLIENTPORT, s.MAXLOCALUSERS, s.LOCALWINDOWPORT,
                       s.AGENTNO, s.LANGUAGE),
            std::tuple(3052, 0, 5000, 2, "2B"));
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
  EXPECT_EQ(s.BTLOW[10][1], 9);
  for (int row : {1, 3, 9}) EXPECT_EQ(s.BTNORMAL[row], kEmpty) << row;
  EXPECT_EQ(s.BTNORMAL[0], Codes{});  // row 0 is never preset
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
      {"TYPE:3\rBTLOW:1\rBTLOW:1\rBTLOW:1\rBTLOW:1\rBTLOW:1\rBTLOW:1",
       "line 7:"},
      {"TYPE:11\r\nHOST:x\r\nNAME:x\r\n", "line 3:"},
      {"TYPE:10.5\r\nNAME:ok\r\nTYPE:11.5\r\nNAME:x", "line 4:"},
      {"TYPE:-1\r\nBTLOW:1", "line 2:"},
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
  for (int n = 0; n < kMessageCount; ++n) {
    if (!m[n].empty()) got += std::to_string(n) + "=" + m[n] + ";";
  }
  EXPECT_EQ(got,
            "2=rounded;21=Connecting now;22=colon;23=kept;24=kept;25=second;"
            "26=tab;51=ello;199=last;");
}

}  // namespace
}  // namespace frame
