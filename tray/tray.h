// KOVRANW.EXE's logic: a local window of KOVRAN that lives in the
// notification area. It asks "LABELS" every second and shows the answer as
// the icon's colour and tooltip; notices become balloons, "SHUTDOWN" a
// warning window, "ENDWINDOW" its end. The menu sends the window requests.
#ifndef KOVRAN_TRAY_TRAY_H_
#define KOVRAN_TRAY_TRAY_H_

#include <deque>
#include <memory>
#include <optional>
#include <string>

#include "localports/window_client.h"
#include "platform/desktop.h"
#include "platform/platform.h"

namespace tray {

struct Options {
  std::string config;  // the settings file; empty: upsser.cfg beside us
  int window = 0;      // 0: the first free one
  std::string trace;   // a file that gets one line per thing shown
};

enum MenuId {
  kShowStatus = 1,
  kStopWatching,
  kResumeWatching,
  kReloadSettings,
  kFindAgents,
  kEndKovran,
  kStartWithWindows,
  kExit,
};

// What the icon shows.
struct Look {
  platform::IconColour colour = platform::IconColour::kAmber;
  std::string tooltip;

  bool operator==(const Look&) const = default;
};

// The look for the last status line (none yet), whether the last answer
// was "SHUTDOWN", and whether KOVRAN answers at all.
Look LookOf(const std::optional<localports::StatusLine>& line, bool shutdown,
            bool answers);

class Tray {
 public:
  Tray(platform::Platform& platform, platform::Desktop& desktop,
       Options options);
  ~Tray();

  // Shows the icon and starts asking; false when there is no desktop or
  // another copy runs in this session (nothing is shown then).
  bool Start();

 private:
  void Poll();
  void TakeAnswers();
  void Notice(const std::string& text, bool balloon,
              const std::string& balloon_title);
  void Choose(int id);
  void Show();
  void Exit(const std::string& why);
  std::string StatusText() const;
  void Trace(const std::string& line);

  platform::Platform& platform_;
  platform::Desktop& desktop_;
  Options options_;
  localports::WindowClient client_;
  std::unique_ptr<platform::Timer> Timer1_;  // the poll, every second
  std::string open_error_;                   // why no window is open
  std::optional<localports::StatusLine> line_;
  bool shutdown_ = false;
  bool warned_ = false;
  int unanswered_ = 0;  // requests in a row without an answer
  bool waiting_ = false;
  std::optional<Look> shown_;
  bool autostart_ = false;  // the per-user start entry, as last read
  std::optional<bool> menu_stopped_, menu_autostart_;
  std::deque<std::string> notices_;  // the latest first, with their times
  bool ended_ = false;
};

}  // namespace tray

#endif  // KOVRAN_TRAY_TRAY_H_
