// Fuzzes the local windows' request handler through the whole program on
// the fake platform, while a power failure counts down. The input is a run
// of datagrams: an operation byte (window 1..5, sent from this machine or
// another, virtual time to let pass), two length bytes, then the datagram.
// The shutdown flag is never withdrawn and the program always comes to its
// orderly end: the countdown runs on whatever the windows ask.
#include <chrono>
#include <cstdint>
#include <string>

#include "tests/fuzz/fuzz_program.h"

using std::chrono::milliseconds;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  CountingDown run("LOCALWINDOWPORT:5000\r\nMAXLOCALUSERS:5\r\n");
  platform::FakePlatform& fake = run.fake;
  const frame::ProgramState& s = run.s;
  const std::string input(reinterpret_cast<const char*>(data), size);
  for (std::size_t at = 0; at + 3 <= size && !fake.ended();) {
    const uint8_t op = input[at];
    const std::size_t length = uint8_t(input[at + 1]) << 8 | uint8_t(input[at + 2]);
    const std::string datagram = input.substr(at + 3, length);
    at += 3 + datagram.size();
    auto* window = static_cast<platform::FakeUdpSocket*>(
        run.program.windows.Winsock3(op % 5 + 1));
    FUZZ_CHECK(window != nullptr);
    const int16_t flag_before = s.SHUTDOWNFLAG;
    window->Deliver(datagram, op & 0x08 ? "10.0.0.9" : "127.0.0.1");
    fake.Advance(milliseconds(op >> 4) * 100);
    FUZZ_CHECK(fake.ended() || s.SHUTDOWNFLAG >= flag_before);
  }
  run.ExpectOrderlyEnd();
  return 0;
}
