// The operations the program needs of the operating system, as one interface.
//
// All logic is written against Platform and never calls the OS itself. There
// are two implementations: the real one (Asio and the OS, created only by the
// program's main) and FakePlatform (virtual time, scripted files, recorded
// process starts) that tests drive step by step.
//
// Everything runs on one event thread. Handlers are delivered one at a time;
// the only nesting is Yield(), which lets pending events run inside the
// caller. A timer's expiry never nests inside its own running expiry.
#ifndef KOVRAN_PLATFORM_PLATFORM_H_
#define KOVRAN_PLATFORM_PLATFORM_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/local_sockets.h"
#include "platform/tcp_client.h"

namespace platform {

// The platform number that marks the Windows NT family. Every platform test
// of the program compares with it; any other number means an ordinary
// program without service control.
inline constexpr int kPlatformNt = 2;

// Window styles for StartProcess.
inline constexpr int kWindowHidden = 0;
inline constexpr int kWindowNormalFocus = 1;

// Largest file ReadFile delivers; a larger file counts as unreadable, so a
// hostile file can never make the program allocate without bound.
inline constexpr std::size_t kMaxReadFileBytes = 64u << 20;

// What a system call that failed said: its number and its text.
struct SystemError {
  int number = 0;
  std::string text;
};

// How a command run by RunCommand went.
struct CommandResult {
  bool started = false;
  SystemError error;     // why it could not be started
  bool ended = false;    // it ended within the time given
  int exit_code = 0;     // its exit status, when it ended
};

struct LocalDate {
  int year = 2000;
  int month = 1;  // 1..12
  int day = 1;    // 1..31
};

// A periodic timer owned by the main window.
//
// A timer fires every Interval() milliseconds while it is enabled and its
// interval is above 0. A new timer is enabled with interval 0 (inactive).
// Expiries are delivered on the event thread. While the handler runs (and
// yields), the timer does not fire again; if its next expiry came due during
// the handler, it fires once right after the handler returns, never as a
// burst. Destroying a timer drops any pending expiry.
class Timer {
 public:
  virtual ~Timer() = default;

  // Sets the period and starts the count afresh, also when the value is
  // unchanged: the next expiry comes `ms` after this call. 0 or below makes
  // the timer inactive.
  virtual void SetInterval(int32_t ms) = 0;
  virtual int32_t Interval() const = 0;

  // Enabling a disabled timer starts its count afresh; enabling an enabled
  // one changes nothing. Disabling drops the pending expiry.
  virtual void SetEnabled(bool enabled) = 0;
  virtual bool Enabled() const = 0;
};

class Platform {
 public:
  virtual ~Platform() = default;

  // ---- Event loop ----

  // A new timer whose expiries call `on_expiry`.
  virtual std::unique_ptr<Timer> NewTimer(std::function<void()> on_expiry) = 0;

  // Runs `task` on the event thread after the current handler, in order of
  // posting. Never runs it inside the call.
  virtual void Post(std::function<void()> task) = 0;

  // Lets the events that are pending now run (posted tasks, due timers that
  // are not busy, arrived socket data), then returns. Never blocks waiting
  // for new events.
  virtual void Yield() = 0;

  // Runs events as they come, as Yield() does, and sleeps while none is
  // pending, until `done()` is true, the steady clock reaches
  // `deadline_seconds` or the program has ended. Returns done(). A timer
  // whose handler is running (the caller's own) does not fire meanwhile.
  // For a call that must wait for an answer yet keep the program serving.
  virtual bool RunUntil(const std::function<bool()>& done,
                        double deadline_seconds) = 0;

  // Ends the program at once with `exit_code`: no further handler runs and
  // nothing is logged. The real platform does not return; the fake marks
  // itself ended and returns, so callers must return straight away.
  virtual void EndNow(int exit_code) = 0;

  // Called when the platform closes the program from outside (log-off,
  // system shutdown; SIGTERM, SIGINT or SIGHUP on POSIX). The handler decides
  // how to end; the platform does nothing else.
  virtual void SetCloseHandler(std::function<void()> on_close) = 0;

  // ---- Clocks ----

  // Seconds on a steady clock that no change of the wall clock (midnight,
  // daylight saving, a user setting the time) moves; for measuring periods.
  virtual double SteadySeconds() = 0;

  // Local time of day in seconds since local midnight, with a fraction.
  virtual double SecondsSinceMidnight() = 0;
  virtual LocalDate Today() = 0;

  // ---- Files ----

  // Folder of the running executable, without a trailing separator.
  virtual std::string ProgramFolder() = 0;
  // The separator that joins a folder and a file name.
  virtual char PathSeparator() const = 0;

  // The whole file, or nothing when it cannot be opened or read, or is
  // larger than kMaxReadFileBytes.
  virtual std::optional<std::string> ReadFile(const std::string& path) = 0;
  // Whether the file can be opened for reading (it is closed again).
  virtual bool CanOpenForReading(const std::string& path) = 0;
  // Opens for appending (creating the file, never its folder), writes, closes.
  virtual bool AppendToFile(const std::string& path,
                            const std::string& data) = 0;
  // Creates or truncates the file, writes, closes.
  virtual bool WriteFile(const std::string& path, const std::string& data) = 0;

  // `text` (UTF-8, as ProgramFolder gives paths) in the 8-bit code page in
  // which the system's own programs read a file: kConsole for a batch file
  // (the console code page), kLog for the event log. Nothing when a character
  // has no place in that code page. Unchanged where files are UTF-8.
  enum class CodePage { kConsole, kLog };
  virtual std::optional<std::string> InCodePage(const std::string& text,
                                                CodePage page) = 0;

  // ---- Processes and system ----

  // Starts `command_line` as a new process with `window_style`, without
  // waiting. False when it cannot be started (missing, not executable).
  virtual bool StartProcess(const std::string& command_line,
                            int window_style) = 0;

  // The operating-system platform number; kPlatformNt for the NT family.
  virtual int PlatformNumber() = 0;

  // Whether another copy of this program, started from the same program
  // folder, is already running. Copies in other folders do not count.
  virtual bool AnotherInstanceRunning() = 0;

  // ---- Network ----

  // A new TCP client socket (the server link's Winsock1).
  virtual std::unique_ptr<TcpClient> NewTcpClient() = 0;

  // The local machine's IPv4 address in dotted-decimal form, the one address
  // the program names itself by (server requests, local window sockets).
  virtual std::string LocalIPv4Address() = 0;

  // Every IPv4 address of the machine's interfaces, the loopback included,
  // in dotted-decimal form. Asks the system at each call.
  virtual std::vector<std::string> LocalAddresses() = 0;

  // The IPv4 address of `host` (a name or a dotted address) in dotted form,
  // or the empty text when it cannot be resolved. A dotted address returns
  // at once; for a name the caller waits, serving events as RunUntil does,
  // at most 3 s, and gets the empty text when no answer came by then.
  virtual std::string ResolveIPv4(const std::string& host) = 0;

  // A new UDP socket (the local windows' Winsock3, the SNMP manager's).
  virtual std::unique_ptr<UdpSocket> NewUdpSocket() = 0;
  // A new TCP listener (element 0 of the control port's Winsock2).
  virtual std::unique_ptr<TcpListener> NewTcpListener() = 0;

  // ---- Service control ----

  // Attaches the running program to the service control manager, so that it
  // acts as the service. False when that fails.
  virtual bool ConnectService() = 0;
  // Called with the service control's state number when it changes.
  virtual void SetServiceHandler(std::function<void(int state)> on_state) = 0;
  // When the program runs as the service, reports it to the service control
  // manager as paused (`watching` false: watching the UPS was suspended) or
  // running; nothing otherwise.
  virtual void ReportWatching(bool watching) = 0;

  // ---- Switching the machine off (the shutdown program) ----

  // Runs `command_line` through the system's command interpreter (sh -c,
  // cmd /c), without a window and with an empty standard input, and waits
  // at most `seconds` for it to end. A command still running then is left
  // to run.
  virtual CommandResult RunCommand(const std::string& command_line,
                                   double seconds) = 0;

  // Switches the machine off, closing the running programs, forced if they
  // do not close; or hibernates it. Nothing when the system has taken the
  // order (it then ends this program too), else what went wrong.
  virtual std::optional<SystemError> PowerOff() = 0;
  virtual std::optional<SystemError> Hibernate() = 0;
};

}  // namespace platform

#endif  // KOVRAN_PLATFORM_PLATFORM_H_
