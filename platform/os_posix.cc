#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <asio.hpp>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

#include "platform/real_platform.h"
#include "platform/real_platform_impl.h"

// The OS part of the real platform on Linux.
namespace platform {

namespace {

// Not the NT family: the program runs as an ordinary program.
constexpr int kPlatformPosix = 1;

bool WriteAll(int fd, const std::string& data) {
  std::size_t done = 0;
  while (done < data.size()) {
    const ssize_t n = ::write(fd, data.data() + done, data.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

bool WriteWithFlags(const std::string& path, const std::string& data,
                    int flags) {
  const int fd = ::open(path.c_str(), flags | O_WRONLY | O_CREAT | O_CLOEXEC,
                        0644);
  if (fd < 0) return false;
  const bool written = WriteAll(fd, data);
  const bool closed = ::close(fd) == 0;
  return written && closed;
}

// In a forked child: closes every descriptor from 3 on except `keep`.
void CloseInheritedDescriptors(int keep) {
  if (::close_range(3, static_cast<unsigned>(keep) - 1, 0) == 0 &&
      ::close_range(static_cast<unsigned>(keep) + 1, ~0u, 0) == 0) {
    return;
  }
  rlimit limit{};
  long top = 65536;
  if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < 65536) {
    top = static_cast<long>(limit.rlim_cur);
  }
  for (long fd = 3; fd < top; ++fd) {
    if (fd != keep) ::close(static_cast<int>(fd));
  }
}

// Waits for a switch-off order to be taken.
constexpr double kSwitchOffSeconds = 30;

SystemError ErrnoError(int number) { return {number, std::strerror(number)}; }

// Runs `argv` (a name without a slash is looked for on PATH) with standard
// input from /dev/null and standard output and error into `output` (its
// first 4 KiB), or into /dev/null without one, and waits at most `seconds`
// for it to end.
CommandResult RunAndWait(const std::vector<std::string>& argv, double seconds,
                         std::string* output) {
  CommandResult result;
  int out[2] = {-1, -1};
  if (output && ::pipe2(out, O_CLOEXEC) != 0) {
    result.error = ErrnoError(errno);
    return result;
  }
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_addopen(&files, 0, "/dev/null", O_RDONLY, 0);
  if (output) {
    posix_spawn_file_actions_adddup2(&files, out[1], 1);
    posix_spawn_file_actions_adddup2(&files, out[1], 2);
  } else {
    posix_spawn_file_actions_addopen(&files, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&files, 1, 2);
  }
  // The program ignores SIGCHLD and SIGPIPE, which a child would inherit.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t defaults, none;
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGCHLD);
  sigaddset(&defaults, SIGPIPE);
  sigemptyset(&none);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setflags(&attributes,
                           POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
  std::vector<char*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  // While SIGCHLD is ignored the kernel reaps the child before its status
  // can be read.
  struct sigaction reaped {}, waited {};
  waited.sa_handler = SIG_DFL;
  ::sigaction(SIGCHLD, &waited, &reaped);
  pid_t pid = -1;
  const int spawned =
      ::posix_spawnp(&pid, args[0], &files, &attributes, args.data(), environ);
  posix_spawn_file_actions_destroy(&files);
  posix_spawnattr_destroy(&attributes);
  if (out[1] >= 0) ::close(out[1]);
  if (spawned != 0) {
    result.error = ErrnoError(spawned);
  } else {
    result.started = true;
    // glibc 2.36 declares pidfd_open without C linkage in C++.
    const int child = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (child >= 0) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      pollfd waits[2] = {{child, POLLIN, 0}, {out[0], POLLIN, 0}};
      const int n = ::poll(waits, out[0] >= 0 ? 2 : 1,
                           static_cast<int>(std::max<int64_t>(left.count(), 0)));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;  // time is up
      if (waits[1].revents) {
        char buffer[4096];
        const ssize_t got = ::read(out[0], buffer, sizeof buffer);
        if (got > 0 && output->size() < sizeof buffer) output->append(buffer, got);
        if (got <= 0) {
          ::close(out[0]);
          out[0] = -1;
        }
      }
      int status = 0;
      if (waits[0].revents && ::waitpid(pid, &status, 0) == pid) {
        result.ended = true;
        result.exit_code = WIFEXITED(status) ? WEXITSTATUS(status)
                                             : 128 + WTERMSIG(status);
        break;
      }
    }
    if (child >= 0) ::close(child);
  }
  if (out[0] >= 0) ::close(out[0]);
  ::sigaction(SIGCHLD, &reaped, nullptr);
  return result;
}

// systemctl VERB, as a systemd machine expects to be switched off.
std::optional<SystemError> Systemctl(const std::string& verb) {
  std::string output;
  const CommandResult run =
      RunAndWait({"systemctl", verb}, kSwitchOffSeconds, &output);
  if (!run.started) return run.error;
  if (!run.ended) {
    return SystemError{ETIMEDOUT, "systemctl " + verb + " did not end within " +
                                      std::to_string(int(kSwitchOffSeconds)) +
                                      " s"};
  }
  if (run.exit_code == 0) return std::nullopt;
  const std::string first_line = output.substr(0, output.find('\n'));
  return SystemError{run.exit_code,
                     first_line.empty() ? "systemctl " + verb + " failed"
                                        : first_line};
}

}  // namespace

struct OsState {
  explicit OsState(RealPlatform::Impl& i) : impl(i) {}
  ~OsState() {
    if (instance_lock_fd >= 0) ::close(instance_lock_fd);
  }
  void WaitForSignal() {
    signals.async_wait([this](const asio::error_code& ec, int) {
      if (ec) return;
      WaitForSignal();
      if (impl.on_close) impl.on_close();
    });
  }

  RealPlatform::Impl& impl;
  asio::signal_set signals{impl.io, SIGTERM, SIGINT, SIGHUP};
  int instance_lock_fd = -1;
};

void OsStateDeleter::operator()(OsState* os) const { delete os; }

std::unique_ptr<OsState, OsStateDeleter> StartOs(RealPlatform::Impl& impl) {
  // Started programs are never waited for; let the kernel reap them. A peer
  // that has gone away is a socket error, never a reason to die.
  std::signal(SIGCHLD, SIG_IGN);
  std::signal(SIGPIPE, SIG_IGN);
  std::unique_ptr<OsState, OsStateDeleter> os(new OsState(impl));
  os->WaitForSignal();
  return os;
}

void BeforeExit(RealPlatform::Impl&, int) {}

double RealPlatform::SecondsSinceMidnight() {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  tm local{};
  ::localtime_r(&now.tv_sec, &local);
  return local.tm_hour * 3600.0 + local.tm_min * 60.0 + local.tm_sec +
         now.tv_nsec / 1e9;
}

LocalDate RealPlatform::Today() {
  const time_t now = ::time(nullptr);
  tm local{};
  ::localtime_r(&now, &local);
  return {local.tm_year + 1900, local.tm_mon + 1, local.tm_mday};
}

std::string RealPlatform::ProgramFolder() {
  std::string path(4096, '\0');
  const ssize_t n = ::readlink("/proc/self/exe", path.data(), path.size());
  if (n <= 0) return ".";
  path.resize(static_cast<std::size_t>(n));
  const auto cut = path.find_last_of('/');
  if (cut == std::string::npos || cut == 0) return cut == 0 ? "" : ".";
  return path.substr(0, cut);
}

std::optional<std::string> RealPlatform::ReadFile(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  std::string data;
  char buffer[65536];
  bool ok = true;
  while (true) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) ok = false;
    if (n <= 0) break;
    data.append(buffer, static_cast<std::size_t>(n));
    if (data.size() > kMaxReadFileBytes) {
      ok = false;
      break;
    }
  }
  ::close(fd);
  if (!ok) return std::nullopt;
  return data;
}

// A folder opens on POSIX, but it is no file to read.
bool RealPlatform::CanOpenForReading(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat info {};
  const bool file = ::fstat(fd, &info) == 0 && !S_ISDIR(info.st_mode);
  ::close(fd);
  return file;
}

bool RealPlatform::AppendToFile(const std::string& path,
                                 const std::string& data) {
  return WriteWithFlags(path, data, O_APPEND);
}

bool RealPlatform::WriteFile(const std::string& path,
                              const std::string& data) {
  return WriteWithFlags(path, data, O_TRUNC);
}

// The command line is the path of the file to run. A pipe that closes on exec
// tells the parent whether the exec succeeded, so a missing or
// non-executable file is reported as a failure, not as a child that dies.
bool RealPlatform::StartProcess(const std::string& command_line, int) {
  int report[2];
  if (::pipe2(report, O_CLOEXEC) != 0) return false;
  const pid_t pid = ::fork();
  if (pid < 0) {
    ::close(report[0]);
    ::close(report[1]);
    return false;
  }
  if (pid == 0) {
    ::close(report[0]);
    CloseInheritedDescriptors(report[1]);
    ::setsid();
    std::signal(SIGCHLD, SIG_DFL);  // ignored dispositions survive exec
    std::signal(SIGPIPE, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    char* const argv[] = {const_cast<char*>(command_line.c_str()), nullptr};
    ::execv(command_line.c_str(), argv);
    const int error = errno;
    [[maybe_unused]] ssize_t n = ::write(report[1], &error, sizeof error);
    ::_exit(127);
  }
  ::close(report[1]);
  int error = 0;
  ssize_t n;
  do {
    n = ::read(report[0], &error, sizeof error);
  } while (n < 0 && errno == EINTR);
  ::close(report[0]);
  return n == 0;
}

CommandResult RealPlatform::RunCommand(const std::string& command_line,
                                       double seconds) {
  return RunAndWait({"/bin/sh", "-c", command_line}, seconds, nullptr);
}

std::optional<SystemError> RealPlatform::PowerOff() {
  return Systemctl("poweroff");
}

std::optional<SystemError> RealPlatform::Hibernate() {
  return Systemctl("hibernate");
}

int RealPlatform::PlatformNumber() { return kPlatformPosix; }

void RealPlatform::ReportWatching(bool) {}

// The running copy holds an exclusive lock on KOVRAN.LCK in its program
// folder; a second copy from the same folder finds it taken. The file is
// made readable by its owner alone, so an ordinary user can neither take
// the lock of a copy that runs as root (the installed service) nor keep it
// from starting; a lock the user may not open counts as taken. A folder
// where the file can neither be opened nor made (read-only, gone) leaves
// the rule unapplied rather than the UPS unwatched. Read access is enough
// for flock, so a lock file shipped in a read-only folder works as well.
bool RealPlatform::AnotherInstanceRunning() {
  if (impl_->os->instance_lock_fd >= 0) return false;
  const std::string path = ProgramFolder() + "/KOVRAN.LCK";
  const int fd = ::open(path.c_str(),
                        O_RDONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) return errno == EACCES;
  ::fchmod(fd, 0600);  // a file made by hand may let others in; a read-only one stays
  if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
    const bool taken = errno == EWOULDBLOCK;
    ::close(fd);
    return taken;
  }
  impl_->os->instance_lock_fd = fd;
  return false;
}

// The first IPv4 address of an interface that is up and not the loopback, in
// the order the system lists its interfaces; 127.0.0.1 on a machine that has
// no other (as in a private network namespace).
std::string RealPlatform::LocalIPv4Address() {
  ifaddrs* list = nullptr;
  if (::getifaddrs(&list) != 0) return "127.0.0.1";
  std::string address = "127.0.0.1";
  for (ifaddrs* i = list; i; i = i->ifa_next) {
    if (!i->ifa_addr || i->ifa_addr->sa_family != AF_INET) continue;
    if (!(i->ifa_flags & IFF_UP) || (i->ifa_flags & IFF_LOOPBACK)) continue;
    char text[INET_ADDRSTRLEN];
    const auto* in = reinterpret_cast<const sockaddr_in*>(i->ifa_addr);
    if (::inet_ntop(AF_INET, &in->sin_addr, text, sizeof text)) {
      address = text;
      break;
    }
  }
  ::freeifaddrs(list);
  return address;
}

std::vector<std::string> RealPlatform::LocalAddresses() {
  std::vector<std::string> addresses{"127.0.0.1"};
  ifaddrs* list = nullptr;
  if (::getifaddrs(&list) != 0) return addresses;
  for (ifaddrs* i = list; i; i = i->ifa_next) {
    if (!i->ifa_addr || i->ifa_addr->sa_family != AF_INET) continue;
    char text[INET_ADDRSTRLEN];
    const auto* in = reinterpret_cast<const sockaddr_in*>(i->ifa_addr);
    if (::inet_ntop(AF_INET, &in->sin_addr, text, sizeof text)) {
      addresses.push_back(text);
    }
  }
  ::freeifaddrs(list);
  return addresses;
}

// Paths and files are bytes on Linux; the log and batch files take the
// program's texts as they are.
std::optional<std::string> RealPlatform::InCodePage(const std::string& text,
                                                    CodePage) {
  return text;
}

char RealPlatform::PathSeparator() const { return '/'; }

// There is no service control manager on POSIX; PlatformNumber() keeps the
// program from asking.
bool RealPlatform::ConnectService() { return false; }

}  // namespace platform
