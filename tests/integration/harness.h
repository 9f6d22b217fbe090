// Running the real program binary in a throw-away program folder. Every test
// process lives in its own network namespace (see netns_main.cc), so the
// program's fixed ports are private to the test that started it.
#ifndef KOVRAN_TESTS_INTEGRATION_HARNESS_H_
#define KOVRAN_TESTS_INTEGRATION_HARNESS_H_

#include <sys/types.h>
#include <sys/wait.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "gmock/gmock.h"

namespace kovran::integration {

// How long a test waits for something the program should do promptly.
inline constexpr std::chrono::milliseconds kTimeout{10000};

// Length of the time stamp "dd-mm-yyyy--hh:mm:ss.." that starts a log line.
inline constexpr std::size_t kStampLength = 22;

// True when `stamp` is a well-formed "dd-mm-yyyy--hh:mm:ss.." stamp.
bool IsLogStamp(std::string_view stamp);

// "exited with status N", "killed by signal N" or "still running".
std::string DescribeWaitStatus(std::optional<int> wait_status);

// Matches a wait status (as WaitForExit gives it) of a process that exited
// with `code`.
MATCHER_P(ExitedWith, code, "exited with status " + std::to_string(code)) {
  *result_listener << DescribeWaitStatus(arg);
  return arg.has_value() && WIFEXITED(*arg) && WEXITSTATUS(*arg) == code;
}

// Checks `done` every few milliseconds until it holds or `timeout` has
// passed; the result of the last check.
bool WaitUntil(const std::function<bool()>& done,
               std::chrono::milliseconds timeout);

// A counter of the TCP statistics of this process's network namespace
// (/proc/self/net/snmp), such as "AttemptFails"; nothing when it is missing.
std::optional<long long> TcpStatistic(const std::string& name);

// The text of a shipped sample file (dist/).
std::string DistFile(const std::string& name);

// Message `number` of a language file's text, as the program reads it.
std::string LanguageMessage(const std::string& language_file, int number);

// One started copy of the program.
class ProgramProcess {
 public:
  // Starts `executable` with stdout and stderr appended to `output`.
  ProgramProcess(const std::string& executable, const std::string& output);
  ProgramProcess(const ProgramProcess&) = delete;
  ProgramProcess& operator=(const ProgramProcess&) = delete;
  // Kills the process if it is still running.
  ~ProgramProcess();

  pid_t pid() const { return pid_; }
  bool IsRunning();
  bool Signal(int sig);
  // The raw wait status, or nothing when the process still runs at the end
  // of `timeout`.
  std::optional<int> WaitForExit(std::chrono::milliseconds timeout = kTimeout);
  // Waits until the process has a handler installed for `sig`, so that the
  // signal reaches the program instead of ending it with the default action.
  bool WaitUntilCatching(int sig, std::chrono::milliseconds timeout = kTimeout);

 private:
  pid_t pid_ = -1;
  std::optional<int> status_;
};

// A temporary program folder holding a copy of the binary as `kovran`.
class ProgramFolder {
 public:
  // With `shipped_files`, the folder also gets dist/upsser.cfg,
  // dist/LANGSE1.TXT and an empty SERLOGS folder.
  explicit ProgramFolder(bool shipped_files = true);
  ProgramFolder(const ProgramFolder&) = delete;
  ProgramFolder& operator=(const ProgramFolder&) = delete;
  // Kills any program still running and removes the folder.
  ~ProgramFolder();

  const std::string& path() const { return path_; }
  std::string FilePath(const std::string& name) const;

  void WriteFile(const std::string& name, const std::string& text);
  void WriteSettings(const std::string& text) { WriteFile("upsser.cfg", text); }
  // Writes `text` and makes the file executable.
  void WriteExecutable(const std::string& name, const std::string& text);
  void RemoveFile(const std::string& name);
  bool Exists(const std::string& name) const;
  std::string ReadFile(const std::string& name) const;

  // Starts the program; the calls below act on this copy.
  void Start();
  ProgramProcess& program() { return *program_; }
  bool IsRunning() { return program_ && program_->IsRunning(); }
  bool Signal(int sig) { return program_ && program_->Signal(sig); }
  std::optional<int> WaitForExit(std::chrono::milliseconds timeout = kTimeout);

  // Starts a further copy from the same folder, with its own output file.
  std::unique_ptr<ProgramProcess> StartAnother();

  // Complete lines of all SERLOGS/*.CLG files, oldest month first; the
  // first form without the time stamp, the second as written.
  std::vector<std::string> LogLines() const;
  std::vector<std::string> RawLogLines() const;

  // Polls the log until a line (stamp removed) satisfies `predicate` or
  // contains `text`. Gives up early once the started program has ended and
  // the line is still missing.
  bool WaitForLog(const std::function<bool(const std::string&)>& predicate,
                  std::chrono::milliseconds timeout = kTimeout);
  bool WaitForLog(const std::string& text,
                  std::chrono::milliseconds timeout = kTimeout);

  // The log and the program output, for failure messages.
  std::string Describe() const;

 private:
  std::string path_;
  std::unique_ptr<ProgramProcess> program_;
  int outputs_ = 0;
};

}  // namespace kovran::integration

#endif  // KOVRAN_TESTS_INTEGRATION_HARNESS_H_
