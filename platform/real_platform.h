// The real platform: Asio's event loop on the calling thread with its timers
// and sockets, shared by Linux and Windows, and the OS services (clock,
// files, processes, instance test, service control), which CMake picks per
// system (os_posix.cc, os_windows.cc). No Asio or OS type appears here.
#ifndef KOVRAN_PLATFORM_REAL_PLATFORM_H_
#define KOVRAN_PLATFORM_REAL_PLATFORM_H_

#include <chrono>
#include <memory>

#include "platform/platform.h"

namespace platform {

class RealPlatform : public Platform {
 public:
  // With `exit_process` false (tests), EndNow stops the loop instead of
  // ending the process.
  explicit RealPlatform(bool exit_process = true);
  ~RealPlatform() override;

  // Runs the event loop until EndNow.
  void Run();
  // Runs the event loop for `d` (tests).
  void RunFor(std::chrono::milliseconds d);
  bool ended() const;

  std::unique_ptr<Timer> NewTimer(std::function<void()> on_expiry) override;
  void Post(std::function<void()> task) override;
  void Yield() override;
  bool RunUntil(const std::function<bool()>& done,
                double deadline_seconds) override;
  void EndNow(int exit_code) override;
  void SetCloseHandler(std::function<void()> on_close) override;
  double SteadySeconds() override;
  double SecondsSinceMidnight() override;
  LocalDate Today() override;
  std::string ProgramFolder() override;
  char PathSeparator() const override;
  std::optional<std::string> ReadFile(const std::string& path) override;
  bool CanOpenForReading(const std::string& path) override;
  bool AppendToFile(const std::string& path, const std::string& data) override;
  bool WriteFile(const std::string& path, const std::string& data) override;
  std::optional<std::string> InCodePage(const std::string& text,
                                        CodePage page) override;
  bool StartProcess(const std::string& command_line, int window_style) override;
  int PlatformNumber() override;
  bool AnotherInstanceRunning() override;
  std::unique_ptr<TcpClient> NewTcpClient() override;
  std::string LocalIPv4Address() override;
  std::vector<std::string> LocalAddresses() override;
  std::string ResolveIPv4(const std::string& host) override;
  std::unique_ptr<UdpSocket> NewUdpSocket() override;
  std::unique_ptr<TcpListener> NewTcpListener() override;
  bool ConnectService() override;
  void SetServiceHandler(std::function<void(int)> on_state) override;
  void ReportWatching(bool watching) override;
  CommandResult RunCommand(const std::string& command_line,
                           double seconds) override;
  std::optional<SystemError> PowerOff() override;
  std::optional<SystemError> Hibernate() override;

  struct Impl;  // opaque: holds the Asio objects and the OS's own state

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace platform

#endif  // KOVRAN_PLATFORM_REAL_PLATFORM_H_
