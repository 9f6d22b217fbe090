// Timing of the server-mode road of a power failure, on the real platform.
//
// Each run builds the whole program in-process on a RealPlatform, with a
// PAVO server on loopback that answers "on mains" to the first polls and then
// reports a power failure with a short time field T. Per run it measures
//   (a) reaction: from the server thread about to write the power-failure
//       record to the program starting the countdown (PENCEREKUR);
//   (b) exit error: the moment EXIT.EXE is started against the design's
//       timing, countdown start + (T - 3) s (the countdown tick that sets the
//       shutdown flag) + 30 s (the exit timer's 30 ticks). The exit timer
//       counts from its first tick after the flag, so the error is minus the
//       time from the exit timer's last tick to the countdown start, within
//       (-1 s, 0]. With a whole number of seconds between polls the poll
//       timer keeps the exit timer's phase (both start at start-up), so the
//       countdown starts just after an exit tick and the error sits just
//       below 0.
// It prints one line per run and the median and worst (largest magnitude) of
// both in milliseconds.
//
// A plain main(), not Google Benchmark: one sample is a ~35 s real-time run
// of the program with two results of its own, and the runs go in parallel.
// Google Benchmark's model, a body repeated until its time per iteration is
// stable, has no place for either.
//
//   bash tools/bench                       # 20 runs, T = 5 s, 4 at a time
//   build-bench/bench/server_latency_bench [--runs N] [--parallel N] [--time T]
//
// Runs in parallel do not share anything: each has its own platform and
// event thread, program folder and server port. The instance test is
// answered "no other copy" (all copies are this one executable).
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "app/program.h"
#include "bench/pavo_server.h"
#include "platform/real_platform.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// Polls answered "on mains" before the power failure, so that the program
// is in its steady polling rhythm when it comes.
constexpr int kMainsPolls = 2;

double Ms(Clock::duration d) {
  return std::chrono::duration<double, std::milli>(d).count();
}

// The real platform, with the program folder moved to a scratch folder and
// process starts recorded instead of made.
class BenchPlatform : public platform::Platform {
 public:
  BenchPlatform(platform::RealPlatform& real, std::string folder)
      : real_(real), folder_(std::move(folder)) {}

  std::optional<Clock::time_point> exit_started;

  std::unique_ptr<platform::Timer> NewTimer(std::function<void()> f) override {
    return real_.NewTimer(std::move(f));
  }
  void Post(std::function<void()> task) override {
    real_.Post(std::move(task));
  }
  void Yield() override { real_.Yield(); }
  bool RunUntil(const std::function<bool()>& done, double deadline) override {
    return real_.RunUntil(done, deadline);
  }
  void EndNow(int exit_code) override { real_.EndNow(exit_code); }
  void SetCloseHandler(std::function<void()> f) override {
    real_.SetCloseHandler(std::move(f));
  }
  double SteadySeconds() override { return real_.SteadySeconds(); }
  double SecondsSinceMidnight() override {
    return real_.SecondsSinceMidnight();
  }
  platform::LocalDate Today() override { return real_.Today(); }
  std::string ProgramFolder() override { return folder_; }
  char PathSeparator() const override { return real_.PathSeparator(); }
  std::optional<std::string> ReadFile(const std::string& path) override {
    return real_.ReadFile(path);
  }
  bool CanOpenForReading(const std::string& path) override {
    return real_.CanOpenForReading(path);
  }
  bool AppendToFile(const std::string& path, const std::string& data) override {
    return real_.AppendToFile(path, data);
  }
  bool WriteFile(const std::string& path, const std::string& data) override {
    return real_.WriteFile(path, data);
  }
  std::optional<std::string> InCodePage(const std::string& text,
                                        CodePage page) override {
    return real_.InCodePage(text, page);
  }
  bool StartProcess(const std::string& command_line, int) override {
    if (command_line == folder_ + "/EXIT.EXE" && !exit_started) {
      exit_started = Clock::now();
    }
    return true;
  }
  int PlatformNumber() override { return real_.PlatformNumber(); }
  bool AnotherInstanceRunning() override { return false; }
  std::unique_ptr<platform::TcpClient> NewTcpClient() override {
    return real_.NewTcpClient();
  }
  std::string LocalIPv4Address() override { return real_.LocalIPv4Address(); }
  std::vector<std::string> LocalAddresses() override {
    return real_.LocalAddresses();
  }
  std::string ResolveIPv4(const std::string& host) override {
    return real_.ResolveIPv4(host);
  }
  std::unique_ptr<platform::UdpSocket> NewUdpSocket() override {
    return real_.NewUdpSocket();
  }
  std::unique_ptr<platform::TcpListener> NewTcpListener() override {
    return real_.NewTcpListener();
  }
  bool ConnectService() override { return real_.ConnectService(); }
  platform::CommandResult RunCommand(const std::string& command_line,
                                     double seconds) override {
    return real_.RunCommand(command_line, seconds);
  }
  std::optional<platform::SystemError> PowerOff() override {
    return platform::SystemError{1, "not in a benchmark"};
  }
  std::optional<platform::SystemError> Hibernate() override { return PowerOff(); }
  void ReportWatching(bool watching) override { real_.ReportWatching(watching); }
  void SetServiceHandler(std::function<void(int)> f) override {
    real_.SetServiceHandler(std::move(f));
  }

 private:
  platform::RealPlatform& real_;
  std::string folder_;
};

struct Result {
  bool ok = false;
  double reaction_ms = 0;    // (a)
  double exit_error_ms = 0;  // (b), signed: late is positive
  std::string problem;
};

Result OneRun(int index, int seconds) {
  Result result;
  bench::PavoServer server(seconds, kMainsPolls);
  const fs::path folder = fs::temp_directory_path() /
                          ("kovran-bench-" + std::to_string(::getpid()) + "-" +
                           std::to_string(index));
  fs::remove_all(folder);
  fs::create_directories(folder / "SERLOGS");
  fs::copy_file(fs::path(KOVRAN_DIST_DIR) / "LANGSE1.TXT",
                folder / "LANGSE1.TXT");
  std::ofstream(folder / "upsser.cfg")
      << "HOST:127.0.0.1\r\nCLIENTPORT:" << server.port()
      << "\r\nCONNECTION:SERVER\r\nPOLLINGTIME:1\r\nLANGUAGE:1\r\n"
         "ENABLESHUT:1\r\nMAXLOCALUSERS:0\r\nLOCALWINDOWPORT:5000\r\n";

  platform::RealPlatform real(/*exit_process=*/false);
  BenchPlatform bench(real, folder.string());
  std::optional<Clock::time_point> countdown_started;
  {
    app::Program program(bench);
    auto original = program.main.parts.PENCEREKUR;
    program.main.parts.PENCEREKUR = [&countdown_started, original] {
      if (!countdown_started) countdown_started = Clock::now();
      original();
    };
    program.Load();
    real.RunFor(std::chrono::seconds(seconds + 60));
  }

  const auto written = server.failure_written();
  if (!real.ended() || !written || !countdown_started || !bench.exit_started) {
    result.problem = "run incomplete (log in " + folder.string() + ")";
    return result;
  }
  const auto expected =
      *countdown_started + std::chrono::seconds(seconds - 3 + 30);
  result.ok = true;
  result.reaction_ms = Ms(*countdown_started - *written);
  result.exit_error_ms = Ms(*bench.exit_started - expected);
  fs::remove_all(folder);
  return result;
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  const std::size_t n = v.size();
  return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

double Worst(const std::vector<double>& v) {
  return *std::max_element(v.begin(), v.end(), [](double a, double b) {
    return std::fabs(a) < std::fabs(b);
  });
}

int Usage() {
  std::fprintf(
      stderr,
      "usage: server_latency_bench [--runs N] [--parallel N] [--time T]\n"
      "  T: the power failure's time field in seconds, 4 or more\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  int runs = 20, parallel = 4, seconds = 5;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (i + 1 >= argc) return Usage();
    const int value = std::atoi(argv[++i]);
    if (arg == "--runs") {
      runs = value;
    } else if (arg == "--parallel") {
      parallel = value;
    } else if (arg == "--time") {
      seconds = value;
    } else {
      return Usage();
    }
  }
  if (runs < 1 || parallel < 1 || seconds < 4 || seconds > 9999) return Usage();

  std::printf(
      "%d runs, %d at a time, time field %d s, POLLINGTIME 1; "
      "each run takes about %d s\n",
      runs, parallel, seconds, seconds + 30);
  std::printf("%4s %18s %22s\n", "run", "(a) reaction ms", "(b) exit error ms");
  std::fflush(stdout);
  std::vector<Result> results(static_cast<std::size_t>(runs));
  std::atomic<int> next{0};
  std::mutex print;
  std::vector<std::thread> workers;
  for (int w = 0; w < std::min(parallel, runs); ++w) {
    workers.emplace_back([&] {
      for (int i = next++; i < runs; i = next++) {
        Result r = OneRun(i, seconds);
        std::lock_guard lock(print);
        if (r.ok) {
          std::printf("%4d %18.3f %22.1f\n", i + 1, r.reaction_ms,
                      r.exit_error_ms);
        } else {
          std::printf("%4d %s\n", i + 1, r.problem.c_str());
        }
        std::fflush(stdout);
        results[static_cast<std::size_t>(i)] = std::move(r);
      }
    });
  }
  for (std::thread& t : workers) t.join();

  std::vector<double> reaction, exit_error;
  for (const Result& r : results) {
    if (!r.ok) continue;
    reaction.push_back(r.reaction_ms);
    exit_error.push_back(r.exit_error_ms);
  }
  if (reaction.empty()) return 1;
  std::printf("\n%-44s %10s %10s\n", "", "median", "worst");
  std::printf("%-44s %10.3f %10.3f\n",
              "(a) record written -> countdown started, ms", Median(reaction),
              Worst(reaction));
  std::printf("%-44s %10.1f %10.1f\n", "(b) EXIT.EXE start - expected, ms",
              Median(exit_error), Worst(exit_error));
  return reaction.size() == results.size() ? 0 : 1;
}
