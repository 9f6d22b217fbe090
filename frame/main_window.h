// The main window MAIN: owner of the program state, the seven timers and the
// hooks of the later subsystems. Its Load() is the whole start-up; everything
// afterwards happens in handlers of its timers and controls.
#ifndef KOVRAN_FRAME_MAIN_WINDOW_H_
#define KOVRAN_FRAME_MAIN_WINDOW_H_

#include <array>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "frame/program_state.h"
#include "frame/status.h"
#include "platform/platform.h"

namespace frame {

inline constexpr int kExitNormal = 0;
inline constexpr int kExitFailure = 1;

// The reply watchdog's period in server mode; in SNMP mode it follows the
// polling time.
inline constexpr int32_t kServerReplyWatchdogMs = 18000;

// The direct calls between subsystems. Each subsystem fills in its own
// procedures when it is made; a slot nobody filled does nothing (and a
// bool-returning one reports false), so every part runs without the others.
struct Parts {
  template <typename... Args>
  using Call = std::function<void(Args...)>;

  // Start-up and unload.
  Call<> MULTIPORT = [] {};        // local window sockets
  Call<> OpenControlPort = [] {};  // local control listener
  Call<int> DestroyWindowSocket = [](int) {};  // unload step, element i

  // After a reading of the settings with the messages loaded (start-up's
  // second reading, "SETUPR").
  Call<> SettingsRead = [] {};

  // Shutdown controller.
  Call<> SAYMASIFIR = [] {};
  Call<> PENCEREKUR = [] {};
  Call<> ACIL = [] {};
  // A notice that came while no power event is in progress.
  Call<> NoticeAlert = [] {};
  // A reading of the UPS (a status record, an evaluated pair of values)
  // from a poll sent at that moment of the steady clock.
  Call<double> FreshReading = [](double) {};

  // Server link.
  Call<> PollStep = [] {};
  Call<> CloseServerSocket = [] {};
  Call<> ServerWatchdog = [] {};  // the reply watchdog's server-mode branch

  // SNMP agent link and power evaluation.
  std::function<bool()> OPENSNMP = [] { return false; };
  Call<> POLLSNMP = [] {};
  Call<> DISCOVERAGENTS = [] {};
  Call<> CloseSnmpManager = [] {};
  Call<const std::string&, const std::string&> PowerEvaluation =
      [](const std::string&, const std::string&) {};
  // Runs the task now, or once the SNMP request under way has returned.
  Call<std::function<void()>> WhenManagerFree = [](std::function<void()> task) {
    task();
  };
  // Whether a discovery's collection step (identifying and reporting) runs.
  std::function<bool()> CollectionStepRunning = [] { return false; };

  // Expiry handlers of Timer1..Timer7, by timer number (entry 0 unused).
  std::array<Call<>, 8> timer_expiry;
};

class MainWindow {
 public:
  enum class Phase { kStarting, kRunning, kEnding };

  explicit MainWindow(platform::Platform& platform);
  MainWindow(const MainWindow&) = delete;
  MainWindow& operator=(const MainWindow&) = delete;

  // Start-up, the twelve steps in order. May end the program.
  void Load();

  // Reads the settings file into the program state. The whole file is read
  // into a copy first and taken only when every line is within the reader's
  // limits; on failure nothing changes and the error names the file and
  // line. On success sets DETAILTEXT to message 42, POLLPHASE to 0 and
  // Timer1 to 500 ms.
  Status LOADSETTINGS();

  // Applies the single-instance rule, then loads the language file selected
  // by LANGUAGE into MESSAGES. Ends the program on either failure.
  void LISANYUKLE();

  // Writes LOGLINE (5 characters or more) with its time stamp to the month's
  // log file; LOGLINE then holds the stamped line. Failures are swallowed.
  void WRITELOG();

  // On the NT family: installs the service on first start (and ends), or
  // attaches to the service control.
  void PARSECOMMAND();

  // Starts DOAS with window style NASIL; logs a failure and returns normally.
  void YUKLE(const std::string& DOAS, int16_t NASIL);

  // The service control reported state `state`.
  void Service1_StateChanged(int state);

  // Stops the countdown timer (disabled, period 0).
  void StopCountdownTimer();
  // Starts the all-clear timer: 15000 ms, enabled.
  void StartAllClearTimer();

  // Whether CONNECTION selects the SNMP agent link: its first four
  // characters are "SNMP", case-sensitively.
  bool SnmpMode() const;

  // Query-unload step ("QueryUnload Program ended"), then the unload step.
  void UnloadMainWindow();
  // Ends the program at once; nothing more runs.
  void EndAtOnce(int exit_code);

  Phase phase() const { return phase_; }
  bool ending() const { return phase_ == Phase::kEnding; }

  // Full path of `file_name` in the program folder.
  std::string ProgramFile(std::string_view file_name) const;

  platform::Platform& platform;
  ProgramState state;
  Parts parts;

  std::unique_ptr<platform::Timer> Timer1;  // main tick
  std::unique_ptr<platform::Timer> Timer2;  // reply watchdog
  std::unique_ptr<platform::Timer> Timer3;  // countdown
  std::unique_ptr<platform::Timer> Timer4;  // all-clear
  std::unique_ptr<platform::Timer> Timer5;  // discovery collection
  std::unique_ptr<platform::Timer> Timer6;  // end-program
  std::unique_ptr<platform::Timer> Timer7;  // exit

  // The list control of the agents a discovery found.
  std::vector<std::string> List2;

 private:
  std::unique_ptr<platform::Timer> MakeTimer(int number);
  // A start-up reading of the settings; a failure is logged and ends.
  bool LoadSettingsAtStart();
  void InstallService();
  // A path as the event log shows it: in the log's code page where it fits.
  std::string LogText(const std::string& path);
  void OnPlatformClose();

  Phase phase_ = Phase::kStarting;
  std::string folder_;
};

}  // namespace frame

#endif  // KOVRAN_FRAME_MAIN_WINDOW_H_
