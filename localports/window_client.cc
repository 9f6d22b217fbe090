#include "localports/window_client.h"

#include <algorithm>
#include <cstdio>

#include "frame/settings.h"

namespace localports {

std::optional<StatusLine> ParseStatusLine(std::string_view answer) {
  const auto a = answer.find("++");
  if (a == answer.npos || a < 2 || a > 3) return std::nullopt;
  const auto b = answer.find("++", a + 2);
  const auto c = b == answer.npos ? b : answer.find("++", b + 2);
  if (c == answer.npos) return std::nullopt;
  if (!std::all_of(answer.begin(), answer.begin() + a,
                   [](char ch) { return ch >= '0' && ch <= '9'; })) {
    return std::nullopt;
  }
  return StatusLine{.raised = std::string(answer.substr(0, a - 2)),
                    .stopped = answer[a - 2],
                    .link = answer[a - 1],
                    .status = std::string(answer.substr(a + 2, b - a - 2)),
                    .detail = std::string(answer.substr(b + 2, c - b - 2)),
                    .alarm = std::string(answer.substr(c + 2))};
}

AnswerKind KindOf(std::string_view answer) {
  if (answer.empty()) return AnswerKind::kEmpty;
  if (answer == "SHUTDOWN") return AnswerKind::kShutdown;
  if (answer == "CLOSE") return AnswerKind::kClose;
  if (answer == "ENDWINDOW") return AnswerKind::kEndWindow;
  if (answer == "SETUPR") return AnswerKind::kSetup;
  if (answer.starts_with("DISCOVER")) return AnswerKind::kDiscovery;
  if (ParseStatusLine(answer)) return AnswerKind::kStatusLine;
  return AnswerKind::kOther;
}

std::vector<std::string> DiscoveryEntries(std::string_view answer) {
  std::vector<std::string> entries;
  std::string_view rest = answer.substr(std::string_view("DISCOVER").size());
  while (!rest.empty()) {
    const auto end = rest.find('\n');
    std::string_view entry = rest.substr(0, end);
    rest = end == rest.npos ? std::string_view() : rest.substr(end + 1);
    while (!entry.empty() && (entry.back() == '\r' || entry.back() == ' ')) {
      entry.remove_suffix(1);
    }
    if (!entry.empty()) entries.emplace_back(entry);
  }
  return entries;
}

std::string Printable(std::string_view text) {
  std::string out;
  for (const char ch : text) {
    const auto byte = static_cast<unsigned char>(ch);
    if (byte >= 0x20 && byte != 0x7f) {
      out += ch;
    } else {
      char hex[8];
      std::snprintf(hex, sizeof hex, "\\x%02x", byte);
      out += ch == '\r' ? "\\r" : ch == '\n' ? "\\n" : hex;
    }
  }
  return out;
}

frame::Status ReadWindowSettings(platform::Platform& platform,
                                 const std::string& path,
                                 WindowSettings& into) {
  const std::optional<std::string> text = platform.ReadFile(path);
  if (!text) return frame::Status::Error("cannot read the settings file " + path);
  frame::SettingsItems items;
  if (const frame::Status read = frame::ParseSettings(*text, items);
      !read.ok()) {
    return frame::Status::Error("the settings file " + path +
                                " is broken: " + read.message());
  }
  if (items.LOCALWINDOWPORT <= 0) {
    return frame::Status::Error("the settings file " + path +
                                " sets no LOCALWINDOWPORT");
  }
  into = {items.LOCALWINDOWPORT, items.MAXLOCALUSERS};
  return frame::Status::Ok();
}

WindowClient::WindowClient(platform::Platform& platform)
    : platform_(platform) {}

WindowClient::~WindowClient() = default;

frame::Status WindowClient::Open(const WindowSettings& settings,
                                 int requested) {
  Close();
  const int last = std::min(kLastAnsweredWindow, settings.MAXLOCALUSERS);
  const std::string windows =
      last < 1 ? "none (MAXLOCALUSERS is " +
                     std::to_string(settings.MAXLOCALUSERS) + ")"
               : "1.." + std::to_string(last);
  if (requested != 0 && (requested < 1 || requested > last)) {
    return frame::Status::Error(
        "window " + std::to_string(requested) +
        " cannot be used: KOVRAN answers windows 1..3 up to MAXLOCALUSERS, "
        "here " + windows);
  }
  // KOVRAN answers from the machine's own address, whichever that is now,
  // so every local address counts and other machines do not.
  local_addresses_ = platform_.LocalAddresses();
  addresses_read_at_ = platform_.SteadySeconds();
  const int first = requested != 0 ? requested : 1;
  const int end = requested != 0 ? requested : last;
  for (int n = first; n <= end; ++n) {
    const int port = settings.LOCALWINDOWPORT + 2 * (n - 1);
    std::unique_ptr<platform::UdpSocket> socket = platform_.NewUdpSocket();
    socket->SetEvents({.on_datagram = [this](const std::string& data,
                                             const std::string& sender,
                                             int sender_port) {
      Arrived(data, sender, sender_port);
    }});
    if (!socket->Bind(port) || !socket->SetRemote("127.0.0.1", port + 1)) {
      continue;
    }
    socket_ = std::move(socket);
    number_ = n;
    port_ = port;
    return frame::Status::Ok();
  }
  if (requested != 0) {
    return frame::Status::Error(
        "UDP port " + std::to_string(settings.LOCALWINDOWPORT + 2 * (requested - 1)) +
        " of window " + std::to_string(requested) +
        " is in use: that KOVRAN window is probably open");
  }
  return frame::Status::Error("no free window: the UDP ports of windows " +
                              windows + " from " +
                              std::to_string(settings.LOCALWINDOWPORT) +
                              " on are in use");
}

void WindowClient::Close() {
  socket_.reset();
  answers_.clear();
  number_ = port_ = 0;
}

void WindowClient::Arrived(const std::string& data, const std::string& sender,
                           int sender_port) {
  if (sender_port != kovran_port()) return;
  auto known = [&] {
    return std::find(local_addresses_.begin(), local_addresses_.end(),
                     sender) != local_addresses_.end();
  };
  // The machine may have a new address since (a DHCP lease); the list is
  // read again, at most once a second, so a flood cannot make us ask the
  // system for every datagram.
  if (!known() && platform_.SteadySeconds() - addresses_read_at_ >= 1.0) {
    local_addresses_ = platform_.LocalAddresses();
    addresses_read_at_ = platform_.SteadySeconds();
  }
  if (!known()) return;
  answers_.push_back(data);
  if (on_answer_) on_answer_();
}

bool WindowClient::Send(const std::string& request) {
  return socket_ && socket_->Send(request);
}

std::optional<std::string> WindowClient::Take() {
  if (answers_.empty()) return std::nullopt;
  std::string answer = std::move(answers_.front());
  answers_.pop_front();
  return answer;
}

std::optional<std::string> WindowClient::Ask(
    const std::string& request, double seconds,
    const std::function<bool()>& give_up) {
  Send(request);
  platform_.RunUntil(
      [&] { return !answers_.empty() || (give_up && give_up()); },
      platform_.SteadySeconds() + seconds);
  return Take();
}

}  // namespace localports
