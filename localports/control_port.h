// The local control port, TCP 1499: the listener (element 0 of Winsock2),
// fifteen connection slots used in rotation, and the one-request protocol
// whose replies tell whether monitoring runs, pass "ENDWINDOW" to the local
// windows, or end the program.
#ifndef KOVRAN_LOCALPORTS_CONTROL_PORT_H_
#define KOVRAN_LOCALPORTS_CONTROL_PORT_H_

#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include "frame/main_window.h"
#include "platform/local_sockets.h"

namespace localports {

inline constexpr int kControlPort = 1499;
inline constexpr int kControlSlots = 15;

// The reply to a control request, empty when nothing is to be sent; carries
// out the request's effects on the program state and timers.
std::string WINDOWCOMMAND(frame::MainWindow& main, const std::string& request);

class ControlPort {
 public:
  // Makes the listener and registers the opening of the port with `main`.
  explicit ControlPort(frame::MainWindow& main);

  void OpenControlPort();

  void Winsock2_ConnectionRequest(int64_t request_id);
  void Winsock2_DataArrival(int i);
  void Winsock2_SendComplete(int i);
  void Winsock2_Close(int i);
  void Winsock2_Error(int i);

  // Slot i (1..15), or null when it holds no connection.
  platform::TcpConnection* Slot(int i) const;

 private:
  void DestroySlot(int i);

  frame::MainWindow& main_;
  std::unique_ptr<platform::TcpListener> listener_;
  std::array<std::unique_ptr<platform::TcpConnection>, kControlSlots + 1> slots_;
};

}  // namespace localports

#endif  // KOVRAN_LOCALPORTS_CONTROL_PORT_H_
