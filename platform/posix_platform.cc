#include "platform/posix_platform.h"

#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <arpa/inet.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <asio.hpp>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>

#include "platform/asio_local_sockets.h"
#include "platform/asio_tcp_client.h"
#include "platform/timer_schedule.h"

namespace platform {

namespace {

using Clock = std::chrono::steady_clock;

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

struct PosixPlatform::Impl {
  explicit Impl(bool exit) : exit_process(exit) {}

  TimerSchedule::Time Now() const {
    return std::chrono::duration_cast<TimerSchedule::Time>(Clock::now() -
                                                           epoch);
  }
  void WaitForSignal() {
    signals.async_wait([this](const asio::error_code& ec, int) {
      if (ec) return;
      WaitForSignal();
      if (on_close) on_close();
    });
  }

  bool exit_process;
  asio::io_context io;
  asio::executor_work_guard<asio::io_context::executor_type> work{
      io.get_executor()};
  Clock::time_point epoch = Clock::now();
  asio::signal_set signals{io, SIGTERM, SIGINT, SIGHUP};
  std::function<void()> on_close;
  std::function<void(int)> on_service;
  bool ended = false;
  int instance_lock_fd = -1;
};

namespace {

class PosixTimer : public Timer {
 public:
  struct State {
    State(PosixPlatform::Impl* i, std::function<void()> fn)
        : impl(i), timer(i->io), on_expiry(std::move(fn)) {}
    PosixPlatform::Impl* impl;
    asio::steady_timer timer;
    std::function<void()> on_expiry;
    TimerSchedule schedule;
    // Bumped whenever the pending wait is replaced, so that a wait Asio
    // still delivers after cancel() is recognised as stale and dropped.
    uint64_t generation = 0;
  };

  PosixTimer(PosixPlatform::Impl* impl, std::function<void()> fn)
      : state_(std::make_shared<State>(impl, std::move(fn))) {}
  ~PosixTimer() override {
    ++state_->generation;
    state_->timer.cancel();
  }

  void SetInterval(int32_t ms) override {
    state_->schedule.SetInterval(ms, state_->impl->Now());
    Reschedule(state_);
  }
  int32_t Interval() const override { return state_->schedule.interval_ms(); }
  void SetEnabled(bool enabled) override {
    state_->schedule.SetEnabled(enabled, state_->impl->Now());
    Reschedule(state_);
  }
  bool Enabled() const override { return state_->schedule.enabled(); }

 private:
  static void Reschedule(const std::shared_ptr<State>& s) {
    const uint64_t generation = ++s->generation;
    s->timer.cancel();
    if (!s->schedule.Armed()) return;
    s->timer.expires_at(s->impl->epoch + s->schedule.due());
    std::weak_ptr<State> weak = s;
    s->timer.async_wait([weak, generation](const asio::error_code& ec) {
      auto s = weak.lock();
      if (!s || ec || s->generation != generation || s->impl->ended) return;
      Fire(s);
    });
  }

  static void Fire(const std::shared_ptr<State>& s) {
    s->schedule.BeginExpiry(s->impl->Now());
    ++s->generation;
    s->on_expiry();
    s->schedule.EndExpiry();
    Reschedule(s);
  }

  std::shared_ptr<State> state_;
};

}  // namespace

PosixPlatform::PosixPlatform(bool exit_process)
    : impl_(std::make_unique<Impl>(exit_process)) {
  // Started programs are never waited for; let the kernel reap them. A peer
  // that has gone away is a socket error, never a reason to die.
  std::signal(SIGCHLD, SIG_IGN);
  std::signal(SIGPIPE, SIG_IGN);
  impl_->WaitForSignal();
}

PosixPlatform::~PosixPlatform() {
  if (impl_->instance_lock_fd >= 0) ::close(impl_->instance_lock_fd);
}

void PosixPlatform::Run() { impl_->io.run(); }

void PosixPlatform::RunFor(std::chrono::milliseconds d) {
  impl_->io.run_for(d);
  impl_->io.restart();
}

bool PosixPlatform::ended() const { return impl_->ended; }

std::unique_ptr<Timer> PosixPlatform::NewTimer(
    std::function<void()> on_expiry) {
  return std::make_unique<PosixTimer>(impl_.get(), std::move(on_expiry));
}

void PosixPlatform::Post(std::function<void()> task) {
  asio::post(impl_->io, [impl = impl_.get(), task = std::move(task)] {
    if (!impl->ended) task();
  });
}

void PosixPlatform::Yield() {
  if (!impl_->ended) impl_->io.poll();
}

// Never spins: between events it sleeps in Asio's wait for the next one,
// bounded by the deadline.
bool PosixPlatform::RunUntil(const std::function<bool()>& done,
                             double deadline_seconds) {
  while (!impl_->ended) {
    impl_->io.poll();
    if (impl_->ended || done()) break;
    const double left = deadline_seconds - SteadySeconds();
    if (left <= 0) break;
    impl_->io.run_one_for(std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(left)));
  }
  return done();
}

void PosixPlatform::EndNow(int exit_code) {
  if (impl_->exit_process) std::_Exit(exit_code);
  impl_->ended = true;
  impl_->io.stop();
}

void PosixPlatform::SetCloseHandler(std::function<void()> on_close) {
  impl_->on_close = std::move(on_close);
}

double PosixPlatform::SteadySeconds() {
  return std::chrono::duration<double>(Clock::now().time_since_epoch()).count();
}

double PosixPlatform::SecondsSinceMidnight() {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  tm local{};
  ::localtime_r(&now.tv_sec, &local);
  return local.tm_hour * 3600.0 + local.tm_min * 60.0 + local.tm_sec +
         now.tv_nsec / 1e9;
}

LocalDate PosixPlatform::Today() {
  const time_t now = ::time(nullptr);
  tm local{};
  ::localtime_r(&now, &local);
  return {local.tm_year + 1900, local.tm_mon + 1, local.tm_mday};
}

std::string PosixPlatform::ProgramFolder() {
  std::string path(4096, '\0');
  const ssize_t n = ::readlink("/proc/self/exe", path.data(), path.size());
  if (n <= 0) return ".";
  path.resize(static_cast<std::size_t>(n));
  const auto cut = path.find_last_of('/');
  if (cut == std::string::npos || cut == 0) return cut == 0 ? "" : ".";
  return path.substr(0, cut);
}

std::optional<std::string> PosixPlatform::ReadFile(const std::string& path) {
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
bool PosixPlatform::CanOpenForReading(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat info {};
  const bool file = ::fstat(fd, &info) == 0 && !S_ISDIR(info.st_mode);
  ::close(fd);
  return file;
}

bool PosixPlatform::AppendToFile(const std::string& path,
                                 const std::string& data) {
  return WriteWithFlags(path, data, O_APPEND);
}

bool PosixPlatform::WriteFile(const std::string& path,
                              const std::string& data) {
  return WriteWithFlags(path, data, O_TRUNC);
}

// The command line is the path of the file to run. A pipe that closes on exec
// tells the parent whether the exec succeeded, so a missing or
// non-executable file is reported as a failure, not as a child that dies.
bool PosixPlatform::StartProcess(const std::string& command_line, int) {
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

int PosixPlatform::PlatformNumber() { return kPlatformPosix; }

// The running copy holds an exclusive lock on its own executable file; a
// second copy of the same file finds it taken. Copies in other folders are
// other files and do not see each other.
bool PosixPlatform::AnotherInstanceRunning() {
  if (impl_->instance_lock_fd >= 0) return false;
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
  impl_->instance_lock_fd = fd;
  return false;
}

std::unique_ptr<TcpClient> PosixPlatform::NewTcpClient() {
  return NewAsioTcpClient(impl_->io);
}

// The first IPv4 address of an interface that is up and not the loopback, in
// the order the system lists its interfaces; 127.0.0.1 on a machine that has
// no other (as in a private network namespace).
std::string PosixPlatform::LocalIPv4Address() {
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

std::vector<std::string> PosixPlatform::LocalAddresses() {
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

std::string PosixPlatform::ResolveIPv4(const std::string& host) {
  return AsioResolveIPv4(impl_->io, host);
}

std::unique_ptr<UdpSocket> PosixPlatform::NewUdpSocket() {
  return NewAsioUdpSocket(impl_->io);
}

std::unique_ptr<TcpListener> PosixPlatform::NewTcpListener() {
  return NewAsioTcpListener(impl_->io);
}

// There is no service control manager on POSIX; PlatformNumber() keeps the
// program from asking.
bool PosixPlatform::ConnectService() { return false; }

void PosixPlatform::SetServiceHandler(std::function<void(int)> on_state) {
  impl_->on_service = std::move(on_state);
}

}  // namespace platform
