// Running the real program binary in a throw-away program folder. Every test
// process lives in its own network namespace (see netns_main.cc), so the
// program's fixed ports are private to the test that started it.
#ifndef KOVRAN_TESTS_INTEGRATION_HARNESS_H_
#define KOVRAN_TESTS_INTEGRATION_HARNESS_H_

#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kovran::integration {

using Clock = std::chrono::steady_clock;

// How long a test waits for something the program should do promptly.
inline constexpr Clock::duration kTimeout = std::chrono::seconds(10);

// Length of the time stamp "dd-mm-yyyy--hh:mm:ss.." that starts a log line.
inline constexpr std::size_t kStampLength = 22;

inline constexpr char kEndLine[] = "QueryUnload Program ended";

// Checks `done` every few milliseconds until it holds or `timeout` has
// passed; the result of the last check.
bool WaitUntil(const std::function<bool()>& done,
               Clock::duration timeout = kTimeout);

// The whole file; empty when it cannot be read.
std::string ReadFile(const std::string& path);

// "New Start /" and message 51 of the shipped language file.
std::string StartLine();

// A counter of the TCP statistics of this process's network namespace
// (/proc/self/net/snmp), such as "AttemptFails"; -1 when it is missing.
long long TcpStatistic(const std::string& name);

// One started copy of the program, killed on destruction if still running.
class Program {
 public:
  // Starts `executable` with stdout and stderr appended to `output`.
  Program(const std::string& executable, const std::string& output);
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;
  ~Program();

  bool Running();
  bool Signal(int sig);
  // The exit status, 128 + the signal that killed the program, or -1 when
  // it still runs at the end of `timeout`.
  int WaitForExit(Clock::duration timeout = kTimeout);
  // Waits until the program has a handler installed for `sig`, so that the
  // signal reaches the program instead of ending it with the default action.
  bool WaitUntilCatching(int sig);

 private:
  pid_t pid_;
  std::optional<int> exit_status_;
};

// A temporary program folder: a copy of the binary as `kovran`, the shipped
// upsser.cfg and LANGSE1.TXT, and an empty SERLOGS folder. Destruction kills
// the programs started from it and removes it.
class ProgramFolder {
 public:
  ProgramFolder();
  ProgramFolder(const ProgramFolder&) = delete;
  ProgramFolder& operator=(const ProgramFolder&) = delete;
  ~ProgramFolder();

  std::string Path(const std::string& name) const;
  void Write(const std::string& name, const std::string& text,
             bool executable = false);
  // Replaces the line "key:..." of upsser.cfg by "key:value".
  void SetSetting(const std::string& key, const std::string& value);
  void Remove(const std::string& name);
  bool Exists(const std::string& name) const;

  // Starts a copy of the program from this folder, with its own output file.
  Program& Start();

  // The complete lines of SERLOGS/*.CLG, oldest month first, without their
  // time stamps unless `stamps`.
  std::vector<std::string> Log(bool stamps = false) const;
  // Waits until a log line contains `text`.
  bool WaitForLog(const std::string& text, Clock::duration timeout = kTimeout);

  // The log and the programs' output, for failure messages.
  std::string Describe() const;

 private:
  std::string path_;
  std::vector<std::unique_ptr<Program>> programs_;
};

// Sends `sig` to `program` and expects it to end with status 0. The callers
// check the log, the end line included.
void ExpectOrderlyEnd(ProgramFolder& folder, Program& program,
                      int sig = SIGTERM);

}  // namespace kovran::integration

#endif  // KOVRAN_TESTS_INTEGRATION_HARNESS_H_
