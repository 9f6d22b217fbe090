// kovranctl: talks to the KOVRAN running on this machine the way its local
// status windows (UDP) and local programs (TCP port 1499) do.
//
// A window command binds window N's UDP port (by default the first window
// whose port is free, so it does not take the place of an open status
// window), and it takes every answer KOVRAN sends to window N, a pending
// one-time notice included: that window never sees the notice then.
// Every wait has a deadline; SIGINT/SIGTERM end any command (watch with 0,
// the others with 130).
#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "frame/settings.h"
#include "localports/window_client.h"
#include "platform/real_platform.h"

namespace {

using localports::DiscoveryEntries;
using localports::ParseStatusLine;
using localports::Printable;
using localports::StatusLine;

constexpr int kControlPort = 1499;
constexpr double kAnswerSeconds = 2.0;
constexpr int kInterrupted = 130;

struct Command {
  std::string_view name;
  bool window;               // as a local window (UDP), else the control port
  std::string_view summary;  // its line in the overall usage
  std::string_view more;     // the rest of its own help
};

constexpr Command kCommands[] = {
    {"status", true, "show KOVRAN's status line once",
     "A notice that comes instead is shown and the line asked for once more.\n"
     "Exit 2 when KOVRAN does not answer within 2 s.\n"},
    {"watch", true, "show each change of the status line until Ctrl-C",
     "Asks once a second; one time-stamped line per change or notice.\n"},
    {"stop", true, "suspend watching the UPS",
     "STOP gets no answer: the status line asked for next confirms it.\n"},
    {"start", true, "resume watching the UPS",
     "STAR gets no answer: the status line asked for next confirms it.\n"},
    {"reload", true, "make KOVRAN read upsser.cfg again", ""},
    {"discover", true, "search for UPS agents and show the result",
     "  --timeout S    wait at most S seconds for the result (default 10),\n"
     "                 asking every 0.5 s; exit 2 after that\n"},
    {"end", true, "end KOVRAN (it ends 6 s later)",
     "ENDPROGRAM gets no answer: KOVRAN confirms with ENDWINDOW next.\n"},
    {"runstatus", false, "ask whether KOVRAN runs and watches", ""},
    {"endserwin", false, "make KOVRAN tell its windows to close", ""},
    {"exit", false, "end KOVRAN (it exits 4 s later)",
     "On a Windows service system KOVRAN does not reply to this by design.\n"},
};

constexpr std::string_view kNoticeNote =
    "Asking as window N takes window N's pending one-time notice (SHUTDOWN,\n"
    "CLOSE, ENDWINDOW, ...): the window itself never sees it then.\n";

std::string Usage() {
  std::string text =
      "Usage: kovranctl COMMAND [OPTIONS]\n"
      "Talks to the KOVRAN running on this machine.\n";
  for (const bool window : {true, false}) {
    text += window ? "As local window N (UDP; --window N, --config FILE):\n"
                   : "Through the control port 1499 (TCP; --host H):\n";
    for (const Command& c : kCommands) {
      if (c.window != window) continue;
      text += "  " + std::string(c.name);
      text += std::string(11 - c.name.size(), ' ') + std::string(c.summary);
      text += "\n";
    }
  }
  return text + std::string(kNoticeNote) +
         "'kovranctl COMMAND --help' describes one command.\n";
}

std::string HelpOf(const Command& c) {
  std::string text = "Usage: kovranctl " + std::string(c.name);
  if (c.name == "discover") text += " [--timeout S]";
  text += c.window ? " [--window N] [--config FILE]\n" : " [--host H]\n";
  text += "kovranctl " + std::string(c.name) + ": " + std::string(c.summary) +
          ".\n" + std::string(c.more);
  if (!c.window) {
    return text + "  --host H       KOVRAN's machine (default 127.0.0.1)\n";
  }
  return text +
         "  --window N     ask as local window N (1..3, at most "
         "MAXLOCALUSERS;\n"
         "                 default: the first free one) from UDP port\n"
         "                 LOCALWINDOWPORT + 2(N-1)\n"
         "  --config FILE  settings (default: upsser.cfg beside kovranctl)\n" +
         std::string(kNoticeNote);
}

void Say(const std::string& line) {
  std::fputs((line + "\n").c_str(), stdout);
  std::fflush(stdout);
}

void Complain(const std::string& line) {
  std::fputs(("kovranctl: " + line + "\n").c_str(), stderr);
}

std::string Shown(const std::string& text) {
  return text.empty() ? "-" : Printable(text);
}

template <typename T>
bool ParseNumber(std::string_view text, T& value) {
  const char* end = text.data() + text.size();
  const auto [ptr, ec] = std::from_chars(text.data(), end, value);
  return ec == std::errc() && ptr == end;
}

struct Options {
  const Command* command = nullptr;
  bool help = false;
  int window = 0;  // the first free one
  std::string config;
  std::string host = "127.0.0.1";
  double timeout = 10;
};

// Fills `o` from the arguments; the reason when they are not understood.
std::optional<std::string> ParseArguments(int argc, char** argv, Options& o) {
  if (argc < 2) return "no command given";
  const std::string_view first = argv[1];
  o.help = first == "-h" || first == "--help";
  if (o.help) return std::nullopt;
  for (const Command& c : kCommands) {
    if (c.name == first) o.command = &c;
  }
  if (!o.command) return "unknown command '" + std::string(first) + "'";
  for (int i = 2; i < argc; ++i) {
    std::string_view arg = argv[i];
    if (arg == "-h" || arg == "--help") {
      o.help = true;
      continue;
    }
    std::optional<std::string> value;
    if (const auto eq = arg.find('=');
        arg.starts_with("--") && eq != arg.npos) {
      value = arg.substr(eq + 1);
      arg = arg.substr(0, eq);
    }
    const bool applies = arg == "--host"      ? !o.command->window
                         : arg == "--timeout" ? o.command->name == "discover"
                         : arg == "--window" || arg == "--config"
                             ? o.command->window
                             : false;
    if (!applies) {
      return "option '" + std::string(arg) + "' is unknown to " +
             std::string(o.command->name);
    }
    if (!value && i + 1 >= argc) return std::string(arg) + " needs a value";
    if (!value) value = argv[++i];
    if (arg == "--window") {
      if (!ParseNumber(*value, o.window)) return "--window needs a number";
    } else if (arg == "--config") {
      o.config = *value;
    } else if (arg == "--host") {
      o.host = *value;
    } else if (!ParseNumber(*value, o.timeout) || !(o.timeout > 0) ||
               o.timeout > 3600) {
      return "--timeout needs a number of seconds (0..3600)";
    }
  }
  return std::nullopt;
}

// The platform's event loop, run in small steps up to a deadline.
class Loop {
 public:
  Loop() : platform_(/*exit_process=*/false) {
    platform_.SetCloseHandler([this] { interrupted_ = true; });
  }

  platform::RealPlatform& platform() { return platform_; }
  bool interrupted() const { return interrupted_; }
  double Now() { return platform_.SteadySeconds(); }

  // True once `done` holds; false when `seconds` pass first or a signal asks
  // to end.
  bool RunUntil(const std::function<bool()>& done, double seconds) {
    platform_.RunUntil([&] { return interrupted_ || done(); },
                       Now() + seconds);
    return !interrupted_ && done();
  }
  void Pause(double seconds) {
    RunUntil([] { return false; }, seconds);
  }

 private:
  platform::RealPlatform platform_;
  bool interrupted_ = false;
};

// Window N through the shared client, with kovranctl's deadline and its
// interruption.
class Window {
 public:
  explicit Window(Loop& loop) : loop_(loop), client_(loop.platform()) {}

  localports::WindowClient& client() { return client_; }
  std::string KovranPort() const { return std::to_string(client_.kovran_port()); }
  void Send(const std::string& request) { client_.Send(request); }
  // Sends a request that gets no answer. KOVRAN handles the datagrams of
  // one socket in order, so a request sent next sees its effect.
  void Tell(const std::string& request) { Send(request); }
  std::optional<std::string> Take() { return client_.Take(); }
  std::optional<std::string> Ask(const std::string& request) {
    return client_.Ask(request, kAnswerSeconds,
                       [this] { return loop_.interrupted(); });
  }

  int NoAnswer() {
    if (loop_.interrupted()) return kInterrupted;
    Complain("no answer from KOVRAN within 2 s on UDP port " + KovranPort() +
             " (asked as window " + std::to_string(client_.number()) +
             " from UDP port " + std::to_string(client_.port()) +
             "); is KOVRAN running?");
    return 2;
  }

 private:
  Loop& loop_;
  localports::WindowClient client_;
};

std::string Watching(const StatusLine& s) {
  return s.stopped == '1' ? "watching stopped" : "watching on";
}
std::string Link(const StatusLine& s) {
  return s.link == '1' ? "server link OK" : "server link lost";
}
std::string Raised(const StatusLine& s) {
  return s.raised == "1" ? "alarm raised yes" : "alarm raised no";
}

// An answer that is not a status line.
std::string DescribeNotice(const std::string& answer) {
  if (answer.empty()) return "(empty answer)";
  if (answer == "SHUTDOWN") return "SHUTDOWN (final phase of the shutdown)";
  if (answer == "CLOSE") return "CLOSE (mains power is back, alarm closed)";
  if (answer == "ENDWINDOW") return "ENDWINDOW (windows are asked to close)";
  if (answer == "SETUPR") return "SETUPR (settings reloaded)";
  if (!answer.starts_with("DISCOVER")) return Printable(answer);
  std::string text = "DISCOVER (discovery result)";
  for (const std::string& entry : DiscoveryEntries(answer)) {
    text += "\n  " + Printable(entry);
  }
  return text;
}

// Asks for the status line; a notice that comes instead is shown and the
// line asked for once more. Some notices (SHUTDOWN) stay for good: then
// there is no line. 0 or the exit code.
int AskStatusLine(Window& w, std::optional<StatusLine>& line) {
  std::string notice;
  for (int asked = 0; asked < 2; ++asked) {
    const std::optional<std::string> answer = w.Ask("LABELS");
    if (!answer) return w.NoAnswer();
    line = ParseStatusLine(*answer);
    if (line) return 0;
    if (*answer != notice) Say("notice: " + DescribeNotice(*answer));
    notice = *answer;
  }
  Say("no status line: KOVRAN answered with notices only");
  return 0;
}

int Status(Window& w) {
  std::optional<StatusLine> s;
  if (const int code = AskStatusLine(w, s); code != 0 || !s) return code;
  Say(Watching(*s) + "\n" + Link(*s) + "\n" + Raised(*s) +
      "\nstatus: " + Shown(s->status) + "\ndetail: " + Shown(s->detail) +
      "\nalarm:  " + Shown(s->alarm));
  return 0;
}

// STOP and STAR get no answer; the status line that follows tells.
int StopOrStart(Window& w, bool stop) {
  w.Tell(stop ? "STOP" : "STAR");
  std::optional<StatusLine> s;
  if (const int code = AskStatusLine(w, s); code != 0) return code;
  if (s && (s->stopped == '1') == stop) {
    Say(Watching(*s));
    return 0;
  }
  Complain(s ? "KOVRAN still reports " + Watching(*s)
             : std::string("cannot confirm: no status line"));
  return 1;
}

// ENDPROGRAM gets no answer; the next request is answered with ENDWINDOW.
int End(Window& w) {
  w.Tell("ENDPROGRAM");
  for (int asked = 0; asked < 2; ++asked) {
    const std::optional<std::string> answer = w.Ask("LABELS");
    if (!answer) return w.NoAnswer();
    if (*answer == "ENDWINDOW") {
      Say("KOVRAN ends in 6 s");
      return 0;
    }
    if (ParseStatusLine(*answer)) break;
    Say("notice: " + DescribeNotice(*answer));
  }
  Complain("KOVRAN did not confirm the end (no ENDWINDOW notice)");
  return 1;
}

int Reload(Window& w) {
  const std::optional<std::string> answer = w.Ask("SETUPR");
  if (!answer) return w.NoAnswer();
  Say(*answer == "SETUPR" ? "settings reloaded"
                          : "answer: " + DescribeNotice(*answer));
  return 0;
}

// DISCOV is answered with nothing or a notice; the result comes later, as
// the answer to a later request.
int Discover(Loop& loop, Window& w, double timeout) {
  w.Send("DISCOV");
  const double deadline = loop.Now() + timeout;
  double next_ask = loop.Now() + 0.5;
  bool answered = false;
  while (!loop.interrupted()) {
    while (const std::optional<std::string> answer = w.Take()) {
      answered = true;
      if (answer->starts_with("DISCOVER")) {
        const std::vector<std::string> entries = DiscoveryEntries(*answer);
        Say(entries.empty() ? "discovery result: nothing found"
                            : "discovery result:");
        for (const std::string& entry : entries) Say("  " + Printable(entry));
        return 0;
      }
      if (!answer->empty() && !ParseStatusLine(*answer)) {
        Say("notice: " + DescribeNotice(*answer));
      }
    }
    if (loop.Now() >= deadline) break;
    if (loop.Now() >= next_ask) {
      w.Send("LABELS");
      next_ask += 0.5;
    }
    loop.Pause(0.05);
  }
  if (!answered) return w.NoAnswer();
  if (loop.interrupted()) return kInterrupted;
  char seconds[32];
  std::snprintf(seconds, sizeof seconds, "%g", timeout);
  Complain(std::string("no discovery result within ") + seconds + " s");
  return 2;
}

std::string Stamp(Loop& loop) {
  const int now = static_cast<int>(loop.platform().SecondsSinceMidnight());
  char text[16];
  std::snprintf(text, sizeof text, "%02d:%02d:%02d ", now / 3600 % 24,
                now / 60 % 60, now % 60);
  return text;
}

// What changed from `was` to `is`; everything when there was nothing.
std::string Changes(const std::optional<StatusLine>& was,
                    const StatusLine& is) {
  std::string text;
  const auto add = [&](bool changed, const std::string& part) {
    if (!was || changed) text += (text.empty() ? "" : " | ") + part;
  };
  add(was && was->stopped != is.stopped, Watching(is));
  add(was && was->link != is.link, Link(is));
  add(was && was->raised != is.raised, Raised(is));
  add(was && was->status != is.status, "status: " + Shown(is.status));
  add(was && was->detail != is.detail, "detail: " + Shown(is.detail));
  add(was && was->alarm != is.alarm, "alarm: " + Shown(is.alarm));
  return text;
}

int Watch(Loop& loop, Window& w) {
  std::optional<StatusLine> last;
  std::string last_notice;  // SHUTDOWN answers every request: shown once
  double last_answer = loop.Now();
  double next_ask = loop.Now();
  bool silent = false;
  while (!loop.interrupted()) {
    if (loop.Now() >= next_ask) {
      w.Send("LABELS");
      next_ask = loop.Now() + 1.0;
    }
    while (const std::optional<std::string> answer = w.Take()) {
      last_answer = loop.Now();
      if (silent) {
        Say(Stamp(loop) + "KOVRAN answers again on UDP port " + w.KovranPort());
        silent = false;
        last.reset();
      }
      if (const std::optional<StatusLine> line = ParseStatusLine(*answer)) {
        if (line != last) Say(Stamp(loop) + Changes(last, *line));
        last = line;
        last_notice.clear();
      } else if (!answer->empty() && *answer != last_notice) {
        Say(Stamp(loop) + "event: " + DescribeNotice(*answer));
        last_notice = *answer;
      }
    }
    if (!silent && loop.Now() - last_answer > kAnswerSeconds) {
      Say(Stamp(loop) + "no answer from KOVRAN on UDP port " + w.KovranPort());
      silent = true;
      last_notice.clear();
    }
    loop.Pause(0.05);
  }
  return 0;
}

// The control port answers one request per connection, then closes it.
int Control(Loop& loop, const Options& o) {
  const std::string_view name = o.command->name;
  const std::string word = name == "runstatus"   ? "RUNSTATUS"
                           : name == "endserwin" ? "ENDSERWIN"
                                                 : "EXITPROGRAM";
  const std::string where = o.host + ":" + std::to_string(kControlPort);
  std::unique_ptr<platform::TcpClient> client = loop.platform().NewTcpClient();
  bool connected = false;
  bool closed = false;
  std::optional<int> error;
  std::string error_text;
  std::string reply;
  client->SetEvents({
      .on_connect =
          [&] {
            connected = true;
            client->Send("H:TS>IP:127.0.0.1>C:" + word + "\r\n");
          },
      .on_data = [&] { reply += client->ReadAll(); },
      .on_close = [&] { closed = true; },
      .on_error =
          [&](int number, const std::string& text) {
            error = number;
            error_text = text + " (" + std::to_string(number) + ")";
          },
  });
  client->Connect(o.host, kControlPort);
  loop.RunUntil([&] { return connected || error; }, kAnswerSeconds);
  if (connected) loop.RunUntil([&] { return closed || error; }, kAnswerSeconds);
  reply += client->ReadAll();
  client->Close();
  if (loop.interrupted()) return kInterrupted;
  if (!connected) {
    Complain(error == platform::wsa::kConnectionRefused
                 ? "KOVRAN's control port " + where + " refused the connection"
             : error ? "cannot reach KOVRAN's control port " + where + ": " +
                           error_text
                     : "no connection to KOVRAN's control port " + where +
                           " within 2 s");
    return 2;
  }
  if (reply.empty()) {
    Complain("no reply from KOVRAN's control port " + where +
             (closed ? " (it closed the connection)" : " within 2 s") +
             (word == "EXITPROGRAM" ? "; on a Windows service system KOVRAN "
                                      "does not reply to exit by design"
                                    : ""));
    return 2;
  }
  std::string text = reply;
  while (text.ends_with('\r') || text.ends_with('\n')) text.pop_back();
  struct Meaning {
    std::string_view request, reply, text;
  };
  constexpr Meaning kMeanings[] = {
      {"RUNSTATUS", "1", "1: KOVRAN is running and watching the UPS"},
      {"RUNSTATUS", "2", "2: KOVRAN is running, watching is stopped"},
      {"RUNSTATUS", "3", "3: KOVRAN is running (not a Windows service system)"},
      {"ENDSERWIN", "OK-ENDSERWIN",
       "OK-ENDSERWIN: KOVRAN told its windows to close"},
      {"EXITPROGRAM", "OK-EXITPROGRAM", "OK-EXITPROGRAM: KOVRAN exits in 4 s"},
  };
  for (const Meaning& m : kMeanings) {
    if (m.request == word && m.reply == text) {
      Say(std::string(m.text));
      return 0;
    }
  }
  Complain("unexpected reply from " + where + ": " + Printable(reply));
  return 1;
}

int RunWindowCommand(Loop& loop, const Options& o) {
  platform::RealPlatform& p = loop.platform();
  const std::string path =
      o.config.empty()
          ? p.ProgramFolder() + p.PathSeparator() + frame::kSettingsFileName
          : o.config;
  localports::WindowSettings settings;
  if (const frame::Status read =
          localports::ReadWindowSettings(p, path, settings);
      !read.ok()) {
    Complain(read.message() +
             (o.config.empty() ? " (give one with --config FILE)" : ""));
    return 1;
  }
  Window w(loop);
  if (const frame::Status opened = w.client().Open(settings, o.window);
      !opened.ok()) {
    Complain(opened.message() +
             (o.window != 0 ? "; ask as another window with --window N" : ""));
    return 1;
  }
  const std::string_view name = o.command->name;
  if (name == "status") return Status(w);
  if (name == "watch") return Watch(loop, w);
  if (name == "stop" || name == "start") return StopOrStart(w, name == "stop");
  if (name == "reload") return Reload(w);
  if (name == "discover") return Discover(loop, w, o.timeout);
  return End(w);
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  if (const std::optional<std::string> error = ParseArguments(argc, argv, o)) {
    Complain(*error);
    std::fputs((o.command ? HelpOf(*o.command) : Usage()).c_str(), stderr);
    return 1;
  }
  if (o.help) {
    std::fputs((o.command ? HelpOf(*o.command) : Usage()).c_str(), stdout);
    return 0;
  }
  Loop loop;
  const int code =
      o.command->window ? RunWindowCommand(loop, o) : Control(loop, o);
  if (code == kInterrupted) Complain("interrupted");
  return code;
}
