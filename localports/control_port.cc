#include "localports/control_port.h"

namespace localports {

namespace {

// How many slots one connection request may try before it is given up: a
// peer that has already gone cannot be accepted into any of them.
constexpr int kAcceptTries = kControlSlots;

std::string TrimBlanks(const std::string& text) {
  const auto first = text.find_first_not_of(' ');
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

}  // namespace

std::string WINDOWCOMMAND(frame::MainWindow& main, const std::string& request) {
  frame::ProgramState& s = main.state;
  std::string reply;
  if (!request.starts_with("H:TS")) return reply;
  const auto marker = request.find(">C:");
  if (request.find("IP:") == std::string::npos || marker == std::string::npos) {
    return reply;
  }
  const std::string command = TrimBlanks(request.substr(marker + 3));
  const bool nt = main.platform.PlatformNumber() == platform::kPlatformNt;
  if (command.find("RUNSTATUS") != std::string::npos) {
    if (!nt) {
      reply = "3\r";
    } else if (s.STOPPED == 0) {
      reply = "1\r";
    } else if (s.STOPPED == 1) {
      reply = "2\r";
    }
  }
  if (command.find("ENDSERWIN") != std::string::npos) {
    s.WINDOWMSG = "ENDWINDOW";
    for (int i = 1; i <= 3; ++i) s.WINDOWMSGS[i] = "ENDWINDOW";
    return "OK-ENDSERWIN";
  }
  if (command.find("EXITPROGRAM") != std::string::npos) {
    if (nt) {
      main.YUKLE(main.ProgramFile("STOPSRV.BAT"), platform::kWindowHidden);
    } else {
      main.Timer6->SetInterval(4000);
      main.Timer6->SetEnabled(true);
      reply = "OK-EXITPROGRAM";
    }
  }
  return reply;
}

ControlPort::ControlPort(frame::MainWindow& main)
    : main_(main), listener_(main.platform.NewTcpListener()) {
  listener_->SetOnConnectionRequest(
      [this](int64_t id) { Winsock2_ConnectionRequest(id); });
  main.parts.OpenControlPort = [this] { OpenControlPort(); };
}

platform::TcpConnection* ControlPort::Slot(int i) const {
  return i >= 1 && i <= kControlSlots ? slots_[i].get() : nullptr;
}

void ControlPort::OpenControlPort() {
  if (listener_->Listen(kControlPort)) return;
  main_.state.LOGLINE = "Local control port in use";
  main_.WRITELOG();
}

void ControlPort::DestroySlot(int i) {
  if (i >= 1 && i <= kControlSlots) slots_[i].reset();
}

void ControlPort::Winsock2_ConnectionRequest(int64_t request_id) {
  if (main_.ending()) return;
  int16_t& slot = main_.state.CONTROLSLOT;
  for (int tries = 0; tries < kAcceptTries; ++tries) {
    slot = static_cast<int16_t>((slot + 1) & 15);
    if (slot == 0) slot = 1;
    DestroySlot(slot);
    auto connection = listener_->Accept(request_id);
    if (!connection) continue;
    const int i = slot;
    connection->SetEvents({
        .on_data = [this, i] { Winsock2_DataArrival(i); },
        .on_send_complete = [this, i] { Winsock2_SendComplete(i); },
        .on_close = [this, i] { Winsock2_Close(i); },
        .on_error = [this, i](int, const std::string&) { Winsock2_Error(i); },
    });
    slots_[i] = std::move(connection);
    return;
  }
}

void ControlPort::Winsock2_DataArrival(int i) {
  platform::TcpConnection* connection = Slot(i);
  if (!connection || main_.ending()) return;
  const std::string reply = WINDOWCOMMAND(main_, connection->ReadAll());
  // WINDOWCOMMAND may have started a program whose failure was logged; the
  // slot itself is untouched by it.
  if (!reply.empty() && Slot(i)) Slot(i)->Send(reply);
}

void ControlPort::Winsock2_SendComplete(int i) {
  if (platform::TcpConnection* connection = Slot(i)) connection->Close();
  DestroySlot(i);
}

void ControlPort::Winsock2_Close(int i) { DestroySlot(i); }

void ControlPort::Winsock2_Error(int i) { DestroySlot(i); }

}  // namespace localports
