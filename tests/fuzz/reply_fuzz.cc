// Fuzzes the server link's reply handler through the whole program on the
// fake platform: the input is a run of polls, each an operation byte and the
// bytes the server sends (whole, one byte at a time, then closing, after the
// watchdog...). Checks that the program never leaves the link stuck, that the
// shutdown flag is never withdrawn and that an end is always the orderly one.
#include <chrono>
#include <cstdint>
#include <string>

#include "app/program.h"
#include "platform/fake_platform.h"
#include "tests/fuzz/fuzz_check.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr char kSettings[] =
    "HOST:127.0.0.1\r\nCLIENTPORT:3052\r\nPOLLINGTIME:1\r\nENABLESHUT:1\r\n";
constexpr char kLanguage[] =
    "025 shutdown\r\n026 shutdown in\r\n027 s\r\n028 all clear\r\n"
    "030 no answer\r\n031 alarm over\r\n032 status\r\n033 other\r\n"
    "051 started\r\n053 on battery\r\n";

void CheckState(const app::Program& program, int16_t flag_before) {
  const frame::ProgramState& s = program.main.state;
  FUZZ_CHECK(s.LINKSTATE == 0 || s.LINKSTATE == 1 || s.LINKSTATE == 2 ||
             s.LINKSTATE == 3 || s.LINKSTATE == 5 || s.LINKSTATE == 10 ||
             s.LINKSTATE == 20);
  FUZZ_CHECK(s.SHUTDOWNFLAG >= flag_before);
  FUZZ_CHECK(s.EXITCOUNT >= 0 && s.EXITCOUNT < 30);
  FUZZ_CHECK(s.LASTHEADER.size() <= 13);
  const int32_t watchdog = program.main.Timer2->Interval();
  FUZZ_CHECK(watchdog == 0 || watchdog == 18000);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  platform::FakePlatform fake;
  fake.folders.insert("/kovran/SERLOGS");
  fake.files["/kovran/upsser.cfg"] = kSettings;
  fake.files["/kovran/LANGSE1.TXT"] = kLanguage;
  app::Program program(fake);
  program.Load();
  FUZZ_CHECK(!fake.ended());

  const std::string input(reinterpret_cast<const char*>(data), size);
  std::size_t at = 0;
  for (int polls = 0; at < input.size() && !fake.ended() && polls < 500;
       ++polls) {
    // One poll: an operation byte, a length byte, then that many bytes.
    const uint8_t op = static_cast<uint8_t>(input[at]);
    const std::size_t length =
        at + 1 < input.size() ? static_cast<uint8_t>(input[at + 1]) * 16u : 0;
    std::string bytes = input.substr(std::min(at + 2, input.size()), length);
    at += 2 + bytes.size();
    if (op & 0x80) bytes += "\r\n";

    const int16_t flag_before = program.main.state.SHUTDOWNFLAG;
    fake.Advance(seconds(1));  // the tick starts an attempt
    if (fake.ended() || fake.tcp_clients.empty()) break;
    platform::FakeTcpClient& server = *fake.tcp_clients[0];
    switch (op & 0x07) {
      case 0:
        server.Accept();
        server.Deliver(bytes);
        break;
      case 1:  // one byte at a time; only what has arrived is read
        server.Accept();
        for (char c : bytes) {
          server.Deliver(std::string(1, c));
          fake.RunReady();
        }
        break;
      case 2:
        server.Accept();
        server.Deliver(bytes);
        server.PeerClose();
        break;
      case 3:
        server.Refuse();
        break;
      case 4:
        server.Accept();
        server.RaiseError(platform::wsa::kConnectionReset, "reset");
        break;
      case 5:  // silent: the watchdog fires, then the reply comes late
        server.Accept();
        fake.Advance(milliseconds(18000));
        server.Deliver(bytes);
        break;
      case 6:
        server.Accept();
        server.Deliver(bytes);
        fake.Advance(seconds(op >> 3));
        break;
      default:
        server.RaiseError(platform::wsa::kHostNotFound, "no such host");
        break;
    }
    fake.RunReady();
    if (fake.ended()) break;
    CheckState(program, flag_before);
  }
  // Whatever was received, a set shutdown flag always ends the program in
  // the orderly way within 30 exit ticks.
  if (!fake.ended() && program.main.state.SHUTDOWNFLAG == 1) {
    fake.Advance(seconds(31));
    FUZZ_CHECK(fake.ended());
  }
  if (fake.ended()) {
    std::string log;  // the newest month's file
    for (const auto& [path, content] : fake.files) {
      if (path.find("SERLOGS") != std::string::npos) log = content;
    }
    FUZZ_CHECK(log.size() >= 27 &&
               log.compare(log.size() - 27, 27,
                           "QueryUnload Program ended\r\n") == 0);
    FUZZ_CHECK(fake.exit_code() == frame::kExitNormal);
  }
  return 0;
}
