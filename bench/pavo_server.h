// The PAVO server the benchmarks poll. Bench code, not product code.
#ifndef KOVRAN_BENCH_PAVO_SERVER_H_
#define KOVRAN_BENCH_PAVO_SERVER_H_

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace bench {

// A PAVO server on 127.0.0.1 (a free port) on its own thread: "on mains" for
// the first `mains_polls` polls, the power failure with time field `seconds`
// afterwards. `on_start` runs first on the server's thread (to pin it).
class PavoServer {
 public:
  PavoServer(int seconds, int mains_polls,
             std::function<void()> on_start = [] {})
      : mains_polls_(mains_polls), on_start_(std::move(on_start)) {
    char time[8];
    std::snprintf(time, sizeof time, "%04d", seconds);
    failure_ = "#10000000" + std::string(time) + "000Power failure\r\n";
    // CLIENTPORT is a 16-bit signed setting, so the kernel's ephemeral
    // ports (above 32767) cannot be named; look for a free one below.
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int base = 10000 + ::getpid() % 5000 * 4;
    for (port_ = base; port_ < base + 1000; ++port_) {
      address.sin_port = htons(static_cast<uint16_t>(port_));
      if (::bind(listener_, reinterpret_cast<sockaddr*>(&address),
                 sizeof address) == 0) {
        break;
      }
    }
    if (port_ == base + 1000 || ::listen(listener_, 4) != 0) {
      std::perror("bench server");
      std::exit(1);
    }
    thread_ = std::thread([this] { Serve(); });
  }
  ~PavoServer() {
    stop_ = true;
    thread_.join();
    ::close(listener_);
  }

  int port() const { return port_; }
  // When the first power-failure record was about to be written.
  std::optional<std::chrono::steady_clock::time_point> failure_written() {
    std::lock_guard lock(mutex_);
    return failure_written_;
  }

 private:
  void Serve() {
    on_start_();
    for (int polls = 0; !stop_;) {
      pollfd p{listener_, POLLIN, 0};
      if (::poll(&p, 1, 100) <= 0) continue;
      const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (client < 0) continue;
      if (ReadRequestLine(client)) {
        const bool failure = ++polls > mains_polls_;
        const std::string record =
            failure ? failure_ : "#000000000000000On mains\r\n";
        const auto now = std::chrono::steady_clock::now();
        if (failure) {
          std::lock_guard lock(mutex_);
          if (!failure_written_) failure_written_ = now;
        }
        ::send(client, record.data(), record.size(), MSG_NOSIGNAL);
      }
      ::close(client);
    }
  }

  static bool ReadRequestLine(int fd) {
    std::string line;
    char buffer[256];
    while (line.find("\r\n") == std::string::npos && line.size() < 1024) {
      pollfd p{fd, POLLIN, 0};
      if (::poll(&p, 1, 2000) <= 0) return false;
      const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
      if (n <= 0) return false;
      line.append(buffer, static_cast<std::size_t>(n));
    }
    return line.rfind("H:CL10>IP:", 0) == 0;
  }

  const int mains_polls_;
  const std::function<void()> on_start_;
  std::string failure_;
  int listener_ = -1;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::mutex mutex_;
  std::optional<std::chrono::steady_clock::time_point> failure_written_;
  std::thread thread_;
};

}  // namespace bench

#endif  // KOVRAN_BENCH_PAVO_SERVER_H_
