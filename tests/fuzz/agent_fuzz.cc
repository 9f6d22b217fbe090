// Fuzzes the SNMP manager's reply handling (the waiting send and the reply
// event) through the whole program on the fake platform in SNMP mode, while
// a power failure counts down. The agent at 10.0.0.9 answers polls only when
// the input says so. The input is a run of datagrams: an operation byte
// (sender, whether the datagram is made the answer to the request under
// way, whether a window asks for a discovery, virtual time to let pass), two
// length bytes, then the datagram. Whatever arrives, once the agent reports
// the battery again, the program comes to its orderly end.
#include <chrono>
#include <cstdint>
#include <string>

#include "app/program.h"
#include "platform/fake_platform.h"
#include "snmp/message.h"
#include "tests/fuzz/fuzz_check.h"

using namespace std::chrono_literals;

namespace {

constexpr char kAgent[] = "10.0.0.9";
constexpr char kBatstat[] = "1.3.6.1.2.1.33.1.2.2.0", kTime[] = "1.3.6.1.2.1.33.1.2.1.0";

struct SnmpProgram {
  SnmpProgram() {
    fake.folders.insert("/kovran/SERLOGS");
    fake.files["/kovran/upsser.cfg"] = std::string(
        "HOST:10.0.0.9\r\nCONNECTION:SNMP\r\nPOLLINGTIME:1\r\nENABLESHUT:1\r\n"
        "BACKUPTIME:0.5\r\nLOWTIME:0\r\nAGENTNO:1\r\nTYPE:1\r\nSYSOBJE:1.3.6.1.4.1.9\r\n"
        "BATSTAT:") + kBatstat + "\r\nTIME:" + kTime + "\r\nBTNORMAL:2\r\nBTLOW:3\r\n";
    fake.files["/kovran/LANGSE1.TXT"] = "051 started\r\n";
    fake.network.on_remote_send = [this](platform::FakeUdpSocket& from, const std::string&,
                                         int, const std::string& data) {
      pending = snmp::Decode(data).message;
      if (!on_battery) return;
      snmp::Message reply = pending;
      reply.type = snmp::PduType::kGetResponse;
      for (auto& b : reply.bindings) {
        b = {b.oid, snmp::ValueKind::kInteger, b.oid == kBatstat ? "1800" : "2"};
      }
      from.Deliver(snmp::Encode(reply).bytes, kAgent, 161);
    };
    program.Load();
  }
  platform::FakeUdpSocket& Manager() { return *fake.network.udp_bound.at(162); }

  platform::FakePlatform fake;
  app::Program program{fake};
  snmp::Message pending;  // the last request sent
  bool on_battery = true;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  SnmpProgram run;
  platform::FakePlatform& fake = run.fake;
  fake.Advance(2s);
  FUZZ_CHECK(run.program.main.state.DELAYSECONDS == 30);
  run.on_battery = false;
  const std::string input(reinterpret_cast<const char*>(data), size);
  for (std::size_t at = 0; at + 3 <= size && !fake.ended();) {
    const uint8_t op = input[at];
    const std::size_t length = uint8_t(input[at + 1]) << 8 | uint8_t(input[at + 2]);
    std::string datagram = input.substr(at + 3, length);
    at += 3 + datagram.size();
    if (op & 0x01) run.program.main.state.DISCOVERREQUEST = 1;
    if (auto decoded = snmp::Decode(datagram); op & 0x02 && decoded.ok) {
      decoded.message.request_id = run.pending.request_id;
      decoded.message.type = snmp::PduType::kGetResponse;
      datagram = snmp::Encode(decoded.message).bytes;
    }
    const char* sender = op & 0x04 ? kAgent : op & 0x08 ? "127.0.0.1" : "10.0.0.8";
    fake.At(1ms, [&run, datagram, sender] {
      run.Manager().Deliver(datagram, sender, 161);
    });
    fake.Advance(std::chrono::milliseconds(op >> 4) * 300);
  }
  run.on_battery = true;
  fake.Advance(75s);
  FUZZ_CHECK(fake.ended() && fake.exit_code() == frame::kExitNormal);
  return 0;
}
