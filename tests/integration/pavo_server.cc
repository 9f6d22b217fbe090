#include "tests/integration/pavo_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace kovran::integration {

namespace {

using Clock = std::chrono::steady_clock;

// How long an answering or resetting server waits for the request line.
constexpr std::chrono::milliseconds kRequestTimeout{5000};
constexpr int kStepMs = 50;

int OpenListener(uint16_t port, std::string& error) {
  const int fd =
      ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) {
    error = std::string("socket: ") + std::strerror(errno);
    return -1;
  }
  // The server closes first, so earlier connections linger in TIME_WAIT on
  // this port when it listens again.
  const int one = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(fd, 16) != 0) {
    error = "listen on 127.0.0.1:" + std::to_string(port) + ": " +
            std::strerror(errno);
    ::close(fd);
    return -1;
  }
  return fd;
}

void SendAll(int fd, const std::string& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n =
        ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    done += static_cast<std::size_t>(n);
  }
}

}  // namespace

std::string StatusRecord(const std::string& flags,
                         const std::string& time_field,
                         const std::string& detail) {
  return "#" + flags + "0000" + time_field + "000" + detail;
}

PavoServer::PavoServer(uint16_t port) : port_(port) {
  wake_fd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wake_fd_ < 0) throw std::runtime_error("eventfd failed");
  thread_ = std::thread([this] { Run(); });
}

PavoServer::~PavoServer() {
  stopping_ = true;
  Wake();
  thread_.join();
  if (listen_fd_ >= 0) ::close(listen_fd_);
  for (const Held& held : held_) ::close(held.fd);
  ::close(wake_fd_);
}

void PavoServer::Answer(const std::string& record) {
  Switch(PavoBehaviour::kAnswer, record);
}
void PavoServer::StaySilent() { Switch(PavoBehaviour::kSilent, ""); }
void PavoServer::Reset() { Switch(PavoBehaviour::kReset, ""); }
void PavoServer::Refuse() { Switch(PavoBehaviour::kRefuse, ""); }

PavoServer::Connections PavoServer::connections() const {
  std::lock_guard lock(mutex_);
  return connections_;
}

bool PavoServer::WaitFor(const std::function<bool(const Connections&)>& done,
                         std::chrono::milliseconds timeout) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return done(connections_); });
}

void PavoServer::Switch(PavoBehaviour behaviour, const std::string& record) {
  std::unique_lock lock(mutex_);
  behaviour_ = behaviour;
  record_ = record;
  const uint64_t wanted = ++wanted_;
  lock.unlock();
  Wake();
  lock.lock();
  changed_.wait(lock, [&] { return applied_ >= wanted; });
  if (!error_.empty()) throw std::runtime_error(error_);
}

void PavoServer::Wake() {
  const uint64_t one = 1;
  [[maybe_unused]] ssize_t n = ::write(wake_fd_, &one, sizeof one);
}

void PavoServer::Run() {
  while (!stopping_) {
    ApplyBehaviour();
    std::vector<pollfd> fds{{wake_fd_, POLLIN, 0}};
    if (listen_fd_ >= 0) fds.push_back({listen_fd_, POLLIN, 0});
    const std::size_t first_held = fds.size();
    for (const Held& held : held_) fds.push_back({held.fd, POLLIN, 0});
    if (::poll(fds.data(), fds.size(), -1) < 0) continue;
    if (fds[0].revents != 0) {
      uint64_t count;
      [[maybe_unused]] ssize_t n = ::read(wake_fd_, &count, sizeof count);
    }
    // Silent connections: keep recording until the program closes its end.
    for (std::size_t i = held_.size(); i-- > 0;) {
      if (fds[first_held + i].revents == 0) continue;
      if (Receive(held_[i].fd, held_[i].index)) continue;
      ::close(held_[i].fd);
      {
        std::lock_guard lock(mutex_);
        connections_[held_[i].index].peer_closed = Clock::now();
      }
      changed_.notify_all();
      held_.erase(held_.begin() + static_cast<std::ptrdiff_t>(i));
    }
    if (listen_fd_ >= 0 && fds[1].revents != 0) Accept();
  }
}

void PavoServer::ApplyBehaviour() {
  std::unique_lock lock(mutex_);
  if (applied_ == wanted_) return;
  const uint64_t wanted = wanted_;
  const bool listen = behaviour_ != PavoBehaviour::kRefuse;
  lock.unlock();
  std::string error;
  if (!listen && listen_fd_ >= 0) {
    ::close(listen_fd_);
    listen_fd_ = -1;
  } else if (listen && listen_fd_ < 0) {
    listen_fd_ = OpenListener(port_, error);
  }
  lock.lock();
  applied_ = wanted;
  error_ = error;
  lock.unlock();
  changed_.notify_all();
}

void PavoServer::Accept() {
  const int fd = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd < 0) return;
  const SteadyTime accepted = Clock::now();
  std::unique_lock lock(mutex_);
  const PavoBehaviour behaviour = behaviour_;
  const std::string record = record_;
  const std::size_t index = connections_.size();
  PavoConnection& connection = connections_.emplace_back();
  connection.behaviour = behaviour;
  connection.accepted = accepted;
  lock.unlock();
  changed_.notify_all();
  Serve(fd, index, behaviour, record);
}

void PavoServer::Serve(int fd, std::size_t index, PavoBehaviour behaviour,
                       const std::string& record) {
  if (behaviour == PavoBehaviour::kSilent) {
    held_.push_back({fd, index});
    return;
  }
  // The request line first, as the real server reads it.
  const auto deadline = Clock::now() + kRequestTimeout;
  bool open = true;
  while (open && !stopping_ && Clock::now() < deadline) {
    {
      std::lock_guard lock(mutex_);
      if (connections_[index].request.find("\r\n") != std::string::npos) break;
    }
    pollfd readable{fd, POLLIN, 0};
    if (::poll(&readable, 1, kStepMs) > 0) open = Receive(fd, index);
  }
  const SteadyTime served = Clock::now();
  {
    std::lock_guard lock(mutex_);
    connections_[index].served = served;
    if (behaviour == PavoBehaviour::kAnswer) connections_[index].reply = record;
  }
  if (behaviour == PavoBehaviour::kAnswer) {
    SendAll(fd, record + "\r\n");
  } else {
    // No linger time: close() aborts the connection with a reset.
    const linger abort{.l_onoff = 1, .l_linger = 0};
    ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
  }
  ::close(fd);
  changed_.notify_all();
}

bool PavoServer::Receive(int fd, std::size_t index) {
  char buffer[4096];
  const ssize_t n = ::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
  if (n < 0) return errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK;
  if (n == 0) return false;
  {
    std::lock_guard lock(mutex_);
    connections_[index].request.append(buffer, static_cast<std::size_t>(n));
  }
  changed_.notify_all();
  return true;
}

}  // namespace kovran::integration
