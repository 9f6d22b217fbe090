// pavo-sim: a PAVO server on 127.0.0.1 for trying KOVRAN out by hand.
//
//   pavo-sim [--port N] [--script FILE] [--run-seconds S]
//
// Every connection is one poll: the simulator reads the request line (up to
// CR LF, for at most 2 s), answers the status record that the script made
// current when it accepted the connection, followed by CR LF, and closes.
// A script line is "SECONDS RECORD": from SECONDS after the start on, RECORD
// (the rest of the line, blanks inside kept) is the answer, or one of these
// server troubles:
//   !refuse   no listener: connections are refused until the next line
//   !reset    reads the request line, then aborts the connection (RST)
//   !silent   reads all it gets, never answers, closes only after the client
// Blank lines and lines starting with "//" are ignored. Before the first line
// takes effect, and when no full request line arrives, the connection is
// closed without an answer. Connections are served side by side. The
// simulator ends S seconds after its start (default: the last line's time +
// 120) or on SIGTERM or SIGINT.
//
// Each connection gives one line on stdout when it ends:
//   [ACCEPTED s, ENDED s] request BYTES -> OUTCOME
// with the times since the start, every byte received (bytes outside
// printable ASCII as \xHH: a request line ends in \x0D\x0A) and the record
// sent or what was done instead.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

// The same road as tools/demo-script.txt: mains, a 40 s power failure that
// ends after 12 s, then a 10 s one that runs out.
constexpr char kBuiltInScript[] =
    "0   #000000000000000UPS on mains\n"
    "8   #100000000040000Power failure: UPS running on battery\n"
    "20  #000000000000000Mains power is back\n"
    "40  #100000000010000Power failure again: UPS running on battery\n";

constexpr char kRefuse[] = "!refuse";
constexpr char kReset[] = "!reset";
constexpr char kSilent[] = "!silent";

constexpr int kRequestTimeoutMs = 2000;
constexpr std::size_t kMaxRequestBytes = 1024;
// A silent connection keeps reading but records no more than this.
constexpr std::size_t kMaxRecordedBytes = 65536;

struct Entry {
  double at;
  std::string record;
};

std::atomic<bool> g_stop{false};
void OnSignal(int) { g_stop = true; }
// Connections being served; the script outlives them.
std::atomic<int> g_serving{0};

using Clock = std::chrono::steady_clock;
const Clock::time_point g_start = Clock::now();
double Elapsed() {
  return std::chrono::duration<double>(Clock::now() - g_start).count();
}

// Warns of a status record whose flags or time field are not where the
// program reads them (an off-by-one column is the usual slip).
void CheckColumns(const Entry& e, int line) {
  const std::string& r = e.record;
  if (r.empty() || r[0] != '#') return;
  bool ok = r.size() >= 16;
  for (std::size_t i = 1; ok && i <= 4; ++i) ok = r[i] == '0' || r[i] == '1';
  const std::string time = ok ? r.substr(9, 4) : "";
  ok = ok && (time == "ATBT" ||
              std::all_of(time.begin(), time.end(),
                          [](char c) { return c >= '0' && c <= '9'; }));
  if (!ok) {
    std::cerr << "pavo-sim: warning: script line " << line
              << ": flags at 2-5 or time field at 10-13 look wrong: " << r
              << "\n";
  }
}

bool ParseScript(std::istream& in, std::vector<Entry>& script) {
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    while (!line.empty() &&
           std::isspace(static_cast<unsigned char>(line.back())))
      line.pop_back();
    const auto first = line.find_first_not_of(" \t");
    if (first == std::string::npos || line.compare(first, 2, "//") == 0) {
      continue;
    }
    char* end = nullptr;
    const double at = std::strtod(line.c_str() + first, &end);
    const std::size_t after = end - line.c_str();
    const auto record = line.find_first_not_of(" \t", after);
    const std::string text =
        record == std::string::npos ? "" : line.substr(record);
    if (after == first ||
        (after < line.size() && line[after] != ' ' && line[after] != '\t')) {
      std::cerr << "pavo-sim: script line " << number
                << ": expected SECONDS RECORD: " << line << "\n";
      return false;
    }
    if (text.starts_with("!") && text != kRefuse && text != kReset &&
        text != kSilent) {
      std::cerr << "pavo-sim: script line " << number
                << ": unknown trouble (!refuse, !reset or !silent): " << text
                << "\n";
      return false;
    }
    script.push_back({at, text});
    CheckColumns(script.back(), number);
  }
  std::stable_sort(script.begin(), script.end(),
                   [](const Entry& a, const Entry& b) { return a.at < b.at; });
  return true;
}

const Entry* CurrentEntry(const std::vector<Entry>& script, double t) {
  const Entry* current = nullptr;
  for (const Entry& e : script) {
    if (e.at <= t) current = &e;
  }
  return current;
}

// Appends what arrives to `received` until a CR LF is in it (true), the time
// or size limit of a request line is reached (false) or, with
// `until_closed`, until the client closes its end (true).
bool Receive(int fd, std::string& received, bool until_closed) {
  const auto deadline =
      Clock::now() + std::chrono::milliseconds(kRequestTimeoutMs);
  char buffer[256];
  while (!g_stop) {
    if (!until_closed) {
      if (received.find("\r\n") != std::string::npos) return true;
      if (received.size() >= kMaxRequestBytes || Clock::now() >= deadline) {
        return false;
      }
    }
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 50) <= 0) continue;
    const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
    if (n <= 0) return until_closed;
    if (received.size() < kMaxRecordedBytes) {
      received.append(buffer, static_cast<std::size_t>(n));
    }
  }
  return false;
}

std::string Printable(const std::string& text) {
  std::string out;
  for (unsigned char c : text) {
    if (c >= 0x20 && c < 0x7f) {
      out += static_cast<char>(c);
    } else {
      char hex[8];
      std::snprintf(hex, sizeof hex, "\\x%02X", c);
      out += hex;
    }
  }
  return out;
}

// `entry` is the script line current at `accepted`, null for none.
void Serve(int client, const Entry* entry, double accepted) {
  std::string request;
  std::string outcome;
  if (entry && entry->record == kSilent) {
    outcome = Receive(client, request, /*until_closed=*/true)
                  ? "silent; closed by the client"
                  : "silent; simulator stopped";
  } else if (!Receive(client, request, /*until_closed=*/false)) {
    outcome = "no request line within 2 s; closed without answer";
  } else if (!entry) {
    outcome = "no record yet; closed without answer";
  } else if (entry->record == kReset) {
    // No linger time: close() aborts the connection with a reset.
    const linger abort{.l_onoff = 1, .l_linger = 0};
    ::setsockopt(client, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    outcome = "reset";
  } else {
    const std::string reply = entry->record + "\r\n";
    const bool sent =
        ::send(client, reply.data(), reply.size(), MSG_NOSIGNAL) ==
        static_cast<ssize_t>(reply.size());
    outcome = Printable(entry->record) + (sent ? "" : " (send failed)");
  }
  const double ended = Elapsed();
  ::close(client);
  std::printf("[%.3f s, %.3f s] request %s -> %s\n", accepted, ended,
              Printable(request).c_str(), outcome.c_str());
  std::fflush(stdout);
  --g_serving;
}

// A listening socket on 127.0.0.1:`port`, or -1 after saying why.
int Listen(int port) {
  const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  // Connections the simulator closed first linger in TIME_WAIT on the port
  // when it listens again after a !refuse.
  const int yes = 1;
  ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  auto* sa = reinterpret_cast<sockaddr*>(&address);
  if (listener < 0 || ::bind(listener, sa, sizeof address) != 0 ||
      ::listen(listener, 16) != 0) {
    std::cerr << "pavo-sim: cannot listen on 127.0.0.1:" << port << ": "
              << std::strerror(errno) << "\n";
    if (listener >= 0) ::close(listener);
    return -1;
  }
  return listener;
}

int Usage() {
  std::cerr << "usage: pavo-sim [--port N] [--script FILE] [--run-seconds S]\n";
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  int port = 3052;
  std::string script_file;
  double run_seconds = -1;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (i + 1 >= argc) return Usage();
    if (arg == "--port") {
      port = std::atoi(argv[++i]);
    } else if (arg == "--script") {
      script_file = argv[++i];
    } else if (arg == "--run-seconds") {
      run_seconds = std::atof(argv[++i]);
    } else {
      return Usage();
    }
  }
  if (port <= 0 || port > 65535) return Usage();

  std::vector<Entry> script;
  std::ifstream file;
  std::istringstream built_in(kBuiltInScript);
  if (!script_file.empty()) {
    file.open(script_file);
    if (!file) {
      std::cerr << "pavo-sim: cannot read " << script_file << "\n";
      return 1;
    }
  }
  if (!ParseScript(
          script_file.empty() ? static_cast<std::istream&>(built_in) : file,
          script)) {
    return 1;
  }
  if (run_seconds < 0) {
    run_seconds = (script.empty() ? 0 : script.back().at) + 120;
  }

  struct sigaction action {};
  action.sa_handler = OnSignal;  // no SA_RESTART: a signal ends poll()
  ::sigaction(SIGTERM, &action, nullptr);
  ::sigaction(SIGINT, &action, nullptr);

  std::printf("port 127.0.0.1:%d, %zu script lines, ending after %.0f s\n",
              port, script.size(), run_seconds);
  std::fflush(stdout);
  int listener = -1;
  while (!g_stop && Elapsed() < run_seconds) {
    const Entry* entry = CurrentEntry(script, Elapsed());
    const bool refuse = entry != nullptr && entry->record == kRefuse;
    if (refuse == (listener >= 0)) {
      if (refuse) {
        ::close(listener);
        listener = -1;
      } else if ((listener = Listen(port)) < 0) {
        return 1;
      }
      std::printf(
          "[%.3f s] %s\n", Elapsed(),
          refuse ? "not listening: connections are refused" : "listening");
      std::fflush(stdout);
    }
    pollfd p{listener, POLLIN, 0};
    if (::poll(&p, listener >= 0 ? 1 : 0, 50) <= 0) continue;
    const int client = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) continue;
    const double accepted = Elapsed();
    entry = CurrentEntry(script, accepted);
    // Came in just as a !refuse line took effect: closed, nothing read.
    if (entry != nullptr && entry->record == kRefuse) {
      ::close(client);
      continue;
    }
    ++g_serving;
    std::thread(Serve, client, entry, accepted).detach();
  }
  if (listener >= 0) ::close(listener);
  const bool signalled = g_stop;
  g_stop = true;  // ends the connections still being served
  while (g_serving > 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  std::printf("[%.3f s] %s\n", Elapsed(),
              signalled ? "stopped by signal" : "run time over");
  std::fflush(stdout);
  return 0;
}
