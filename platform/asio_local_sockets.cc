#include "platform/asio_local_sockets.h"

#include <array>
#include <asio/ip/tcp.hpp>
#include <asio/ip/udp.hpp>
#include <asio/steady_timer.hpp>
#include <asio/write.hpp>
#include <map>
#include <system_error>

#include "platform/asio_tcp_client.h"
#include "platform/socket_errors.h"

namespace platform {

namespace {

using asio::ip::tcp;
using asio::ip::udp;

// Errors of a receive that say nothing about this socket: an ICMP message
// about an earlier datagram to a port nobody listened on (Windows reports it
// on the next receive), or a signal.
bool TransientReceiveError(const asio::error_code& ec) {
  return ec == asio::error::connection_refused ||
         ec == asio::error::connection_reset || ec == asio::error::interrupted;
}

bool OutOfResources(const asio::error_code& ec) {
  return ec == asio::error::no_descriptors ||
         ec == std::errc::too_many_files_open_in_system ||
         ec == asio::error::no_memory || ec == asio::error::no_buffer_space;
}

// ---- UDP ----

struct UdpShared {
  explicit UdpShared(asio::io_context& io) : socket(io), retry(io) {}
  udp::socket socket;
  asio::steady_timer retry;
  UdpSocketEvents events;
  udp::endpoint sender;
  std::array<char, 65536> buffer;
};

class AsioUdpSocket : public UdpSocket {
 public:
  explicit AsioUdpSocket(asio::io_context& io)
      : shared_(std::make_shared<UdpShared>(io)) {}
  ~AsioUdpSocket() override {
    asio::error_code ignored;
    shared_->retry.cancel();
    shared_->socket.close(ignored);
  }

  void SetEvents(UdpSocketEvents events) override {
    shared_->events = std::move(events);
  }

  bool SetRemote(const std::string& host, int port) override {
    asio::error_code ec;
    const auto address = asio::ip::make_address_v4(host, ec);
    if (ec || port < 1 || port > 65535) return false;
    remote_ = udp::endpoint(address, static_cast<uint16_t>(port));
    return true;
  }

  bool Bind(int port) override {
    if (port < 0 || port > 65535) return false;
    asio::error_code ec;
    udp::socket& socket = shared_->socket;
    if (socket.is_open()) socket.close(ec);
    socket.open(udp::v4(), ec);
    if (!ec) socket.bind(udp::endpoint(udp::v4(), static_cast<uint16_t>(port)), ec);
    if (!ec) socket.non_blocking(true, ec);
    if (ec) {
      socket.close(ec);
      return false;
    }
    Receive(shared_);
    return true;
  }

  int LocalPort() const override {
    asio::error_code ec;
    const auto endpoint = shared_->socket.local_endpoint(ec);
    return ec ? 0 : endpoint.port();
  }

  // A full send buffer drops the datagram, as the network may anyway.
  bool Send(const std::string& bytes) override {
    if (!shared_->socket.is_open() || remote_.port() == 0) return false;
    asio::error_code ec;
    if (remote_.address() == asio::ip::address_v4::broadcast()) {
      shared_->socket.set_option(asio::socket_base::broadcast(true), ec);
    }
    shared_->socket.send_to(asio::buffer(bytes), remote_, 0, ec);
    return !ec;
  }

 private:
  static void Receive(const std::shared_ptr<UdpShared>& s) {
    std::weak_ptr<UdpShared> weak = s;
    s->socket.async_receive_from(
        asio::buffer(s->buffer), s->sender,
        [weak](const asio::error_code& ec, std::size_t n) {
          auto s = weak.lock();
          if (!s || ec == asio::error::operation_aborted || !s->socket.is_open()) {
            return;
          }
          if (ec && !TransientReceiveError(ec)) {
            // An error that may repeat: wait before receiving again.
            s->retry.expires_after(std::chrono::milliseconds(kAcceptBackoffMs));
            s->retry.async_wait([weak](const asio::error_code& ec) {
              auto s = weak.lock();
              if (s && !ec && s->socket.is_open()) Receive(s);
            });
            return;
          }
          // Taken before the next receive starts: Asio may complete it at
          // once into the same buffer and sender.
          const bool deliver = !ec && n <= kMaxDatagramBytes;
          const std::string data = deliver ? std::string(s->buffer.data(), n) : "";
          const std::string sender = s->sender.address().to_string();
          const int sender_port = s->sender.port();
          Receive(s);
          if (deliver && s->events.on_datagram) {
            s->events.on_datagram(data, sender, sender_port);
          }
        });
  }

  std::shared_ptr<UdpShared> shared_;
  udp::endpoint remote_;
};

// ---- TCP connection ----

struct ConnectionShared {
  explicit ConnectionShared(tcp::socket s) : socket(std::move(s)) {}
  tcp::socket socket;
  TcpConnectionEvents events;
  bool open = true;
  bool reading = false;
  std::size_t sends_pending = 0;
  std::string received;
  std::array<char, 65536> buffer;
};

class AsioTcpConnection : public TcpConnection {
 public:
  explicit AsioTcpConnection(tcp::socket socket)
      : shared_(std::make_shared<ConnectionShared>(std::move(socket))) {
    StartReading(shared_);
  }
  ~AsioTcpConnection() override { Close(); }

  void SetEvents(TcpConnectionEvents events) override {
    shared_->events = std::move(events);
  }

  bool Send(const std::string& bytes) override {
    if (!shared_->open) return false;
    auto data = std::make_shared<std::string>(bytes);
    ++shared_->sends_pending;
    std::weak_ptr<ConnectionShared> weak = shared_;
    asio::async_write(shared_->socket, asio::buffer(*data),
                      [weak, data](const asio::error_code& ec, std::size_t) {
                        auto s = weak.lock();
                        if (!s || !s->open) return;
                        --s->sends_pending;
                        if (ec) return RaiseError(s, ec);
                        if (s->sends_pending == 0 && s->events.on_send_complete) {
                          s->events.on_send_complete();
                        }
                      });
    return true;
  }

  std::string ReadAll() override {
    std::string all;
    all.swap(shared_->received);
    if (shared_->open && !shared_->reading) StartReading(shared_);
    return all;
  }

  bool Close() override {
    ConnectionShared& s = *shared_;
    s.open = false;
    s.received.clear();
    asio::error_code ec;
    if (s.socket.is_open()) s.socket.close(ec);
    return !ec;
  }

 private:
  static void RaiseError(const std::shared_ptr<ConnectionShared>& s,
                         const asio::error_code& ec) {
    if (ec == asio::error::operation_aborted) return;
    s->open = false;
    const SocketError error = ToSocketError(ec);
    if (s->events.on_error) s->events.on_error(error.number, error.description);
  }

  static void StartReading(const std::shared_ptr<ConnectionShared>& s) {
    if (s->received.size() >= kMaxUnreadBytes) {
      s->reading = false;
      return;
    }
    s->reading = true;
    std::weak_ptr<ConnectionShared> weak = s;
    s->socket.async_read_some(
        asio::buffer(s->buffer), [weak](const asio::error_code& ec, std::size_t n) {
          auto s = weak.lock();
          if (!s || !s->open) return;
          s->reading = false;
          if (ec == asio::error::eof) {
            s->open = false;
            if (s->events.on_close) s->events.on_close();
            return;
          }
          if (ec) return RaiseError(s, ec);
          s->received.append(s->buffer.data(), n);
          StartReading(s);
          if (s->events.on_data) s->events.on_data();
        });
  }

  std::shared_ptr<ConnectionShared> shared_;
};

// ---- TCP listener ----

struct ListenerShared {
  explicit ListenerShared(asio::io_context& io)
      : io(io), acceptor(io), backoff(io) {}
  asio::io_context& io;
  tcp::acceptor acceptor;
  asio::steady_timer backoff;
  std::function<void(int64_t)> on_request;
  int64_t next_id = 0;
  std::map<int64_t, tcp::socket> pending;
};

class AsioTcpListener : public TcpListener {
 public:
  explicit AsioTcpListener(asio::io_context& io)
      : shared_(std::make_shared<ListenerShared>(io)) {}
  ~AsioTcpListener() override {
    asio::error_code ignored;
    shared_->backoff.cancel();
    shared_->acceptor.close(ignored);
  }

  void SetOnConnectionRequest(std::function<void(int64_t)> on_request) override {
    shared_->on_request = std::move(on_request);
  }

  bool Listen(int port) override {
    if (port < 0 || port > 65535) return false;
    tcp::acceptor& acceptor = shared_->acceptor;
    asio::error_code ec;
    if (acceptor.is_open()) acceptor.close(ec);
    acceptor.open(tcp::v4(), ec);
    // A restarted program must get its port back while connections of the
    // previous run linger in TIME_WAIT; a port in active use still fails.
    if (!ec && ListenerReusesAddress()) {
      acceptor.set_option(tcp::acceptor::reuse_address(true), ec);
    }
    if (!ec) acceptor.bind(tcp::endpoint(tcp::v4(), static_cast<uint16_t>(port)), ec);
    if (!ec) acceptor.listen(asio::socket_base::max_listen_connections, ec);
    if (ec) {
      acceptor.close(ec);
      return false;
    }
    AcceptNext(shared_);
    return true;
  }

  int LocalPort() const override {
    asio::error_code ec;
    const auto endpoint = shared_->acceptor.local_endpoint(ec);
    return ec ? 0 : endpoint.port();
  }

  std::unique_ptr<TcpConnection> Accept(int64_t request_id) override {
    auto it = shared_->pending.find(request_id);
    if (it == shared_->pending.end()) return nullptr;
    auto connection = std::make_unique<AsioTcpConnection>(std::move(it->second));
    shared_->pending.erase(it);
    return connection;
  }

 private:
  static void AcceptNext(const std::shared_ptr<ListenerShared>& s) {
    std::weak_ptr<ListenerShared> weak = s;
    s->acceptor.async_accept([weak](const asio::error_code& ec, tcp::socket socket) {
      auto s = weak.lock();
      if (!s || ec == asio::error::operation_aborted || !s->acceptor.is_open()) {
        return;
      }
      if (OutOfResources(ec)) {
        s->backoff.expires_after(std::chrono::milliseconds(kAcceptBackoffMs));
        s->backoff.async_wait([weak](const asio::error_code& ec) {
          auto s = weak.lock();
          if (s && !ec && s->acceptor.is_open()) AcceptNext(s);
        });
        return;
      }
      AcceptNext(s);
      if (ec) return;  // the peer gave up before it was accepted
      const int64_t id = ++s->next_id;
      s->pending.emplace(id, std::move(socket));
      if (s->on_request) s->on_request(id);
      s->pending.erase(id);  // not taken: closed
    });
  }

  std::shared_ptr<ListenerShared> shared_;
};

}  // namespace

std::unique_ptr<UdpSocket> NewAsioUdpSocket(asio::io_context& io) {
  return std::make_unique<AsioUdpSocket>(io);
}

std::unique_ptr<TcpListener> NewAsioTcpListener(asio::io_context& io) {
  return std::make_unique<AsioTcpListener>(io);
}

}  // namespace platform
