#include "exit/exit_program.h"

#include <algorithm>
#include <cctype>
#include <optional>
#include <string>

#include "frame/event_log.h"
#include "frame/settings.h"

namespace exitprogram {

namespace {

std::string Trimmed(std::string text) {
  const auto blank = [](unsigned char c) { return c == ' ' || c == '\t'; };
  while (!text.empty() && blank(text.back())) text.pop_back();
  const auto first = std::find_if_not(text.begin(), text.end(), blank);
  return std::string(first, text.end());
}

std::string Described(const platform::SystemError& e) {
  return std::to_string(e.number) + " " + e.text;
}

class Shutdown {
 public:
  explicit Shutdown(platform::Platform& p)
      : p_(p), folder_(p.ProgramFolder()) {}

  int Run() {
    const auto text = p_.ReadFile(folder_ + p_.PathSeparator() +
                                  frame::kSettingsFileName);
    if (!text) Log("EXIT.EXE: upsser.cfg cannot be read");
    const std::string setting =
        Trimmed(text ? frame::SettingValue(*text, "EXITACTION:").value_or("")
                     : "");
    std::string action = setting;
    for (char& c : action) c = static_cast<char>(std::toupper(c));
    const std::string before =
        Trimmed(text ? frame::SettingValue(*text, "EXITBEFORE:").value_or("")
                     : "");
    if (!before.empty()) RunBefore(before);
    if (action == "TEST") {
      Log("EXIT.EXE: EXITACTION:TEST: the PC would be switched off now");
      return 0;
    }
    if (action == "HIBERNATE") {
      Log("EXIT.EXE: hibernating the PC");
      const auto hibernate_failed = p_.Hibernate();
      if (!hibernate_failed) return 0;
      // A PC left running on battery is the one outcome to prevent.
      Log("EXIT.EXE: hibernating failed: " + Described(*hibernate_failed) +
          "; switching the PC off instead");
    } else {
      const bool known = action.empty() || action == "POWEROFF";
      Log("EXIT.EXE: switching the PC off" +
          (known ? "" : " (EXITACTION:" + setting + " is unknown)"));
    }
    const auto failed = p_.PowerOff();
    if (!failed) return 0;
    Log("EXIT.EXE: switching the PC off failed: " + Described(*failed));
    return 1;
  }

 private:
  void RunBefore(const std::string& command) {
    const platform::CommandResult run = p_.RunCommand(command, kBeforeSeconds);
    std::string what;
    if (!run.started) {
      what = "could not be started: " + Described(run.error);
    } else if (!run.ended) {
      what = "did not end within " + std::to_string(int(kBeforeSeconds)) + " s";
    } else if (run.exit_code != 0) {
      what = "ended with status " + std::to_string(run.exit_code);
    } else {
      return;
    }
    Log("EXIT.EXE: EXITBEFORE " + command + " " + what);
  }

  void Log(const std::string& text) { frame::WriteLogLine(p_, folder_, text); }

  platform::Platform& p_;
  const std::string folder_;
};

}  // namespace

int Run(platform::Platform& platform) { return Shutdown(platform).Run(); }

}  // namespace exitprogram
