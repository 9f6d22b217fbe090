#include "frame/main_window.h"

#include <utility>

#include "frame/event_log.h"
#include "frame/language.h"
#include "frame/numeric.h"
#include "frame/settings.h"

namespace frame {

MainWindow::MainWindow(platform::Platform& p)
    : platform(p),
      Timer1(MakeTimer(1)),
      Timer2(MakeTimer(2)),
      Timer3(MakeTimer(3)),
      Timer4(MakeTimer(4)),
      Timer5(MakeTimer(5)),
      Timer6(MakeTimer(6)),
      Timer7(MakeTimer(7)),
      folder_(p.ProgramFolder()) {
  platform.SetCloseHandler([this] { OnPlatformClose(); });
  platform.SetServiceHandler([this](int s) { Service1_StateChanged(s); });
}

std::unique_ptr<platform::Timer> MainWindow::MakeTimer(int number) {
  return platform.NewTimer([this, number] {
    if (!ending() && parts.timer_expiry[number]) parts.timer_expiry[number]();
  });
}

std::string MainWindow::ProgramFile(std::string_view file_name) const {
  return folder_ + platform.PathSeparator() + std::string(file_name);
}

void MainWindow::Load() {
  if (!LoadSettingsAtStart()) return;
  LISANYUKLE();
  if (ending()) return;
  state.LOGLINE = "New Start /" + state.Message(51);
  WRITELOG();
  state.STARTTIME =
      static_cast<int32_t>(RoundHalfEven(platform.SecondsSinceMidnight()));
  state.EMERGENCYTEXT = "0";
  state.LASTHEADER = "#00000000";
  if (!LoadSettingsAtStart()) return;
  parts.SettingsRead();
  Timer1->SetInterval(1000);
  Timer7->SetInterval(1000);
  parts.MULTIPORT();
  parts.OpenControlPort();
  PARSECOMMAND();
  if (ending()) return;
  parts.OPENSNMP();
  phase_ = Phase::kRunning;
}

Status MainWindow::LOADSETTINGS() {
  const std::string path = ProgramFile(kSettingsFileName);
  const auto text = platform.ReadFile(path);
  if (!text) {
    return Status::Error("Settings file " + LogText(path) + " cannot be read");
  }
  SettingsItems next = state;
  if (Status s = ParseSettings(*text, next); !s.ok()) {
    return Status::Error("Settings file " + LogText(path) + " " + s.message());
  }
  static_cast<SettingsItems&>(state) = std::move(next);
  state.DETAILTEXT = state.Message(42);
  state.POLLPHASE = 0;
  Timer1->SetInterval(500);
  return Status::Ok();
}

bool MainWindow::LoadSettingsAtStart() {
  const Status s = LOADSETTINGS();
  if (s.ok()) return true;
  state.LOGLINE = s.message() + "; the program ends";
  WRITELOG();
  EndAtOnce(kExitFailure);
  return false;
}

void MainWindow::LISANYUKLE() {
  if (platform.AnotherInstanceRunning()) {
    UnloadMainWindow();
    EndAtOnce(kExitNormal);
    return;
  }
  const auto text = platform.ReadFile(ProgramFile(LanguageFileName(state.LANGUAGE)));
  if (!text) {
    state.LOGLINE = "Language support file error";
    WRITELOG();
    EndAtOnce(kExitFailure);
    return;
  }
  ParseLanguage(*text, state.MESSAGES);
}

void MainWindow::WRITELOG() {
  if (state.LOGLINE.size() < 5) return;
  state.LOGLINE = WriteLogLine(platform, folder_, state.LOGLINE);
}

void MainWindow::PARSECOMMAND() {
  if (platform.PlatformNumber() != platform::kPlatformNt) return;
  if (platform.CanOpenForReading(ProgramFile("CRKOVRA.BAT")) &&
      platform.ConnectService()) {
    return;
  }
  InstallService();
}

// Writes the batch file that creates and starts the service, starts it
// hidden and ends; the service starts the program again. cmd reads the file
// in the console code page, so a folder that has no place there cannot be
// written either.
void MainWindow::InstallService() {
  const auto folder =
      platform.InCodePage(folder_, platform::Platform::CodePage::kConsole);
  const std::string batch =
      "sc create KOVRAN binPath= \"" + folder.value_or("") +
      "\\KOVRAN.EXE\" start= auto Displayname= \"PAVO SERVER CONNECTOR\" "
      "type= own\r\n"
      "sc start KOVRAN\r\n"
      "pause\r\n";
  if (folder && platform.WriteFile(folder_ + "/CRKOVRA.BAT", batch)) {
    YUKLE(ProgramFile("CRKOVRA.BAT"), platform::kWindowHidden);
  } else {
    state.LOGLINE = state.Message(83);
    WRITELOG();
  }
  UnloadMainWindow();
  EndAtOnce(kExitNormal);
}

void MainWindow::YUKLE(const std::string& DOAS, int16_t NASIL) {
  if (platform.StartProcess(DOAS, NASIL)) return;
  state.LOGLINE = LogText(DOAS) + " " + state.Message(52);
  WRITELOG();
}

std::string MainWindow::LogText(const std::string& path) {
  return platform.InCodePage(path, platform::Platform::CodePage::kLog)
      .value_or(path);
}

void MainWindow::Service1_StateChanged(int service_state) {
  if (platform.PlatformNumber() != platform::kPlatformNt) return;
  switch (service_state) {
    case 0:
    case 1:
      state.STOPPED = 1;
      break;
    case 2:
    case 3:
      state.STOPPED = 0;
      break;
    default:
      break;
  }
}

void MainWindow::StopCountdownTimer() {
  Timer3->SetEnabled(false);
  Timer3->SetInterval(0);
}

void MainWindow::StartAllClearTimer() {
  Timer4->SetInterval(15000);
  Timer4->SetEnabled(true);
}

bool MainWindow::SnmpMode() const {
  return state.SETTINGS[CONNECTION].starts_with("SNMP");
}

void MainWindow::UnloadMainWindow() {
  phase_ = Phase::kEnding;
  state.LOGLINE = "QueryUnload Program ended";
  WRITELOG();
  for (int i = 1; i <= state.MAXLOCALUSERS; ++i) parts.DestroyWindowSocket(i);
}

void MainWindow::EndAtOnce(int exit_code) {
  phase_ = Phase::kEnding;
  platform.EndNow(exit_code);
}

void MainWindow::OnPlatformClose() {
  if (ending()) return;
  UnloadMainWindow();
  EndAtOnce(kExitNormal);
}

}  // namespace frame
