#include "tests/integration/pavo_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace kovran::integration {

namespace {

using Clock = std::chrono::steady_clock;

// How long an answering or resetting server waits for the request line.
constexpr std::chrono::seconds kRequestTimeout{5};
// How often the server's threads look whether they should stop.
constexpr int kStepMs = 20;

bool Readable(int fd) {
  pollfd ready{fd, POLLIN, 0};
  return ::poll(&ready, 1, kStepMs) > 0;
}

}  // namespace

std::string StatusRecord(const std::string& flags,
                         const std::string& time_field,
                         const std::string& detail) {
  return "#" + flags + "0000" + time_field + "000" + detail;
}

PavoServer::~PavoServer() {
  Set(Mode::kRefuse);
  stopping_ = true;
  for (std::thread& worker : workers_) worker.join();
}

void PavoServer::Set(Mode mode, const std::string& record) {
  if (mode == Mode::kRefuse && listen_fd_ >= 0) {
    accepting_ = false;
    acceptor_.join();
    ::close(listen_fd_);
    listen_fd_ = -1;
  }
  {
    std::lock_guard lock(mutex_);
    mode_ = mode;
    record_ = record;
  }
  if (mode == Mode::kRefuse || listen_fd_ >= 0) return;
  listen_fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  // The server closes first, so earlier connections linger in TIME_WAIT on
  // this port when it listens again.
  const int one = 1;
  ::setsockopt(listen_fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port_);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::bind(listen_fd_, reinterpret_cast<sockaddr*>(&address),
             sizeof address) != 0 ||
      ::listen(listen_fd_, 16) != 0) {
    const std::string error = std::strerror(errno);
    ::close(listen_fd_);
    listen_fd_ = -1;
    throw std::runtime_error("listen on port " + std::to_string(port_) + ": " +
                             error);
  }
  accepting_ = true;
  acceptor_ = std::thread([this] { Accept(); });
}

PavoServer::Connections PavoServer::connections() const {
  std::lock_guard lock(mutex_);
  return connections_;
}

void PavoServer::Accept() {
  while (accepting_) {
    if (!Readable(listen_fd_)) continue;
    const int fd = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    std::lock_guard lock(mutex_);
    connections_.emplace_back().accepted = Clock::now();
    workers_.emplace_back(&PavoServer::Serve, this, fd, connections_.size() - 1,
                          mode_, record_);
  }
}

void PavoServer::Serve(int fd, std::size_t index, Mode mode,
                       const std::string& record) {
  // The request line first, as the real server reads it; a silent server
  // reads on until the program closes its end.
  const auto deadline = Clock::now() + kRequestTimeout;
  std::string request;
  bool open = true;
  while (open && !stopping_ &&
         (mode == Mode::kSilent || (request.find("\r\n") == std::string::npos &&
                                    Clock::now() < deadline))) {
    if (!Readable(fd)) continue;
    char buffer[4096];
    const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
    open = n > 0;
    if (open) request.append(buffer, static_cast<std::size_t>(n));
    std::lock_guard lock(mutex_);
    connections_[index].request = request;
  }
  {
    std::lock_guard lock(mutex_);
    Connection& connection = connections_[index];
    (mode == Mode::kSilent ? connection.closed : connection.served) =
        Clock::now();
    connection.reply = record;
  }
  if (mode == Mode::kAnswer) {
    const std::string line = record + "\r\n";
    ::send(fd, line.data(), line.size(), MSG_NOSIGNAL);
  } else if (mode == Mode::kReset) {
    // No linger time: close() aborts the connection with a reset.
    const linger abort{.l_onoff = 1, .l_linger = 0};
    ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
  }
  ::close(fd);
}

}  // namespace kovran::integration
