// Fuzzes the local windows' request handler through the whole program on
// the fake platform, while a power failure counts down. The input is a run
// of datagrams: an operation byte (window 1..5, sent from this machine or
// another, virtual time to let pass), two length bytes, then the datagram.
// The shutdown flag is never withdrawn and the program always comes to its
// orderly end: the countdown runs on whatever the windows ask.
#include <chrono>
#include <cstdint>
#include <string>

#include "app/program.h"
#include "platform/fake_platform.h"
#include "tests/fuzz/fuzz_check.h"

using std::chrono::milliseconds;
using std::chrono::seconds;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  platform::FakePlatform fake;
  fake.folders.insert("/kovran/SERLOGS");
  fake.files["/kovran/upsser.cfg"] =
      "HOST:127.0.0.1\r\nCLIENTPORT:3052\r\nPOLLINGTIME:1\r\nENABLESHUT:1\r\n"
      "LOCALWINDOWPORT:5000\r\nMAXLOCALUSERS:5\r\n";
  fake.files["/kovran/LANGSE1.TXT"] = "049 reloaded\r\n051 started\r\n";
  app::Program program(fake);
  program.Load();
  const frame::ProgramState& s = program.main.state;
  fake.Advance(seconds(1));
  platform::FakeTcpClient& server = *fake.tcp_clients.at(0);
  server.Accept();
  server.Deliver("#100000000030000Power failure\r\n");
  fake.RunReady();
  FUZZ_CHECK(s.DELAYSECONDS == 30);

  const std::string input(reinterpret_cast<const char*>(data), size);
  for (std::size_t at = 0; at + 3 <= size && !fake.ended();) {
    const uint8_t op = input[at];
    const std::size_t length = uint8_t(input[at + 1]) << 8 | uint8_t(input[at + 2]);
    const std::string datagram = input.substr(at + 3, length);
    at += 3 + datagram.size();
    auto* window = static_cast<platform::FakeUdpSocket*>(
        program.windows.Winsock3(op % 5 + 1));
    FUZZ_CHECK(window != nullptr);
    const int16_t flag_before = s.SHUTDOWNFLAG;
    window->Deliver(datagram, op & 0x08 ? "10.0.0.9" : "127.0.0.1");
    fake.Advance(milliseconds(op >> 4) * 100);
    FUZZ_CHECK(fake.ended() || s.SHUTDOWNFLAG >= flag_before);
  }
  fake.Advance(seconds(62));
  FUZZ_CHECK(fake.ended() && fake.exit_code() == frame::kExitNormal);
  return 0;
}
