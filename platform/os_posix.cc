#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <asio.hpp>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>

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

int RealPlatform::PlatformNumber() { return kPlatformPosix; }

// The running copy holds an exclusive lock on its own executable file; a
// second copy of the same file finds it taken. Copies in other folders are
// other files and do not see each other.
bool RealPlatform::AnotherInstanceRunning() {
  if (impl_->os->instance_lock_fd >= 0) return false;
  std::string exe(4096, '\0');
  const ssize_t n = ::readlink("/proc/self/exe", exe.data(), exe.size());
  if (n <= 0) return false;
  exe.resize(static_cast<std::size_t>(n));
  const int fd = ::open(exe.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
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
