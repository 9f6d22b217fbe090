// The main window on the fake platform: start-up, every way the frame ends
// the program, the settings reading, the event log and the service
// installation.
#include <gtest/gtest.h>

#include <optional>
#include <regex>
#include <set>
#include <string>
#include <tuple>
#include <utility>

#include "frame/main_window.h"
#include "platform/fake_platform.h"

namespace frame {
namespace {

using platform::FakePlatform;

constexpr const char* kSettings = "HOST:127.0.0.1\r\nMAXLOCALUSERS:3\r\n";
constexpr const char* kLanguage =
    "042 On mains\r\n051 started\r\n052 could not start\r\n083 no batch file";

class FrameTest : public ::testing::Test {
 protected:
  FrameTest() { Reset(kSettings); }

  // A fresh fake and window, "/kovran" or (nt) a Windows folder holding the
  // settings file and the language file LANGSE<selector>.TXT.
  void Reset(const char* settings, char selector = '1',
             const char* language = kLanguage, bool nt = false) {
    main_.reset();
    fake_.emplace();
    if (nt) {
      fake_->platform_number = platform::kPlatformNt;
      fake_->separator = '\\';
      fake_->program_folder = "C:\\K";
    }
    const std::string folder = fake_->program_folder + fake_->separator;
    fake_->folders = {fake_->program_folder, folder + "SERLOGS"};
    fake_->SetWallClock({2026, 11, 23}, 36001.5);
    fake_->files[folder + "upsser.cfg"] = settings;
    fake_->files[folder + "LANGSE" + selector + ".TXT"] = language;
    main_.emplace(*fake_);
    main_->parts.MULTIPORT = [this] { calls_ += 'M'; };
    main_->parts.OpenControlPort = [this] { calls_ += 'C'; };
    main_->parts.OPENSNMP = [this] { return calls_ += 'S', true; };
    main_->parts.DestroyWindowSocket = [this](int i) { calls_ += '0' + i; };
    calls_.clear();
  }

  // Every month's log lines, without their time stamps, each ended by '|'.
  std::string Log() const {
    std::string log;
    for (const auto& [path, text] : fake_->files) {
      if (path.find("SERLOGS") != std::string::npos) log += text;
    }
    return std::regex_replace(log, std::regex(".{22}(.*)\r\n"), "$1|");
  }

  std::optional<FakePlatform> fake_;
  std::optional<MainWindow> main_;
  // The calls into the other subsystems, in order: MULTIPORT, the control
  // port, OPENSNMP, and the number of each window socket destroyed.
  std::string calls_;
};

TEST_F(FrameTest, StartUpRunsTheStepsInOrderUntilThePlatformCloses) {
  int ticks = 0;
  main_->parts.timer_expiry[1] = [&] { ++ticks; };
  main_->Load();
  // The start time is rounded half to even; the second reading, after the
  // language file, sets message 42.
  const ProgramState& s = main_->state;
  EXPECT_EQ(std::tuple(s.STARTTIME, s.EMERGENCYTEXT + s.LASTHEADER, s.DETAILTEXT),
            std::tuple(36002, "0#00000000", "On mains"));
  // Every reading sets the tick to 500 ms; start-up then sets 1000 ms.
  fake_->Advance(std::chrono::seconds(1));
  EXPECT_EQ(
      std::tuple(ticks, main_->Timer1->Interval(), main_->Timer7->Interval()),
      std::tuple(1, 1000, 1000));
  fake_->RequestClose();
  fake_->Advance(std::chrono::seconds(5));
  // No timer runs once the program ends.
  EXPECT_EQ(std::tuple(fake_->exit_code(), ticks, Log(), calls_),
            std::tuple(kExitNormal, 1, "New Start /started|QueryUnload Program ended|",
                       "MCS123"));
}

// LANGUAGE selects the language file by its first character.
TEST_F(FrameTest, LanguageSelectsTheFile) {
  Reset("LANGUAGE:2B", '2', "051 zwei");
  main_->Load();
  EXPECT_EQ(std::tuple(fake_->exit_code(), Log(), calls_),
            std::tuple(-1, "New Start /zwei|", "MCS"));
}

// A reading keeps the keys the file lacks.
TEST_F(FrameTest, EveryReadingSetsTheDetailAndKeepsWhatTheFileLacks) {
  main_->state.MESSAGES[42] = "On mains";
  for (const char* file : {"HOST:a", "CLIENTPORT:7"}) {
    fake_->files["/kovran/upsser.cfg"] = file;
    main_->state.DETAILTEXT = "other";
    EXPECT_TRUE(main_->LOADSETTINGS().ok());
    EXPECT_EQ(main_->state.DETAILTEXT, "On mains");
  }
  EXPECT_EQ(std::tuple(main_->state.SETTINGS[HOST], main_->state.CLIENTPORT), std::tuple("a", 7));
}

TEST_F(FrameTest, LogsLinesOfFiveCharactersOrMoreIntoTheMonthsFile) {
  fake_->SetWallClock({2026, 12, 31}, 86399.5);
  for (const char* line : {"abcd", "abcde", "fghij", "new year"}) {
    if (line[0] == 'n') fake_->Advance(std::chrono::seconds(1));
    main_->state.LOGLINE = line;
    main_->WRITELOG();
  }
  EXPECT_EQ(fake_->files["/kovran/SERLOGS/2026-12.CLG"],
            "31-12-2026--23:59:59..abcde\r\n31-12-2026--23:59:59..fghij\r\n");
  EXPECT_EQ(fake_->files["/kovran/SERLOGS/2027-01.CLG"],
            "01-01-2027--00:00:00..new year\r\n");
}

// In the NT family a readable batch file means the service is installed: the
// program attaches to it or, failing that, installs it again. Installing
// writes the batch file, starts it hidden and ends; failures are logged.
TEST_F(FrameTest, OnNtTheServiceIsAttachedOrInstalled) {
  const std::string kBatch = "C:\\K\\CRKOVRA.BAT";
  const std::string kText =
      "sc create KOVRAN binPath= \"C:\\K\\KOVRAN.EXE\" start= auto "
      "Displayname= \"PAVO SERVER CONNECTOR\" type= own\r\n"
      "sc start KOVRAN\r\npause\r\n";
  const struct {
    const char* batch;                           // nullptr: none
    std::set<std::string> FakePlatform::*fault;  // gets the batch file
    bool runs;  // attached; otherwise installed
  } cases[] = {
      {nullptr, nullptr, false},
      {"old", &FakePlatform::unreadable, false},
      {"old", nullptr, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.runs);
    Reset("MAXLOCALUSERS:1", '1', kLanguage, /*nt=*/true);
    if (c.batch) fake_->files[kBatch] = c.batch;
    if (c.fault) ((*fake_).*c.fault).insert(kBatch);
    main_->Load();
    EXPECT_EQ(Log(), c.runs ? "New Start /started|"
                            : "New Start /started|QueryUnload Program ended|");
    EXPECT_EQ(calls_, c.runs ? "MCS" : "MC1");  // ends at once after installing
    EXPECT_EQ(fake_->files[kBatch] == kText, !c.runs);
    EXPECT_EQ(fake_->starts.size(), c.runs ? 0u : 1u);
  }
  // Attached, the service's notifications suspend and resume the watching.
  const std::pair<int, int> steps[] = {{0, 1}, {2, 0}, {1, 1}, {7, 1}, {3, 0}, {-1, 0}};
  for (const auto& [state, stopped] : steps) {
    fake_->NotifyService(state);
    fake_->RunReady();
    EXPECT_EQ(main_->state.STOPPED, stopped) << state;
  }
  // A folder that cmd cannot read in its code page makes no batch file.
  Reset("MAXLOCALUSERS:1", '1', kLanguage, /*nt=*/true);
  fake_->unrepresentable = "\\K";
  main_->Load();
  EXPECT_EQ(Log(), "New Start /started|no batch file|QueryUnload Program ended|");
}

}  // namespace
}  // namespace frame
