// Start-up order, every way the frame ends the program, and the service
// installation, on the fake platform.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

#include "tests/unit/frame_fixture.h"

namespace frame {
namespace {

using ::testing::ElementsAre;
using std::chrono::milliseconds;

class StartupTest : public FrameTest {
 protected:
  // Records the calls into the other subsystems, in order.
  void RecordParts() {
    main_.parts.MULTIPORT = [this] { calls_.push_back("MULTIPORT"); };
    main_.parts.OpenControlPort = [this] { calls_.push_back("control port"); };
    main_.parts.OPENSNMP = [this] {
      calls_.push_back("OPENSNMP");
      return true;
    };
    main_.parts.DestroyWindowSocket = [this](int i) {
      calls_.push_back("destroy " + std::to_string(i));
    };
  }
  std::vector<std::string> calls_;
};

TEST_F(StartupTest, RunsTheStepsInOrder) {
  RecordParts();
  fake_.SetWallClock({2026, 11, 23}, 36001.5);
  std::string detail_at_window_sockets;
  main_.parts.MULTIPORT = [&] {
    calls_.push_back("MULTIPORT");
    detail_at_window_sockets = main_.state.DETAILTEXT;
  };
  main_.Load();

  EXPECT_EQ(main_.phase(), MainWindow::Phase::kRunning);
  EXPECT_THAT(calls_, ElementsAre("MULTIPORT", "control port", "OPENSNMP"));
  EXPECT_THAT(LogTexts(), ElementsAre("New Start /started"));
  EXPECT_EQ(main_.state.STARTTIME, 36002);  // rounded half to even
  EXPECT_EQ(main_.state.EMERGENCYTEXT, "0");
  EXPECT_EQ(main_.state.LASTHEADER, "#00000000");
  // The second reading, after the language file, sets message 42.
  EXPECT_EQ(detail_at_window_sockets, "On mains");
  EXPECT_EQ(main_.state.MAXLOCALUSERS, 3);
  // Every reading sets the tick to 500 ms; start-up then sets 1000 ms.
  EXPECT_EQ(main_.Timer1->Interval(), 1000);
  EXPECT_EQ(main_.Timer7->Interval(), 1000);
  for (auto* t : {&main_.Timer2, &main_.Timer3, &main_.Timer4, &main_.Timer5,
                  &main_.Timer6}) {
    EXPECT_EQ((*t)->Interval(), 0);
  }
}

TEST_F(StartupTest, TimersRunOnlyAfterStartUp) {
  int ticks = 0;
  main_.parts.timer_expiry[1] = [&] { ++ticks; };
  main_.Load();
  EXPECT_EQ(ticks, 0);
  fake_.Advance(milliseconds(999));
  EXPECT_EQ(ticks, 0);
  fake_.Advance(milliseconds(1));
  EXPECT_EQ(ticks, 1);
}

TEST_F(StartupTest, TheStartLineComesFromTheSelectedLanguageFile) {
  const struct {
    const char* settings;
    char file;
    const char* language;
    const char* start_line;
  } cases[] = {
      {"", '1', "", "New Start /"},  // an empty language file is no error
      {"LANGUAGE:\r\n", '1', "051 one\r\n", "New Start /one"},
      {"LANGUAGE:2B\r\n", '2', "051 zwei\r\n", "New Start /zwei"},
  };
  for (const auto& c : cases) {
    platform::FakePlatform fake;
    fake.folders.insert("/kovran/SERLOGS");
    fake.files["/kovran/upsser.cfg"] = c.settings;
    fake.files[std::string("/kovran/LANGSE") + c.file + ".TXT"] = c.language;
    MainWindow main(fake);
    main.Load();
    EXPECT_EQ(main.phase(), MainWindow::Phase::kRunning) << c.settings;
    EXPECT_EQ(fake.files["/kovran/SERLOGS/2026-11.CLG"].substr(kStampLength),
              std::string(c.start_line) + "\r\n");
  }
}

TEST_F(StartupTest, AnotherInstanceEndsAtOnce) {
  RecordParts();
  fake_.another_instance = true;
  main_.Load();
  EXPECT_TRUE(fake_.ended());
  EXPECT_EQ(fake_.exit_code(), kExitNormal);
  EXPECT_THAT(LogTexts(), ElementsAre("QueryUnload Program ended"));
  // No socket exists yet; the unload step destroys the ones the settings
  // name, which the socket array ignores.
  EXPECT_THAT(calls_, ElementsAre("destroy 1", "destroy 2", "destroy 3"));
}

TEST_F(StartupTest, MissingLanguageFileEnds) {
  RecordParts();
  fake_.files.erase("/kovran/LANGSE1.TXT");
  main_.Load();
  EXPECT_TRUE(fake_.ended());
  EXPECT_EQ(fake_.exit_code(), kExitFailure);
  EXPECT_THAT(LogTexts(), ElementsAre("Language support file error"));
  EXPECT_TRUE(calls_.empty());  // ended without the unload steps
  // Only the first reading ran, before any message was loaded.
  EXPECT_EQ(main_.state.DETAILTEXT, "");
  EXPECT_EQ(main_.state.MAXLOCALUSERS, 3);

  fake_.files["/kovran/LANGSE1.TXT"] = "051 x";
  fake_.unreadable.insert("/kovran/LANGSE1.TXT");
  MainWindow again(fake_);
  again.Load();
  EXPECT_EQ(LogTexts().back(), "Language support file error");
}

TEST_F(StartupTest, BadSettingsEndWithALogLine) {
  const struct {
    const char* file;  // nullptr: no file
    const char* logged;
  } cases[] = {
      {nullptr,
       "Settings file /kovran/upsser.cfg cannot be read; the program ends"},
      {"HOST:x\r\nTYPE:1\r\nBTLOW:70000\r\n",
       "Settings file /kovran/upsser.cfg line 3: BTLOW: value is not within "
       "-32768..32767; the program ends"},
  };
  for (const auto& c : cases) {
    platform::FakePlatform fake;
    fake.folders.insert("/kovran/SERLOGS");
    if (c.file) fake.files["/kovran/upsser.cfg"] = c.file;
    fake.files["/kovran/LANGSE1.TXT"] = "051 started";
    MainWindow main(fake);
    main.Load();
    EXPECT_TRUE(fake.ended());
    EXPECT_EQ(fake.exit_code(), kExitFailure);
    const std::string& log = fake.files["/kovran/SERLOGS/2026-11.CLG"];
    EXPECT_EQ(log.substr(kStampLength), std::string(c.logged) + "\r\n");
  }
}

TEST_F(StartupTest, ThePlatformClosingTheWindowUnloads) {
  RecordParts();
  int ticks = 0;
  main_.parts.timer_expiry[7] = [&] { ++ticks; };
  main_.Load();
  calls_.clear();
  fake_.RequestClose();
  fake_.Advance(milliseconds(5000));
  EXPECT_TRUE(fake_.ended());
  EXPECT_EQ(fake_.exit_code(), kExitNormal);
  EXPECT_EQ(ticks, 0);
  EXPECT_EQ(LogTexts().back(), "QueryUnload Program ended");
  EXPECT_THAT(calls_, ElementsAre("destroy 1", "destroy 2", "destroy 3"));

  // The unload step uses the number of windows the settings hold now.
  SetSettings("MAXLOCALUSERS:1\r\n");
  ASSERT_TRUE(main_.LOADSETTINGS().ok());
  calls_.clear();
  main_.UnloadMainWindow();
  EXPECT_THAT(calls_, ElementsAre("destroy 1"));
}

TEST_F(StartupTest, YukleLogsAFailedStartOnce) {
  main_.Load();
  fake_.failing_starts.insert("/kovran/STOPCON.BAT");
  main_.YUKLE("/kovran/STOPCON.BAT", 0);
  main_.YUKLE("/kovran/EXIT.EXE", 1);
  EXPECT_THAT(LogTexts(), ElementsAre("New Start /started",
                                      "/kovran/STOPCON.BAT could not start"));
  ASSERT_EQ(fake_.starts.size(), 1u);
  EXPECT_EQ(fake_.starts[0].command_line, "/kovran/EXIT.EXE");
  EXPECT_EQ(fake_.starts[0].window_style, 1);
}

// The NT family: a Windows program folder on the fake.
class ServiceTest : public FrameTest {
 protected:
  static constexpr const char* kFolder = "C:\\Program Files\\KOVRAN";
  static constexpr const char* kBatch =
      "C:\\Program Files\\KOVRAN\\CRKOVRA.BAT";

  ServiceTest() {
    fake_.platform_number = platform::kPlatformNt;
    fake_.separator = '\\';
    fake_.program_folder = kFolder;
    fake_.folders = {kFolder, std::string(kFolder) + "\\SERLOGS"};
    fake_.files = {
        {std::string(kFolder) + "\\upsser.cfg", "MAXLOCALUSERS:1\r\n"},
        {std::string(kFolder) + "\\LANGSE1.TXT",
         "051 started\r\n052 could not start\r\n083 no batch file\r\n"}};
    window_.emplace(fake_);
  }
  std::optional<MainWindow> window_;  // made once the folder is set
};

TEST_F(ServiceTest, FirstStartWritesAndStartsTheBatchFileAndEnds) {
  bool snmp_opened = false;
  window_->parts.OPENSNMP = [&] { return snmp_opened = true; };
  window_->Load();
  EXPECT_EQ(fake_.files[kBatch],
            "sc create KOVRAN binPath= \"C:\\Program Files\\KOVRAN\\KOVRAN.EXE\""
            " start= auto Displayname= \"PAVO SERVER CONNECTOR\" type= own\r\n"
            "sc start KOVRAN\r\n"
            "pause\r\n");
  ASSERT_EQ(fake_.starts.size(), 1u);
  EXPECT_EQ(fake_.starts[0].command_line, kBatch);
  EXPECT_EQ(fake_.starts[0].window_style, platform::kWindowHidden);
  EXPECT_EQ(fake_.service_connect_calls(), 0);
  EXPECT_TRUE(fake_.ended());
  EXPECT_FALSE(snmp_opened);
  EXPECT_THAT(LogTexts(), ElementsAre("New Start /started",
                                 "QueryUnload Program ended"));
}

TEST_F(ServiceTest, AnInstalledServiceIsAttachedAndTheFileKept) {
  fake_.files[kBatch] = "written by an older install";
  window_->Load();
  EXPECT_FALSE(fake_.ended());
  EXPECT_EQ(fake_.service_connect_calls(), 1);
  EXPECT_EQ(fake_.files[kBatch], "written by an older install");
  EXPECT_TRUE(fake_.starts.empty());
}

TEST_F(ServiceTest, AFailedAttachInstallsAgain) {
  fake_.files[kBatch] = "old";
  fake_.service_connects = false;
  window_->Load();
  EXPECT_TRUE(fake_.ended());
  EXPECT_NE(fake_.files[kBatch], "old");
  EXPECT_EQ(fake_.starts.size(), 1u);
}

TEST_F(ServiceTest, FailuresAreLoggedAndTheProgramEnds) {
  fake_.unwritable.insert(kBatch);
  window_->Load();
  EXPECT_THAT(LogTexts(), ElementsAre("New Start /started", "no batch file",
                                 "QueryUnload Program ended"));
  EXPECT_TRUE(fake_.starts.empty());
  EXPECT_TRUE(fake_.ended());

  platform::FakePlatform& fake = fake_;
  fake.unwritable.clear();
  fake.files.erase(kBatch);
  fake.failing_starts.insert(kBatch);
  MainWindow again(fake);
  again.Load();
  const auto log = LogTexts();
  EXPECT_EQ(log[log.size() - 2], std::string(kBatch) + " could not start");
  EXPECT_EQ(log.back(), "QueryUnload Program ended");
}

TEST_F(ServiceTest, NotificationsSuspendAndResumeWatching) {
  fake_.files[kBatch] = "installed";
  window_->Load();
  const struct {
    int state;
    int16_t stopped_after;
  } steps[] = {{0, 1}, {2, 0}, {1, 1}, {7, 1}, {3, 0}, {-1, 0}};
  for (const auto& s : steps) {
    fake_.NotifyService(s.state);
    fake_.RunReady();
    EXPECT_EQ(window_->state.STOPPED, s.stopped_after) << s.state;
  }
}

TEST_F(StartupTest, OutsideTheNtFamilyNoServiceIsTouched) {
  main_.Load();
  EXPECT_FALSE(fake_.files.count("/kovran/CRKOVRA.BAT"));
  EXPECT_EQ(fake_.service_connect_calls(), 0);
  fake_.NotifyService(0);
  fake_.RunReady();
  EXPECT_EQ(main_.state.STOPPED, 0);
}

}  // namespace
}  // namespace frame
