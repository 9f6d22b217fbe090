// The local windows: one UDP socket per window (the Winsock3 array) and the
// request and answer exchange on it. A window asks; the program answers with
// its status line or a pending notice, never on its own.
#ifndef KOVRAN_LOCALPORTS_LOCAL_WINDOWS_H_
#define KOVRAN_LOCALPORTS_LOCAL_WINDOWS_H_

#include <memory>
#include <string>
#include <vector>

#include "frame/main_window.h"
#include "platform/local_sockets.h"

namespace localports {

// Windows with an entry in the notice table WINDOWMSGS; windows above take
// only the requests that need none ("STOP", "STAR", "ENDPROGRAM").
inline constexpr int kWindowsWithNotices = 3;

class LocalWindows {
 public:
  // Registers MULTIPORT and the unload step's socket destruction.
  explicit LocalWindows(frame::MainWindow& main);

  // Start-up: binds window i's socket to LOCALWINDOWPORT + 2(i-1) + 1 and
  // points it at LOCALWINDOWPORT + 2(i-1) on the machine's own address, for
  // i = 1..MAXLOCALUSERS, stopping at the first failure.
  void MULTIPORT();

  // A datagram `data` from `sender` arrived on window socket `index`.
  // Datagrams from other machines are dropped unread.
  void Winsock3_DataArrival(int index, const std::string& data,
                            const std::string& sender);

  // Unload: destroys element i, if it exists.
  void DestroyWindowSocket(int i);

  // The answer to "LABELS".
  std::string StatusLine() const;

  // Element i, or null when it does not exist.
  platform::UdpSocket* Winsock3(int i) const;

 private:
  bool FromThisMachine(const std::string& sender);
  // Sends `answer` to window `index` at the machine's address as it is now.
  void Answer(int index, const std::string& answer);
  // The machine's own IPv4 address, as it is now.
  const std::string& OwnAddress();
  void LogPortFailure();

  frame::MainWindow& main_;
  frame::ProgramState& s_;
  std::vector<std::unique_ptr<platform::UdpSocket>> winsock3_;  // [0] unused
  std::vector<int> window_ports_;                               // [0] unused
  std::vector<std::string> local_addresses_;
  double addresses_read_at_ = -1e9;
  std::string own_address_;
  double own_address_read_at_ = -1e9;
};

}  // namespace localports

#endif  // KOVRAN_LOCALPORTS_LOCAL_WINDOWS_H_
