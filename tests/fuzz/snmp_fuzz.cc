// Fuzzes the SNMP message codec with arbitrary datagrams. Whatever decodes
// must have value texts within their kind's range, must encode again, and
// must decode from that encoding to the same message, whose encoding is then
// a fixed point. The input is also tried as object identifier text.
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "snmp/message.h"
#include "tests/fuzz/fuzz_check.h"

namespace {

bool IsDecimal(const std::string& text, bool may_be_negative) {
  const std::size_t start = may_be_negative && !text.empty() && text[0] == '-';
  if (text.size() == start) return false;
  for (std::size_t i = start; i < text.size(); ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
  }
  // No leading zeros: "0" and "-1" yes, "01" and "-0" no.
  return text[start] != '0' || text.size() == 1;
}

bool InRange(const std::string& text, long double min, long double max) {
  errno = 0;
  const long double v = std::strtold(text.c_str(), nullptr);
  return errno == 0 && v >= min && v <= max;
}

void CheckValue(const snmp::VarBind& b) {
  std::vector<uint32_t> arcs;
  std::string error;
  FUZZ_CHECK(snmp::ParseOid(b.oid, &arcs, &error) && arcs.size() >= 2);
  switch (b.kind) {
    case snmp::ValueKind::kInteger:
      FUZZ_CHECK(IsDecimal(b.text, true));
      FUZZ_CHECK(InRange(b.text, -2147483648.0L, 2147483647.0L));
      break;
    case snmp::ValueKind::kCounter32:
    case snmp::ValueKind::kGauge32:
    case snmp::ValueKind::kTimeTicks:
      FUZZ_CHECK(IsDecimal(b.text, false));
      FUZZ_CHECK(InRange(b.text, 0, 4294967295.0L));
      break;
    case snmp::ValueKind::kCounter64:
      FUZZ_CHECK(IsDecimal(b.text, false));
      FUZZ_CHECK(InRange(b.text, 0, 18446744073709551615.0L));
      break;
    case snmp::ValueKind::kObjectId:
      FUZZ_CHECK(snmp::ParseOid(b.text, &arcs, &error) && arcs.size() >= 2);
      break;
    case snmp::ValueKind::kNull:
    case snmp::ValueKind::kNoSuchObject:
    case snmp::ValueKind::kNoSuchInstance:
    case snmp::ValueKind::kEndOfMibView:
      FUZZ_CHECK(b.text.empty());
      break;
    default:
      break;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);

  const snmp::DecodeResult decoded = snmp::Decode(input);
  FUZZ_CHECK(decoded.ok == decoded.error.empty());
  FUZZ_CHECK(decoded.error_offset <= size);
  if (decoded.ok) {
    for (const snmp::VarBind& b : decoded.message.bindings) CheckValue(b);
    const snmp::EncodeResult encoded = snmp::Encode(decoded.message);
    FUZZ_CHECK(encoded.ok);
    const snmp::DecodeResult again = snmp::Decode(encoded.bytes);
    FUZZ_CHECK(again.ok && again.message == decoded.message);
    FUZZ_CHECK(snmp::Encode(again.message).bytes == encoded.bytes);
  }

  std::vector<uint32_t> arcs;
  std::string error;
  if (snmp::ParseOid(input, &arcs, &error)) {
    const snmp::EncodeResult request =
        snmp::EncodeGetRequest(1, "public", 7, {input});
    FUZZ_CHECK(request.ok);
    const snmp::DecodeResult back = snmp::Decode(request.bytes);
    FUZZ_CHECK(back.ok && back.message.bindings.size() == 1);
    std::vector<uint32_t> back_arcs;
    FUZZ_CHECK(
        snmp::ParseOid(back.message.bindings[0].oid, &back_arcs, &error) &&
        back_arcs == arcs);
  }
  return 0;
}
