// The fake TCP client: records what the program does with the socket and
// lets a test play the server's side (accept, refuse, deliver bytes, close).
// Every event it raises is posted through the fake platform's loop.
#ifndef KOVRAN_PLATFORM_FAKE_TCP_CLIENT_H_
#define KOVRAN_PLATFORM_FAKE_TCP_CLIENT_H_

#include <cstdint>
#include <string>

#include "platform/platform.h"
#include "platform/tcp_client.h"

namespace platform {

class FakeTcpClient : public TcpClient {
 public:
  enum class State { kClosed, kConnecting, kConnected };

  FakeTcpClient(Platform& loop, std::function<void(FakeTcpClient*)> on_destroy)
      : loop_(loop), on_destroy_(std::move(on_destroy)) {}
  ~FakeTcpClient() override { on_destroy_(this); }

  // ---- What the program did ----
  State state() const { return state_; }
  const std::string& host() const { return host_; }
  int port() const { return port_; }
  int connects() const { return connects_; }
  int closes() const { return closes_; }
  // Everything sent on the current (or last) connection.
  const std::string& sent() const { return sent_; }
  // Makes the next Close() calls fail.
  bool fail_close = false;

  // ---- The server's side ----
  void Accept();
  void Refuse() { RaiseError(wsa::kConnectionRefused, "Connection refused"); }
  void Deliver(const std::string& bytes);
  void PeerClose();
  void RaiseError(int number, const std::string& description);

  // ---- TcpClient ----
  void SetEvents(TcpClientEvents events) override { events_ = std::move(events); }
  void Connect(const std::string& host, int port) override;
  bool Close() override;
  bool Send(const std::string& bytes) override;
  std::string ReadAll() override;

 private:
  // Posts `event` to run only while the connection it belongs to is current.
  void Raise(std::function<void()> event);

  Platform& loop_;
  std::function<void(FakeTcpClient*)> on_destroy_;
  TcpClientEvents events_;
  State state_ = State::kClosed;
  uint64_t generation_ = 0;
  std::string host_;
  int port_ = 0;
  int connects_ = 0;
  int closes_ = 0;
  std::string sent_;
  std::string received_;
};

}  // namespace platform

#endif  // KOVRAN_PLATFORM_FAKE_TCP_CLIENT_H_
