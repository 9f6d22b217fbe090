#include "tests/integration/harness.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace kovran::integration {

namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kPollInterval{5};

std::string ReadWholeFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void WriteWholeFile(const fs::path& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  out.close();
  if (!out) throw std::runtime_error("cannot write " + path.string());
}

// Calls `poll` every few milliseconds until it returns true or `timeout`
// has passed; the result of the last call.
bool PollUntil(const std::function<bool()>& poll,
               std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (true) {
    if (poll()) return true;
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(kPollInterval);
  }
}

}  // namespace

bool IsLogStamp(std::string_view stamp) {
  static constexpr std::string_view kPattern = "dd-mm-yyyy--hh:mm:ss..";
  if (stamp.size() != kPattern.size()) return false;
  for (std::size_t i = 0; i < kPattern.size(); ++i) {
    const bool wants_digit =
        std::isalpha(static_cast<unsigned char>(kPattern[i]));
    if (wants_digit ? !std::isdigit(static_cast<unsigned char>(stamp[i]))
                    : stamp[i] != kPattern[i]) {
      return false;
    }
  }
  const auto number = [&](std::size_t at) {
    return (stamp[at] - '0') * 10 + (stamp[at + 1] - '0');
  };
  return number(0) >= 1 && number(0) <= 31 && number(3) >= 1 &&
         number(3) <= 12 && number(12) <= 23 && number(15) <= 59 &&
         number(18) <= 59;
}

std::string DescribeWaitStatus(std::optional<int> wait_status) {
  if (!wait_status) return "still running";
  if (WIFEXITED(*wait_status)) {
    return "exited with status " + std::to_string(WEXITSTATUS(*wait_status));
  }
  if (WIFSIGNALED(*wait_status)) {
    return "killed by signal " + std::to_string(WTERMSIG(*wait_status));
  }
  return "wait status " + std::to_string(*wait_status);
}

bool WaitUntil(const std::function<bool()>& done,
               std::chrono::milliseconds timeout) {
  return PollUntil(done, timeout);
}

std::optional<long long> TcpStatistic(const std::string& name) {
  std::istringstream table(ReadWholeFile("/proc/self/net/snmp"));
  std::string names;
  std::string values;
  // Pairs of lines: "Tcp: Name1 Name2 ..." and "Tcp: value1 value2 ...".
  while (std::getline(table, names) && std::getline(table, values)) {
    if (names.rfind("Tcp:", 0) != 0) continue;
    std::istringstream name_list(names);
    std::istringstream value_list(values);
    std::string key;
    std::string value;
    while (name_list >> key && value_list >> value) {
      if (key == name) return std::strtoll(value.c_str(), nullptr, 10);
    }
  }
  return std::nullopt;
}

std::string DistFile(const std::string& name) {
  return ReadWholeFile(fs::path(KOVRAN_DIST_DIR) / name);
}

std::string LanguageMessage(const std::string& language_file, int number) {
  std::istringstream lines(language_file);
  std::string line;
  while (std::getline(lines, line)) {
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) {
      line.pop_back();
    }
    line.erase(0, std::min(line.find_first_not_of(' '), line.size()));
    if (line.size() > 4 && std::atoi(line.substr(0, 3).c_str()) == number) {
      return line.substr(4);
    }
  }
  return "";
}

// --- ProgramProcess ---------------------------------------------------------

ProgramProcess::ProgramProcess(const std::string& executable,
                               const std::string& output) {
  const pid_t parent = ::getpid();
  pid_ = ::fork();
  if (pid_ < 0) throw std::runtime_error("fork failed");
  if (pid_ > 0) return;
  // Child: never outlive the test process.
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != parent) ::_exit(127);
  const int in = ::open("/dev/null", O_RDONLY);
  const int out = ::open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  if (in < 0 || out < 0) ::_exit(127);
  ::dup2(in, 0);
  ::dup2(out, 1);
  ::dup2(out, 2);
  ::close_range(3, ~0u, 0);
  for (int sig = 1; sig < NSIG; ++sig) ::signal(sig, SIG_DFL);
  sigset_t none;
  sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  // The program must find its files beside the executable, not in the
  // working directory.
  if (::chdir("/") != 0) ::_exit(127);
  ::execl(executable.c_str(), "kovran", static_cast<char*>(nullptr));
  ::_exit(127);
}

ProgramProcess::~ProgramProcess() {
  if (!IsRunning()) return;
  ::kill(pid_, SIGKILL);
  int status = 0;
  while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
}

bool ProgramProcess::IsRunning() {
  if (status_) return false;
  int status = 0;
  const pid_t done = ::waitpid(pid_, &status, WNOHANG);
  if (done == pid_) status_ = status;
  return !status_;
}

bool ProgramProcess::Signal(int sig) {
  return IsRunning() && ::kill(pid_, sig) == 0;
}

std::optional<int> ProgramProcess::WaitForExit(
    std::chrono::milliseconds timeout) {
  PollUntil([this] { return !IsRunning(); }, timeout);
  return status_;
}

bool ProgramProcess::WaitUntilCatching(int sig,
                                       std::chrono::milliseconds timeout) {
  const std::string status_file = "/proc/" + std::to_string(pid_) + "/status";
  return PollUntil(
      [&] {
        if (!IsRunning()) return false;
        std::istringstream status(ReadWholeFile(status_file));
        std::string line;
        while (std::getline(status, line)) {
          if (line.rfind("SigCgt:", 0) != 0) continue;
          const unsigned long long caught =
              std::strtoull(line.c_str() + 7, nullptr, 16);
          return ((caught >> (sig - 1)) & 1) != 0;
        }
        return false;
      },
      timeout);
}

// --- ProgramFolder ----------------------------------------------------------

ProgramFolder::ProgramFolder(bool shipped_files) {
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern =
      std::string(tmp && *tmp ? tmp : "/tmp") + "/kovran-integration-XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error("mkdtemp failed for " + pattern);
  }
  path_ = pattern;
  const fs::path program = FilePath("kovran");
  fs::copy_file(KOVRAN_BINARY, program);
  fs::permissions(program, fs::perms::owner_all | fs::perms::group_read |
                               fs::perms::group_exec | fs::perms::others_read |
                               fs::perms::others_exec);
  if (!shipped_files) return;
  for (const char* name : {"upsser.cfg", "LANGSE1.TXT"}) {
    fs::copy_file(fs::path(KOVRAN_DIST_DIR) / name, FilePath(name));
  }
  fs::create_directory(FilePath("SERLOGS"));
}

ProgramFolder::~ProgramFolder() {
  program_.reset();
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

std::string ProgramFolder::FilePath(const std::string& name) const {
  return path_ + "/" + name;
}

void ProgramFolder::WriteFile(const std::string& name,
                              const std::string& text) {
  WriteWholeFile(FilePath(name), text);
}

void ProgramFolder::WriteExecutable(const std::string& name,
                                    const std::string& text) {
  WriteFile(name, text);
  fs::permissions(FilePath(name), fs::perms::owner_all | fs::perms::group_read |
                                      fs::perms::group_exec |
                                      fs::perms::others_read |
                                      fs::perms::others_exec);
}

void ProgramFolder::RemoveFile(const std::string& name) {
  fs::remove_all(FilePath(name));
}

bool ProgramFolder::Exists(const std::string& name) const {
  return fs::exists(FilePath(name));
}

std::string ProgramFolder::ReadFile(const std::string& name) const {
  return ReadWholeFile(FilePath(name));
}

void ProgramFolder::Start() {
  if (program_) throw std::logic_error("the program was started already");
  program_ = StartAnother();
}

std::unique_ptr<ProgramProcess> ProgramFolder::StartAnother() {
  const std::string output =
      FilePath("output-" + std::to_string(++outputs_) + ".txt");
  return std::make_unique<ProgramProcess>(FilePath("kovran"), output);
}

std::optional<int> ProgramFolder::WaitForExit(
    std::chrono::milliseconds timeout) {
  if (!program_) return std::nullopt;
  return program_->WaitForExit(timeout);
}

std::vector<std::string> ProgramFolder::RawLogLines() const {
  std::vector<fs::path> files;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(FilePath("SERLOGS"), error)) {
    if (entry.path().extension() == ".CLG") files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  std::vector<std::string> lines;
  for (const auto& file : files) {
    const std::string text = ReadWholeFile(file);
    // Only complete lines: one being written has no CR LF yet.
    for (std::size_t start = 0, end;
         (end = text.find("\r\n", start)) != std::string::npos;
         start = end + 2) {
      lines.push_back(text.substr(start, end - start));
    }
  }
  return lines;
}

std::vector<std::string> ProgramFolder::LogLines() const {
  std::vector<std::string> lines = RawLogLines();
  for (auto& line : lines) {
    line.erase(0, std::min(line.size(), kStampLength));
  }
  return lines;
}

bool ProgramFolder::WaitForLog(
    const std::function<bool(const std::string&)>& predicate,
    std::chrono::milliseconds timeout) {
  const auto found = [&] {
    const auto lines = LogLines();
    return std::any_of(lines.begin(), lines.end(), predicate);
  };
  PollUntil([&] { return found() || (program_ && !program_->IsRunning()); },
            timeout);
  // The program may have written the line just before it ended.
  return found();
}

bool ProgramFolder::WaitForLog(const std::string& text,
                               std::chrono::milliseconds timeout) {
  return WaitForLog(
      [&](const std::string& line) {
        return line.find(text) != std::string::npos;
      },
      timeout);
}

std::string ProgramFolder::Describe() const {
  std::string text = "program folder " + path_ + "\nlog:\n";
  for (const auto& line : RawLogLines()) text += "  " + line + "\n";
  for (int i = 1; i <= outputs_; ++i) {
    const std::string name = "output-" + std::to_string(i) + ".txt";
    text += name + ":\n" + ReadFile(name);
  }
  return text;
}

}  // namespace kovran::integration
