// The other end of the local window channel: a status program on this PC
// that speaks to KOVRAN as local window N. kovranctl (in a terminal) and
// KOVRANW.EXE (in the notification area) are two faces of this one client.
//
// Window N listens on UDP port LOCALWINDOWPORT + 2(N-1) and sends to the
// next port, KOVRAN's side of that window. KOVRAN never sends on its own: a
// window learns of a notice ("SHUTDOWN", "CLOSE", ...) only as the answer to
// a request, and a window takes every notice meant for it, so two programs
// must never ask as the same window. Hence the choice of window below.
#ifndef KOVRAN_LOCALPORTS_WINDOW_CLIENT_H_
#define KOVRAN_LOCALPORTS_WINDOW_CLIENT_H_

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "frame/status.h"
#include "platform/platform.h"

namespace localports {

// KOVRAN answers windows 1..3 only; above 3 it handles STOP, STAR and
// ENDPROGRAM and answers nothing.
inline constexpr int kLastAnsweredWindow = 3;

// The answer to "LABELS": "RSC++STATUS++DETAIL++ALARM", R the alarm flag
// (EMERGENCYTEXT, "0" or "1", may be missing), S STOPPED, C COMMOK.
struct StatusLine {
  std::string raised;
  char stopped = '0';
  char link = '0';
  std::string status, detail, alarm;

  bool operator==(const StatusLine&) const = default;
};
std::optional<StatusLine> ParseStatusLine(std::string_view answer);

// What an answer is.
enum class AnswerKind {
  kStatusLine,
  kEmpty,      // "DISCOV" or "SETUPR" with nothing pending
  kShutdown,   // the final phase: the PC is switched off in about 30 s
  kClose,      // mains are back, the alarm is over
  kEndWindow,  // KOVRAN ends or tells its windows to close
  kSetup,      // settings re-read
  kDiscovery,  // "DISCOVER" and the agents found, one a line
  kOther,
};
AnswerKind KindOf(std::string_view answer);

// The entries of a discovery result, blanks and CR at their ends removed.
std::vector<std::string> DiscoveryEntries(std::string_view answer);

// Control characters escaped (\r, \n, \xNN), so that no answer can garble a
// terminal or a log line.
std::string Printable(std::string_view text);

// Where the windows are, from the settings file.
struct WindowSettings {
  int LOCALWINDOWPORT = 0;
  int MAXLOCALUSERS = 0;
};
// LOCALWINDOWPORT and MAXLOCALUSERS from the settings file at `path`; the
// error says what is wrong with the file, naming it.
frame::Status ReadWindowSettings(platform::Platform& platform,
                                 const std::string& path,
                                 WindowSettings& into);

// One local window's socket: bound to the window's port, sending to KOVRAN's
// port of that window, keeping the answers that come from there in order.
class WindowClient {
 public:
  explicit WindowClient(platform::Platform& platform);
  ~WindowClient();

  // Takes window `requested` (1..min(3, MAXLOCALUSERS)), or with 0 the first
  // free one of those: one whose port can be bound. The error is meant for
  // the user: "no free window" when every one is taken.
  frame::Status Open(const WindowSettings& settings, int requested = 0);
  void Close();
  bool open() const { return socket_ != nullptr; }
  int number() const { return number_; }
  int port() const { return port_; }
  int kovran_port() const { return port_ + 1; }

  // Called on the event thread for every answer that arrives; Take() gets
  // it then.
  void SetOnAnswer(std::function<void()> on_answer) {
    on_answer_ = std::move(on_answer);
  }

  // Sends one request datagram; false when it could not go.
  bool Send(const std::string& request);
  // The oldest answer not taken yet.
  std::optional<std::string> Take();

  // Sends `request` and serves events until an answer comes, `seconds`
  // pass or `give_up()` holds; the answer, or nothing.
  std::optional<std::string> Ask(const std::string& request, double seconds,
                                 const std::function<bool()>& give_up = {});

 private:
  void Arrived(const std::string& data, const std::string& sender,
               int sender_port);

  platform::Platform& platform_;
  std::unique_ptr<platform::UdpSocket> socket_;
  int number_ = 0;
  int port_ = 0;
  std::vector<std::string> local_addresses_;
  double addresses_read_at_ = 0;
  std::deque<std::string> answers_;
  std::function<void()> on_answer_;
};

}  // namespace localports

#endif  // KOVRAN_LOCALPORTS_WINDOW_CLIENT_H_
