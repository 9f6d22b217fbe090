// A small PAVO server for the integration tests: a real TCP server on
// 127.0.0.1 whose behaviour the test switches while the program runs. It
// records every connection it accepts (time, request bytes, what it did),
// so a test can wait on what the program did and check when it did it.
#ifndef KOVRAN_TESTS_INTEGRATION_PAVO_SERVER_H_
#define KOVRAN_TESTS_INTEGRATION_PAVO_SERVER_H_

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace kovran::integration {

using SteadyTime = std::chrono::steady_clock::time_point;

// What the server does with the connections it accepts.
enum class PavoBehaviour {
  kAnswer,  // reads the request, sends the record + CR LF, closes
  kSilent,  // reads everything, never answers, keeps the connection open
  kReset,   // reads the request, then aborts the connection (RST)
  kRefuse,  // does not listen: connection attempts are refused
};

// One accepted connection.
struct PavoConnection {
  PavoBehaviour behaviour;  // as it was when the connection was accepted
  SteadyTime accepted;
  std::string request;  // every byte received from the program
  std::string reply;    // the record sent, without its CR LF (kAnswer)
  // Taken just before the record was sent, or just before the reset.
  std::optional<SteadyTime> served;
  // kSilent: when the program closed its end.
  std::optional<SteadyTime> peer_closed;
};

class PavoServer {
 public:
  using Connections = std::vector<PavoConnection>;

  // Starts refusing on 127.0.0.1:`port`.
  explicit PavoServer(uint16_t port);
  PavoServer(const PavoServer&) = delete;
  PavoServer& operator=(const PavoServer&) = delete;
  // Stops the server thread and closes every socket.
  ~PavoServer();

  uint16_t port() const { return port_; }

  // Switch the behaviour for the connections accepted from now on. Each
  // returns once the switch is in force (the port listens or is closed);
  // throws when the port cannot be opened.
  void Answer(const std::string& record);
  void StaySilent();
  void Reset();
  void Refuse();

  Connections connections() const;

  // Waits until `done` holds for the connections so far, or `timeout` has
  // passed; the final value of `done`.
  bool WaitFor(const std::function<bool(const Connections&)>& done,
               std::chrono::milliseconds timeout);

 private:
  void Switch(PavoBehaviour behaviour, const std::string& record);
  void Run();
  void ApplyBehaviour();
  void Accept();
  void Serve(int fd, std::size_t index, PavoBehaviour behaviour,
             const std::string& record);
  // Appends what `fd` has ready to connection `index`; false once the peer
  // has closed or the connection failed.
  bool Receive(int fd, std::size_t index);
  void Wake();

  const uint16_t port_;
  int wake_fd_ = -1;
  int listen_fd_ = -1;  // server thread only
  struct Held {
    int fd;
    std::size_t index;
  };
  std::vector<Held> held_;  // silent connections; server thread only
  std::atomic<bool> stopping_{false};

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  PavoBehaviour behaviour_ = PavoBehaviour::kRefuse;
  std::string record_;
  uint64_t wanted_ = 0;   // switches asked for
  uint64_t applied_ = 0;  // switches in force
  std::string error_;     // why the last switch failed
  Connections connections_;

  std::thread thread_;
};

// A status record: "#", the four flag characters (flags 2 to 5), four
// unread characters, the 4-character time field, three unread characters and
// the detail text.
std::string StatusRecord(const std::string& flags,
                         const std::string& time_field,
                         const std::string& detail);

}  // namespace kovran::integration

#endif  // KOVRAN_TESTS_INTEGRATION_PAVO_SERVER_H_
