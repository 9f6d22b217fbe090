#include "platform/asio_tcp_client.h"

#include <array>
#include <asio/connect.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/post.hpp>
#include <asio/write.hpp>
#include <cstdint>
#include <string>

#include "platform/socket_errors.h"

namespace platform {

namespace {

using asio::ip::tcp;

// The socket's state lives in a shared block so that a completion that Asio
// delivers after the client is gone, or after the connection it belongs to
// was closed, is recognised (weak pointer, generation) and dropped.
struct Shared {
  explicit Shared(asio::io_context& io) : io(io), resolver(io), socket(io) {}

  asio::io_context& io;
  tcp::resolver resolver;
  tcp::socket socket;
  TcpClientEvents events;
  uint64_t generation = 0;
  bool connected = false;
  bool reading = false;
  std::string received;
  std::array<char, 65536> buffer;
};

class AsioTcpClient : public TcpClient {
 public:
  explicit AsioTcpClient(asio::io_context& io)
      : shared_(std::make_shared<Shared>(io)) {}
  ~AsioTcpClient() override { Close(); }

  void SetEvents(TcpClientEvents events) override {
    shared_->events = std::move(events);
  }

  void Connect(const std::string& host, int port) override {
    Close();
    const uint64_t generation = shared_->generation;
    std::weak_ptr<Shared> weak = shared_;
    if (port <= 0 || port > 65535) {
      asio::post(shared_->io, [weak, generation] {
        RaiseError(weak, generation, AddressNotAvailable());
      });
      return;
    }
    shared_->resolver.async_resolve(
        tcp::v4(), host, std::to_string(port),
        [weak, generation](const asio::error_code& ec,
                           tcp::resolver::results_type results) {
          auto s = Current(weak, generation);
          if (!s) return;
          if (ec) return RaiseError(weak, generation, ec);
          asio::async_connect(
              s->socket, results,
              [weak, generation](const asio::error_code& ec, const tcp::endpoint&) {
                auto s = Current(weak, generation);
                if (!s) return;
                if (ec) return RaiseError(weak, generation, ec);
                s->connected = true;
                StartReading(s);
                if (s->events.on_connect) s->events.on_connect();
              });
        });
  }

  bool Close() override {
    Shared& s = *shared_;
    ++s.generation;
    s.connected = false;
    s.reading = false;
    s.received.clear();
    s.resolver.cancel();
    asio::error_code ec;
    if (s.socket.is_open()) s.socket.close(ec);
    return !ec;
  }

  bool Send(const std::string& bytes) override {
    if (!shared_->connected) return false;
    auto data = std::make_shared<std::string>(bytes);
    std::weak_ptr<Shared> weak = shared_;
    const uint64_t generation = shared_->generation;
    asio::async_write(shared_->socket, asio::buffer(*data),
                      [weak, generation, data](const asio::error_code& ec,
                                               std::size_t) {
                        if (ec) RaiseError(weak, generation, ec);
                      });
    return true;
  }

  std::string ReadAll() override {
    std::string all;
    all.swap(shared_->received);
    if (shared_->connected && !shared_->reading) StartReading(shared_);
    return all;
  }

 private:
  static std::shared_ptr<Shared> Current(const std::weak_ptr<Shared>& weak,
                                         uint64_t generation) {
    auto s = weak.lock();
    return s && s->generation == generation ? s : nullptr;
  }

  static void RaiseError(const std::weak_ptr<Shared>& weak, uint64_t generation,
                         const asio::error_code& ec) {
    auto s = Current(weak, generation);
    if (!s || ec == asio::error::operation_aborted) return;
    const SocketError error = ToSocketError(ec);
    if (s->events.on_error) s->events.on_error(error.number, error.description);
  }

  static void StartReading(const std::shared_ptr<Shared>& s) {
    if (s->received.size() >= kMaxUnreadBytes) {
      s->reading = false;
      return;
    }
    s->reading = true;
    std::weak_ptr<Shared> weak = s;
    const uint64_t generation = s->generation;
    s->socket.async_read_some(
        asio::buffer(s->buffer),
        [weak, generation](const asio::error_code& ec, std::size_t n) {
          auto s = Current(weak, generation);
          if (!s) return;
          s->reading = false;
          if (ec == asio::error::eof) {
            s->connected = false;
            if (s->events.on_close) s->events.on_close();
            return;
          }
          if (ec) return RaiseError(weak, generation, ec);
          s->received.append(s->buffer.data(), n);
          StartReading(s);
          if (s->events.on_data) s->events.on_data();
        });
  }

  std::shared_ptr<Shared> shared_;
};

}  // namespace

std::unique_ptr<TcpClient> NewAsioTcpClient(asio::io_context& io) {
  return std::make_unique<AsioTcpClient>(io);
}

}  // namespace platform
