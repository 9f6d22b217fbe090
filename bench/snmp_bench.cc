// SNMP mode against Debian's snmpd on loopback, playing the UPS's agent
// through tests/integration/ups-mib-pass (upsSecondsOnBattery and
// upsBatteryStatus from state files; a flip renames a file). --parts picks
// the measurements (default 1234, about 3 minutes):
//   1. --flips flips mains -> on battery (normal battery code), POLLINGTIME 1,
//      at random phases of the poll cycle; the whole program in-process on
//      the real platform. (a) From the start of the evaluation tick that
//      follows the first poll whose reply shows the flip, to the countdown
//      running (PENCEREKUR returned). Polls and replies come from a capture
//      socket on lo (AF_PACKET, kernel receive stamps, SO_TIMESTAMPNS); the
//      tick is the first Timer1 expiry after the poll's request reached lo.
//      (b) From the state file's rename to the countdown running, against
//      the design's bound POLLINGTIME + 2 s.
//   2. snmpd stopped for --dead seconds while a countdown runs, in-process as
//      in 1: the largest lateness of a countdown tick (Timer3's expiries
//      against their schedule) and of a LABELS round trip on window 1 (one
//      every 10 ms); the event thread's CPU time over the wait, and over
//      --dead / 2 seconds more without the LABELS traffic. A bare UDP echo
//      thread asked alike is the reference for what the machine does.
//   3. Poll round trip, request seen on lo -> reply seen on lo, of the
//      program's polls and of snmpget's (run 0.4 s after each poll, asking
//      the same two objects), at least --polls of each, in the same run as 1.
//   4. The real kovran binary as a child, SNMP mode, POLLINGTIME 1, on mains
//      for --idle seconds: VmRSS, VmHWM, utime + stime (/proc/PID/stat).
//
//   bash tools/bench snmp [--parts 1234] [--flips N] [--polls N] [--dead S]
//                         [--idle S]
// It binds UDP 161, 162, 5000-5005 and 6001 and captures on lo: it runs as
// root in a network namespace of its own with only lo up (tools/bench does).
// A plain main(), not Google Benchmark: the subjects are real-time runs of a
// whole program with results of their own, as in the other benchmarks here.
#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "app/program.h"
#include "platform/real_platform.h"
#include "snmp/message.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using Time = Clock::time_point;

constexpr int kAgentPort = 161, kManagerPort = 162, kWindowPort = 5000, kEchoPort = 6001;
constexpr char kOnBattery[] = "1.3.6.1.2.1.33.1.2.2.0";      // BATSTAT
constexpr char kBatteryStatus[] = "1.3.6.1.2.1.33.1.2.1.0";  // TIME
constexpr double kPollingTime = 1;
constexpr char kSnmpget[] = "snmpget -m '' -v1 -c public -r 0 127.0.0.1 ";

double Ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }
void Sleep(double s) { std::this_thread::sleep_for(std::chrono::duration<double>(s)); }
double Median(std::vector<double> v) {
  if (v.empty()) return NAN;
  std::sort(v.begin(), v.end());
  const std::size_t n = v.size();
  return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}
double Max(const std::vector<double>& v) {
  return v.empty() ? NAN : *std::max_element(v.begin(), v.end());
}
const char* Goal(bool met) { return met ? "met" : "NOT met"; }
std::string ReadLine(const std::string& path) {
  std::string line;
  std::getline(std::ifstream(path), line);
  return line;
}

pid_t Spawn(const std::vector<std::string>& args, const fs::path& output) {
  std::vector<char*> argv;
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t out;
  ::posix_spawn_file_actions_init(&out);
  ::posix_spawn_file_actions_addopen(&out, 1, output.c_str(), O_WRONLY | O_CREAT, 0644);
  ::posix_spawn_file_actions_adddup2(&out, 1, 2);
  pid_t pid = -1;
  if (::posix_spawn(&pid, argv[0], &out, nullptr, argv.data(), environ)) pid = -1;
  ::posix_spawn_file_actions_destroy(&out);
  return pid;
}

void End(pid_t& pid, int signal) {
  if (pid > 0 && ::kill(pid, signal) == 0) ::waitpid(pid, nullptr, 0);
  pid = -1;
}

// A scratch program folder; dist/upsser.cfg in SNMP mode against the agent
// on 127.0.0.1, with a countdown of 5 minutes.
fs::path MakeFolder(const std::string& name) {
  const fs::path folder = fs::temp_directory_path() / (name + "-" + std::to_string(::getpid()));
  fs::remove_all(folder);
  fs::create_directories(folder / "SERLOGS");
  fs::copy_file(fs::path(KOVRAN_DIST_DIR) / "LANGSE1.TXT", folder / "LANGSE1.TXT");
  const std::map<std::string, std::string> fixed = {
      {"HOST", "127.0.0.1"}, {"CONNECTION", "SNMP"}, {"POLLINGTIME", "1"},
      {"BACKUPTIME", "5"},   {"ENABLESHUT", "1"},    {"LOCALWINDOWPORT", "5000"}};
  std::ifstream in(fs::path(KOVRAN_DIST_DIR) / "upsser.cfg");
  std::ofstream out(folder / "upsser.cfg");
  for (std::string line; std::getline(in, line);) {
    const auto it = fixed.find(line.substr(0, line.find(':')));
    out << (it == fixed.end() ? line : it->first + ":" + it->second) << "\n";
  }
  return folder;
}

// snmpd with the pass script; on mains with a normal battery at first.
class Agent {
 public:
  explicit Agent(const fs::path& dir) : dir_(dir) {
    fs::create_directories(dir / "state");
    std::ofstream(dir / "snmpd.conf")
        << "[snmp] persistentDir " << dir.string() << "\nrocommunity public\npass "
        << ".1.3.6.1.2.1.33 /bin/sh " KOVRAN_PASS_SCRIPT " " << (dir / "state").string() << "\n";
    Put("upsBatteryStatus", 2);
    OnBattery(0);
  }
  ~Agent() { Kill(); }
  bool Start() {  // true once it answers
    pid_ = Spawn({"/usr/sbin/snmpd", "-f", "-Lo", "-C", "-m", "", "-c",
                  (dir_ / "snmpd.conf").string(), "udp:127.0.0.1:161"},
                 dir_ / "snmpd.log");
    const std::string probe = std::string(kSnmpget) + "-t 0.2 1.3.6.1.2.1.1.2.0 >/dev/null 2>&1";
    for (int i = 0; i < 50; ++i, Sleep(0.1)) {
      if (std::system(probe.c_str()) == 0) return true;
    }
    return false;
  }
  void Kill() { End(pid_, SIGTERM); }
  // Seconds on battery, 0 on mains; returns once the file is renamed.
  void OnBattery(int seconds) { Put("upsSecondsOnBattery", seconds); }

 private:
  void Put(const std::string& name, int value) {
    const std::string file = (dir_ / "state" / name).string();
    std::ofstream(file + ".new") << value << "\n";
    fs::rename(file + ".new", file);
  }
  fs::path dir_;
  pid_t pid_ = -1;
};

// An SNMP datagram to or from the agent's port, as it reached lo.
struct Packet {
  Time at;  // the kernel's receive stamp, on the steady clock
  bool request = false;
  int port = 0;  // the manager's side: 162 for the program
  int32_t id = 0;
  bool ups = false;        // asks or answers upsSecondsOnBattery
  std::string on_battery;  // its value in a reply
};

// Every SNMP datagram on lo, read on a thread of its own. A packet socket
// bound to one protocol gets each loopback datagram once, on its way in.
class Capture {
 public:
  Capture() : fd_(::socket(AF_PACKET, SOCK_DGRAM, htons(ETH_P_IP))) {
    const int on = 1;
    ::setsockopt(fd_, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on);
    sockaddr_ll lo{};
    lo.sll_family = AF_PACKET;
    lo.sll_protocol = htons(ETH_P_IP);
    lo.sll_ifindex = static_cast<int>(::if_nametoindex("lo"));
    if (fd_ < 0 || ::bind(fd_, reinterpret_cast<sockaddr*>(&lo), sizeof lo)) {
      std::perror("capture socket on lo");
      std::exit(1);
    }
    thread_ = std::thread([this] { while (!stop_) Read(); });
  }
  ~Capture() {
    stop_ = true;
    thread_.join();
    ::close(fd_);
  }
  std::vector<Packet> Packets() {
    std::lock_guard lock(mutex_);
    return packets_;
  }
  int ProgramReplies() const { return replies_; }

 private:
  void Read() {
    unsigned char data[65536];
    alignas(cmsghdr) char control[256];
    pollfd p{fd_, POLLIN, 0};
    if (::poll(&p, 1, 100) <= 0) return;
    iovec iov{data, sizeof data};
    msghdr m{nullptr, 0, &iov, 1, control, sizeof control, 0};
    const ssize_t n = ::recvmsg(fd_, &m, 0);
    timespec stamp{};
    for (cmsghdr* c = CMSG_FIRSTHDR(&m); c; c = CMSG_NXTHDR(&m, c)) {
      if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_TIMESTAMPNS) {
        std::memcpy(&stamp, CMSG_DATA(c), sizeof stamp);
      }
    }
    // The stamp is on the realtime clock: its age, read now, moves it over.
    const auto age = std::chrono::system_clock::now().time_since_epoch() -
                     std::chrono::seconds(stamp.tv_sec) - std::chrono::nanoseconds(stamp.tv_nsec);
    if (n < 28 || data[0] >> 4 != 4 || data[9] != IPPROTO_UDP) return;  // IPv4, UDP
    const std::size_t header = (data[0] & 15u) * 4;
    if (n < ssize_t(header) + 8) return;
    const unsigned char* udp = data + header;
    const int from = udp[0] << 8 | udp[1], to = udp[2] << 8 | udp[3];
    if (from != kAgentPort && to != kAgentPort) return;
    const auto decoded = snmp::Decode(
        std::string_view(reinterpret_cast<const char*>(udp + 8), n - header - 8));
    if (!decoded.ok) return;
    Packet packet{.at = Clock::now() - age, .request = to == kAgentPort,
                  .port = to == kAgentPort ? from : to, .id = decoded.message.request_id,
                  .ups = false, .on_battery = {}};
    for (const snmp::VarBind& b : decoded.message.bindings) {
      if (b.oid == kOnBattery) packet.ups = true, packet.on_battery = b.text;
    }
    std::lock_guard lock(mutex_);
    replies_ += !packet.request && packet.port == kManagerPort;
    packets_.push_back(std::move(packet));
  }

  int fd_;
  std::atomic<bool> stop_{false};
  std::atomic<int> replies_{0};
  std::mutex mutex_;
  std::vector<Packet> packets_;
  std::thread thread_;
};

// What the in-process program did, and when: evaluations, countdown starts
// (PENCEREKUR entered and returned), mains returns, and the start of each
// expiry handler of Timer1 (the main tick) and Timer3 (the countdown).
struct Record {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<Time> evaluations, countdown_calls, countdowns, mains_returns, ticks,
      countdown_ticks;

  void Add(std::vector<Time>& list) {
    const Time now = Clock::now();
    std::lock_guard lock(mutex);
    list.push_back(now);
    changed.notify_all();
  }
  std::size_t Size(const std::vector<Time>& list) {
    std::lock_guard lock(mutex);
    return list.size();
  }
  // Entry `n` of `list`, waiting up to `seconds` for it.
  std::optional<Time> Next(const std::vector<Time>& list, std::size_t n, double seconds) {
    std::unique_lock lock(mutex);
    changed.wait_for(lock, std::chrono::duration<double>(seconds), [&] { return list.size() > n; });
    return list.size() > n ? std::optional(list[n]) : std::nullopt;
  }
};

// The real platform with a scratch program folder and no process starts. The
// bench waits for its own children (snmpd, snmpget), so it takes back the
// SIGCHLD disposition that the platform sets.
class BenchPlatform : public platform::RealPlatform {
 public:
  explicit BenchPlatform(std::string folder) : RealPlatform(false), folder_(std::move(folder)) {
    ::signal(SIGCHLD, SIG_DFL);
  }
  std::string ProgramFolder() override { return folder_; }
  bool StartProcess(const std::string&, int) override { return true; }
  bool AnotherInstanceRunning() override { return false; }

 private:
  std::string folder_;
};

// The CPU time `thread` has used so far.
double ThreadCpuSeconds(std::thread& thread) {
  clockid_t clock;
  timespec t{};
  ::pthread_getcpuclockid(thread.native_handle(), &clock);
  ::clock_gettime(clock, &t);
  return t.tv_sec + t.tv_nsec / 1e9;
}

// The whole program on an event thread of its own, observed through the
// calls between its parts.
class InProcess {
 public:
  InProcess(const fs::path& folder, Record& r)
      : thread_([this, folder, &r] {
          BenchPlatform platform(folder.string());
          app::Program program(platform);
          frame::Parts& parts = program.main.parts;
          auto observe = [&r](std::vector<Time>* before, std::vector<Time>* after, auto f) {
            return [&r, before, after, f](auto&&... args) {
              if (before) r.Add(*before);
              f(args...);
              if (after) r.Add(*after);
            };
          };
          parts.PENCEREKUR = observe(&r.countdown_calls, &r.countdowns, parts.PENCEREKUR);
          // In SNMP mode only the mains return calls ACIL through the parts.
          parts.ACIL = observe(nullptr, &r.mains_returns, parts.ACIL);
          parts.PowerEvaluation = observe(nullptr, &r.evaluations, parts.PowerEvaluation);
          parts.timer_expiry[1] = observe(&r.ticks, nullptr, parts.timer_expiry[1]);
          parts.timer_expiry[3] = observe(&r.countdown_ticks, nullptr, parts.timer_expiry[3]);
          program.Load();
          {
            std::lock_guard lock(mutex_);
            platform_ = &platform;
          }
          platform.Run();
          std::lock_guard lock(mutex_);  // released before the program goes
          platform_ = nullptr;
          ended_ = true;
        }) {}
  ~InProcess() {
    for (bool done = false; !done; Sleep(0.01)) {
      std::lock_guard lock(mutex_);
      if (auto* p = platform_) p->Post([p] { p->EndNow(0); });
      done = platform_ || ended_;
    }
    thread_.join();
  }
  double CpuSeconds() { return ThreadCpuSeconds(thread_); }  // the event thread's

 private:
  std::mutex mutex_;
  platform::RealPlatform* platform_ = nullptr;
  bool ended_ = false;
  std::thread thread_;
};

struct Options {
  std::string parts = "1234";
  int flips = 20, polls = 50;
  double dead = 10, idle = 60;
};

// ---- 1 and 3 ----

void PrintReactions(const std::vector<Time>& flipped, const std::vector<Time>& started,
                    const std::vector<Packet>& packets, const Record& record) {
  const std::vector<Time>& ticks = record.ticks;
  std::vector<double> reaction, bound;
  std::printf("%4s %16s %22s\n", "flip", "(b) flip -> ms", "(a) eval tick -> ms");
  for (std::size_t i = 0; i < started.size(); ++i) {
    bound.push_back(Ms(started[i] - flipped[i]));
    // The first reply showing the flip, its request, the next Timer1 tick.
    const auto reply = std::find_if(packets.begin(), packets.end(), [&](auto& p) {
      return !p.request && p.port == kManagerPort && p.on_battery != "0" &&
             !p.on_battery.empty() && p.at > flipped[i] - std::chrono::milliseconds(50);
    });
    const auto request = std::find_if(packets.begin(), packets.end(), [&](auto& p) {
      return reply != packets.end() && p.request && p.port == kManagerPort && p.id == reply->id;
    });
    const auto tick = request == packets.end()
                          ? ticks.end()
                          : std::upper_bound(ticks.begin(), ticks.end(), request->at);
    if (tick == ticks.end()) {
      std::printf("%4zu %16.1f  the poll is not in the capture\n", i + 1, bound.back());
      continue;
    }
    reaction.push_back(Ms(started[i] - *tick));
    const bool later = tick + 1 != ticks.end() && tick[1] < started[i];
    std::printf("%4zu %16.1f %22.3f%s\n", i + 1, bound.back(), reaction.back(),
                later ? "  started by a later tick" : "");
  }
  std::printf("(a) evaluation tick -> countdown running: median %.3f ms, worst %.3f ms "
              "(goal <= 10 ms: %s)\n", Median(reaction), Max(reaction),
              Goal(reaction.size() == started.size() && Max(reaction) <= 10));
  std::printf("(b) flip -> countdown running: median %.1f ms, worst %.1f ms (bound "
              "POLLINGTIME + 2 s = %.0f ms: %s)\n", Median(bound), Max(bound),
              (kPollingTime + 2) * 1000,
              Goal(!bound.empty() && Max(bound) <= (kPollingTime + 2) * 1000));
}

void PrintRoundTrips(const std::vector<Packet>& packets) {
  std::map<std::pair<int, int32_t>, Time> sent;
  std::vector<double> program, snmpget;
  for (const Packet& p : packets) {
    if (!p.ups) continue;
    if (p.request) {
      sent[{p.port, p.id}] = p.at;
    } else if (auto it = sent.find({p.port, p.id}); it != sent.end()) {
      (p.port == kManagerPort ? program : snmpget).push_back(Ms(p.at - it->second));
      sent.erase(it);
    }
  }
  for (auto [name, v] : {std::pair{"kovran", &program}, std::pair{"snmpget", &snmpget}}) {
    std::printf("3. %-7s request -> reply on lo: n %3zu, median %.3f ms, min %.3f ms, "
                "max %.3f ms\n", name, v->size(), Median(*v),
                v->empty() ? NAN : *std::min_element(v->begin(), v->end()), Max(*v));
  }
}

bool FlipsAndPolls(const Options& o, bool flips, bool polls) {
  std::printf("\n%s%s (load average %s)\n", flips ? "1. Agent flips, POLLINGTIME 1" : "",
              polls ? (flips ? "; 3. poll round trips" : "3. Poll round trips") : "",
              ReadLine("/proc/loadavg").c_str());
  const fs::path folder = MakeFolder("kovran-snmpbench");
  Agent agent(folder / "agent");
  if (!agent.Start()) return std::puts("snmpd does not answer"), false;
  Capture capture;
  Record record;
  std::vector<Time> flipped, started;
  {
    InProcess program(folder, record);
    std::atomic<bool> stop{false};
    std::atomic<int> gets{0};
    std::thread getter([&] {
      const std::string command = std::string(kSnmpget) + "-t 1 " + kOnBattery + " " +
                                  kBatteryStatus + " >/dev/null 2>&1";
      for (int seen = 0; polls && !stop && gets < o.polls; Sleep(0.02)) {
        if (capture.ProgramReplies() == seen) continue;
        seen = capture.ProgramReplies();
        Sleep(0.4);
        if (stop) break;
        [[maybe_unused]] const int status = std::system(command.c_str());
        ++gets;
      }
    });
    std::mt19937 rng(std::random_device{}());
    bool ok = record.Next(record.evaluations, 0, 10).has_value();
    for (int i = 0; ok && flips && i < o.flips; ++i) {
      // From an evaluation tick: a poll POLLINGTIME later, its evaluation 1 s
      // after that, so the cycle is POLLINGTIME + 1 s long.
      Sleep(std::uniform_real_distribution<double>(0, kPollingTime + 1)(rng));
      const std::size_t n = record.Size(record.countdowns);
      agent.OnBattery(5);
      flipped.push_back(Clock::now());
      const auto countdown = record.Next(record.countdowns, n, kPollingTime + 7);
      if (!countdown) break;
      started.push_back(*countdown);
      const std::size_t m = record.Size(record.mains_returns);
      agent.OnBattery(0);
      ok = record.Next(record.mains_returns, m, kPollingTime + 7).has_value();
    }
    // A poll cycle is 2 s; the limit only ends a run gone wrong.
    const Time limit = Clock::now() + std::chrono::seconds(4 * o.polls + 30);
    while (polls && (capture.ProgramReplies() < o.polls || gets < o.polls) &&
           Clock::now() < limit) {
      Sleep(0.1);
    }
    stop = true;
    getter.join();
  }
  if (flips && started.size() < std::size_t(o.flips)) {
    std::printf("only %zu of %d flips started the countdown\n", started.size(), o.flips);
  }
  if (flips) PrintReactions(flipped, started, capture.Packets(), record);
  if (polls) PrintRoundTrips(capture.Packets());
  agent.Kill();  // snmpd writes its persistent state as it ends
  fs::remove_all(folder);
  return !flips || started.size() == std::size_t(o.flips);
}

// ---- 2 ----

// A UDP socket on 127.0.0.1:`port`, connected to `peer` unless that is 0.
int Udp(int port, int peer) {
  const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in a{.sin_family = AF_INET, .sin_port = htons(uint16_t(port)),
                .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
  ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
  a.sin_port = htons(uint16_t(peer));
  if (peer) ::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
  return fd;
}

// Sends `request` on the connected `fd`: the answer and its round trip in
// ms, or nothing after 1 s.
std::optional<std::pair<std::string, double>> Ask(int fd, std::string_view request) {
  char answer[4096];
  while (::recv(fd, answer, sizeof answer, MSG_DONTWAIT) >= 0) {}
  const Time sent = Clock::now();
  ::send(fd, request.data(), request.size(), 0);
  pollfd p{fd, POLLIN, 0};
  const ssize_t n = ::poll(&p, 1, 1000) > 0 ? ::recv(fd, answer, sizeof answer, 0) : -1;
  if (n < 0) return std::nullopt;
  return std::pair{std::string(answer, std::size_t(n)), Ms(Clock::now() - sent)};
}

bool DeadAgent(const Options& o) {
  std::printf("\n2. Agent dead for %.0f s during a countdown (load average %s)\n", o.dead,
              ReadLine("/proc/loadavg").c_str());
  const fs::path folder = MakeFolder("kovran-snmpbench-dead");
  Agent agent(folder / "agent");
  agent.OnBattery(5);
  if (!agent.Start()) return std::puts("snmpd does not answer"), false;
  Capture capture;
  Record record;
  std::vector<double> rtt, echo_rtt;
  int lost = 0, with_countdown = 0;
  Time start, end;
  double cpu = 0, quiet_cpu = 0, echo_cpu = 0;
  {
    InProcess program(folder, record);
    if (!record.Next(record.countdowns, 0, 10)) return std::puts("no countdown"), false;
    agent.Kill();
    // A bare UDP echo on a thread of its own, asked as often as the program:
    // what the machine itself does to a round trip and to a thread's CPU time.
    std::thread echo([fd = Udp(kEchoPort, 0)] {
      char data[4096];
      sockaddr_in from{};
      socklen_t size = sizeof from;
      for (ssize_t n; (n = ::recvfrom(fd, data, sizeof data, 0, reinterpret_cast<sockaddr*>(&from),
                                      &size)) > 0; size = sizeof from) {
        ::sendto(fd, data, std::size_t(n), 0, reinterpret_cast<sockaddr*>(&from), size);
      }
      ::close(fd);
    });
    const int window = Udp(kWindowPort, kWindowPort + 1), echo_client = Udp(0, kEchoPort);
    start = Clock::now();
    cpu = -program.CpuSeconds();
    echo_cpu = -ThreadCpuSeconds(echo);
    for (Time next = start; next < start + std::chrono::duration<double>(o.dead);) {
      if (const auto answer = Ask(window, "LABELS")) {
        rtt.push_back(answer->second);
        const std::string& line = answer->first;  // flags++...++...++ALARMTEXT
        with_countdown += line.rfind("++") + 2 < line.size();
      } else {
        ++lost;
      }
      if (const auto answer = Ask(echo_client, "LABELS")) echo_rtt.push_back(answer->second);
      next = std::max(next + std::chrono::milliseconds(10), Clock::now());
      std::this_thread::sleep_until(next);
    }
    end = Clock::now();
    cpu += program.CpuSeconds();
    echo_cpu += ThreadCpuSeconds(echo);
    ::send(echo_client, "", 0, 0);  // ends the echo
    echo.join();
    ::close(window);
    ::close(echo_client);
    quiet_cpu = -program.CpuSeconds();
    Sleep(o.dead / 2);
    quiet_cpu += program.CpuSeconds();
  }
  // PENCEREKUR sets Timer3 to 1 s after the call's entry, and the timer keeps
  // its cadence: tick k is due k s after that entry at the latest.
  std::vector<double> late;
  for (std::size_t k = 0; k < record.countdown_ticks.size(); ++k) {
    const Time at = record.countdown_ticks[k];
    const Time due = record.countdown_calls.at(0) + std::chrono::seconds(k + 1);
    if (at >= start && at <= end) late.push_back(Ms(at - due));
  }
  int polls = 0;
  for (const Packet& p : capture.Packets()) {
    polls += p.request && p.port == kManagerPort && p.at >= start && p.at <= end;
  }
  const double seconds = std::chrono::duration<double>(end - start).count();
  std::printf("polls sent meanwhile: %d, countdown ticks: %zu\n", polls, late.size());
  std::printf("countdown tick lateness: median %.3f ms, worst %.3f ms (goal <= 5 ms: %s)\n",
              Median(late), Max(late), Goal(!late.empty() && Max(late) <= 5));
  std::printf("LABELS round trip: %zu answered (%d after the first countdown tick), %d not; "
              "median %.3f ms, worst %.3f ms (goal <= 5 ms: %s)\n", rtt.size(),
              with_countdown, lost, Median(rtt), Max(rtt), Goal(!lost && Max(rtt) <= 5));
  std::printf("event thread CPU: %.4f s in %.2f s = %.3f%% (goal < 1%%: %s); %.4f s in "
              "%.1f s more without LABELS = %.3f%% (goal: %s)\n", cpu, seconds,
              100 * cpu / seconds, Goal(cpu / seconds < 0.01), quiet_cpu, o.dead / 2,
              200 * quiet_cpu / o.dead, Goal(2 * quiet_cpu / o.dead < 0.01));
  std::printf("reference, a bare echo thread asked alike: round trip median %.3f ms, worst "
              "%.3f ms; CPU %.3f%%\n", Median(echo_rtt), Max(echo_rtt), 100 * echo_cpu / seconds);
  agent.Kill();  // snmpd writes its persistent state as it ends
  fs::remove_all(folder);
  return !late.empty() && !rtt.empty();
}

// ---- 4 ----

long StatusKb(pid_t pid, const std::string& key) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(in, line);) {
    if (line.starts_with(key + ":")) return std::atol(line.c_str() + key.size() + 1);
  }
  return -1;
}

// utime + stime (fields 14 and 15 of /proc/PID/stat), and the time on a CPU
// in ns from /proc/PID/schedstat (the main thread, the only one), in seconds.
std::pair<double, double> CpuSeconds(pid_t pid) {
  const std::string proc = "/proc/" + std::to_string(pid);
  const std::string stat = ReadLine(proc + "/stat");
  unsigned long utime = 0, stime = 0;
  std::sscanf(stat.c_str() + stat.rfind(')') + 2,
              "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &utime, &stime);
  return {double(utime + stime) / double(::sysconf(_SC_CLK_TCK)),
          std::atof(ReadLine(proc + "/schedstat").c_str()) / 1e9};
}

bool Idle(const Options& o) {
  std::printf("\n4. %s, SNMP mode, POLLINGTIME 1, on mains for %.0f s (load average %s)\n",
              KOVRAN_BINARY, o.idle, ReadLine("/proc/loadavg").c_str());
  const fs::path folder = MakeFolder("kovran-snmpbench-idle");
  fs::copy_file(KOVRAN_BINARY, folder / "kovran");
  Agent agent(folder / "agent");
  if (!agent.Start()) return std::puts("snmpd does not answer"), false;
  Capture capture;
  pid_t pid = Spawn({(folder / "kovran").string()}, folder / "kovran.out");
  Sleep(2);  // start-up
  const auto [ticks0, ns0] = CpuSeconds(pid);
  const int replies0 = capture.ProgramReplies();
  Sleep(o.idle);
  const auto [ticks1, ns1] = CpuSeconds(pid);
  const int polls = capture.ProgramReplies() - replies0;
  const long rss = StatusKb(pid, "VmRSS"), hwm = StatusKb(pid, "VmHWM");
  const long threads = StatusKb(pid, "Threads");
  const bool alive = ::waitpid(pid, nullptr, WNOHANG) == 0;
  End(pid, SIGKILL);
  const double per_minute = (ticks1 - ticks0) * 60 / o.idle;
  std::printf("running: %s, %ld thread(s), %d polls answered in the %.0f s\n",
              alive ? "yes" : "NO", threads, polls, o.idle);
  std::printf("VmRSS %ld kB, VmHWM %ld kB (goal <= 4096 kB: VmRSS %s, VmHWM %s)\n", rss, hwm,
              Goal(rss > 0 && rss <= 4096), Goal(hwm > 0 && hwm <= 4096));
  std::printf("utime + stime: %.2f s in %.0f s = %.3f s per minute (goal <= 0.05 s: %s); "
              "%.2f s since its start\n", ticks1 - ticks0, o.idle, per_minute,
              Goal(per_minute <= 0.05), ticks1);
  std::printf("on a CPU (schedstat): %.4f s in %.0f s = %.4f s per minute\n", ns1 - ns0,
              o.idle, (ns1 - ns0) * 60 / o.idle);
  agent.Kill();  // snmpd writes its persistent state as it ends
  fs::remove_all(folder);
  return alive && polls > 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  bool ok = argc % 2 == 1;
  for (int i = 1; ok && i + 1 < argc; i += 2) {
    const std::string arg = argv[i], value = argv[i + 1];
    if (arg == "--parts") {
      o.parts = value;
    } else if (arg == "--flips" || arg == "--polls") {
      (arg == "--flips" ? o.flips : o.polls) = std::atoi(value.c_str());
    } else if (arg == "--dead" || arg == "--idle") {
      (arg == "--dead" ? o.dead : o.idle) = std::atof(value.c_str());
    } else {
      ok = false;
    }
  }
  if (!ok || o.flips < 1 || o.polls < 1 || o.dead <= 0 || o.idle <= 0) {
    std::fprintf(stderr, "usage: snmp_bench [--parts 1234] [--flips N] [--polls N] "
                         "[--dead S] [--idle S]\n");
    return 2;
  }
  auto has = [&](char c) { return o.parts.find(c) != std::string::npos; };
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  std::printf("%u cores\n", std::thread::hardware_concurrency());
  if (has('1') || has('3')) ok = FlipsAndPolls(o, has('1'), has('3')) && ok;
  if (has('2')) ok = DeadAgent(o) && ok;
  if (has('4')) ok = Idle(o) && ok;
  return ok ? 0 : 1;
}
