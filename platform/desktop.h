// The user's desktop as the status program KOVRANW.EXE needs it: one icon in
// the notification area with its tooltip and menu, balloons, a warning
// window that stays on top, a status window, one confirmation, and the
// per-user choice to start with Windows.
//
// Texts are in the system's 8-bit (ANSI) code page, as KOVRAN sends its
// own; the desktop converts them for display. Events come back through the
// event loop given to NewDesktop (Platform::Post), one at a time on the
// event thread, never inside a call on the desktop.
#ifndef KOVRAN_PLATFORM_DESKTOP_H_
#define KOVRAN_PLATFORM_DESKTOP_H_

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/platform.h"

namespace platform {

enum class IconColour { kGreen, kAmber, kRed };

// What the notification area holds at most, without the final NUL; a
// longer text is cut by the caller, or else by the desktop.
inline constexpr std::size_t kTooltipChars = 127;
inline constexpr std::size_t kBalloonTitleChars = 63;
inline constexpr std::size_t kBalloonTextChars = 255;

struct MenuEntry {
  int id = 0;  // given back by on_menu; 0 makes a separator
  std::string text;
  bool checked = false;
  bool is_default = false;  // shown bold: what a double-click does
};

struct DesktopEvents {
  std::function<void(int id)> on_menu;  // a menu entry was chosen
  std::function<void()> on_open;        // the icon was double-clicked
  std::function<void()> on_close;       // the user's session ends
};

class Desktop {
 public:
  virtual ~Desktop() = default;

  // Sets up the desktop's windows; false when there is no desktop to show
  // them on. Nothing is shown yet.
  virtual bool Start(DesktopEvents events) = 0;
  // Whether another copy of the status program runs in this user's session.
  virtual bool AnotherCopyInSession() = 0;

  // Shows the icon in `colour` with `tooltip` (lines split by '\n'), or
  // changes it. When the notification area is not there yet (the shell
  // starts after the program at log-on) the icon appears once it is.
  virtual void ShowIcon(IconColour colour, const std::string& tooltip) = 0;
  // The menu the icon's right-click opens, from now on.
  virtual void SetMenu(std::vector<MenuEntry> entries) = 0;
  // A balloon at the icon that goes away by itself.
  virtual void ShowBalloon(const std::string& title,
                           const std::string& text) = 0;
  // A window on top of all others that the user closes.
  virtual void ShowWarning(const std::string& title,
                           const std::string& text) = 0;
  // The status window's text; `bring_up` opens it (or brings it to the
  // front), else only a window that is open shows the new text.
  virtual void ShowStatus(const std::string& text, bool bring_up) = 0;
  // Asks `question` with Yes and No; `answer` follows as an event. The
  // only question that waits for the user: one at a time, a second one
  // while the first is open is answered No.
  virtual void Confirm(const std::string& question,
                       std::function<void(bool yes)> answer) = 0;

  // The per-user entry that starts this program when the user logs on.
  virtual bool StartsWithWindows() = 0;
  // Sets or removes it; false when that fails.
  virtual bool SetStartWithWindows(bool on) = 0;

  // Removes the icon and closes every window; returns when they are gone.
  virtual void Close() = 0;
};

// The desktop of the system built for, delivering its events through
// `loop`, whose Post may be called from another thread (the real platform's
// may).
std::unique_ptr<Desktop> NewDesktop(Platform& loop);

}  // namespace platform

#endif  // KOVRAN_PLATFORM_DESKTOP_H_
