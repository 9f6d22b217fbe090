#include "tests/integration/harness.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "gtest/gtest.h"

namespace kovran::integration {

namespace fs = std::filesystem;

bool WaitUntil(const std::function<bool()>& done, Clock::duration timeout) {
  const auto deadline = Clock::now() + timeout;
  while (!done()) {
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string StartLine() {
  std::istringstream lines(ReadFile(KOVRAN_DIST_DIR "/LANGSE1.TXT"));
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("051 ", 0) != 0) continue;
    line.erase(line.find_last_not_of(" \r") + 1);
    return "New Start /" + line.substr(4);
  }
  throw std::runtime_error("the shipped language file has no message 51");
}

long long TcpStatistic(const std::string& name) {
  std::istringstream table(ReadFile("/proc/self/net/snmp"));
  // Pairs of lines: "Tcp: Name1 Name2 ..." and "Tcp: value1 value2 ...".
  for (std::string names, values;
       std::getline(table, names) && std::getline(table, values);) {
    if (names.rfind("Tcp:", 0) != 0) continue;
    std::istringstream name_list(names);
    std::istringstream value_list(values);
    for (std::string key, value; name_list >> key && value_list >> value;) {
      if (key == name) return std::stoll(value);
    }
  }
  return -1;
}

// --- Program -----------------------------------------------------------------

Program::Program(const std::string& executable, const std::string& output) {
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
  // The program must find its files beside the executable, not in the
  // working directory.
  if (::chdir("/") != 0) ::_exit(127);
  ::execl(executable.c_str(), "kovran", static_cast<char*>(nullptr));
  ::_exit(127);
}

Program::~Program() {
  if (!Running()) return;
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
}

bool Program::Running() {
  int status = 0;
  if (!exit_status_ && ::waitpid(pid_, &status, WNOHANG) == pid_) {
    exit_status_ =
        WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  return !exit_status_;
}

bool Program::Signal(int sig) { return Running() && ::kill(pid_, sig) == 0; }

int Program::WaitForExit(Clock::duration timeout) {
  WaitUntil([this] { return !Running(); }, timeout);
  return exit_status_.value_or(-1);
}

bool Program::WaitUntilCatching(int sig) {
  const std::string status_file = "/proc/" + std::to_string(pid_) + "/status";
  return WaitUntil([&] {
    std::istringstream status(ReadFile(status_file));
    for (std::string line; Running() && std::getline(status, line);) {
      if (line.rfind("SigCgt:", 0) == 0) {
        return (std::stoull(line.substr(7), nullptr, 16) >> (sig - 1) & 1) != 0;
      }
    }
    return false;
  });
}

// --- ProgramFolder -----------------------------------------------------------

ProgramFolder::ProgramFolder() {
  std::string pattern = fs::temp_directory_path() / "kovran-integration-XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error("mkdtemp failed for " + pattern);
  }
  path_ = pattern;
  fs::copy_file(KOVRAN_BINARY, Path("kovran"));
  for (const char* name : {"upsser.cfg", "LANGSE1.TXT"}) {
    fs::copy_file(fs::path(KOVRAN_DIST_DIR) / name, Path(name));
  }
  fs::create_directory(Path("SERLOGS"));
}

ProgramFolder::~ProgramFolder() {
  programs_.clear();
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

std::string ProgramFolder::Path(const std::string& name) const {
  return path_ + "/" + name;
}

void ProgramFolder::Write(const std::string& name, const std::string& text,
                          bool executable) {
  std::ofstream(Path(name), std::ios::binary) << text;
  if (executable) {
    fs::permissions(Path(name), fs::perms::owner_exec, fs::perm_options::add);
  }
}

void ProgramFolder::SetSetting(const std::string& key,
                               const std::string& value) {
  std::string text = ReadFile(Path("upsser.cfg"));
  const auto at = text.find("\n" + key + ":");
  if (at == std::string::npos) throw std::logic_error("no setting " + key);
  const auto end = text.find_first_of("\r\n", at + 1);
  Write("upsser.cfg", text.replace(at + 1, end - at - 1, key + ":" + value));
}

void ProgramFolder::Remove(const std::string& name) {
  fs::remove_all(Path(name));
}

bool ProgramFolder::Exists(const std::string& name) const {
  return fs::exists(Path(name));
}

Program& ProgramFolder::Start() {
  const std::string output =
      Path("output-" + std::to_string(programs_.size() + 1) + ".txt");
  return *programs_.emplace_back(
      std::make_unique<Program>(Path("kovran"), output));
}

std::vector<std::string> ProgramFolder::Log(bool stamps) const {
  std::vector<fs::path> files;
  std::error_code missing;
  for (const auto& entry : fs::directory_iterator(Path("SERLOGS"), missing)) {
    if (entry.path().extension() == ".CLG") files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  std::vector<std::string> lines;
  for (const auto& file : files) {
    const std::string text = ReadFile(file);
    // Only complete lines: one being written has no CR LF yet.
    for (std::size_t start = 0, end;
         (end = text.find("\r\n", start)) != std::string::npos;
         start = end + 2) {
      lines.push_back(text.substr(start, end - start));
      if (!stamps) lines.back().erase(0, kStampLength);
    }
  }
  return lines;
}

bool ProgramFolder::WaitForLog(const std::string& text,
                               Clock::duration timeout) {
  return WaitUntil(
      [&] {
        const auto lines = Log();
        return std::any_of(lines.begin(), lines.end(), [&](const auto& line) {
          return line.find(text) != std::string::npos;
        });
      },
      timeout);
}

std::string ProgramFolder::Describe() const {
  std::string text = "program folder " + path_ + "\nlog:\n";
  for (const auto& line : Log(/*stamps=*/true)) text += "  " + line + "\n";
  for (std::size_t i = 1; i <= programs_.size(); ++i) {
    const std::string name = "output-" + std::to_string(i) + ".txt";
    text += name + ":\n" + ReadFile(Path(name));
  }
  return text;
}

void ExpectOrderlyEnd(ProgramFolder& folder, Program& program, int sig) {
  ASSERT_TRUE(program.Signal(sig)) << folder.Describe();
  EXPECT_EQ(program.WaitForExit(), 0) << folder.Describe();
}

}  // namespace kovran::integration
