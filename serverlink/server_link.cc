#include "serverlink/server_link.h"

#include <cmath>

#include "frame/numeric.h"

namespace serverlink {

namespace {

constexpr const char* kRequestCode = "DRY1";

}  // namespace

std::string CharAt(const std::string& text, std::size_t position) {
  return Mid(text, position, 1);
}

std::string Mid(const std::string& text, std::size_t position,
                std::size_t length) {
  if (position == 0 || position > text.size()) return "";
  return text.substr(position - 1, length);
}

ServerLink::ServerLink(frame::MainWindow& main)
    : main_(main), s_(main.state), winsock1_(main.platform.NewTcpClient()) {
  winsock1_->SetEvents({
      .on_connect = [this] { Winsock1_Connect(); },
      .on_data = [this] { Winsock1_DataArrival(); },
      .on_close = [this] { Winsock1_Close(); },
      .on_error = [this](int n, const std::string& d) { Winsock1_Error(n, d); },
  });
  main.parts.PollStep = [this] { PollStep(); };
  main.parts.CloseServerSocket = [this] { winsock1_->Close(); };
  main.parts.ServerWatchdog = [this] { ServerWatchdog(); };
}

void ServerLink::PollStep() {
  switch (s_.LINKSTATE) {
    case kIdle:
      s_.STATUSTEXT = s_.Message(21);
      break;
    case kReplyHandled:
      break;
    case kClosedByServer:
      s_.STATUSTEXT = s_.Message(22);
      break;
    case kNoReply:
    case kSocketError:
      s_.STATUSTEXT = s_.Message(23);
      break;
    default:
      return;  // an attempt is under way
  }
  Attempt();
}

// A connection that cannot even be started comes back as an error event,
// after LINKSTATE is set here, so the link is never left waiting.
void ServerLink::Attempt() {
  winsock1_->Close();
  attempt_at_ = main_.platform.SteadySeconds();
  winsock1_->Connect(s_.SETTINGS[frame::HOST], s_.CLIENTPORT);
  main_.Timer2->SetInterval(frame::kServerReplyWatchdogMs);
  main_.Timer2->SetEnabled(true);
  s_.LINKSTATE = kConnecting;
}

void ServerLink::Winsock1_Connect() {
  s_.LINKSTATE = kRequestSent;
  s_.STATUSTEXT = s_.Message(29);
  s_.REQUESTCODE = kRequestCode;
  s_.REQUESTLINE = "H:CL10>IP:" + main_.platform.LocalIPv4Address() + ">C:" +
                   s_.REQUESTCODE;
  winsock1_->Send(s_.REQUESTLINE + "\r\n");
}

void ServerLink::Winsock1_DataArrival() {
  if (main_.SnmpMode()) {
    winsock1_->Close();
    return;
  }
  s_.REPLYTEXT = winsock1_->ReadAll();
  if (s_.REPLYTEXT.starts_with("USE&")) {
    // The detail shown is the server's own text behind "USE&", up to the end
    // of its line. The connection stays open; the next attempt closes it.
    s_.DETAILTEXT = s_.REPLYTEXT.substr(4, s_.REPLYTEXT.find("\r\n") - 4);
    // Only a power event (flag 2 or 4 up) is restarted by a notice;
    // otherwise it is an alert.
    if (CharAt(s_.LASTHEADER, 2) == "1" || CharAt(s_.LASTHEADER, 4) == "1") {
      main_.parts.PENCEREKUR();
    } else {
      main_.parts.NoticeAlert();
    }
    EndSteps();
    return;
  }
  const auto line_end = s_.REPLYTEXT.find("\r\n");
  if (line_end != std::string::npos) s_.REPLYTEXT.resize(line_end);
  winsock1_->Close();
  s_.COMMOK = 1;
  if (!s_.REPLYTEXT.starts_with("#")) {
    // The reply watchdog stays armed and marks the link 10 in its time.
    s_.LINKSTATE = kReplyHandled;
    s_.STATUSTEXT = s_.Message(33);
    return;
  }
  HandleStatusRecord();
  main_.parts.FreshReading(attempt_at_);
  EndSteps();
}

void ServerLink::HandleStatusRecord() {
  frame::Parts& calls = main_.parts;
  const std::string header = s_.REPLYTEXT.substr(0, 13);
  const std::string time = Mid(s_.REPLYTEXT, 10, 4);
  const std::string& last = s_.LASTHEADER;
  s_.DETAILTEXT = Mid(s_.REPLYTEXT, 17);
  const auto rose = [&](int flag) {
    return CharAt(last, flag) == "0" && CharAt(header, flag) == "1";
  };
  const auto fell = [&](int flag) {
    return CharAt(last, flag) == "1" && CharAt(header, flag) == "0";
  };

  if (CharAt(header, 2) == "0") {
    if (Mid(header, 4, 2) == "00") calls.SAYMASIFIR();
    if (fell(4)) {
      s_.ALARMTEXT = s_.Message(31);
      main_.StopCountdownTimer();
      main_.StartAllClearTimer();
    }
    if (rose(4)) {
      s_.DELAYSECONDS = 60;
      calls.PENCEREKUR();
    }
  } else if (time == "ATBT" && rose(3)) {
    s_.DELAYSECONDS = 15;
    calls.SAYMASIFIR();
    calls.PENCEREKUR();
  }

  if (rose(2)) {
    if (time == "ATBT") {
      s_.ALARMTEXT = s_.Message(53);
    } else {
      s_.DELAYSECONDS = frame::CountdownSeconds(frame::NumericValue(time));
      calls.SAYMASIFIR();
      calls.PENCEREKUR();
    }
    calls.ACIL();
  }
  if (fell(2)) {
    s_.ALARMTEXT.clear();
    s_.DETAILTEXT = Mid(s_.REPLYTEXT, 17);
    calls.ACIL();
    calls.SAYMASIFIR();
    main_.StopCountdownTimer();
    main_.StartAllClearTimer();
  }
  s_.LASTHEADER = header;
}

void ServerLink::EndSteps() {
  s_.LINKSTATE = kReplyHandled;
  main_.Timer2->SetEnabled(false);
  main_.Timer2->SetInterval(0);
  s_.STATUSTEXT = s_.Message(32);
}

void ServerLink::Winsock1_Close() {
  s_.LINKSTATE = kClosedByServer;
  winsock1_->Close();
}

void ServerLink::Winsock1_Error(int number, const std::string& description) {
  if (main_.SnmpMode()) {
    winsock1_->Close();
    return;
  }
  if (number == platform::wsa::kConnectionReset) {
    main_.Timer1->SetInterval(3000);
  } else if (number == platform::wsa::kConnectionRefused) {
    s_.STATUSTEXT = s_.Message(34);
  } else {
    s_.STATUSTEXT = " " + std::to_string(number) + " " + description;
  }
  s_.LINKSTATE = kSocketError;
  winsock1_->Close();
}

void ServerLink::ServerWatchdog() {
  s_.COMMOK = 0;
  s_.DETAILTEXT = s_.Message(30);
  s_.ALARMTEXT.clear();
  s_.LINKSTATE = kNoReply;
  if (!winsock1_->Close()) s_.STATUSTEXT = "CLOSING PROBLEM";
}

}  // namespace serverlink
