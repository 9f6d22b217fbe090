// The in-memory twin of the platform, for tests: virtual time that the test
// advances, files held in memory, process starts recorded instead of run, and
// system answers chosen by the test. It follows the contract of Platform; the
// contract tests run against it and the real implementation alike.
#ifndef KOVRAN_PLATFORM_FAKE_PLATFORM_H_
#define KOVRAN_PLATFORM_FAKE_PLATFORM_H_

#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "platform/fake_local_sockets.h"
#include "platform/fake_tcp_client.h"
#include "platform/platform.h"
#include "platform/timer_schedule.h"

namespace platform {

class FakePlatform : public Platform {
 public:
  using Duration = std::chrono::nanoseconds;

  struct ProcessStart {
    std::string command_line;
    int window_style;
  };

  FakePlatform();
  ~FakePlatform() override;

  // ---- Driving time ----

  // Runs what is ready, then moves virtual time forward by `d`, firing every
  // timer that comes due on the way in (due time, creation order), and
  // running what became ready after each. Stops early once the program ended.
  void Advance(Duration d);
  // Runs posted tasks and timers due now, without moving time.
  void RunReady();
  // The program is held for `d` (the PC sleeps, the process is stopped):
  // time moves on and nothing runs. What came due meanwhile runs at the next
  // RunReady() or Advance(), each timer once.
  void Stall(Duration d) { now_ += d; }
  // Runs `task` once, `delay` from now, as an event of the loop (a reply
  // coming over the network, say).
  void At(Duration delay, std::function<void()> task);
  // Virtual time since the fake was made.
  Duration Now() const { return now_; }

  // Sets the local wall clock as it reads now; from here it runs on with
  // virtual time, and midnight rolls the date over.
  void SetWallClock(LocalDate date, double seconds_since_midnight);

  // ---- Scripting ----

  std::string program_folder = "/kovran";
  char separator = '/';
  // A text that has no place in the system's 8-bit code page.
  std::string unrepresentable;
  int platform_number = 1;
  bool another_instance = false;
  bool service_connects = true;

  // Files by full path ("/" and "\\" both stand for `separator`). A folder must be listed for files to be created in
  // it. Paths in `unreadable` cannot be opened for reading; paths in
  // `unwritable` cannot be written or appended to.
  std::map<std::string, std::string> files;
  std::set<std::string> folders;
  std::set<std::string> unreadable;
  std::set<std::string> unwritable;

  std::string local_ipv4 = "192.168.1.20";
  // Names ResolveIPv4 knows; a dotted address resolves to itself.
  std::map<std::string, std::string> hosts;
  // The TCP clients the program made, in order of making; destroyed ones
  // are removed.
  std::vector<FakeTcpClient*> tcp_clients;
  // The machine's addresses and the local ports' sockets.
  FakeNetwork network{*this};

  // Command lines whose start fails; everything else starts.
  std::set<std::string> failing_starts;
  std::vector<ProcessStart> starts;

  // Commands run by RunCommand, and how each goes (by default: ends with
  // status 0 at once); a result that does not end takes the whole wait.
  std::vector<std::string> commands;
  std::map<std::string, CommandResult> command_results;
  // "poweroff" and "hibernate", in the order asked; what each answers.
  std::vector<std::string> switch_offs;
  std::optional<SystemError> power_off_error, hibernate_error;
  // What ReportWatching was told, in order.
  std::vector<bool> watching_reports;

  // ---- Events from outside ----

  // The platform closes the program (log-off, SIGTERM), delivered as an event.
  void RequestClose();
  // The service control reports `state`, delivered as an event.
  void NotifyService(int state);

  // ---- Observing the end ----

  bool ended() const { return ended_; }
  int exit_code() const { return exit_code_; }
  int service_connect_calls() const { return service_connect_calls_; }

  // ---- Platform ----

  std::unique_ptr<Timer> NewTimer(std::function<void()> on_expiry) override;
  void Post(std::function<void()> task) override;
  void Yield() override;
  bool RunUntil(const std::function<bool()>& done,
                double deadline_seconds) override;
  void EndNow(int exit_code) override;
  void SetCloseHandler(std::function<void()> on_close) override;
  double SteadySeconds() override {
    return std::chrono::duration<double>(now_).count();
  }
  double SecondsSinceMidnight() override;
  LocalDate Today() override;
  std::string ProgramFolder() override { return program_folder; }
  char PathSeparator() const override { return separator; }
  std::optional<std::string> ReadFile(const std::string& path) override;
  bool CanOpenForReading(const std::string& path) override;
  bool AppendToFile(const std::string& path, const std::string& data) override;
  bool WriteFile(const std::string& path, const std::string& data) override;
  // Every text fits, unless it holds one of `unrepresentable`.
  std::optional<std::string> InCodePage(const std::string& text,
                                        CodePage) override {
    if (!unrepresentable.empty() &&
        text.find(unrepresentable) != std::string::npos) {
      return std::nullopt;
    }
    return text;
  }
  bool StartProcess(const std::string& command_line, int window_style) override;
  int PlatformNumber() override { return platform_number; }
  bool AnotherInstanceRunning() override { return another_instance; }
  std::unique_ptr<TcpClient> NewTcpClient() override;
  std::string LocalIPv4Address() override { return local_ipv4; }
  std::vector<std::string> LocalAddresses() override { return network.addresses; }
  std::string ResolveIPv4(const std::string& host) override;
  std::unique_ptr<UdpSocket> NewUdpSocket() override {
    return std::make_unique<FakeUdpSocket>(network);
  }
  std::unique_ptr<TcpListener> NewTcpListener() override {
    return std::make_unique<FakeTcpListener>(network);
  }
  bool ConnectService() override;
  void SetServiceHandler(std::function<void(int)> on_state) override;
  void ReportWatching(bool watching) override {
    watching_reports.push_back(watching);
  }
  CommandResult RunCommand(const std::string& command_line,
                           double seconds) override;
  std::optional<SystemError> PowerOff() override {
    switch_offs.push_back("poweroff");
    return power_off_error;
  }
  std::optional<SystemError> Hibernate() override {
    switch_offs.push_back("hibernate");
    return hibernate_error;
  }

 private:
  class FakeTimer;
  struct TimerSlot {
    TimerSchedule schedule;
    std::function<void()> on_expiry;
    bool alive = true;
  };

  // Fires the earliest armed timer due at or before `limit`; false if none.
  bool FireNextDue(Duration limit);
  void RunPosted();
  bool FolderExists(const std::string& path) const;
  std::string Normalize(std::string path) const;

  Duration now_{0};
  LocalDate base_date_{2026, 11, 23};
  double base_seconds_ = 10 * 3600;
  std::vector<std::shared_ptr<TimerSlot>> timers_;
  std::deque<std::function<void()>> posted_;
  std::function<void()> on_close_;
  std::function<void(int)> on_service_;
  bool ended_ = false;
  int exit_code_ = -1;
  int service_connect_calls_ = 0;
};

}  // namespace platform

#endif  // KOVRAN_PLATFORM_FAKE_PLATFORM_H_
