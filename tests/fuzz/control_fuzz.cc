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

#include "tests/fuzz/fuzz_program.h"

using std::chrono::milliseconds;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  CountingDown run("", data[0] & 1 ? platform::kPlatformNt : 1);
  platform::FakePlatform& fake = run.fake;
  const frame::ProgramState& s = run.s;
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
  run.ExpectOrderlyEnd();
  return 0;
}
