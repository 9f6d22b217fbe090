// Fuzzes the SNMP message codec with arbitrary datagrams. Whatever decodes
// must encode again and decode from that encoding to the same message, so
// every value text it gives is one its kind can carry and nothing read is
// lost on the way back.
#include <cstdint>
#include <string>

#include "snmp/message.h"
#include "tests/fuzz/fuzz_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  const snmp::DecodeResult decoded = snmp::Decode(input);
  FUZZ_CHECK(decoded.ok == decoded.error.empty() &&
             decoded.error_offset <= size);
  if (decoded.ok) {
    const snmp::EncodeResult encoded = snmp::Encode(decoded.message);
    const snmp::DecodeResult again = snmp::Decode(encoded.bytes);
    FUZZ_CHECK(encoded.ok && again.ok && again.message == decoded.message);
  }
  return 0;
}
