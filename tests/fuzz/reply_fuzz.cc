// Fuzzes the server link's reply handler through the whole program on the
// fake platform. The input is a run of polls: an operation byte (how the
// server answers), a length byte (x16), then the bytes the server sends.
// The shutdown flag is never withdrawn, and once set the program counts down
// to its orderly end.
#include <algorithm>
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
      "HOST:127.0.0.1\r\nCLIENTPORT:3052\r\nPOLLINGTIME:1\r\nENABLESHUT:1\r\n";
  fake.files["/kovran/LANGSE1.TXT"] = "051 started\r\n053 on battery\r\n";
  app::Program program(fake);
  program.Load();
  FUZZ_CHECK(!fake.ended());
  const frame::ProgramState& s = program.main.state;

  const std::string input(reinterpret_cast<const char*>(data), size);
  std::size_t at = 0;
  for (int polls = 0; at < size && !fake.ended() && polls < 500; ++polls) {
    const uint8_t op = input[at];
    std::string bytes =
        input.substr(std::min(at + 2, size),
                     at + 1 < size ? uint8_t(input[at + 1]) * 16 : 0);
    at += 2 + bytes.size();
    if (op & 0x80) bytes += "\r\n";

    const int16_t flag_before = s.SHUTDOWNFLAG;
    fake.Advance(seconds(1));  // the tick starts an attempt
    if (fake.ended() || fake.tcp_clients.empty()) break;
    platform::FakeTcpClient& server = *fake.tcp_clients[0];
    const int kind = op & 0x07;
    if (kind == 3) server.Refuse();
    if (kind == 7) server.RaiseError(platform::wsa::kHostNotFound, "no host");
    if (kind % 4 != 3) server.Accept();  // 3 and 7 never connect
    if (kind == 4) server.RaiseError(platform::wsa::kConnectionReset, "reset");
    if (kind == 5) fake.Advance(milliseconds(18000));  // the watchdog fires
    for (std::size_t i = 0; kind == 1 && i < bytes.size(); ++i) {
      server.Deliver(bytes.substr(i, 1));  // only what has arrived is read
      fake.RunReady();
    }
    if (kind % 4 != 3 && kind != 1 && kind != 4) server.Deliver(bytes);
    if (kind == 2) server.PeerClose();
    if (kind == 6) fake.Advance(seconds(op >> 3));
    fake.RunReady();
    FUZZ_CHECK(fake.ended() ||
               (s.SHUTDOWNFLAG >= flag_before && s.EXITCOUNT >= 0 &&
                s.EXITCOUNT < 30 && s.LASTHEADER.size() <= 13));
  }
  // A set flag ends the program, in order, within 30 exit ticks.
  if (!fake.ended() && s.SHUTDOWNFLAG == 1) fake.Advance(seconds(31));
  FUZZ_CHECK(fake.ended() ? fake.exit_code() == frame::kExitNormal
                          : s.SHUTDOWNFLAG != 1);
  return 0;
}
