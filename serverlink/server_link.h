// The link to the PAVO server: one short TCP connection per poll on the
// socket Winsock1, its link state and reply watchdog, and the reply handler
// that reads the server's status record and drives the shutdown controller.
#ifndef KOVRAN_SERVERLINK_SERVER_LINK_H_
#define KOVRAN_SERVERLINK_SERVER_LINK_H_

#include <memory>
#include <string>

#include "frame/main_window.h"
#include "platform/tcp_client.h"

namespace serverlink {

// Link states (LINKSTATE).
inline constexpr int16_t kIdle = 0;
inline constexpr int16_t kConnecting = 1;
inline constexpr int16_t kRequestSent = 2;
inline constexpr int16_t kReplyHandled = 3;
inline constexpr int16_t kClosedByServer = 5;
inline constexpr int16_t kNoReply = 10;
inline constexpr int16_t kSocketError = 20;

class ServerLink {
 public:
  // Makes Winsock1 and registers the poll step, the socket close and the
  // watchdog's server branch with `main`.
  explicit ServerLink(frame::MainWindow& main);

  // Run by the main tick in server mode: starts a poll unless one is under
  // way.
  void PollStep();

  void Winsock1_Connect();
  void Winsock1_DataArrival();
  void Winsock1_Close();
  void Winsock1_Error(int number, const std::string& description);
  // The reply watchdog in server mode.
  void ServerWatchdog();

  platform::TcpClient& Winsock1() { return *winsock1_; }

 private:
  void Attempt();
  // The status record in REPLYTEXT: flag edges against LASTHEADER.
  void HandleStatusRecord();
  // End steps of a handled status record or use-reply.
  void EndSteps();

  frame::MainWindow& main_;
  frame::ProgramState& s_;
  std::unique_ptr<platform::TcpClient> winsock1_;
  // When the attempt under way started, on the steady clock.
  double attempt_at_ = 0;
};

// Character `position` (1-based) of `text` as a text of one character, or
// the empty text beyond its end.
std::string CharAt(const std::string& text, std::size_t position);

// The characters of `text` from `position` (1-based) on, `length` of them at
// most; the empty text when `position` lies beyond the end.
std::string Mid(const std::string& text, std::size_t position,
                std::size_t length = std::string::npos);

}  // namespace serverlink

#endif  // KOVRAN_SERVERLINK_SERVER_LINK_H_
