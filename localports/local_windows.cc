#include "localports/local_windows.h"

#include <algorithm>
#include <cstdint>

namespace localports {

namespace {

// A sender that is not in the cached address list makes the list be read
// again, but not more often than this: a flood from another machine must
// not turn into a flood of interface queries.
constexpr double kAddressRefreshSeconds = 1.0;

bool Fits16(int32_t v) { return v >= INT16_MIN && v <= INT16_MAX; }

}  // namespace

LocalWindows::LocalWindows(frame::MainWindow& main)
    : main_(main), s_(main.state) {
  main.parts.MULTIPORT = [this] { MULTIPORT(); };
  main.parts.DestroyWindowSocket = [this](int i) { DestroyWindowSocket(i); };
}

platform::UdpSocket* LocalWindows::Winsock3(int i) const {
  if (i < 1 || i >= static_cast<int>(winsock3_.size())) return nullptr;
  return winsock3_[i].get();
}

void LocalWindows::MULTIPORT() {
  const std::string& own_address = OwnAddress();
  winsock3_.resize(1);
  window_ports_.resize(1);
  for (int32_t i = 1; i <= s_.MAXLOCALUSERS; ++i) {
    // Every step of the port arithmetic stays within 16 bits.
    const int32_t offset = 2 * (i - 1);
    const int32_t remote_port = s_.LOCALWINDOWPORT + offset;
    const int32_t local_port = remote_port + 1;
    if (!Fits16(offset) || !Fits16(remote_port) || !Fits16(local_port)) {
      return LogPortFailure();
    }
    auto socket = main_.platform.NewUdpSocket();
    if (!socket->SetRemote(own_address, remote_port) ||
        !socket->Bind(local_port)) {
      return LogPortFailure();
    }
    socket->SetEvents({.on_datagram = [this, i](const std::string& data,
                                                const std::string& sender, int) {
      Winsock3_DataArrival(i, data, sender);
    }});
    winsock3_.push_back(std::move(socket));
    window_ports_.push_back(remote_port);
  }
}

void LocalWindows::LogPortFailure() {
  const std::string base = std::to_string(s_.LOCALWINDOWPORT);
  s_.LOGLINE = (s_.LOCALWINDOWPORT < 0 ? "" : " ") + base +
               " Local window Port open failed";
  main_.WRITELOG();
}

void LocalWindows::DestroyWindowSocket(int i) {
  if (Winsock3(i)) winsock3_[i].reset();
}

bool LocalWindows::FromThisMachine(const std::string& sender) {
  auto known = [&] {
    return sender.starts_with("127.") ||
           std::find(local_addresses_.begin(), local_addresses_.end(), sender) !=
               local_addresses_.end();
  };
  if (known()) return true;
  const double now = main_.platform.SteadySeconds();
  if (now - addresses_read_at_ < kAddressRefreshSeconds) return false;
  addresses_read_at_ = now;
  local_addresses_ = main_.platform.LocalAddresses();
  return known();
}

std::string LocalWindows::StatusLine() const {
  return s_.EMERGENCYTEXT + std::to_string(s_.STOPPED) +
         std::to_string(s_.COMMOK) + "++" + s_.STATUSTEXT + "++" +
         s_.DETAILTEXT + "++" + s_.ALARMTEXT;
}

void LocalWindows::Winsock3_DataArrival(int index, const std::string& D,
                                        const std::string& sender) {
  if (main_.ending() || !Winsock3(index) || !FromThisMachine(sender)) return;
  // The service, where the program is one, shows the watching paused.
  if (D.starts_with("STOP")) {
    s_.STOPPED = 1;
    main_.parts.CloseSnmpManager();
    main_.platform.ReportWatching(false);
    return;
  }
  if (D.starts_with("STAR")) {
    s_.STOPPED = 0;
    main_.parts.OPENSNMP();
    main_.platform.ReportWatching(true);
    return;
  }
  if (D.starts_with("ENDPROGRAM")) {
    s_.ENDREQUEST = 1;
    main_.Timer6->SetInterval(6000);
    main_.Timer6->SetEnabled(true);
    return;
  }
  // The remaining requests read and write the window's notice entry.
  if (index > kWindowsWithNotices) return;
  std::string R;
  if (D.starts_with("DISCOV") && main_.parts.CollectionStepRunning()) {
    s_.WINDOWMSGS[index] = "DISCOVER";  // the step under way reports to it
  } else if (D.starts_with("DISCOV")) {
    // Asked while a poll waits, the discovery starts once it has returned.
    main_.parts.WhenManagerFree([this, index] {
      s_.WINDOWMSGS[index] = "DISCOVER";
      s_.DISCOVERREQUEST = 1;
      main_.List2.clear();
      if (!main_.SnmpMode()) main_.parts.DISCOVERAGENTS();
    });
  } else if (D.starts_with("LABELS")) {
    R = StatusLine();
  } else if (D.starts_with("SETUPR")) {
    if (const frame::Status s = main_.LOADSETTINGS(); !s.ok()) {
      s_.LOGLINE = s.message() + "; the previous settings stay";
      main_.WRITELOG();
    } else {
      main_.parts.SettingsRead();
    }
    s_.LOGLINE = s_.Message(49);
    main_.WRITELOG();
    for (int i = 1; i <= kWindowsWithNotices; ++i) s_.WINDOWMSGS[i] = "SETUPR";
  } else {
    return;
  }
  // A handler called above may have ended the program or yielded to one that
  // destroyed the sockets.
  if (main_.ending() || !Winsock3(index)) return;
  std::string& notice = s_.WINDOWMSGS[index];
  if (!notice.empty() && !s_.WINDOWMSG.empty()) {
    R = s_.WINDOWMSG;
    notice.clear();
    s_.WINDOWMSG.clear();
  }
  if (!notice.empty() && notice != "DISCOVER") {
    R = notice;
    notice.clear();
  }
  if (s_.ENDREQUEST > 0) R = "ENDWINDOW";
  if (s_.SHUTDOWNFLAG == 1) R = "SHUTDOWN";
  Answer(index, R);
}

void LocalWindows::Answer(int index, const std::string& answer) {
  winsock3_[index]->SetRemote(OwnAddress(), window_ports_[index]);
  winsock3_[index]->Send(answer);
}

// Read again at most once a second, so that the windows keep hearing the
// program after a new DHCP lease, a move to another network, or a start
// before the adapter had its address.
const std::string& LocalWindows::OwnAddress() {
  const double now = main_.platform.SteadySeconds();
  if (now - own_address_read_at_ >= kAddressRefreshSeconds) {
    own_address_read_at_ = now;
    own_address_ = main_.platform.LocalIPv4Address();
  }
  return own_address_;
}

}  // namespace localports
