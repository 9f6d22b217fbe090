// A PAVO server for the integration tests: a TCP server on 127.0.0.1 whose
// behaviour the test switches while the program runs. It records every
// connection it accepts, so a test can wait on what the program did and
// check when it did it.
#ifndef KOVRAN_TESTS_INTEGRATION_PAVO_SERVER_H_
#define KOVRAN_TESTS_INTEGRATION_PAVO_SERVER_H_

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace kovran::integration {

using SteadyTime = std::chrono::steady_clock::time_point;

class PavoServer {
 public:
  // What the server does with the connections it accepts.
  enum class Mode {
    kRefuse,  // does not listen: connection attempts are refused
    kAnswer,  // reads the request line, sends the record + CR LF, closes
    kReset,   // reads the request line, then aborts the connection (RST)
    kSilent,  // reads everything, never answers, keeps the connection open
  };

  struct Connection {
    SteadyTime accepted;
    std::string request;  // every byte received from the program
    std::string reply;    // the record sent, without its CR LF (kAnswer)
    // Taken just before the record was sent or the connection reset.
    std::optional<SteadyTime> served;
    // kSilent: when the program closed its end.
    std::optional<SteadyTime> closed;
  };
  using Connections = std::vector<Connection>;

  // Refuses on 127.0.0.1:`port` until told otherwise.
  explicit PavoServer(uint16_t port) : port_(port) {}
  PavoServer(const PavoServer&) = delete;
  PavoServer& operator=(const PavoServer&) = delete;
  ~PavoServer();

  // Switches the behaviour for the connections accepted from now on; the
  // port listens or is closed when it returns. Throws when it cannot listen.
  void Set(Mode mode, const std::string& record = "");

  Connections connections() const;

 private:
  void Accept();
  void Serve(int fd, std::size_t index, Mode mode, const std::string& record);

  const uint16_t port_;
  int listen_fd_ = -1;
  std::thread acceptor_;
  std::atomic<bool> accepting_{false};
  std::atomic<bool> stopping_{false};

  mutable std::mutex mutex_;
  Mode mode_ = Mode::kRefuse;
  std::string record_;
  Connections connections_;
  std::vector<std::thread> workers_;  // one per accepted connection
};

// A status record: "#", the four flag characters (flags 2 to 5), four
// unread characters, the 4-character time field, three unread characters and
// the detail text.
std::string StatusRecord(const std::string& flags,
                         const std::string& time_field,
                         const std::string& detail);

}  // namespace kovran::integration

#endif  // KOVRAN_TESTS_INTEGRATION_PAVO_SERVER_H_
