#include "tray/tray.h"

#include <algorithm>
#include <cstdio>
#include <utility>
#include <vector>

#include "frame/settings.h"

namespace tray {
namespace {

using localports::AnswerKind;
using platform::IconColour;

constexpr int kPollMs = 1000;
// Requests in a row without an answer before KOVRAN counts as silent: one
// datagram lost on the way is no reason to turn the icon amber.
constexpr int kSilentAfter = 2;
constexpr std::size_t kNoticesKept = 8;

constexpr char kNoAnswer[] = "KOVRAN does not answer";
constexpr char kWaiting[] = "Waiting for KOVRAN's answer";
constexpr char kWarningTitle[] = "KOVRAN: this PC is being switched off";
constexpr char kWarningText[] =
    "The UPS is running out of power. KOVRAN will switch this PC off in "
    "about 30 seconds.\n\nSave your work and close your programs now.";
constexpr char kEndQuestion[] =
    "End KOVRAN?\n\nThe UPS is then no longer watched: on a power failure "
    "this PC is not shut down in time.";

std::string Cut(std::string text, std::size_t limit) {
  if (text.size() <= limit) return text;
  text.resize(limit - 3);
  return text + "...";
}

bool HoldsCount(const std::string& text) {
  return std::any_of(text.begin(), text.end(),
                     [](char ch) { return ch >= '0' && ch <= '9'; });
}

const char* ColourName(IconColour colour) {
  switch (colour) {
    case IconColour::kGreen:
      return "green";
    case IconColour::kAmber:
      return "amber";
    case IconColour::kRed:
      return "red";
  }
  return "?";
}

}  // namespace

Look LookOf(const std::optional<localports::StatusLine>& line, bool shutdown,
            bool answers) {
  if (shutdown) {
    return {IconColour::kRed,
            "SHUTDOWN: this PC is switched off in about 30 seconds"};
  }
  if (!answers) return {IconColour::kAmber, kNoAnswer};
  if (!line) return {IconColour::kAmber, kWaiting};
  std::vector<std::string> lines;
  if (line->stopped == '1') lines.push_back("Watching stopped");
  for (const std::string* text : {&line->detail, &line->alarm}) {
    if (!text->empty()) lines.push_back(*text);
  }
  if (lines.empty()) lines.push_back(line->status.empty() ? "KOVRAN" : line->status);
  std::string tooltip;
  for (const std::string& text : lines) {
    tooltip += (tooltip.empty() ? "" : "\n") + text;
  }
  tooltip = Cut(tooltip, platform::kTooltipChars);
  if (HoldsCount(line->alarm)) return {IconColour::kRed, tooltip};
  if (line->stopped == '1' || line->link == '0' || line->raised == "1") {
    return {IconColour::kAmber, tooltip};
  }
  return {IconColour::kGreen, tooltip};
}

Tray::Tray(platform::Platform& platform, platform::Desktop& desktop,
           Options options)
    : platform_(platform),
      desktop_(desktop),
      options_(std::move(options)),
      client_(platform) {}

Tray::~Tray() = default;

bool Tray::Start() {
  if (desktop_.AnotherCopyInSession()) {
    Trace("another copy runs in this session");
    return false;
  }
  const bool started = desktop_.Start({
      .on_menu = [this](int id) { Choose(id); },
      .on_open = [this] { Choose(kShowStatus); },
      .on_close = [this] { Exit("the session ends"); },
  });
  if (!started) {
    Trace("no desktop");
    return false;
  }
  if (options_.config.empty()) {
    options_.config = platform_.ProgramFolder() + platform_.PathSeparator() +
                      frame::kSettingsFileName;
  }
  autostart_ = desktop_.StartsWithWindows();
  client_.SetOnAnswer([this] { TakeAnswers(); });
  Timer1_ = platform_.NewTimer([this] { Poll(); });
  Timer1_->SetInterval(kPollMs);
  Poll();
  return true;
}

// Asks for the status line; a window that could not be opened (no settings,
// no free window) is tried again each time, as is a KOVRAN that is silent.
void Tray::Poll() {
  if (!client_.open()) {
    localports::WindowSettings settings;
    frame::Status opened =
        localports::ReadWindowSettings(platform_, options_.config, settings);
    if (opened.ok()) opened = client_.Open(settings, options_.window);
    const std::string error = opened.ok() ? "" : opened.message();
    if (error != open_error_ || client_.open()) {
      Trace(client_.open() ? "window " + std::to_string(client_.number()) +
                                 " on UDP port " +
                                 std::to_string(client_.port())
                           : "no window: " + error);
    }
    open_error_ = error;
    if (!client_.open()) return Show();
  }
  if (waiting_) ++unanswered_;
  waiting_ = client_.Send("LABELS");
  Show();
}

void Tray::TakeAnswers() {
  while (const std::optional<std::string> answer = client_.Take()) {
    waiting_ = false;
    unanswered_ = 0;
    switch (localports::KindOf(*answer)) {
      case AnswerKind::kStatusLine:
        line_ = localports::ParseStatusLine(*answer);
        shutdown_ = false;
        break;
      case AnswerKind::kShutdown:
        shutdown_ = true;
        if (!warned_) {
          warned_ = true;
          Notice("SHUTDOWN: this PC is switched off in about 30 seconds",
                 false, "");
          desktop_.ShowWarning(kWarningTitle, kWarningText);
          Trace(std::string("warning ") + kWarningTitle);
        }
        break;
      case AnswerKind::kClose:
        Notice("The power alarm is over (mains power is back)", true,
               "KOVRAN: mains power is back");
        break;
      case AnswerKind::kSetup:
        Notice("KOVRAN read its settings again", true, "KOVRAN");
        break;
      case AnswerKind::kDiscovery: {
        std::string found;
        for (const std::string& entry : localports::DiscoveryEntries(*answer)) {
          found += (found.empty() ? "" : "\n") + entry;
        }
        Notice(found.empty() ? "No UPS agent found" : "UPS agents found:\n" + found,
               true, "KOVRAN: search for UPS agents");
        break;
      }
      case AnswerKind::kEndWindow:
        return Exit("KOVRAN asks its windows to close");
      case AnswerKind::kEmpty:
        break;
      case AnswerKind::kOther:
        Notice("KOVRAN said: " + localports::Printable(*answer), false, "");
        break;
    }
  }
  Show();
}

void Tray::Notice(const std::string& text, bool balloon,
                  const std::string& balloon_title) {
  const int now = static_cast<int>(platform_.SecondsSinceMidnight());
  char stamp[16];
  std::snprintf(stamp, sizeof stamp, "%02d:%02d:%02d ", now / 3600 % 24,
                now / 60 % 60, now % 60);
  notices_.push_front(stamp + text);
  if (notices_.size() > kNoticesKept) notices_.pop_back();
  if (!balloon) return;
  desktop_.ShowBalloon(Cut(balloon_title, platform::kBalloonTitleChars),
                       Cut(text, platform::kBalloonTextChars));
  Trace("balloon " + balloon_title + ": " + text);
}

void Tray::Choose(int id) {
  if (ended_) return;
  switch (id) {
    case kShowStatus:
      desktop_.ShowStatus(StatusText(), true);
      Trace("status window");
      return;
    case kStopWatching:
    case kResumeWatching:
      // STOP and STAR get no answer; KOVRAN handles a window's datagrams in
      // order, so the status line asked for next shows the effect.
      client_.Send(id == kStopWatching ? "STOP" : "STAR");
      client_.Send("LABELS");
      Trace(id == kStopWatching ? "sent STOP" : "sent STAR");
      return;
    case kReloadSettings:
      client_.Send("SETUPR");
      Trace("sent SETUPR");
      return;
    case kFindAgents:
      // The result comes later, as the answer to a later request.
      client_.Send("DISCOV");
      Notice("Searching for UPS agents", false, "");
      Trace("sent DISCOV");
      return Show();
    case kEndKovran:
      desktop_.Confirm(kEndQuestion, [this](bool yes) {
        Trace(yes ? "end confirmed" : "end not confirmed");
        if (!yes || ended_) return;
        // ENDWINDOW, the answer to the next request, ends this program too.
        client_.Send("ENDPROGRAM");
        client_.Send("LABELS");
        Trace("sent ENDPROGRAM");
      });
      return;
    case kStartWithWindows: {
      const bool on = !autostart_;
      const bool done = desktop_.SetStartWithWindows(on);
      autostart_ = desktop_.StartsWithWindows();
      Trace(std::string("start with Windows ") + (on ? "on" : "off") +
            (done ? "" : " failed"));
      return Show();
    }
    case kExit:
      return Exit("exit chosen");
  }
}

// Brings the icon, the menu and an open status window up to date; each is
// told only what changed.
void Tray::Show() {
  if (ended_) return;
  const Look look =
      client_.open()
          ? LookOf(line_, shutdown_, unanswered_ < kSilentAfter)
          : Look{IconColour::kAmber,
                 Cut("KOVRAN: " + open_error_, platform::kTooltipChars)};
  if (look != shown_) {
    desktop_.ShowIcon(look.colour, look.tooltip);
    Trace(std::string("icon ") + ColourName(look.colour) + " " + look.tooltip);
    shown_ = look;
  }
  const bool stopped = line_ && line_->stopped == '1';
  const bool autostart = autostart_;
  if (stopped != menu_stopped_ || autostart != menu_autostart_) {
    desktop_.SetMenu({
        {.id = kShowStatus, .text = "Show status", .is_default = true},
        {.id = stopped ? kResumeWatching : kStopWatching,
         .text = stopped ? "Resume watching" : "Stop watching"},
        {.id = kReloadSettings, .text = "Re-read settings"},
        {.id = kFindAgents, .text = "Find UPS agents"},
        {},
        {.id = kEndKovran, .text = "End KOVRAN..."},
        {.id = kStartWithWindows, .text = "Start with Windows",
         .checked = autostart},
        {},
        {.id = kExit, .text = "Exit"},
    });
    menu_stopped_ = stopped;
    menu_autostart_ = autostart;
  }
  desktop_.ShowStatus(StatusText(), false);
}

std::string Tray::StatusText() const {
  std::string text;
  if (!client_.open()) {
    text = "No window: " + open_error_ + "\n";
  } else {
    text = "Local window " + std::to_string(client_.number()) +
           " (UDP port " + std::to_string(client_.port()) + ")\n";
    if (shutdown_) {
      text += "SHUTDOWN: this PC is switched off in about 30 seconds\n";
    } else if (unanswered_ >= kSilentAfter) {
      text += std::string(kNoAnswer) + "\n";
    }
    if (line_) {
      text += std::string("Watching: ") +
              (line_->stopped == '1' ? "stopped" : "on") + "\n" +
              "UPS link: " + (line_->link == '1' ? "OK" : "lost") + "\n" +
              "Alarm: " + (line_->raised == "1" ? "raised" : "none") + "\n" +
              "Status: " + line_->status + "\n" + "Detail: " + line_->detail +
              "\n" + "Alarm text: " + line_->alarm + "\n";
    }
  }
  text += "\nLast notices:\n";
  if (notices_.empty()) text += "(none)\n";
  for (const std::string& notice : notices_) text += notice + "\n";
  return text;
}

void Tray::Exit(const std::string& why) {
  if (ended_) return;
  Trace("exit: " + why);
  ended_ = true;
  Timer1_->SetEnabled(false);
  desktop_.Close();
  platform_.EndNow(0);
}

void Tray::Trace(const std::string& line) {
  if (options_.trace.empty()) return;
  char seconds[32];
  std::snprintf(seconds, sizeof seconds, "%.3f ", platform_.SteadySeconds());
  platform_.AppendToFile(options_.trace,
                         seconds + localports::Printable(line) + "\n");
}

}  // namespace tray
