// The fake local ports' sockets: one machine whose UDP sockets reach each
// other through its own addresses, and a TCP listener whose connections a
// test makes and plays the peer of. Every event is posted through the fake
// platform's loop.
#ifndef KOVRAN_PLATFORM_FAKE_LOCAL_SOCKETS_H_
#define KOVRAN_PLATFORM_FAKE_LOCAL_SOCKETS_H_

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "platform/local_sockets.h"
#include "platform/platform.h"

namespace platform {

class FakeUdpSocket;
class FakeTcpListener;

// The peer's end of an accepted connection, which a test keeps.
struct FakeTcpPeer {
  std::string sent;          // what the program sent on the connection
  int closes = 0;            // Close() calls by the program
  bool destroyed = false;    // the program destroyed its connection object
  class FakeTcpConnection* connection = nullptr;  // null once destroyed

  void Deliver(const std::string& bytes);
  void Close();  // the peer closes
  void RaiseError(int number, const std::string& description);
};

struct FakeNetwork {
  explicit FakeNetwork(Platform& loop) : loop(loop) {}
  Platform& loop;
  std::vector<std::string> addresses{"127.0.0.1", "192.168.1.20"};
  // Ports another program holds; binding or listening on them fails.
  std::set<int> taken_udp_ports, taken_tcp_ports;
  std::map<int, FakeUdpSocket*> udp_bound;
  std::vector<FakeUdpSocket*> udp_sockets;  // live ones, in order of making
  std::vector<FakeTcpListener*> tcp_listeners;
  std::vector<std::shared_ptr<FakeTcpPeer>> tcp_peers;  // every accepted one
  // The wire beyond this machine: called with each datagram a socket sends
  // to an address that is not local (a test plays the peers there).
  std::function<void(FakeUdpSocket& from, const std::string& to_host,
                     int to_port, const std::string& data)>
      on_remote_send;

  bool IsLocal(const std::string& host) const;
};

class FakeUdpSocket : public UdpSocket {
 public:
  explicit FakeUdpSocket(FakeNetwork& net);
  ~FakeUdpSocket() override;

  const std::string& remote_host() const { return remote_host_; }
  int remote_port() const { return remote_port_; }
  std::vector<std::string> sent;  // every datagram sent, in order
  // A datagram arrives from `sender`:`sender_port`.
  void Deliver(const std::string& data, const std::string& sender = "127.0.0.1",
               int sender_port = 40000);

  void SetEvents(UdpSocketEvents events) override { events_ = std::move(events); }
  bool SetRemote(const std::string& host, int port) override;
  bool Bind(int port) override;
  int LocalPort() const override { return port_; }
  bool Send(const std::string& bytes) override;

 private:
  void Unbind();
  FakeNetwork& net_;
  UdpSocketEvents events_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  std::string remote_host_;
  int remote_port_ = 0;
  int port_ = 0;
};

class FakeTcpConnection : public TcpConnection {
 public:
  FakeTcpConnection(FakeNetwork& net, std::shared_ptr<FakeTcpPeer> peer);
  ~FakeTcpConnection() override;

  void SetEvents(TcpConnectionEvents events) override { events_ = std::move(events); }
  bool Send(const std::string& bytes) override;
  std::string ReadAll() override;
  bool Close() override;

 private:
  friend struct FakeTcpPeer;
  void Raise(std::function<void(TcpConnectionEvents&)> event);
  FakeNetwork& net_;
  std::shared_ptr<FakeTcpPeer> peer_;
  TcpConnectionEvents events_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  bool open_ = true;
  std::string received_;
};

class FakeTcpListener : public TcpListener {
 public:
  explicit FakeTcpListener(FakeNetwork& net);
  ~FakeTcpListener() override;

  // A client connects: the request is offered as an event. Its peer end is
  // returned; it stays unused when the program does not accept.
  std::shared_ptr<FakeTcpPeer> Connect();
  // The next `n` accepts fail, as for a peer that has already gone.
  int failing_accepts = 0;

  void SetOnConnectionRequest(std::function<void(int64_t)> on_request) override {
    on_request_ = std::move(on_request);
  }
  bool Listen(int port) override;
  int LocalPort() const override { return port_; }
  std::unique_ptr<TcpConnection> Accept(int64_t request_id) override;

 private:
  FakeNetwork& net_;
  std::function<void(int64_t)> on_request_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  int port_ = 0;
  int64_t next_id_ = 0;
  std::map<int64_t, std::shared_ptr<FakeTcpPeer>> pending_;
};

}  // namespace platform

#endif  // KOVRAN_PLATFORM_FAKE_LOCAL_SOCKETS_H_
