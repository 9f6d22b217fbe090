// A TCP client socket with the events of the Windows Sockets control the
// program was designed around: connect, data arrival, peer close and error.
#ifndef KOVRAN_PLATFORM_TCP_CLIENT_H_
#define KOVRAN_PLATFORM_TCP_CLIENT_H_

#include <functional>
#include <string>

namespace platform {

// Windows Sockets error numbers, which the program's logic uses on every
// platform. Each implementation turns its own errors into these at the edge.
namespace wsa {
inline constexpr int kAddressInUse = 10048;
inline constexpr int kAddressNotAvailable = 10049;
inline constexpr int kNetworkDown = 10050;
inline constexpr int kNetworkUnreachable = 10051;
inline constexpr int kConnectionAborted = 10053;
inline constexpr int kConnectionReset = 10054;
inline constexpr int kNoBufferSpace = 10055;
inline constexpr int kNotConnected = 10057;
inline constexpr int kShutdown = 10058;
inline constexpr int kTimedOut = 10060;
inline constexpr int kConnectionRefused = 10061;
inline constexpr int kHostDown = 10064;
inline constexpr int kHostUnreachable = 10065;
inline constexpr int kHostNotFound = 11001;
inline constexpr int kTryAgain = 11002;
inline constexpr int kNoRecovery = 11003;
inline constexpr int kNoData = 11004;
inline constexpr int kInvalidArgument = 10022;
}  // namespace wsa

struct TcpClientEvents {
  std::function<void()> on_connect = nullptr;
  std::function<void()> on_data = nullptr;   // bytes arrived; ReadAll() takes them
  std::function<void()> on_close = nullptr;  // the peer closed the connection
  std::function<void(int number, const std::string& description)> on_error = nullptr;
};

// One TCP client connection at a time. Events are delivered on the event
// thread, never inside a call on the socket. After Close() no event of the
// closed connection is delivered.
class TcpClient {
 public:
  virtual ~TcpClient() = default;

  virtual void SetEvents(TcpClientEvents events) = 0;

  // Starts connecting to `host` (a name or dotted address) and `port`,
  // closing any connection first. The outcome comes as on_connect or
  // on_error, also when it fails at once (a name that cannot be resolved, a
  // port out of range): the error is then posted, never lost.
  virtual void Connect(const std::string& host, int port) = 0;

  // Closes the socket in any state. False only when closing itself failed.
  virtual bool Close() = 0;

  // Queues `bytes` for sending on the connection; false when not connected.
  virtual bool Send(const std::string& bytes) = 0;

  // Everything received and not yet read, one byte per character.
  virtual std::string ReadAll() = 0;
};

}  // namespace platform

#endif  // KOVRAN_PLATFORM_TCP_CLIENT_H_
