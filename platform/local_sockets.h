// The sockets of the local ports: UDP sockets (the local windows' Winsock3
// array) and a TCP listener with its accepted connections (the control
// port's Winsock2 array). Events are delivered on the event thread, never
// inside a call on the socket. An object may be destroyed inside one of its
// own event handlers; no event of a destroyed or closed socket follows.
#ifndef KOVRAN_PLATFORM_LOCAL_SOCKETS_H_
#define KOVRAN_PLATFORM_LOCAL_SOCKETS_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace platform {

// The largest datagram a UDP socket delivers whole (the IPv4 limit).
inline constexpr std::size_t kMaxDatagramBytes = 65507;

struct UdpSocketEvents {
  // One whole datagram, with its sender's dotted IPv4 address and port.
  std::function<void(const std::string& data, const std::string& sender,
                     int sender_port)>
      on_datagram;
};

class UdpSocket {
 public:
  virtual ~UdpSocket() = default;

  virtual void SetEvents(UdpSocketEvents events) = 0;

  // Sets where Send() goes: a dotted IPv4 address and a port 1..65535.
  // False for anything else; the previous remote is then kept. The limited
  // broadcast address 255.255.255.255 is allowed.
  virtual bool SetRemote(const std::string& host, int port) = 0;

  // Binds the local `port` (0 lets the system choose) on every address of
  // the machine and starts receiving. False when the port is out of range,
  // taken, or the socket cannot be made; the socket is then unbound.
  virtual bool Bind(int port) = 0;
  // The bound port, 0 when unbound.
  virtual int LocalPort() const = 0;

  // Sends `bytes` (zero bytes included) as one datagram to the remote,
  // without blocking. False when it cannot go now: it is dropped.
  virtual bool Send(const std::string& bytes) = 0;
};

struct TcpConnectionEvents {
  std::function<void()> on_data = nullptr;           // bytes arrived; ReadAll() takes them
  std::function<void()> on_send_complete = nullptr;  // everything sent has gone out
  std::function<void()> on_close = nullptr;          // the peer closed the connection
  std::function<void(int number, const std::string& description)> on_error = nullptr;
};

// One accepted connection.
class TcpConnection {
 public:
  virtual ~TcpConnection() = default;
  virtual void SetEvents(TcpConnectionEvents events) = 0;
  // Queues `bytes` for sending; false when the connection is closed.
  virtual bool Send(const std::string& bytes) = 0;
  // Everything received and not yet read.
  virtual std::string ReadAll() = 0;
  // Closes the connection; destroying the object closes it too.
  virtual bool Close() = 0;
};

// A listening TCP socket. Each incoming connection is offered once, as a
// connection request with an identifier; a request the handler does not
// Accept() is closed when the handler returns.
class TcpListener {
 public:
  virtual ~TcpListener() = default;
  virtual void SetOnConnectionRequest(
      std::function<void(int64_t request_id)> on_request) = 0;
  // Binds `port` (0 lets the system choose) on every address and listens.
  // False when the port is out of range, taken, or listening fails.
  virtual bool Listen(int port) = 0;
  virtual int LocalPort() const = 0;
  // Takes the offered connection; nothing when the request is not pending
  // (already taken, or not offered now).
  virtual std::unique_ptr<TcpConnection> Accept(int64_t request_id) = 0;
};

}  // namespace platform

#endif  // KOVRAN_PLATFORM_LOCAL_SOCKETS_H_
