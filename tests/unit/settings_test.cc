#include "frame/settings.h"

#include <gtest/gtest.h>

#include "tests/unit/frame_fixture.h"

namespace frame {
namespace {

SettingsItems Parse(const std::string& text) {
  SettingsItems items;
  const Status s = ParseSettings(text, items);
  EXPECT_TRUE(s.ok()) << s.message();
  return items;
}

TEST(ParseSettingsTest, StoresValuesAsTheFileWritesThem) {
  const SettingsItems s = Parse(
      "HOST: 10.0.0.5\r\n"            // the blank after the colon is kept
      "CLIENTPORT: 3 0 5 2 \r\n"      // blanks do not matter in numbers
      "CONNECTION:host:with:colons\r\n"  // only the first colon splits
      "MAXLOCALUSERS:\r\n"
      "LOCALWINDOWPORT:&H1388\r"      // a CR alone ends a line
      "POLLINGTIME:10 \n"             // so does a LF alone
      "LANGUAGE:2B\r\n"
      "BACKUPTIME:5\r\nLOWTIME:1\r\nENABLESHUT:1\r\n"
      "STARTUP:x\r\nPCPOWEROFF:y");   // the last line needs no line end
  EXPECT_EQ(s.SETTINGS[HOST], " 10.0.0.5");
  EXPECT_EQ(s.CLIENTPORT, 3052);
  EXPECT_EQ(s.SETTINGS[CONNECTION], "host:with:colons");
  EXPECT_EQ(s.MAXLOCALUSERS, 0);
  EXPECT_EQ(s.LOCALWINDOWPORT, 5000);
  EXPECT_EQ(s.SETTINGS[POLLINGTIME], "10 ");
  EXPECT_EQ(s.LANGUAGE, "2B");
  EXPECT_EQ(s.SETTINGS[BACKUPTIME], "5");
  EXPECT_EQ(s.SETTINGS[LOWTIME], "1");
  EXPECT_EQ(s.SETTINGS[ENABLESHUT], "1");
  EXPECT_EQ(s.SETTINGS[STARTUP], "x");
  EXPECT_EQ(s.SETTINGS[PCPOWEROFF], "y");
  for (int unused : {0, 9, 20}) EXPECT_EQ(s.SETTINGS[unused], "");
}

TEST(ParseSettingsTest, IgnoresLinesThatMatchNoKey) {
  const SettingsItems s = Parse(
      "host:lower case\r\n"
      " HOST:leading blank\r\n"
      "HOST :blank before colon\r\n"
      ":HOST:colon first\r\n"
      "no colon at all\r\n"
      "UNKNOWN:1\r\n"
      "\r\n");
  EXPECT_EQ(s.SETTINGS[HOST], "");
}

TEST(ParseSettingsTest, RoundsNumbersHalfToEven) {
  EXPECT_EQ(Parse("AGENTNO:2.5").AGENTNO, 2);
  EXPECT_EQ(Parse("AGENTNO:3.5").AGENTNO, 4);
  EXPECT_EQ(Parse("AGENTNO:-32768.4").AGENTNO, -32768);
  EXPECT_EQ(Parse("CLIENTPORT:32767").CLIENTPORT, 32767);
  EXPECT_EQ(Parse("CLIENTPORT:port").CLIENTPORT, 0);
}

TEST(ParseSettingsTest, FillsTheTypeTableByBlocks) {
  const SettingsItems s = Parse(
      "NAME:before any type\r\n"  // no block yet: ignored
      "BTNORMAL:7\r\n"
      "TYPE:2.5\r\n"              // row 2
      "SHORT:S2\r\nNAME:N2\r\nSYSOBJE:1.3.6\r\nBATSTAT:1.1\r\nTIME:1.2\r\n"
      "BTNORMAL:1\r\nBTNORMAL:2\r\nBTNORMAL:3\r\n"
      "BTLOW:-4\r\n"
      "TYPE:10\r\nBTLOW:9\r\n"
      "TYPE:2\r\nBTNORMAL:5\r\n");  // the same row again, from position 1
  EXPECT_EQ(s.UPSTYPES[2][NAME], "N2");
  EXPECT_EQ(s.UPSTYPES[2][SYSOBJE], "1.3.6");
  EXPECT_EQ(s.UPSTYPES[2][BATSTAT], "1.1");
  EXPECT_EQ(s.UPSTYPES[2][TIME], "1.2");
  EXPECT_EQ(s.UPSTYPES[2][SHORT], "S2");
  EXPECT_EQ(s.BTNORMAL[2], (std::array<int16_t, 6>{0, 5, 2, 3, 100, 100}));
  EXPECT_EQ(s.BTLOW[2], (std::array<int16_t, 6>{0, -4, 100, 100, 100, 100}));
  EXPECT_EQ(s.BTLOW[10][1], 9);
  for (int row : {1, 3, 9}) {
    EXPECT_EQ(s.UPSTYPES[row][NAME], "") << row;
    EXPECT_EQ(s.BTNORMAL[row], (std::array<int16_t, 6>{0, 100, 100, 100, 100, 100}));
  }
  // Row 0 is never preset; entries 0 stay untouched.
  EXPECT_EQ(s.BTNORMAL[0], (std::array<int16_t, 6>{}));
}

TEST(ParseSettingsTest, ResetsTheTypeTableAtEveryReading) {
  SettingsItems s;
  ASSERT_TRUE(ParseSettings("TYPE:1\r\nNAME:old\r\nBTLOW:3\r\nHOST:h", s).ok());
  ASSERT_TRUE(ParseSettings("CLIENTPORT:1", s).ok());
  EXPECT_EQ(s.UPSTYPES[1][NAME], "");
  EXPECT_EQ(s.BTLOW[1][1], 100);
  EXPECT_EQ(s.SETTINGS[HOST], "h");  // other keys keep their values
}

TEST(ParseSettingsTest, NamesTheLineThatBreaksALimit) {
  const struct {
    const char* text;
    const char* where;
  } cases[] = {
      {"HOST:a\r\nCLIENTPORT:40000\r\n", "line 2:"},
      {"LOCALWINDOWPORT:1e999", "line 1:"},
      {"MAXLOCALUSERS:&HFFFFFFFF", "line 1:"},
      {"AGENTNO:32767.5", "line 1:"},
      {"TYPE:1\nBTNORMAL:1\nBTNORMAL:2\nBTNORMAL:3\nBTNORMAL:4\nBTNORMAL:5\n"
       "BTNORMAL:6\n",
       "line 7:"},
      {"TYPE:3\rBTLOW:1\rBTLOW:1\rBTLOW:1\rBTLOW:1\rBTLOW:1\rBTLOW:1", "line 7:"},
      {"TYPE:11\r\nHOST:x\r\nNAME:x\r\n", "line 3:"},
      {"TYPE:10.5\r\nNAME:ok\r\nTYPE:11.5\r\nNAME:x", "line 4:"},
      {"TYPE:-1\r\nBTLOW:1", "line 2:"},
      {"TYPE:1e999\r\nSHORT:x", "line 2:"},
      {"TYPE:1\r\nBTNORMAL:99999", "line 2:"},
  };
  for (const auto& c : cases) {
    SettingsItems s;
    const Status status = ParseSettings(c.text, s);
    EXPECT_FALSE(status.ok()) << c.text;
    EXPECT_NE(status.message().find(c.where), std::string::npos)
        << c.text << " -> " << status.message();
  }
}

TEST(ParseSettingsTest, AnOutOfRangeTypeAloneIsAccepted) {
  SettingsItems s;
  EXPECT_TRUE(ParseSettings("TYPE:99\r\nHOST:x\r\nTYPE:1\r\nNAME:n", s).ok());
  EXPECT_EQ(s.UPSTYPES[1][NAME], "n");
}

TEST(ParseSettingsTest, SurvivesHostileText) {
  SettingsItems s;
  EXPECT_TRUE(ParseSettings(std::string(1 << 20, 'x'), s).ok());
  EXPECT_TRUE(ParseSettings("HOST:" + std::string(1 << 20, '\xff'), s).ok());
  EXPECT_EQ(s.SETTINGS[HOST].size(), 1u << 20);
  std::string binary;
  for (int i = 0; i < 4096; ++i) binary += static_cast<char>(i * 37);
  ParseSettings(binary, s);  // either outcome; it must not crash
  std::string many;
  for (int i = 0; i < 1000000; ++i) many += "TYPE:1\n";
  EXPECT_TRUE(ParseSettings(many, s).ok());
}

class LoadSettingsTest : public FrameTest {};

TEST_F(LoadSettingsTest, EveryReadingSetsDetailPollPhaseAndTickAndKeepsMissingKeys) {
  main_.state.MESSAGES[42] = "On mains";
  for (const char* file : {"HOST:127.0.0.1\r\n", "CLIENTPORT:7\r\n"}) {
    SetSettings(file);
    main_.state.POLLPHASE = 2;
    main_.state.DETAILTEXT = "other";
    main_.Timer1->SetInterval(1000);
    ASSERT_TRUE(main_.LOADSETTINGS().ok());
    EXPECT_EQ(main_.state.DETAILTEXT, "On mains");
    EXPECT_EQ(main_.state.POLLPHASE, 0);
    EXPECT_EQ(main_.Timer1->Interval(), 500);
  }
  EXPECT_EQ(main_.state.SETTINGS[HOST], "127.0.0.1");
  EXPECT_EQ(main_.state.CLIENTPORT, 7);
}

TEST_F(LoadSettingsTest, AFaultyFileChangesNothing) {
  SetSettings("HOST:a\r\nTYPE:1\r\nNAME:n\r\nBTLOW:2\r\n");
  ASSERT_TRUE(main_.LOADSETTINGS().ok());
  main_.state.DETAILTEXT = "kept";
  main_.Timer1->SetInterval(1000);
  const SettingsItems before = main_.state;

  SetSettings("HOST:b\r\nTYPE:1\r\nNAME:m\r\nCLIENTPORT:99999\r\n");
  const Status s = main_.LOADSETTINGS();
  ASSERT_FALSE(s.ok());
  EXPECT_NE(s.message().find("/kovran/upsser.cfg line 4"), std::string::npos)
      << s.message();
  EXPECT_EQ(main_.state.SETTINGS, before.SETTINGS);
  EXPECT_EQ(main_.state.UPSTYPES, before.UPSTYPES);
  EXPECT_EQ(main_.state.BTLOW, before.BTLOW);
  EXPECT_EQ(main_.state.DETAILTEXT, "kept");
  EXPECT_EQ(main_.Timer1->Interval(), 1000);

  fake_.files.erase("/kovran/upsser.cfg");
  EXPECT_FALSE(main_.LOADSETTINGS().ok());
  EXPECT_EQ(main_.state.SETTINGS[HOST], "a");
}

}  // namespace
}  // namespace frame
