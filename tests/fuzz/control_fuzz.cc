// Fuzzes the control port (its slots and WINDOWCOMMAND) through the whole
// program on the fake platform, while a power failure counts down. The input
// is a run of operations: an operation byte (connect, send on connection k,
// peer close, peer error, let time pass) and, for a send, a length byte and
// the bytes. The first byte chooses the NT family or not. Slots stay within
// their table, the shutdown flag is never withdrawn, and the countdown
// brings the program to its orderly end.
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "app/program.h"
#include "platform/fake_platform.h"
#include "tests/fuzz/fuzz_check.h"

using std::chrono::milliseconds;
using std::chrono::seconds;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  platform::FakePlatform fake;
  fake.platform_number = data[0] & 1 ? platform::kPlatformNt : 1;
  fake.files["/kovran/CRKOVRA.BAT"] = "";  // the service is installed
  fake.folders.insert("/kovran/SERLOGS");
  fake.files["/kovran/upsser.cfg"] =
      "HOST:127.0.0.1\r\nCLIENTPORT:3052\r\nPOLLINGTIME:1\r\nENABLESHUT:1\r\n";
  fake.files["/kovran/LANGSE1.TXT"] = "051 started\r\n";
  app::Program program(fake);
  program.Load();
  const frame::ProgramState& s = program.main.state;
  fake.Advance(seconds(1));
  platform::FakeTcpClient& server = *fake.tcp_clients.at(0);
  server.Accept();
  server.Deliver("#100000000030000Power failure\r\n");
  fake.RunReady();
  auto& listener = *fake.network.tcp_listeners.at(0);
  std::vector<std::shared_ptr<platform::FakeTcpPeer>> peers;

  const std::string input(reinterpret_cast<const char*>(data), size);
  for (std::size_t at = 1; at < size && !fake.ended();) {
    const uint8_t op = input[at++];
    int kind = op & 7;
    if (peers.empty() && kind != 1 && kind != 4) kind = 0;
    platform::FakeTcpPeer* peer =
        peers.empty() ? nullptr : peers[(op >> 3) % peers.size()].get();
    const int16_t flag_before = s.SHUTDOWNFLAG;
    switch (kind) {
      case 0: peers.push_back(listener.Connect()); break;
      case 1: listener.failing_accepts = op >> 3; break;
      case 2: peer->Close(); break;
      case 3: peer->RaiseError(10054, "reset"); break;
      case 4: fake.Advance(milliseconds(op >> 3) * 100); break;
      default: {
        const std::size_t length = at < size ? uint8_t(input[at++]) : 0;
        peer->Deliver(input.substr(at, length));
        at += length;
      }
    }
    fake.RunReady();
    FUZZ_CHECK(fake.ended() || (s.SHUTDOWNFLAG >= flag_before &&
                                s.CONTROLSLOT >= 0 && s.CONTROLSLOT <= 15));
  }
  fake.Advance(seconds(62));
  FUZZ_CHECK(fake.ended() && fake.exit_code() == frame::kExitNormal);
  return 0;
}
