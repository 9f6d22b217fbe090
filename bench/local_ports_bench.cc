// Speed, timing and robustness of the local ports: the window sockets (UDP
// LOCALWINDOWPORT + 2(i-1) + 1) and the control port (TCP 1499).
//
// Default mode, three measurements:
//   1. LABELS answers per second on window 1 of the real program (the built
//      kovran, started in a scratch folder against pavo-sim reporting mains),
//      against a bare Asio UDP server measured in the same run with the same
//      client: same request, an answer of the same size, sent back to the
//      client's port. The client keeps a fixed window of requests in flight
//      (1, then 16); a window that gets no answer for kLossTimeoutMs counts
//      as lost and is sent again, so a dropped datagram never stalls it.
//      Answers are counted over a fixed interval.
//   2. Control exchanges per second (connect, RUNSTATUS, reply "3\r", the
//      program closes), one after another and kParallelControl side by side.
//   3. Timer lateness under load, with the whole program in-process on the
//      real platform (as server_latency_bench does): every timer's expiry is
//      compared with the moment its schedule made it due, while the three
//      windows ask LABELS as fast as they can (32 in flight each) and 15
//      control connections churn; a PAVO server thread reports a power
//      failure, so the countdown and the exit timer run under that load, and
//      EXIT.EXE's start is compared with countdown start + (T - 3) s + 30 s.
//      That error lies in (-1 s, 0] by the design's own tick phases. A
//      sleeping reference thread on the program's core and the event
//      thread's involuntary context switches show how much of the lateness
//      the machine's other work caused.
// With --load, hostile load against the real program instead (4.): random
// datagrams of random sizes on every window port, random control requests,
// half-closed and never-closed control connections, 10^5 control exchanges
// in a row and a flood of 10^6 LABELS datagrams, with a power failure
// reported halfway; prints the program's VmRSS before and after, checks it
// still answers, and that the countdown still ends it with EXIT.EXE.
//
// The program's event thread (or process) runs on core 0, every load
// generator, client and simulator on core 1. The ports are fixed, so run it
// in a network namespace of its own:
//
//   bash tools/bench local [--seconds S] [--runs N] [--time T]
//   bash tools/bench load [--datagrams N] [--connections N] [--time T]
//   unshare -n sh -c 'ip link set lo up; build-bench/bench/local_ports_bench'
//
// A plain main(), not Google Benchmark: the subjects are a separate process
// and a whole program run of ~45 s with results of its own (percentiles of
// timer expiries, one EXIT.EXE start), and the comparison needs both servers
// measured by one client in one run. Google Benchmark's model, a body
// repeated until its time per iteration is stable, fits none of it.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <asio/io_context.hpp>
#include <asio/ip/udp.hpp>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "app/program.h"
#include "bench/pavo_server.h"
#include "platform/real_platform.h"
#include "platform/timer_schedule.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr int kWindowPort = 5000;  // LOCALWINDOWPORT
constexpr int kWindows = 3;        // MAXLOCALUSERS
constexpr int kControlPort = 1499;
constexpr int kPavoPort = 3052;  // CLIENTPORT for the real program
constexpr int kEchoPort = 6001;  // the bare Asio server, outside the above
constexpr int kProgramCore = 0;
constexpr int kLoadCore = 1;
constexpr int kLossTimeoutMs = 20;
constexpr int kParallelControl = 4;
constexpr int kChurnConnections = 15;
constexpr int kFloodWindow = 32;
// The two servers take turns, so that a change in the machine's other load
// falls on both.
constexpr int kSlices = 6;

constexpr char kLabels[] = "LABELS";
constexpr char kRunStatus[] = "H:TS>IP:127.0.0.1>C:RUNSTATUS\r\n";
// Status records: "#", flags 2 to 5, 4 unused, the time field at 10-13,
// 3 unused, the detail text from 17 on.
constexpr char kMainsRecord[] = "#000000000000000On mains";

std::string FailureRecord(int seconds) {
  char time[8];
  std::snprintf(time, sizeof time, "%04d", seconds);
  return "#10000000" + std::string(time) + "000Power failure";
}

double Seconds(Clock::duration d) {
  return std::chrono::duration<double>(d).count();
}

Clock::duration After(double seconds) {
  return std::chrono::duration_cast<Clock::duration>(
      std::chrono::duration<double>(seconds));
}

// The machine may be shared: its 1-minute load average before each
// measurement goes with the results.
std::string LoadAverage() {
  std::string first;
  std::ifstream("/proc/loadavg") >> first;
  return first;
}

// ---- Threads, cores, sockets ----

bool PinThisThread(int core) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(core, &set);
  return ::pthread_setaffinity_np(::pthread_self(), sizeof set, &set) == 0;
}

sockaddr_in Loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  return address;
}

// A UDP socket bound to 127.0.0.1:`port` (0: any port), sending to
// 127.0.0.1:`peer` and receiving only from there when `peer` is not 0.
int UdpSocket(int port, int peer) {
  const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in local = Loopback(port);
  if (::bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
    std::fprintf(stderr, "UDP port %d: %s\n", port, std::strerror(errno));
    std::exit(1);
  }
  if (peer != 0) {
    sockaddr_in remote = Loopback(peer);
    ::connect(fd, reinterpret_cast<sockaddr*>(&remote), sizeof remote);
  }
  return fd;
}

// A TCP connection to the control port, or -1. Connecting gives up after
// 1 s, so that a full backlog cannot hold a load thread for long.
int ConnectControl() {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  timeval limit{1, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  sockaddr_in address = Loopback(kControlPort);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address)) {
    ::close(fd);
    return -1;
  }
  return fd;
}

// Everything received until the peer closes or `timeout_ms` pass without data.
std::string ReadUntilClosed(int fd, int timeout_ms) {
  std::string reply;
  char buffer[512];
  for (pollfd p{fd, POLLIN, 0}; ::poll(&p, 1, timeout_ms) > 0;) {
    const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
    if (n <= 0) break;
    reply.append(buffer, static_cast<std::size_t>(n));
  }
  return reply;
}

// One control exchange: connect, RUNSTATUS, the reply, the program's close.
bool RunStatusExchange(int timeout_ms) {
  const int fd = ConnectControl();
  if (fd < 0) return false;
  ::send(fd, kRunStatus, sizeof kRunStatus - 1, MSG_NOSIGNAL);
  const bool ok = ReadUntilClosed(fd, timeout_ms) == "3\r";
  ::close(fd);
  return ok;
}

struct Traffic {
  int64_t sent = 0;
  int64_t answered = 0;
  int64_t lost_windows = 0;  // windows given up after kLossTimeoutMs
};

// Sends `request` on the connected UDP socket `fd`, keeping `window`
// requests in flight, until `stop` or `until`. The answers carry nothing to
// match them by, so a window without any answer for kLossTimeoutMs is taken
// as lost as a whole; an answer that comes later still counts.
Traffic RequestLoop(int fd, const std::string& request, int window,
                    const std::atomic<bool>& stop, Clock::time_point until) {
  Traffic t;
  char buffer[65536];
  int in_flight = 0;
  while (!stop && Clock::now() < until) {
    for (; in_flight < window; ++in_flight, ++t.sent) {
      if (::send(fd, request.data(), request.size(), MSG_DONTWAIT) < 0) break;
    }
    pollfd p{fd, POLLIN, 0};
    int got = 0;
    if (::poll(&p, 1, kLossTimeoutMs) > 0) {
      while (::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT) >= 0) ++got;
    }
    if (got == 0) {
      ++t.lost_windows;
      in_flight = 0;
    }
    t.answered += got;
    in_flight = std::max(0, in_flight - got);
  }
  return t;
}

// ---- The real program as a child process ----

pid_t Spawn(const std::vector<std::string>& args, int core,
            const fs::path& output) {
  std::vector<char*> argv;
  for (const std::string& a : args) {
    argv.push_back(const_cast<char*>(a.c_str()));
  }
  argv.push_back(nullptr);
  const std::string out = output.string();
  const pid_t pid = ::fork();
  if (pid == 0) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(core, &set);
    ::sched_setaffinity(0, sizeof set, &set);
    const int fd = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ::dup2(fd, 1);
    ::dup2(fd, 2);
    ::execv(argv[0], argv.data());
    ::_exit(127);
  }
  return pid;
}

// Ends a child of ours: SIGTERM, then SIGKILL after 5 s.
void Stop(pid_t pid) {
  if (pid <= 0) return;
  ::kill(pid, SIGTERM);
  for (int i = 0; i < 500; ++i) {
    if (::waitpid(pid, nullptr, WNOHANG) == pid) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ::kill(pid, SIGKILL);
  ::waitpid(pid, nullptr, 0);
}

// dist/upsser.cfg with the settings the measurements rely on replaced.
void WriteSettings(const fs::path& folder, int pavo_port) {
  const std::map<std::string, std::string> fixed = {
      {"HOST", "127.0.0.1"},
      {"CLIENTPORT", std::to_string(pavo_port)},
      {"CONNECTION", "SERVER"},
      {"POLLINGTIME", "1"},
      {"LOCALWINDOWPORT", std::to_string(kWindowPort)},
      {"MAXLOCALUSERS", std::to_string(kWindows)},
      {"ENABLESHUT", "1"}};
  std::ifstream in(fs::path(KOVRAN_DIST_DIR) / "upsser.cfg");
  std::ofstream out(folder / "upsser.cfg");
  for (std::string line; std::getline(in, line);) {
    const auto it = fixed.find(line.substr(0, line.find(':')));
    out << (it == fixed.end() ? line : it->first + ":" + it->second) << "\n";
  }
}

fs::path MakeFolder(const std::string& name, int pavo_port) {
  const fs::path folder =
      fs::temp_directory_path() / (name + "-" + std::to_string(::getpid()));
  fs::remove_all(folder);
  fs::create_directories(folder / "SERLOGS");
  fs::copy_file(fs::path(KOVRAN_DIST_DIR) / "LANGSE1.TXT",
                folder / "LANGSE1.TXT");
  WriteSettings(folder, pavo_port);
  return folder;
}

// build/kovran copied into a scratch folder with the dist files, an EXIT.EXE
// that writes its start time (wall clock) to EXIT.RAN, and pavo-sim on
// CLIENTPORT playing a script.
class RealProgram {
 public:
  explicit RealProgram(const std::string& script) {
    folder_ = MakeFolder("kovran-lports", kPavoPort);
    fs::copy_file(KOVRAN_BINARY, folder_ / "kovran");
    std::ofstream(folder_ / "EXIT.EXE")
        << "#!/bin/sh\ndate +%s.%N > \"$(dirname \"$0\")/EXIT.RAN\"\n";
    fs::permissions(folder_ / "EXIT.EXE", fs::perms::owner_all,
                    fs::perm_options::add);
    StartPavo(script);
    pid_ = Spawn({(folder_ / "kovran").string()}, kProgramCore,
                 folder_ / "kovran.out");
  }
  ~RealProgram() {
    Stop(pid_);
    Stop(pavo_);
    if (clean_) fs::remove_all(folder_);
  }

  const fs::path& folder() const { return folder_; }
  void KeepFolder() { clean_ = false; }

  // Replaces the simulator by one playing `script` from now on.
  void StartPavo(const std::string& script) {
    Stop(pavo_);
    std::ofstream(folder_ / "pavo.txt") << script;
    pavo_ = Spawn({PAVO_SIM, "--port", std::to_string(kPavoPort), "--script",
                   (folder_ / "pavo.txt").string()},
                  kLoadCore, folder_ / "pavo-sim.log");
  }

  // Whether the program still runs; one that ended is reaped.
  bool Alive() {
    if (pid_ > 0 && ::waitpid(pid_, nullptr, WNOHANG) == pid_) pid_ = -1;
    return pid_ > 0;
  }

  // Waits up to `seconds` for the program to end by itself.
  bool WaitForEnd(double seconds) {
    const auto until = Clock::now() + std::chrono::duration<double>(seconds);
    while (Alive() && Clock::now() < until) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return !Alive();
  }

  // A line of /proc/PID/status ("VmRSS", "VmHWM"), in kB.
  long StatusKb(const std::string& key) const {
    std::ifstream in("/proc/" + std::to_string(pid_) + "/status");
    for (std::string line; std::getline(in, line);) {
      if (line.starts_with(key + ":")) {
        return std::atol(line.c_str() + key.size() + 1);
      }
    }
    return -1;
  }
  long OpenFiles() const {
    std::error_code ec;
    const fs::directory_iterator it("/proc/" + std::to_string(pid_) + "/fd",
                                    ec);
    return ec ? -1 : std::distance(it, fs::directory_iterator());
  }

 private:
  fs::path folder_;
  pid_t pid_ = -1;
  pid_t pavo_ = -1;
  bool clean_ = true;
};

// The status line the program answers window `window` (1-based) with, or
// nothing when it does not answer within `seconds`.
std::optional<std::string> AskLabels(int window, double seconds) {
  const int port = kWindowPort + 2 * (window - 1);
  const int fd = UdpSocket(port, port + 1);
  std::optional<std::string> answer;
  char buffer[65536];
  const auto until = Clock::now() + std::chrono::duration<double>(seconds);
  while (!answer && Clock::now() < until) {
    ::send(fd, kLabels, sizeof kLabels - 1, 0);
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 100) > 0) {
      const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
      if (n >= 0) answer.emplace(buffer, static_cast<std::size_t>(n));
    }
  }
  ::close(fd);
  return answer;
}

// ---- 1. Window requests against a bare Asio server ----

// Answers every datagram with `answer_bytes` bytes sent to its sender, on
// its own thread on the program's core.
class AsioAnswerServer {
 public:
  AsioAnswerServer(int port, std::size_t answer_bytes)
      : socket_(io_, asio::ip::udp::endpoint(asio::ip::address_v4::loopback(),
                                             static_cast<uint16_t>(port))),
        answer_(answer_bytes, 'x') {
    Receive();
    thread_ = std::thread([this] {
      PinThisThread(kProgramCore);
      io_.run();
    });
  }
  ~AsioAnswerServer() {
    io_.stop();
    thread_.join();
  }

 private:
  void Receive() {
    auto on_datagram = [this](asio::error_code ec, std::size_t) {
      if (ec == asio::error::operation_aborted) return;
      if (!ec) socket_.send_to(asio::buffer(answer_), sender_, 0, ec);
      Receive();
    };
    socket_.async_receive_from(asio::buffer(buffer_), sender_, on_datagram);
  }

  asio::io_context io_;
  asio::ip::udp::socket socket_;
  asio::ip::udp::endpoint sender_;
  std::array<char, 65536> buffer_;
  std::string answer_;
  std::thread thread_;
};

struct Rate {
  int64_t answered = 0;
  double seconds = 0;
  double PerSecond() const { return answered / seconds; }
};

void AddAnswers(int server_port, int window, double seconds, Rate& rate) {
  const int fd = UdpSocket(kWindowPort, server_port);
  std::atomic<bool> stop{false};
  const auto start = Clock::now();
  rate.answered +=
      RequestLoop(fd, kLabels, window, stop, start + After(seconds)).answered;
  rate.seconds += Seconds(Clock::now() - start);
  ::close(fd);
}

void MeasureWindowRequests(double seconds, std::size_t answer_bytes) {
  AsioAnswerServer echo(kEchoPort, answer_bytes);
  std::printf(
      "\n1. LABELS answered per second, window 1 (%zu-byte answers, %.0f s "
      "each in %d alternating slices; load average %s)\n"
      "%-10s %14s %14s %8s\n",
      answer_bytes, seconds, kSlices, LoadAverage().c_str(), "in flight",
      "kovran /s", "bare Asio /s", "ratio");
  for (int window : {1, 16}) {
    Rate program, echoed;
    for (int slice = 0; slice < kSlices; ++slice) {
      AddAnswers(kWindowPort + 1, window, seconds / kSlices, program);
      AddAnswers(kEchoPort, window, seconds / kSlices, echoed);
    }
    std::printf("%-10d %14.0f %14.0f %8.3f\n", window, program.PerSecond(),
                echoed.PerSecond(), program.PerSecond() / echoed.PerSecond());
    std::fflush(stdout);
  }
}

// ---- 2. Control exchanges ----

void MeasureControlExchanges(double seconds) {
  std::printf(
      "\n2. RUNSTATUS exchanges per second (connect, request, reply, "
      "close; %.0f s each; load average %s)\n",
      seconds, LoadAverage().c_str());
  for (int parallel : {1, kParallelControl}) {
    std::atomic<int64_t> ok{0}, failed{0};
    const auto start = Clock::now();
    const auto until = start + After(seconds);
    std::vector<std::thread> threads;
    for (int i = 0; i < parallel; ++i) {
      threads.emplace_back([&] {
        PinThisThread(kLoadCore);
        while (Clock::now() < until) ++(RunStatusExchange(1000) ? ok : failed);
      });
    }
    for (std::thread& t : threads) t.join();
    std::printf("%d at a time: %10.0f /s  (%lld failed)\n", parallel,
                ok / Seconds(Clock::now() - start),
                static_cast<long long>(failed.load()));
    std::fflush(stdout);
  }
}

// ---- 3. Timer lateness under load, in-process ----

// Lateness of each delivered expiry in ms, by timer number (the order of
// creation: the main window makes Timer1..Timer7 first).
using LatenessTable = std::map<int, std::vector<double>>;

// A timer that forwards to the real one and keeps a copy of its schedule,
// fed with the same calls at the same moments, to know when each expiry
// was due. The moment is read before the real timer reads its own, so a
// due moment is never later than the real one's: lateness is not
// understated.
class MeasuredTimer : public platform::Timer {
 public:
  explicit MeasuredTimer(std::vector<double>& lateness) : lateness_(lateness) {}

  void SetInterval(int32_t ms) override {
    schedule_.SetInterval(ms, Now());
    inner->SetInterval(ms);
  }
  int32_t Interval() const override { return inner->Interval(); }
  void SetEnabled(bool enabled) override {
    schedule_.SetEnabled(enabled, Now());
    inner->SetEnabled(enabled);
  }
  bool Enabled() const override { return inner->Enabled(); }

  void Expire(const std::function<void()>& on_expiry) {
    const auto now = Now();
    lateness_.push_back(
        std::chrono::duration<double, std::milli>(now - schedule_.due())
            .count());
    schedule_.BeginExpiry(now);
    on_expiry();
    schedule_.EndExpiry();
  }

  std::unique_ptr<platform::Timer> inner;

 private:
  static platform::TimerSchedule::Time Now() {
    return Clock::now().time_since_epoch();
  }

  std::vector<double>& lateness_;
  platform::TimerSchedule schedule_;
};

// The real platform with the program folder moved to a scratch folder,
// measured timers, and process starts recorded instead of made.
class BenchPlatform : public platform::RealPlatform {
 public:
  BenchPlatform(std::string folder, LatenessTable& lateness)
      : RealPlatform(/*exit_process=*/false),
        folder_(std::move(folder)),
        lateness_(lateness) {}

  std::optional<Clock::time_point> exit_started;

  std::unique_ptr<platform::Timer> NewTimer(std::function<void()> f) override {
    auto timer = std::make_unique<MeasuredTimer>(lateness_[++timers_]);
    MeasuredTimer* raw = timer.get();
    timer->inner =
        RealPlatform::NewTimer([raw, f = std::move(f)] { raw->Expire(f); });
    return timer;
  }
  std::string ProgramFolder() override { return folder_; }
  bool StartProcess(const std::string& command_line, int) override {
    if (command_line == folder_ + "/EXIT.EXE" && !exit_started) {
      exit_started = Clock::now();
    }
    return true;
  }
  bool AnotherInstanceRunning() override { return false; }

 private:
  std::string folder_;
  LatenessTable& lateness_;
  int timers_ = 0;
};

// A thread on the program's core that sleeps to absolute moments 10 ms
// apart and records how late it wakes, in ms: the delay that the machine's
// other work (the load's kernel side, other processes) puts on any thread
// there, measured at the same time as the program's timers.
class ReferenceSleeper {
 public:
  explicit ReferenceSleeper(std::vector<double>& lateness)
      : thread_([this, &lateness] {
          PinThisThread(kProgramCore);
          timespec next{};
          ::clock_gettime(CLOCK_MONOTONIC, &next);
          while (!stop_) {
            next.tv_nsec += 10000000;
            if (next.tv_nsec >= 1000000000) {
              next.tv_nsec -= 1000000000;
              ++next.tv_sec;
            }
            ::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr);
            timespec now{};
            ::clock_gettime(CLOCK_MONOTONIC, &now);
            const double late = (now.tv_sec - next.tv_sec) * 1e3 +
                                (now.tv_nsec - next.tv_nsec) / 1e6;
            lateness.push_back(late);
            if (late > 10) next = now;  // no catch-up burst
          }
        }) {}
  ~ReferenceSleeper() {
    stop_ = true;
    thread_.join();
  }

 private:
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// Load generators on the load core: each window asks LABELS with
// kFloodWindow requests in flight, kChurnConnections threads make control
// exchanges one after another.
class Load {
 public:
  Load() {
    for (int w = 0; w < kWindows; ++w) {
      threads_.emplace_back([this, w] {
        PinThisThread(kLoadCore);
        const int port = kWindowPort + 2 * w;
        const int fd = UdpSocket(port, port + 1);
        const Traffic t = RequestLoop(fd, kLabels, kFloodWindow, stop_,
                                      Clock::time_point::max());
        ::close(fd);
        datagrams_sent_ += t.sent;
        answers_ += t.answered;
      });
    }
    for (int c = 0; c < kChurnConnections; ++c) {
      threads_.emplace_back([this] {
        PinThisThread(kLoadCore);
        while (!stop_) {
          if (RunStatusExchange(500)) ++exchanges_;
        }
      });
    }
  }
  // Stops the generators; the seconds they ran.
  double Finish() {
    stop_ = true;
    for (std::thread& t : threads_) t.join();
    return Seconds(Clock::now() - start_);
  }

  std::atomic<int64_t> datagrams_sent_{0}, answers_{0}, exchanges_{0};

 private:
  const Clock::time_point start_ = Clock::now();
  std::atomic<bool> stop_{false};
  std::vector<std::thread> threads_;
};

double Percentile(std::vector<double> v, double p) {
  if (v.empty()) return NAN;
  std::sort(v.begin(), v.end());
  const auto rank = static_cast<std::size_t>(std::ceil(p / 100 * v.size()));
  return v[std::clamp<std::size_t>(rank, 1, v.size()) - 1];
}

// The calling thread's time spent waiting on a run queue so far
// (/proc/thread-self/schedstat, second field, in ns).
double RunQueueSeconds() {
  double running = 0, waiting = 0;
  std::ifstream("/proc/thread-self/schedstat") >> running >> waiting;
  return waiting / 1e9;
}

struct LatenessTotals {
  LatenessTable lateness;
  std::vector<double> exit_error_ms;
  double load_seconds = 0;
  int64_t datagrams = 0, answers = 0, exchanges = 0;
  // The event thread's involuntary context switches, and its time spent
  // runnable while something else had its core.
  int64_t preempted = 0;
  double waited_s = 0;
  std::vector<double> reference;  // ReferenceSleeper's lateness
};

bool LatenessRun(int seconds, LatenessTotals& totals) {
  bench::PavoServer server(seconds, 2, [] { PinThisThread(kLoadCore); });
  const fs::path folder = MakeFolder("kovran-lports-run", server.port());
  PinThisThread(kProgramCore);
  LatenessTable lateness;
  BenchPlatform platform(folder.string(), lateness);
  std::optional<Clock::time_point> countdown_started;
  {
    app::Program program(platform);
    auto original = program.main.parts.PENCEREKUR;
    program.main.parts.PENCEREKUR = [&countdown_started, original] {
      if (!countdown_started) countdown_started = Clock::now();
      original();
    };
    program.Load();
    Load load;
    ReferenceSleeper reference(totals.reference);
    rusage before{}, after{};
    ::getrusage(RUSAGE_THREAD, &before);
    const double waited = RunQueueSeconds();
    platform.RunFor(std::chrono::seconds(seconds + 60));
    ::getrusage(RUSAGE_THREAD, &after);
    totals.preempted += after.ru_nivcsw - before.ru_nivcsw;
    totals.waited_s += RunQueueSeconds() - waited;
    totals.load_seconds += load.Finish();
    totals.datagrams += load.datagrams_sent_;
    totals.answers += load.answers_;
    totals.exchanges += load.exchanges_;
  }
  if (!platform.ended() || !countdown_started || !platform.exit_started) {
    std::printf("run incomplete (log in %s)\n", folder.c_str());
    return false;
  }
  for (auto& [number, samples] : lateness) {
    auto& all = totals.lateness[number];
    all.insert(all.end(), samples.begin(), samples.end());
  }
  const auto expected =
      *countdown_started + std::chrono::seconds(seconds - 3 + 30);
  totals.exit_error_ms.push_back(std::chrono::duration<double, std::milli>(
                                     *platform.exit_started - expected)
                                     .count());
  std::printf("run: EXIT.EXE start - expected %.1f ms\n",
              totals.exit_error_ms.back());
  std::fflush(stdout);
  fs::remove_all(folder);
  return true;
}

void PrintLatenessRow(const char* name, const std::vector<double>& v) {
  const auto within =
      std::count_if(v.begin(), v.end(), [](double ms) { return ms <= 2; });
  std::printf(
      "%-24s %6zu %10.3f %10.3f %10.3f %9.1f%%\n", name, v.size(),
      Percentile(v, 50), Percentile(v, 99),
      v.empty() ? NAN : *std::max_element(v.begin(), v.end()),
      100.0 * static_cast<double>(within) / static_cast<double>(v.size()));
}

bool MeasureLateness(int runs, int seconds) {
  std::printf(
      "\n3. Timer lateness under load: %d run(s), power failure with time "
      "field %d s, POLLINGTIME 1 (each ~%d s); load average %s\n",
      runs, seconds, seconds + 32, LoadAverage().c_str());
  std::fflush(stdout);
  LatenessTotals totals;
  bool ok = true;
  for (int i = 0; i < runs; ++i) ok = LatenessRun(seconds, totals) && ok;
  if (totals.exit_error_ms.empty()) return false;
  std::printf(
      "load (core %d): %.0f LABELS sent/s, %.0f answered/s over %d "
      "windows; %.0f control exchanges/s over %d connections\n",
      kLoadCore, totals.datagrams / totals.load_seconds,
      totals.answers / totals.load_seconds, kWindows,
      totals.exchanges / totals.load_seconds, kChurnConnections);
  std::printf(
      "event thread (core %d): preempted %lld times, %.3f s of %.1f s "
      "runnable while other work had the core\n",
      kProgramCore, static_cast<long long>(totals.preempted), totals.waited_s,
      totals.load_seconds);
  std::printf("%-24s %6s %10s %10s %10s %10s\n", "lateness, ms", "n", "p50",
              "p99", "max", "<= 2 ms");
  static const char* const kNames[] = {"",
                                       "Timer1 main tick",
                                       "Timer2 watchdog",
                                       "Timer3 countdown",
                                       "Timer4 all-clear",
                                       "Timer5 discovery",
                                       "Timer6 end-program",
                                       "Timer7 exit"};
  std::vector<double> all;
  for (const auto& [number, samples] : totals.lateness) {
    if (samples.empty()) continue;
    PrintLatenessRow(number < 8 ? kNames[number] : "other", samples);
    all.insert(all.end(), samples.begin(), samples.end());
  }
  PrintLatenessRow("all timers", all);
  PrintLatenessRow("reference sleeper", totals.reference);
  const auto [low, high] = std::minmax_element(totals.exit_error_ms.begin(),
                                               totals.exit_error_ms.end());
  std::printf(
      "EXIT.EXE start - (countdown start + (T - 3) s + 30 s): "
      "%.1f .. %.1f ms (design window (-1000, 0])\n",
      *low, *high);
  return ok;
}

// ---- 4. Hostile load on the real program ----

struct LoadOptions {
  int64_t datagrams = 1000000;
  int64_t connections = 100000;
  int random_per_port = 10000;
  int seconds = 40;  // the power failure's time field
};

// Random bytes to cut datagrams and requests from.
std::string RandomPool(std::mt19937_64& rng, std::size_t size) {
  std::string pool(size, '\0');
  for (char& c : pool) c = static_cast<char>(rng());
  return pool;
}

std::string_view RandomSlice(const std::string& pool, std::mt19937_64& rng,
                             std::size_t max) {
  const std::size_t size = rng() % (max + 1);
  return std::string_view(pool).substr(rng() % (pool.size() - size), size);
}

void PrintProgram(const char* when, RealProgram& program) {
  std::printf("%-28s VmRSS %6ld kB, VmHWM %6ld kB, %ld open files\n", when,
              program.StatusKb("VmRSS"), program.StatusKb("VmHWM"),
              program.OpenFiles());
  std::fflush(stdout);
}

template <typename F>
double Timed(F f) {
  const auto start = Clock::now();
  f();
  return Seconds(Clock::now() - start);
}

int HostileLoad(const LoadOptions& o) {
  std::mt19937_64 rng(20240611);
  const std::string pool = RandomPool(rng, 1 << 20);
  std::printf("4. Hostile load on %s (core %d), load on core %d\n",
              KOVRAN_BINARY, kProgramCore, kLoadCore);
  RealProgram program(std::string("0 ") + kMainsRecord + "\n");
  const auto ready = AskLabels(1, 5);
  if (!ready) {
    std::printf("the program does not answer LABELS\n");
    return 1;
  }
  std::printf("answer to LABELS: \"%s\"\n", ready->c_str());
  PrintProgram("before:", program);

  // Random datagrams, 0..65507 bytes, on every window socket.
  const double random_s = Timed([&] {
    const int fd = UdpSocket(0, 0);
    for (int i = 0; i < o.random_per_port; ++i) {
      for (int w = 0; w < kWindows; ++w) {
        const std::string_view d = RandomSlice(pool, rng, 65507);
        sockaddr_in to = Loopback(kWindowPort + 2 * w + 1);
        ::sendto(fd, d.data(), d.size(), 0, reinterpret_cast<sockaddr*>(&to),
                 sizeof to);
      }
    }
    ::close(fd);
  });
  std::printf(
      "%d random datagrams of 0..65507 bytes on each of %d ports: "
      "%.1f s\n",
      o.random_per_port, kWindows, random_s);
  PrintProgram("after random datagrams:", program);

  // Random control requests: 2000 of up to 64 KiB, every other one closed at
  // once, and 20 streams of 64 random pieces of up to 64 KiB each.
  std::vector<int> held;
  const double requests_s = Timed([&] {
    for (int i = 0; i < 2000; ++i) {
      const int fd = ConnectControl();
      if (fd < 0) continue;
      const std::string_view r = RandomSlice(pool, rng, 65536);
      ::send(fd, r.data(), r.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      if (i % 2 == 0 || held.size() >= 100) {
        ::close(fd);
      } else {
        held.push_back(fd);
      }
    }
    for (int i = 0; i < 20; ++i) {
      const int fd = ConnectControl();
      if (fd < 0) continue;
      for (int k = 0; k < 64; ++k) {
        const std::string_view r = RandomSlice(pool, rng, 65536);
        if (::send(fd, r.data(), r.size(), MSG_NOSIGNAL) < 0) break;
      }
      ::close(fd);
    }
  });
  std::printf(
      "2000 random control requests (100 left open), 20 random streams "
      "of up to 4 MiB: %.1f s\n",
      requests_s);
  // Half-closed after half a request, and never used.
  for (int i = 0; i < 100; ++i) {
    int fd = ConnectControl();
    if (fd < 0) continue;
    ::send(fd, kRunStatus, 12, MSG_NOSIGNAL);
    ::shutdown(fd, SHUT_WR);
    held.push_back(fd);
    if ((fd = ConnectControl()) >= 0) held.push_back(fd);
  }
  std::printf(
      "%zu control connections held open (100 half-closed after half "
      "a request, 100 silent, the rest random)\n",
      held.size());
  PrintProgram("after control requests:", program);

  // The power failure, while the load goes on.
  const auto failure_wall = std::chrono::system_clock::now();
  const auto failure_at = Clock::now();
  program.StartPavo("0 " + FailureRecord(o.seconds) + "\n");
  std::printf("power failure reported from now on, time field %d s\n",
              o.seconds);

  int64_t answered = 0;
  const double control_s = Timed([&] {
    for (int64_t i = 0; i < o.connections; ++i) {
      answered += RunStatusExchange(1000);
    }
  });
  std::printf(
      "%lld control exchanges in a row: %lld answered \"3\\r\", "
      "%.1f s (%.0f /s)\n",
      static_cast<long long>(o.connections), static_cast<long long>(answered),
      control_s, answered / control_s);
  PrintProgram("after control exchanges:", program);

  // The flood: each window's port sends LABELS to its program socket without
  // waiting, and takes whatever answers come.
  std::atomic<int64_t> flood_answers{0}, shutdown_answers{0};
  std::atomic<int> countdown_seen{0};
  const double flood_s = Timed([&] {
    std::vector<std::thread> threads;
    for (int w = 0; w < kWindows; ++w) {
      threads.emplace_back([&, w] {
        PinThisThread(kLoadCore);
        const int port = kWindowPort + 2 * w;
        const int fd = UdpSocket(port, port + 1);
        char buffer[65536];
        auto drain = [&] {
          for (ssize_t n;
               (n = ::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT)) >= 0;) {
            ++flood_answers;
            const std::string_view answer(buffer, static_cast<std::size_t>(n));
            if (answer.starts_with('1')) countdown_seen = 1;
            if (answer == "SHUTDOWN") ++shutdown_answers;
          }
        };
        for (int64_t i = w, n = 0; i < o.datagrams; i += kWindows, ++n) {
          while (::send(fd, kLabels, sizeof kLabels - 1, MSG_DONTWAIT) < 0) {
            drain();
          }
          if (n % 32 == 0) drain();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        drain();
        ::close(fd);
      });
    }
    for (std::thread& t : threads) t.join();
  });
  std::printf(
      "flood of %lld LABELS datagrams: %.1f s (%.0f sent/s), %lld "
      "answered (%lld \"SHUTDOWN\"); countdown seen running: %s\n",
      static_cast<long long>(o.datagrams), flood_s, o.datagrams / flood_s,
      static_cast<long long>(flood_answers.load()),
      static_cast<long long>(shutdown_answers.load()),
      countdown_seen ? "yes" : "no");

  bool ok = program.Alive();
  std::printf("%.1f s since the failure was reported; program running: %s\n",
              Seconds(Clock::now() - failure_at), ok ? "yes" : "NO");
  PrintProgram("after the load:", program);
  std::optional<std::string> after;
  for (int w = 1; ok && w <= kWindows; ++w) {
    after = AskLabels(w, 2);
    std::printf("window %d answers LABELS: %s\n", w,
                after ? ("\"" + *after + "\"").c_str() : "NO");
    ok = ok && after.has_value();
  }
  const bool control_ok = RunStatusExchange(1000);
  std::printf("control port answers RUNSTATUS: %s\n",
              control_ok ? "yes" : "NO");
  ok = ok && control_ok;
  for (int fd : held) ::close(fd);

  // The countdown started during the load ends the program: (T - 3) s to
  // the flag, 30 exit ticks, plus up to a poll and a tick.
  const double budget =
      o.seconds - 3 + 30 + 5 - Seconds(Clock::now() - failure_at);
  const bool ended = program.WaitForEnd(std::max(budget, 1.0));
  // EXIT.EXE runs on after the program has gone; give it time to write.
  double exit_after = NAN;
  for (int i = 0; ended && std::isnan(exit_after) && i < 100; ++i) {
    double wall = 0;
    if (std::ifstream(program.folder() / "EXIT.RAN") >> wall) {
      exit_after =
          wall - std::chrono::duration<double>(failure_wall.time_since_epoch())
                     .count();
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  }
  std::printf(
      "program ended by itself: %s; EXIT.EXE started %.2f s after the "
      "failure was reported (expected (T - 3) + 30 = %d s, within a "
      "poll period and the exit tick's phase)\n",
      ended ? "yes" : "NO", exit_after, o.seconds - 3 + 30);
  ok = ok && ended && !std::isnan(exit_after);
  if (!ok) {
    program.KeepFolder();
    std::printf("FAILED; the program folder is kept: %s\n",
                program.folder().c_str());
  }
  return ok ? 0 : 1;
}

int Usage() {
  std::fprintf(stderr,
               "usage: local_ports_bench [--seconds S] [--runs N] [--time T]\n"
               "       local_ports_bench --load [--datagrams N] "
               "[--connections N] [--random N] [--time T]\n"
               "  T: the power failure's time field in seconds, 4 or more\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  bool load = false;
  double seconds = 3;
  int runs = 2, time = 0;
  LoadOptions o;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--load") {
      load = true;
      continue;
    }
    if (i + 1 >= argc) return Usage();
    const double value = std::atof(argv[++i]);
    if (arg == "--seconds") {
      seconds = value;
    } else if (arg == "--runs") {
      runs = static_cast<int>(value);
    } else if (arg == "--time") {
      time = static_cast<int>(value);
    } else if (arg == "--datagrams") {
      o.datagrams = static_cast<int64_t>(value);
    } else if (arg == "--connections") {
      o.connections = static_cast<int64_t>(value);
    } else if (arg == "--random") {
      o.random_per_port = static_cast<int>(value);
    } else {
      return Usage();
    }
  }
  // The load mode's countdown must outlast its load; the lateness runs'
  // only needs to be long enough for a few countdown ticks.
  if (time == 0) time = load ? 40 : 10;
  o.seconds = time;
  if (seconds <= 0 || runs < 1 || time < 4 || time > 9999) return Usage();
  std::signal(SIGPIPE, SIG_IGN);
  if (std::thread::hardware_concurrency() < 2 || !PinThisThread(kLoadCore)) {
    std::printf(
        "note: fewer than 2 cores; the load shares the program's core\n");
  }
  std::printf("%u cores\n", std::thread::hardware_concurrency());
  if (load) return HostileLoad(o);

  {
    RealProgram program(std::string("0 ") + kMainsRecord + "\n");
    const auto answer = AskLabels(1, 5);
    if (!answer) {
      std::printf("the program does not answer LABELS\n");
      return 1;
    }
    std::printf("%s answers LABELS with \"%s\"\n", KOVRAN_BINARY,
                answer->c_str());
    MeasureWindowRequests(seconds, answer->size());
    MeasureControlExchanges(seconds);
  }
  return MeasureLateness(runs, time) ? 0 : 1;
}
