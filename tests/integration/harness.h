// Runs the real program binary in a throw-away program folder. Each test
// process has its own network namespace (netns_main.cc), so the program's
// fixed ports are private to the test that started it.
#ifndef KOVRAN_TESTS_INTEGRATION_HARNESS_H_
#define KOVRAN_TESTS_INTEGRATION_HARNESS_H_

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"

namespace kovran::integration {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

inline constexpr char kEndLine[] = "QueryUnload Program ended";
// Message 51 of the shipped language file behind "New Start /".
inline const std::string kStartLine =
    "New Start /KOVRAN UPS shutdown client started";

inline bool WaitUntil(const std::function<bool()>& done,
                      Clock::duration timeout = std::chrono::seconds(10)) {
  for (const auto deadline = Clock::now() + timeout; !done();
       std::this_thread::sleep_for(std::chrono::milliseconds(5))) {
    if (Clock::now() >= deadline) return false;
  }
  return true;
}

inline std::string ReadFile(const std::string& path) {
  return (std::ostringstream() << std::ifstream(path).rdbuf()).str();
}

// What `command` writes to its standard output, run by the shell.
inline std::string Shell(const std::string& command) {
  std::string out;
  FILE* pipe = ::popen(command.c_str(), "r");
  for (int c; pipe && (c = std::fgetc(pipe)) != EOF;) out += char(c);
  if (pipe) ::pclose(pipe);
  return out;
}

inline sockaddr_in Address(const char* host, int port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  ::inet_pton(AF_INET, host, &a.sin_addr);
  return a;
}

inline void SetTimeout(int fd, int ms) {
  const timeval tv{ms / 1000, ms % 1000 * 1000};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
}

// A socket bound to `port` on every address, with a 2 s receive timeout.
inline int Bound(int type, int port) {
  const int fd = ::socket(AF_INET, type, 0);
  SetTimeout(fd, 2000);
  const sockaddr_in a = Address("0.0.0.0", port);
  if (port != 0) {
    EXPECT_EQ(::bind(fd, (const sockaddr*)&a, sizeof a), 0) << port;
  }
  return fd;
}

// Local window 1 of the shipped settings: listens on 5000, speaks to 5001.
struct Window {
  Window() = default;
  Window(const Window&) = delete;
  ~Window() { ::close(fd); }
  // The answer, or "(none)" when none came within `wait_ms`.
  std::string Ask(const std::string& request, int wait_ms = 2000) {
    char buffer[70000];
    while (::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT) >= 0)
      continue;  // late ones
    SetTimeout(fd, wait_ms);
    const sockaddr_in to = Address("127.0.0.1", 5001);
    ::sendto(fd, request.data(), request.size(), 0, (const sockaddr*)&to,
             sizeof to);
    const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
    return n < 0 ? "(none)" : std::string(buffer, n);
  }
  // The program has bound its sockets, which it does at start-up right
  // before it opens the control port.
  bool Ready() {
    return WaitUntil([&] { return Ask("LABELS", 100) != "(none)"; });
  }
  int fd = Bound(SOCK_DGRAM, 5000);
};

// A started process, killed on destruction if still running, with stdout and
// stderr appended to the file `output`. It runs in "/": the program must find
// its files beside the executable.
class Program {
 public:
  Program(std::vector<std::string> argv, const std::string& output) {
    std::vector<char*> args;
    for (auto& arg : argv) args.push_back(arg.data());
    args.push_back(nullptr);
    if ((pid_ = ::fork()) < 0) throw std::runtime_error("fork failed");
    if (pid_ > 0) return;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int out = ::open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (out >= 0 && ::chdir("/") == 0 && ::dup2(out, 1) == 1 &&
        ::dup2(out, 2) == 2) {
      ::close_range(3, ~0u, 0);
      ::execv(args[0], args.data());
    }
    ::_exit(127);
  }
  ~Program() {
    if (Running() && ::kill(pid_, SIGKILL) == 0) ::waitpid(pid_, nullptr, 0);
  }

  pid_t pid() const { return pid_; }
  bool Running() {
    if (!ended_) ended_ = ::waitpid(pid_, &status_, WNOHANG) == pid_;
    return !ended_;
  }
  // The exit status, 128 + the killing signal, or -1 if still running.
  int WaitForExit() {
    if (!WaitUntil([this] { return !Running(); })) return -1;
    return WIFEXITED(status_) ? WEXITSTATUS(status_) : 128 + WTERMSIG(status_);
  }
  void ExpectOrderlyEnd(int sig = SIGTERM) {
    ASSERT_TRUE(Running() && ::kill(pid_, sig) == 0);
    EXPECT_EQ(WaitForExit(), 0);
  }

 private:
  pid_t pid_;
  int status_ = 0;
  bool ended_ = false;
};

// A temporary program folder: the binary as `kovran`, the shipped upsser.cfg
// and LANGSE1.TXT, an empty SERLOGS. Destruction kills what was started from
// it, after showing its log and outputs if the test failed.
class ProgramFolder {
 public:
  ProgramFolder() : path_(fs::temp_directory_path() / "kovran-it-XXXXXX") {
    if (::mkdtemp(path_.data()) == nullptr) throw std::runtime_error(path_);
    fs::copy_file(KOVRAN_BINARY, Path("kovran"));
    fs::copy(KOVRAN_DIST_DIR "/upsser.cfg", path_);
    fs::copy(KOVRAN_DIST_DIR "/LANGSE1.TXT", path_);
    fs::create_directory(Path("SERLOGS"));
  }
  ~ProgramFolder() {
    for (const auto& file : fs::recursive_directory_iterator(path_)) {
      const auto type = file.path().extension();
      if (::testing::Test::HasFailure() && (type == ".out" || type == ".CLG")) {
        std::cerr << file.path() << ":\n" << ReadFile(file.path());
      }
    }
    programs_.clear();
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }

  std::string Path(const std::string& name) const { return path_ + "/" + name; }
  void Write(const std::string& name, const std::string& text) {
    std::ofstream(Path(name), std::ios::binary) << text;
  }
  // Replaces the line "KEY:..." of upsser.cfg by `setting`, "KEY:value".
  void SetSetting(const std::string& setting) {
    const std::regex line("\n" + setting.substr(0, setting.find(':')) +
                          ":[^\r\n]*");
    Write("upsser.cfg", std::regex_replace(ReadFile(Path("upsser.cfg")), line,
                                           "\n" + setting));
  }

  // Starts `argv`, by default the program of this folder, with its output in
  // "N.out", N counting from 0.
  Program& Start(std::vector<std::string> argv = {}) {
    if (argv.empty()) argv = {Path("kovran")};
    const std::string output = Path(std::to_string(programs_.size()) + ".out");
    return *programs_.emplace_back(std::make_unique<Program>(argv, output));
  }

  // The complete lines of SERLOGS/*.CLG, oldest month first, without their
  // time stamps "dd-mm-yyyy--hh:mm:ss.." unless `stamps`.
  std::vector<std::string> Log(bool stamps = false) const {
    std::set<fs::path> files;
    std::error_code missing;
    for (const auto& entry : fs::directory_iterator(Path("SERLOGS"), missing)) {
      if (entry.path().extension() == ".CLG") files.insert(entry.path());
    }
    std::string text;
    for (const auto& file : files) text += ReadFile(file);
    std::vector<std::string> lines;
    for (std::size_t start = 0, end;
         (end = text.find("\r\n", start)) != std::string::npos;
         start = end + 2) {
      lines.push_back(
          text.substr(start, end - start).erase(0, stamps ? 0 : 22));
    }
    return lines;
  }
  bool WaitForLog(const std::string& line) {
    return WaitUntil([&] { return std::ranges::count(Log(), line) > 0; });
  }

 private:
  std::string path_;
  std::vector<std::unique_ptr<Program>> programs_;
};

// Another machine on a LAN with this test's namespace: a network namespace of
// its own, kept by a sleeping process of `folder`, joined by a veth pair whose
// end `link` stays here (down, for the caller to address or bridge) and whose
// end eth0 there is up with `address` ("198.51.100.2/24").
class RemoteHost {
 public:
  RemoteHost(ProgramFolder& folder, const std::string& link,
             const std::string& address)
      : link_(link) {
    const pid_t pid =
        folder.Start({"/usr/bin/unshare", "-n", "sleep", "3600"}).pid();
    ns_ = "/proc/" + std::to_string(pid) + "/ns/net";
    EXPECT_TRUE(WaitUntil([&] {
      std::error_code gone;
      return fs::read_symlink(ns_, gone) !=
             fs::read_symlink("/proc/self/ns/net");
    }));
    const std::string veth = "ip link add " + link +
                             " type veth peer name eth0 netns " +
                             std::to_string(pid) + " && " + In() +
                             "sh -c 'ip link set lo up && ip addr add " +
                             address + " dev eth0 && ip link set eth0 up'";
    EXPECT_EQ(std::system(veth.c_str()), 0) << veth;
  }
  ~RemoteHost() {
    const std::string del = "ip link del " + link_ + " 2>/dev/null";
    [[maybe_unused]] const int status = std::system(del.c_str());
  }
  // The path of its namespace, for nsenter --net=.
  const std::string& ns() const { return ns_; }
  // A prefix that runs a shell command there.
  std::string In() const { return "nsenter --net=" + ns_ + " "; }

 private:
  std::string link_, ns_;
};

}  // namespace kovran::integration

#endif  // KOVRAN_TESTS_INTEGRATION_HARNESS_H_
