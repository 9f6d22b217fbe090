// The Windows desktop: a thread of its own owns every window and runs the
// message loop, blocked in GetMessage between messages. The program's event
// loop stays on its own thread, blocked in Asio's wait; neither ever polls
// the other. Calls are handed to the desktop thread as posted messages that
// carry the work (Close waits for its own), and the desktop's events go back
// through the event loop's Post, which Asio allows from any thread.
#include "platform/desktop.h"

#include <windows.h>
#include <shellapi.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace platform {
namespace {

constexpr UINT kRunWork = WM_APP + 1;  // lParam: a heap std::function
constexpr UINT kIconEvent = WM_APP + 2;
constexpr UINT kIconId = 1;
constexpr wchar_t kHiddenClass[] = L"KovranStatusProgram";
constexpr wchar_t kWarningClass[] = L"KovranShutdownWarning";
constexpr wchar_t kStatusClass[] = L"KovranStatusWindow";
constexpr wchar_t kRunKey[] =
    L"Software\\Microsoft\\Windows\\CurrentVersion\\Run";
constexpr wchar_t kRunValue[] = L"KOVRAN status";
constexpr int kOkButton = 100;

// From the ANSI code page, with '\n' as Windows controls want it ("\r\n")
// where `crlf`.
std::wstring Wide(const std::string& text, bool crlf = false) {
  std::string source;
  for (const char ch : text) {
    if (ch == '\n' && crlf) source += '\r';
    source += ch;
  }
  if (source.empty()) return L"";
  const int n = ::MultiByteToWideChar(CP_ACP, 0, source.data(),
                                      static_cast<int>(source.size()),
                                      nullptr, 0);
  std::wstring wide(n, L'\0');
  ::MultiByteToWideChar(CP_ACP, 0, source.data(),
                        static_cast<int>(source.size()), wide.data(), n);
  return wide;
}

// Copies `text` into a fixed field, cut to what it holds.
template <std::size_t N>
void Fill(wchar_t (&field)[N], const std::wstring& text) {
  const std::size_t n = std::min(text.size(), N - 1);
  std::memcpy(field, text.data(), n * sizeof(wchar_t));
  field[n] = L'\0';
}

COLORREF Rgb(IconColour colour) {
  switch (colour) {
    case IconColour::kGreen:
      return RGB(0, 170, 0);
    case IconColour::kRed:
      return RGB(220, 0, 0);
    case IconColour::kAmber:
      break;
  }
  return RGB(255, 170, 0);
}

// A disc in the colour with a dark rim, drawn at the size the notification
// area asks for, on a transparent ground.
HICON DrawIcon(IconColour colour) {
  const int size = ::GetSystemMetrics(SM_CXSMICON);
  BITMAPV5HEADER header{};
  header.bV5Size = sizeof header;
  header.bV5Width = size;
  header.bV5Height = -size;
  header.bV5Planes = 1;
  header.bV5BitCount = 32;
  header.bV5Compression = BI_BITFIELDS;
  header.bV5RedMask = 0x00FF0000;
  header.bV5GreenMask = 0x0000FF00;
  header.bV5BlueMask = 0x000000FF;
  header.bV5AlphaMask = 0xFF000000;
  void* bits = nullptr;
  HDC screen = ::GetDC(nullptr);
  HBITMAP colour_bitmap = ::CreateDIBSection(
      screen, reinterpret_cast<BITMAPINFO*>(&header), DIB_RGB_COLORS, &bits,
      nullptr, 0);
  ::ReleaseDC(nullptr, screen);
  if (!colour_bitmap) return nullptr;
  const COLORREF rgb = Rgb(colour);
  auto* pixels = static_cast<DWORD*>(bits);
  const double centre = (size - 1) / 2.0;
  const double radius = size / 2.0;
  for (int y = 0; y < size; ++y) {
    for (int x = 0; x < size; ++x) {
      const double dx = x - centre, dy = y - centre;
      const double distance = dx * dx + dy * dy;
      DWORD pixel = 0;  // transparent
      if (distance <= (radius - 1.5) * (radius - 1.5)) {
        pixel = 0xFF000000 | (GetRValue(rgb) << 16) | (GetGValue(rgb) << 8) |
                GetBValue(rgb);
      } else if (distance <= radius * radius) {
        pixel = 0xFF303030;
      }
      pixels[y * size + x] = pixel;
    }
  }
  HBITMAP mask = ::CreateBitmap(size, size, 1, 1, nullptr);
  ICONINFO info{};
  info.fIcon = TRUE;
  info.hbmColor = colour_bitmap;
  info.hbmMask = mask;
  HICON icon = ::CreateIconIndirect(&info);
  ::DeleteObject(colour_bitmap);
  ::DeleteObject(mask);
  return icon;
}

std::wstring ExecutablePath() {
  std::wstring path(MAX_PATH, L'\0');
  for (;;) {
    const DWORD n = ::GetModuleFileNameW(nullptr, path.data(),
                                         static_cast<DWORD>(path.size()));
    if (n < path.size()) {
      path.resize(n);
      return path;
    }
    path.resize(path.size() * 2);
  }
}

class WindowsDesktop : public Desktop {
 public:
  explicit WindowsDesktop(Platform& loop) : loop_(loop) {}
  ~WindowsDesktop() override { Close(); }

  bool AnotherCopyInSession() override {
    // Held until the process ends: the name belongs to this session only.
    instance_ = ::CreateMutexW(nullptr, FALSE, L"Local\\KOVRAN-status-program");
    return instance_ && ::GetLastError() == ERROR_ALREADY_EXISTS;
  }

  bool Start(DesktopEvents events) override {
    events_ = std::move(events);
    std::unique_lock lock(mutex_);
    thread_ = std::thread([this] { Run(); });
    ready_.wait(lock, [this] { return started_; });
    return hidden_ != nullptr;
  }

  void ShowIcon(IconColour colour, const std::string& tooltip) override {
    OnThread([this, colour, tip = Wide(tooltip)] {
      if (icon_) ::DestroyIcon(icon_);
      icon_ = DrawIcon(colour);
      tooltip_ = tip;
      UpdateIcon();
    });
  }

  void SetMenu(std::vector<MenuEntry> entries) override {
    OnThread([this, entries = std::move(entries)] { menu_ = entries; });
  }

  void ShowBalloon(const std::string& title, const std::string& text) override {
    OnThread([this, title = Wide(title), text = Wide(text)] {
      if (!icon_added_) return;
      NOTIFYICONDATAW data = IconData();
      data.uFlags = NIF_INFO;
      Fill(data.szInfoTitle, title);
      Fill(data.szInfo, text);
      data.dwInfoFlags = NIIF_INFO;
      data.uTimeout = 10000;
      ::Shell_NotifyIconW(NIM_MODIFY, &data);
    });
  }

  void ShowWarning(const std::string& title, const std::string& text) override {
    OnThread([this, title = Wide(title), text = Wide(text, true)] {
      if (icon_added_) {  // an older balloon must not sit beside it
        NOTIFYICONDATAW data = IconData();
        data.uFlags = NIF_INFO;
        ::Shell_NotifyIconW(NIM_MODIFY, &data);
      }
      if (warning_) ::DestroyWindow(warning_);
      const int width = 520, height = 230;
      warning_ = ::CreateWindowExW(
          WS_EX_TOPMOST | WS_EX_DLGMODALFRAME, kWarningClass, title.c_str(),
          WS_POPUP | WS_CAPTION | WS_SYSMENU,
          (::GetSystemMetrics(SM_CXSCREEN) - width) / 2,
          (::GetSystemMetrics(SM_CYSCREEN) - height) / 2, width, height,
          nullptr, nullptr, ::GetModuleHandleW(nullptr), this);
      if (!warning_) return;
      HWND label = ::CreateWindowExW(0, L"STATIC", text.c_str(),
                                     WS_CHILD | WS_VISIBLE | SS_LEFT, 20, 16,
                                     width - 50, height - 100, warning_,
                                     nullptr, nullptr, nullptr);
      ::SendMessageW(label, WM_SETFONT, reinterpret_cast<WPARAM>(big_font_),
                     TRUE);
      HWND ok = ::CreateWindowExW(
          0, L"BUTTON", L"OK", WS_CHILD | WS_VISIBLE | BS_DEFPUSHBUTTON,
          width / 2 - 45, height - 80, 90, 28, warning_,
          reinterpret_cast<HMENU>(static_cast<INT_PTR>(kOkButton)), nullptr,
          nullptr);
      ::SendMessageW(ok, WM_SETFONT, reinterpret_cast<WPARAM>(font_), TRUE);
      ::ShowWindow(warning_, SW_SHOWNORMAL);
      ::SetForegroundWindow(warning_);
      ::FlashWindow(warning_, TRUE);
    });
  }

  void ShowStatus(const std::string& text, bool bring_up) override {
    OnThread([this, text = Wide(text, true), bring_up] {
      if (!status_ && !bring_up) return;
      if (!status_) {
        status_ = ::CreateWindowExW(
            0, kStatusClass, L"KOVRAN status", WS_OVERLAPPEDWINDOW,
            CW_USEDEFAULT, CW_USEDEFAULT, 460, 360, nullptr, nullptr,
            ::GetModuleHandleW(nullptr), this);
        if (!status_) return;
        status_text_ = ::CreateWindowExW(
            0, L"EDIT", L"",
            WS_CHILD | WS_VISIBLE | WS_VSCROLL | ES_MULTILINE | ES_READONLY |
                ES_AUTOVSCROLL,
            0, 0, 0, 0, status_, nullptr, nullptr, nullptr);
        ::SendMessageW(status_text_, WM_SETFONT,
                       reinterpret_cast<WPARAM>(font_), TRUE);
        RECT area;
        ::GetClientRect(status_, &area);
        ::MoveWindow(status_text_, 0, 0, area.right, area.bottom, TRUE);
      }
      if (shown_status_ != text) {
        ::SetWindowTextW(status_text_, text.c_str());
        shown_status_ = text;
      }
      if (bring_up) {
        ::ShowWindow(status_, SW_SHOWNORMAL);
        ::SetForegroundWindow(status_);
      }
    });
  }

  void Confirm(const std::string& question,
               std::function<void(bool)> answer) override {
    OnThread([this, question = Wide(question, true),
              answer = std::move(answer)] {
      if (confirming_) {
        loop_.Post([answer] { answer(false); });
        return;
      }
      confirming_ = true;
      const int chosen = ::MessageBoxW(
          nullptr, question.c_str(), L"KOVRAN",
          MB_YESNO | MB_ICONWARNING | MB_DEFBUTTON2 | MB_SETFOREGROUND |
              MB_TOPMOST);
      confirming_ = false;
      loop_.Post([answer, yes = chosen == IDYES] { answer(yes); });
    });
  }

  bool StartsWithWindows() override {
    DWORD size = 0;
    return ::RegGetValueW(HKEY_CURRENT_USER, kRunKey, kRunValue, RRF_RT_REG_SZ,
                          nullptr, nullptr, &size) == ERROR_SUCCESS;
  }

  bool SetStartWithWindows(bool on) override {
    HKEY key;
    if (::RegCreateKeyExW(HKEY_CURRENT_USER, kRunKey, 0, nullptr, 0,
                          KEY_SET_VALUE, nullptr, &key,
                          nullptr) != ERROR_SUCCESS) {
      return false;
    }
    LSTATUS result;
    if (on) {
      const std::wstring command = L"\"" + ExecutablePath() + L"\"";
      result = ::RegSetValueExW(
          key, kRunValue, 0, REG_SZ,
          reinterpret_cast<const BYTE*>(command.c_str()),
          static_cast<DWORD>((command.size() + 1) * sizeof(wchar_t)));
    } else {
      result = ::RegDeleteValueW(key, kRunValue);
      if (result == ERROR_FILE_NOT_FOUND) result = ERROR_SUCCESS;
    }
    ::RegCloseKey(key);
    return result == ERROR_SUCCESS;
  }

  void Close() override {
    if (!thread_.joinable()) return;
    if (hidden_) {
      // Sent, not posted: the icon must be gone before the process ends,
      // or the notification area keeps a dead one until a mouse passes.
      std::function<void()> work = [this] {
        RemoveIcon();
        if (warning_) ::DestroyWindow(warning_);
        if (status_) ::DestroyWindow(status_);
        ::DestroyWindow(hidden_);
      };
      ::SendMessageW(hidden_, kRunWork, 0, reinterpret_cast<LPARAM>(&work));
    }
    thread_.join();
  }

 private:
  void Run() {
    HINSTANCE instance = ::GetModuleHandleW(nullptr);
    for (const wchar_t* name : {kHiddenClass, kWarningClass, kStatusClass}) {
      WNDCLASSW c{};
      c.lpfnWndProc = Procedure;
      c.hInstance = instance;
      c.hCursor = ::LoadCursorW(nullptr, IDC_ARROW);
      c.hbrBackground = reinterpret_cast<HBRUSH>(COLOR_BTNFACE + 1);
      c.lpszClassName = name;
      ::RegisterClassW(&c);
    }
    NONCLIENTMETRICSW metrics{};
    metrics.cbSize = sizeof metrics;
    ::SystemParametersInfoW(SPI_GETNONCLIENTMETRICS, sizeof metrics, &metrics,
                            0);
    font_ = ::CreateFontIndirectW(&metrics.lfMessageFont);
    LOGFONTW big = metrics.lfMessageFont;
    big.lfHeight = big.lfHeight * 3 / 2;
    big.lfWeight = FW_BOLD;
    big_font_ = ::CreateFontIndirectW(&big);
    taskbar_created_ = ::RegisterWindowMessageW(L"TaskbarCreated");
    // A top-level window that is never shown: unlike a message-only window
    // it hears the shell's TaskbarCreated and the session's end.
    hidden_ = ::CreateWindowExW(0, kHiddenClass, L"KOVRAN", WS_OVERLAPPED, 0,
                                0, 0, 0, nullptr, nullptr, instance, this);
    {
      std::lock_guard lock(mutex_);
      started_ = true;
    }
    ready_.notify_all();
    if (!hidden_) return;
    MSG message;
    while (::GetMessageW(&message, nullptr, 0, 0) > 0) {
      if (warning_ && ::IsDialogMessageW(warning_, &message)) continue;
      ::TranslateMessage(&message);
      ::DispatchMessageW(&message);
    }
    if (icon_) ::DestroyIcon(icon_);
    ::DeleteObject(font_);
    ::DeleteObject(big_font_);
  }

  void OnThread(std::function<void()> work) {
    if (!hidden_) return;
    auto* posted = new std::function<void()>(std::move(work));
    if (!::PostMessageW(hidden_, kRunWork, 1,
                        reinterpret_cast<LPARAM>(posted))) {
      delete posted;
    }
  }

  void Event(std::function<void(DesktopEvents&)> raise) {
    loop_.Post([this, raise = std::move(raise)] { raise(events_); });
  }

  NOTIFYICONDATAW IconData() {
    NOTIFYICONDATAW data{};
    data.cbSize = sizeof data;
    data.hWnd = hidden_;
    data.uID = kIconId;
    return data;
  }

  void UpdateIcon() {
    if (!icon_) return;
    NOTIFYICONDATAW data = IconData();
    data.uFlags = NIF_ICON | NIF_TIP | NIF_MESSAGE;
    data.uCallbackMessage = kIconEvent;
    data.hIcon = icon_;
    Fill(data.szTip, tooltip_);
    if (icon_added_) {
      icon_added_ = ::Shell_NotifyIconW(NIM_MODIFY, &data);
    }
    if (!icon_added_) {
      icon_added_ = ::Shell_NotifyIconW(NIM_ADD, &data);
    }
    if (!icon_added_ && !retry_timer_) {
      // No notification area yet: try again until the shell is there.
      retry_timer_ = ::SetTimer(hidden_, 1, 2000, nullptr);
    } else if (icon_added_ && retry_timer_) {
      ::KillTimer(hidden_, retry_timer_);
      retry_timer_ = 0;
    }
  }

  void RemoveIcon() {
    if (!icon_added_) return;
    NOTIFYICONDATAW data = IconData();
    ::Shell_NotifyIconW(NIM_DELETE, &data);
    icon_added_ = false;
  }

  void OpenMenu() {
    HMENU menu = ::CreatePopupMenu();
    for (const MenuEntry& e : menu_) {
      if (e.id == 0) {
        ::AppendMenuW(menu, MF_SEPARATOR, 0, nullptr);
        continue;
      }
      ::AppendMenuW(menu, MF_STRING | (e.checked ? MF_CHECKED : 0),
                    static_cast<UINT_PTR>(e.id), Wide(e.text).c_str());
      if (e.is_default) ::SetMenuDefaultItem(menu, e.id, FALSE);
    }
    POINT at;
    ::GetCursorPos(&at);
    // The menu closes when the user clicks elsewhere only if our window is
    // in the foreground, and the message after it lets it really close.
    ::SetForegroundWindow(hidden_);
    const int chosen = static_cast<int>(::TrackPopupMenu(
        menu, TPM_RIGHTBUTTON | TPM_RETURNCMD | TPM_NONOTIFY, at.x, at.y, 0,
        hidden_, nullptr));
    ::PostMessageW(hidden_, WM_NULL, 0, 0);
    ::DestroyMenu(menu);
    if (chosen > 0) {
      Event([chosen](DesktopEvents& e) {
        if (e.on_menu) e.on_menu(chosen);
      });
    }
  }

  LRESULT Handle(HWND window, UINT message, WPARAM w, LPARAM l) {
    if (message == kRunWork) {
      auto* work = reinterpret_cast<std::function<void()>*>(l);
      (*work)();
      if (w == 1) delete work;
      return 0;
    }
    if (window == hidden_) {
      if (message == kIconEvent && w == kIconId) {
        if (l == WM_RBUTTONUP || l == WM_CONTEXTMENU) OpenMenu();
        if (l == WM_LBUTTONDBLCLK) {
          Event([](DesktopEvents& e) {
            if (e.on_open) e.on_open();
          });
        }
        return 0;
      }
      if (message == taskbar_created_ && taskbar_created_ != 0) {
        icon_added_ = false;  // a new shell: the icon must be added again
        UpdateIcon();
        return 0;
      }
      switch (message) {
        case WM_TIMER:
          UpdateIcon();
          return 0;
        case WM_QUERYENDSESSION:
          return TRUE;
        case WM_ENDSESSION:
          if (w) {
            RemoveIcon();
            Event([](DesktopEvents& e) {
              if (e.on_close) e.on_close();
            });
          }
          return 0;
        case WM_DESTROY:
          ::PostQuitMessage(0);
          return 0;
      }
    } else if (window == warning_) {
      if ((message == WM_COMMAND && LOWORD(w) == kOkButton) ||
          (message == WM_COMMAND &&
           (LOWORD(w) == IDOK || LOWORD(w) == IDCANCEL))) {
        ::DestroyWindow(warning_);
        return 0;
      }
      if (message == WM_DESTROY) warning_ = nullptr;
    } else if (window == status_) {
      switch (message) {
        case WM_SIZE:
          ::MoveWindow(status_text_, 0, 0, LOWORD(l), HIWORD(l), TRUE);
          return 0;
        case WM_CLOSE:
          ::ShowWindow(status_, SW_HIDE);
          return 0;
        case WM_DESTROY:
          status_ = nullptr;
          return 0;
      }
    }
    return ::DefWindowProcW(window, message, w, l);
  }

  static LRESULT CALLBACK Procedure(HWND window, UINT message, WPARAM w,
                                    LPARAM l) {
    if (message == WM_NCCREATE) {
      auto* create = reinterpret_cast<CREATESTRUCTW*>(l);
      ::SetWindowLongPtrW(window, GWLP_USERDATA,
                          reinterpret_cast<LONG_PTR>(create->lpCreateParams));
    }
    auto* self = reinterpret_cast<WindowsDesktop*>(
        ::GetWindowLongPtrW(window, GWLP_USERDATA));
    if (!self) return ::DefWindowProcW(window, message, w, l);
    // Messages that come before CreateWindowEx returned its handle.
    if (!self->hidden_ && message != kRunWork) self->hidden_ = window;
    return self->Handle(window, message, w, l);
  }

  Platform& loop_;
  DesktopEvents events_;
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable ready_;
  bool started_ = false;
  HANDLE instance_ = nullptr;
  // Touched on the desktop thread only, once Start has returned.
  HWND hidden_ = nullptr;
  HWND warning_ = nullptr;
  HWND status_ = nullptr;
  HWND status_text_ = nullptr;
  std::wstring shown_status_;
  HFONT font_ = nullptr;
  HFONT big_font_ = nullptr;
  HICON icon_ = nullptr;
  std::wstring tooltip_;
  bool icon_added_ = false;
  UINT_PTR retry_timer_ = 0;
  UINT taskbar_created_ = 0;
  std::vector<MenuEntry> menu_;
  bool confirming_ = false;
};

}  // namespace

std::unique_ptr<Desktop> NewDesktop(Platform& loop) {
  return std::make_unique<WindowsDesktop>(loop);
}

}  // namespace platform
