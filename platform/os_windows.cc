// The OS part of the real platform on Windows: wide-character files and
// paths (UTF-8 inside the program), the local clock, process start, the
// instance mutex, the adapter list, console control events and the service
// KOVRAN.
//
// The service's dispatcher and the console's control events run on threads
// of their own. They never touch the program: they report to the service
// control manager and post into the event loop.
#include "platform/real_platform_impl.h"  // Asio first: it brings winsock2.h

#include <windows.h>
#include <iphlpapi.h>
#include <sddl.h>
#include <ws2tcpip.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <future>
#include <thread>
#include <vector>

namespace platform {

namespace {

// How long ConnectService waits for the service control manager. Windows
// refuses a program it did not start at once (error 1063), Wine only after
// about 10 s.
constexpr auto kServiceConnectDeadline = std::chrono::seconds(30);
// How long a console control event holds the process open for the event
// thread to log the end; Windows itself gives close events 5 s.
constexpr DWORD kCloseGraceMs = 10000;

// The state numbers the service handler reports: pause suspends watching
// the UPS, continue resumes it.
constexpr int kServicePaused = 1;
constexpr int kServiceContinued = 2;

std::wstring Wide(const std::string& utf8) {
  if (utf8.empty()) return {};
  const int n = ::MultiByteToWideChar(CP_UTF8, 0, utf8.data(),
                                      static_cast<int>(utf8.size()), nullptr, 0);
  std::wstring wide(static_cast<std::size_t>(n > 0 ? n : 0), L'\0');
  if (n > 0) {
    ::MultiByteToWideChar(CP_UTF8, 0, utf8.data(),
                          static_cast<int>(utf8.size()), wide.data(), n);
  }
  return wide;
}

std::string Utf8(const std::wstring& wide) {
  if (wide.empty()) return {};
  const int n = ::WideCharToMultiByte(CP_UTF8, 0, wide.data(),
                                      static_cast<int>(wide.size()), nullptr,
                                      0, nullptr, nullptr);
  std::string utf8(static_cast<std::size_t>(n > 0 ? n : 0), '\0');
  if (n > 0) {
    ::WideCharToMultiByte(CP_UTF8, 0, wide.data(),
                          static_cast<int>(wide.size()), utf8.data(), n,
                          nullptr, nullptr);
  }
  return utf8;
}

// The file is shared with readers and writers alike, so that an editor or a
// second copy reading the log never makes a write fail.
HANDLE OpenFile(const std::string& path, DWORD access, DWORD disposition) {
  return ::CreateFileW(Wide(path).c_str(), access,
                       FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                       nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
}

bool WriteAll(HANDLE file, const std::string& data) {
  std::size_t done = 0;
  while (done < data.size()) {
    const DWORD chunk =
        static_cast<DWORD>(std::min<std::size_t>(data.size() - done, 1u << 20));
    DWORD written = 0;
    if (!::WriteFile(file, data.data() + done, chunk, &written, nullptr) ||
        written == 0) {
      return false;
    }
    done += written;
  }
  return true;
}

bool WriteWith(const std::string& path, const std::string& data, DWORD access,
               DWORD disposition) {
  const HANDLE file = OpenFile(path, access, disposition);
  if (file == INVALID_HANDLE_VALUE) return false;
  const bool written = WriteAll(file, data);
  const bool closed = ::CloseHandle(file) != 0;
  return written && closed;
}

bool EndsWithNoCase(const std::wstring& text, const wchar_t* suffix) {
  const std::size_t n = std::wcslen(suffix);
  return text.size() >= n && ::_wcsicmp(text.c_str() + text.size() - n,
                                        suffix) == 0;
}

std::wstring SystemFolder() {
  wchar_t buffer[MAX_PATH];
  const UINT n = ::GetSystemDirectoryW(buffer, MAX_PATH);
  return n > 0 && n < MAX_PATH ? std::wstring(buffer, n) : L"C:\\Windows\\System32";
}

std::wstring ExecutablePath() {
  std::wstring path(MAX_PATH, L'\0');
  while (path.size() <= 32768) {
    const DWORD n = ::GetModuleFileNameW(nullptr, path.data(),
                                         static_cast<DWORD>(path.size()));
    if (n == 0) return {};
    if (n < path.size()) {
      path.resize(n);
      return path;
    }
    path.resize(path.size() * 2);
  }
  return {};
}

// The system's own text for error `number`, in the ANSI code page.
std::string ErrorText(DWORD number) {
  char buffer[512];
  DWORD n = ::FormatMessageA(
      FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
      number, 0, buffer, sizeof buffer, nullptr);
  while (n > 0 && (buffer[n - 1] == '\r' || buffer[n - 1] == '\n' ||
                   buffer[n - 1] == ' ' || buffer[n - 1] == '.')) {
    --n;
  }
  return n > 0 ? std::string(buffer, n) : "error " + std::to_string(number);
}

SystemError LastError() {
  const DWORD number = ::GetLastError();
  return {static_cast<int>(number), ErrorText(number)};
}

// A process started with this as its standard input, output and error, and
// no other handle of ours: a batch file's "pause" then ends at once instead
// of waiting for a key nobody can press in a hidden window.
class NulHandles {
 public:
  NulHandles() {
    SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
    nul_ = ::CreateFileW(L"NUL", GENERIC_READ | GENERIC_WRITE,
                         FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit,
                         OPEN_EXISTING, 0, nullptr);
    SIZE_T size = 0;
    ::InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
    buffer_.resize(size);
    list_ = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(buffer_.data());
    ready_ = nul_ != INVALID_HANDLE_VALUE &&
             ::InitializeProcThreadAttributeList(list_, 1, 0, &size) &&
             ::UpdateProcThreadAttribute(list_, 0,
                                         PROC_THREAD_ATTRIBUTE_HANDLE_LIST,
                                         &nul_, sizeof nul_, nullptr, nullptr);
  }
  ~NulHandles() {
    if (!buffer_.empty()) ::DeleteProcThreadAttributeList(list_);
    if (nul_ != INVALID_HANDLE_VALUE) ::CloseHandle(nul_);
  }
  // Fills `startup` in; false when NUL could not be opened.
  bool Use(STARTUPINFOEXW& startup) {
    if (!ready_) return false;
    startup.StartupInfo.dwFlags |= STARTF_USESTDHANDLES;
    startup.StartupInfo.hStdInput = startup.StartupInfo.hStdOutput =
        startup.StartupInfo.hStdError = nul_;
    startup.lpAttributeList = list_;
    return true;
  }

 private:
  HANDLE nul_ = INVALID_HANDLE_VALUE;
  std::vector<unsigned char> buffer_;
  LPPROC_THREAD_ATTRIBUTE_LIST list_ = nullptr;
  bool ready_ = false;
};

// SE_SHUTDOWN_NAME, which even LocalSystem holds disabled.
bool EnableShutdownPrivilege() {
  HANDLE token = nullptr;
  if (!::OpenProcessToken(::GetCurrentProcess(),
                          TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, &token)) {
    return false;
  }
  TOKEN_PRIVILEGES privileges{};
  privileges.PrivilegeCount = 1;
  privileges.Privileges[0].Attributes = SE_PRIVILEGE_ENABLED;
  const bool enabled =
      ::LookupPrivilegeValueW(nullptr, L"SeShutdownPrivilege",
                              &privileges.Privileges[0].Luid) &&
      ::AdjustTokenPrivileges(token, FALSE, &privileges, 0, nullptr, nullptr) &&
      ::GetLastError() == ERROR_SUCCESS;  // not ERROR_NOT_ALL_ASSIGNED
  ::CloseHandle(token);
  return enabled;
}

// The IPv4 addresses of the adapters, the loopback's too unless
// `skip_loopback`; with `up_only`, only adapters that are up.
std::vector<std::string> AdapterAddresses(bool skip_loopback, bool up_only) {
  std::vector<std::string> addresses;
  ULONG size = 16 * 1024;
  std::vector<unsigned char> buffer;
  ULONG result = ERROR_BUFFER_OVERFLOW;
  for (int attempt = 0; attempt < 3 && result == ERROR_BUFFER_OVERFLOW;
       ++attempt) {
    buffer.resize(size);
    result = ::GetAdaptersAddresses(
        AF_INET,
        GAA_FLAG_SKIP_ANYCAST | GAA_FLAG_SKIP_MULTICAST |
            GAA_FLAG_SKIP_DNS_SERVER,
        nullptr, reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buffer.data()),
        &size);
  }
  if (result != NO_ERROR) return addresses;
  for (auto* a = reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buffer.data()); a;
       a = a->Next) {
    if (skip_loopback && a->IfType == IF_TYPE_SOFTWARE_LOOPBACK) continue;
    if (up_only && a->OperStatus != IfOperStatusUp) continue;
    for (auto* u = a->FirstUnicastAddress; u; u = u->Next) {
      const sockaddr* address = u->Address.lpSockaddr;
      if (!address || address->sa_family != AF_INET) continue;
      char text[INET_ADDRSTRLEN];
      const auto* in = reinterpret_cast<const sockaddr_in*>(address);
      if (::inet_ntop(AF_INET, &in->sin_addr, text, sizeof text)) {
        addresses.push_back(text);
      }
    }
  }
  return addresses;
}

}  // namespace

struct OsState {
  explicit OsState(RealPlatform::Impl& i) : impl(i) {}
  ~OsState() {
    if (instance_lock != INVALID_HANDLE_VALUE) ::CloseHandle(instance_lock);
  }

  // Called on the dispatcher's thread (controls) and the event thread (the
  // final report); the service control manager orders the reports.
  void Report(DWORD state, DWORD exit_code = NO_ERROR) {
    SERVICE_STATUS status{};
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status.dwCurrentState = state;
    status.dwControlsAccepted =
        state == SERVICE_RUNNING || state == SERVICE_PAUSED
            ? SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN |
                  SERVICE_ACCEPT_PAUSE_CONTINUE
            : 0;
    status.dwWin32ExitCode =
        exit_code == NO_ERROR ? NO_ERROR : ERROR_SERVICE_SPECIFIC_ERROR;
    status.dwServiceSpecificExitCode = exit_code;
    status.dwWaitHint = state == SERVICE_STOP_PENDING ? kCloseGraceMs : 0;
    ::SetServiceStatus(status_handle.load(), &status);
  }

  RealPlatform::Impl& impl;
  HANDLE instance_lock = INVALID_HANDLE_VALUE;
  // Set by the service's main function once the program is the service.
  std::atomic<SERVICE_STATUS_HANDLE> status_handle{nullptr};
  std::shared_ptr<std::promise<bool>> connected;
};

namespace {

// The service's main function and the console's control handler get no
// context of their own: they find the platform here.
std::atomic<OsState*> the_os{nullptr};

void Settle(const std::shared_ptr<std::promise<bool>>& promise, bool value) {
  try {
    promise->set_value(value);
  } catch (const std::future_error&) {  // settled already
  }
}

DWORD WINAPI ServiceControl(DWORD control, DWORD, void*, void* context) {
  auto* os = static_cast<OsState*>(context);
  switch (control) {
    case SERVICE_CONTROL_STOP:
    case SERVICE_CONTROL_SHUTDOWN:
      os->Report(SERVICE_STOP_PENDING);
      os->impl.PostClose();
      return NO_ERROR;
    case SERVICE_CONTROL_PAUSE:
      os->Report(SERVICE_PAUSED);
      os->impl.PostServiceState(kServicePaused);
      return NO_ERROR;
    case SERVICE_CONTROL_CONTINUE:
      os->Report(SERVICE_RUNNING);
      os->impl.PostServiceState(kServiceContinued);
      return NO_ERROR;
    case SERVICE_CONTROL_INTERROGATE:  // the manager repeats the last report
      return NO_ERROR;
    default:
      return ERROR_CALL_NOT_IMPLEMENTED;
  }
}

// Reports the service running and returns; the dispatcher goes on serving
// controls until the program reports it stopped.
void WINAPI ServiceMain(DWORD, wchar_t**) {
  OsState* os = the_os.load();
  if (!os) return;
  const SERVICE_STATUS_HANDLE handle = ::RegisterServiceCtrlHandlerExW(
      L"KOVRAN", ServiceControl, os);
  if (!handle) {
    Settle(os->connected, false);
    return;
  }
  os->status_handle = handle;
  os->Report(SERVICE_RUNNING);
  Settle(os->connected, true);
}

// Ctrl-C, Ctrl-Break, closing the console, log-off and shutdown end the
// program the way closing the main window does. The process ends when this
// returns, so it waits for the event thread to end it. A service outlives
// the log-off of a user.
BOOL WINAPI ConsoleEvent(DWORD event) {
  OsState* os = the_os.load();
  if (!os) return FALSE;
  if (event == CTRL_LOGOFF_EVENT && os->status_handle.load()) return TRUE;
  os->impl.PostClose();
  ::Sleep(kCloseGraceMs);
  return TRUE;
}

}  // namespace

void OsStateDeleter::operator()(OsState* os) const {
  OsState* expected = os;
  the_os.compare_exchange_strong(expected, nullptr);
  delete os;
}

std::unique_ptr<OsState, OsStateDeleter> StartOs(RealPlatform::Impl& impl) {
  std::unique_ptr<OsState, OsStateDeleter> os(new OsState(impl));
  OsState* none = nullptr;
  if (the_os.compare_exchange_strong(none, os.get())) {
    ::SetConsoleCtrlHandler(ConsoleEvent, TRUE);
  }
  return os;
}

// The service is reported stopped only now, after the program has logged
// its end: the manager may end the process as soon as it hears it.
void BeforeExit(RealPlatform::Impl& impl, int exit_code) {
  if (impl.os->status_handle.load()) {
    impl.os->Report(SERVICE_STOPPED, static_cast<DWORD>(exit_code));
  }
}

double RealPlatform::SecondsSinceMidnight() {
  SYSTEMTIME now{};
  ::GetLocalTime(&now);
  return now.wHour * 3600.0 + now.wMinute * 60.0 + now.wSecond +
         now.wMilliseconds / 1000.0;
}

LocalDate RealPlatform::Today() {
  SYSTEMTIME now{};
  ::GetLocalTime(&now);
  return {now.wYear, now.wMonth, now.wDay};
}

std::string RealPlatform::ProgramFolder() {
  const std::wstring path = ExecutablePath();
  const auto cut = path.find_last_of(L"\\/");
  if (cut == std::wstring::npos) return ".";
  return Utf8(path.substr(0, cut));
}

char RealPlatform::PathSeparator() const { return '\\'; }

std::optional<std::string> RealPlatform::ReadFile(const std::string& path) {
  const HANDLE file = OpenFile(path, GENERIC_READ, OPEN_EXISTING);
  if (file == INVALID_HANDLE_VALUE) return std::nullopt;
  std::string data;
  char buffer[65536];
  bool ok = true;
  while (true) {
    DWORD n = 0;
    if (!::ReadFile(file, buffer, sizeof buffer, &n, nullptr)) ok = false;
    if (!ok || n == 0) break;
    data.append(buffer, n);
    if (data.size() > kMaxReadFileBytes) {
      ok = false;
      break;
    }
  }
  ::CloseHandle(file);
  if (!ok) return std::nullopt;
  return data;
}

// CreateFileW opens no folder without being asked to, so a folder is no
// file here.
bool RealPlatform::CanOpenForReading(const std::string& path) {
  const HANDLE file = OpenFile(path, GENERIC_READ, OPEN_EXISTING);
  if (file == INVALID_HANDLE_VALUE) return false;
  ::CloseHandle(file);
  return true;
}

bool RealPlatform::AppendToFile(const std::string& path,
                                const std::string& data) {
  return WriteWith(path, data, FILE_APPEND_DATA, OPEN_ALWAYS);
}

bool RealPlatform::WriteFile(const std::string& path,
                             const std::string& data) {
  return WriteWith(path, data, GENERIC_WRITE, CREATE_ALWAYS);
}

// Windows programs read 8-bit files in the console (OEM) or the ANSI code
// page; a character either has its exact place there or the text does not
// fit. Where the system runs on UTF-8, a valid UTF-8 text fits as it is.
std::optional<std::string> RealPlatform::InCodePage(const std::string& text,
                                                    CodePage page) {
  const UINT cp = page == CodePage::kConsole ? ::GetOEMCP() : ::GetACP();
  if (text.empty()) return text;
  const int wide_size = ::MultiByteToWideChar(
      CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), static_cast<int>(text.size()),
      nullptr, 0);
  if (wide_size <= 0) return std::nullopt;  // not UTF-8
  if (cp == CP_UTF8) return text;
  std::wstring wide(static_cast<std::size_t>(wide_size), L'\0');
  ::MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(),
                        static_cast<int>(text.size()), wide.data(), wide_size);
  const int n = ::WideCharToMultiByte(cp, WC_NO_BEST_FIT_CHARS, wide.data(),
                                      static_cast<int>(wide.size()), nullptr, 0,
                                      nullptr, nullptr);
  if (n <= 0) return std::nullopt;
  BOOL lost = FALSE;
  std::string out(static_cast<std::size_t>(n), '\0');
  ::WideCharToMultiByte(cp, WC_NO_BEST_FIT_CHARS, wide.data(),
                        static_cast<int>(wide.size()), out.data(), n, nullptr,
                        &lost);
  if (lost) return std::nullopt;
  return out;
}

// The command line is the path of the file to run; it starts in its own
// folder. A batch file runs in the system's cmd.exe. A file that is missing
// is a failure here, since cmd would only fail inside its hidden window.
bool RealPlatform::StartProcess(const std::string& command_line,
                                int window_style) {
  const std::wstring path = Wide(command_line);
  const DWORD attributes = ::GetFileAttributesW(path.c_str());
  if (path.empty() || attributes == INVALID_FILE_ATTRIBUTES ||
      (attributes & FILE_ATTRIBUTE_DIRECTORY)) {
    return false;
  }
  std::wstring application = path;
  std::wstring line = L"\"" + path + L"\"";
  if (EndsWithNoCase(path, L".BAT") || EndsWithNoCase(path, L".CMD")) {
    application = SystemFolder() + L"\\cmd.exe";
    // /s: cmd drops the outer pair of quotes and runs the quoted path as is.
    line = L"cmd.exe /d /s /c \"" + line + L"\"";
  }
  const auto cut = path.find_last_of(L"\\/");
  const std::wstring folder =
      cut == std::wstring::npos ? std::wstring() : path.substr(0, cut);
  STARTUPINFOEXW startup{};
  startup.StartupInfo.cb = sizeof startup;
  startup.StartupInfo.dwFlags = STARTF_USESHOWWINDOW;
  startup.StartupInfo.wShowWindow = static_cast<WORD>(
      window_style == kWindowNormalFocus ? SW_SHOWNORMAL : SW_HIDE);
  NulHandles nul;
  if (!nul.Use(startup)) return false;
  PROCESS_INFORMATION process{};
  if (!::CreateProcessW(application.c_str(), line.data(), nullptr, nullptr,
                        TRUE,
                        CREATE_NEW_CONSOLE | CREATE_UNICODE_ENVIRONMENT |
                            EXTENDED_STARTUPINFO_PRESENT,
                        nullptr, folder.empty() ? nullptr : folder.c_str(),
                        &startup.StartupInfo, &process)) {
    return false;
  }
  ::CloseHandle(process.hThread);
  ::CloseHandle(process.hProcess);
  return true;
}

CommandResult RealPlatform::RunCommand(const std::string& command_line,
                                       double seconds) {
  CommandResult result;
  std::wstring line =
      L"cmd.exe /d /s /c \"" + Wide(command_line) + L"\"";
  STARTUPINFOEXW startup{};
  startup.StartupInfo.cb = sizeof startup;
  NulHandles nul;
  PROCESS_INFORMATION process{};
  if (!nul.Use(startup) ||
      !::CreateProcessW((SystemFolder() + L"\\cmd.exe").c_str(), line.data(),
                        nullptr, nullptr, TRUE,
                        CREATE_NO_WINDOW | CREATE_UNICODE_ENVIRONMENT |
                            EXTENDED_STARTUPINFO_PRESENT,
                        nullptr, nullptr, &startup.StartupInfo, &process)) {
    result.error = LastError();
    return result;
  }
  result.started = true;
  const DWORD ms = static_cast<DWORD>(std::max(seconds, 0.0) * 1000);
  DWORD code = 0;
  if (::WaitForSingleObject(process.hProcess, ms) == WAIT_OBJECT_0 &&
      ::GetExitCodeProcess(process.hProcess, &code)) {
    result.ended = true;
    result.exit_code = static_cast<int>(code);
  }
  ::CloseHandle(process.hThread);
  ::CloseHandle(process.hProcess);
  return result;
}

// InitiateShutdownW works where the service runs, in session 0 with nobody
// logged on; ExitWindowsEx may return success there without switching off.
std::optional<SystemError> RealPlatform::PowerOff() {
  if (!EnableShutdownPrivilege()) return LastError();
  const DWORD error = ::InitiateShutdownW(
      nullptr, nullptr, 0,
      SHUTDOWN_POWEROFF | SHUTDOWN_FORCE_OTHERS | SHUTDOWN_FORCE_SELF,
      SHTDN_REASON_MAJOR_POWER | SHTDN_REASON_MINOR_ENVIRONMENT |
          SHTDN_REASON_FLAG_PLANNED);
  if (error == ERROR_SUCCESS) return std::nullopt;
  return SystemError{static_cast<int>(error), ErrorText(error)};
}

// powrprof.dll is loaded only here, so that the other programs do not
// import it.
std::optional<SystemError> RealPlatform::Hibernate() {
  if (!EnableShutdownPrivilege()) return LastError();
  const HMODULE powrprof = ::LoadLibraryW(L"powrprof.dll");
  using Suspend = BOOLEAN(WINAPI*)(BOOLEAN, BOOLEAN, BOOLEAN);
  const auto suspend = powrprof ? reinterpret_cast<Suspend>(reinterpret_cast<void*>(
                                      ::GetProcAddress(powrprof, "SetSuspendState")))
                                : nullptr;
  if (!suspend) return LastError();
  if (suspend(TRUE, FALSE, FALSE)) return std::nullopt;
  return LastError();
}

int RealPlatform::PlatformNumber() { return kPlatformNt; }

void RealPlatform::ReportWatching(bool watching) {
  if (impl_->os->status_handle.load()) {
    impl_->os->Report(watching ? SERVICE_RUNNING : SERVICE_PAUSED);
  }
}

// The running copy holds KOVRAN.LCK in its program folder open and shares
// it with nobody, so a copy from the same folder cannot open it, whatever
// session it runs in: the service runs in a session of its own, and a copy
// started by a user beside it would take the same ports and could shut the
// PC down twice. The file is made for SYSTEM and the administrators alone:
// an ordinary user can neither make it first (the program folder is one
// only administrators may write) nor open it, so nobody can keep the service
// from starting. A copy that may not open it finds it taken; a folder where
// it cannot be made at all leaves the rule unapplied rather than the UPS
// unwatched.
bool RealPlatform::AnotherInstanceRunning() {
  OsState& os = *impl_->os;
  if (os.instance_lock != INVALID_HANDLE_VALUE) return false;
  const std::wstring path = Wide(ProgramFolder()) + L"\\KOVRAN.LCK";
  const bool existed = ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (!::ConvertStringSecurityDescriptorToSecurityDescriptorW(
          L"D:P(A;;FA;;;SY)(A;;FA;;;BA)", SDDL_REVISION_1, &descriptor,
          nullptr)) {
    descriptor = nullptr;
  }
  SECURITY_ATTRIBUTES attributes{sizeof attributes, descriptor, FALSE};
  os.instance_lock = ::CreateFileW(path.c_str(), GENERIC_READ, 0, &attributes,
                                   OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  const DWORD error = ::GetLastError();
  if (descriptor) ::LocalFree(descriptor);
  if (os.instance_lock != INVALID_HANDLE_VALUE) return false;
  return error == ERROR_SHARING_VIOLATION ||
         (existed && error == ERROR_ACCESS_DENIED);
}

// The first IPv4 address of an adapter that is up and not the loopback, in
// the order the system lists them; 127.0.0.1 on a machine that has no other.
std::string RealPlatform::LocalIPv4Address() {
  const auto addresses = AdapterAddresses(/*skip_loopback=*/true,
                                          /*up_only=*/true);
  return addresses.empty() ? "127.0.0.1" : addresses.front();
}

std::vector<std::string> RealPlatform::LocalAddresses() {
  std::vector<std::string> addresses{"127.0.0.1"};
  for (std::string& a : AdapterAddresses(false, false)) {
    addresses.push_back(std::move(a));
  }
  return addresses;
}

// A thread of its own runs the service dispatcher; the service's main
// function reports running and answers here. Outside the service manager
// the dispatcher fails (error 1063) and so does this.
bool RealPlatform::ConnectService() {
  OsState& os = *impl_->os;
  if (os.status_handle.load()) return true;
  if (the_os.load() != &os) return false;
  auto connected = std::make_shared<std::promise<bool>>();
  std::future<bool> answer = connected->get_future();
  os.connected = connected;
  std::thread([connected] {
    static SERVICE_TABLE_ENTRYW table[] = {
        {const_cast<wchar_t*>(L"KOVRAN"), ServiceMain}, {nullptr, nullptr}};
    // Returns only when the service has stopped or could not start.
    ::StartServiceCtrlDispatcherW(table);
    Settle(connected, false);
  }).detach();
  if (answer.wait_for(kServiceConnectDeadline) != std::future_status::ready) {
    return false;
  }
  return answer.get();
}

}  // namespace platform
