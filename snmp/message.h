// SNMP v1 and v2c messages: decoding whatever arrives at the manager's port
// and encoding the requests it sends.
//
// Choices worth knowing:
// - Versions 0 (v1) and 1 (v2c) only; any other version is refused, since a
//   v3 message has another shape. A PDU or value type is not checked against
//   the version (a v1 message with a Counter64 decodes); the caller decides.
// - All PDU types are decoded. GetRequest, GetNextRequest, GetResponse,
//   SetRequest, InformRequest, SNMPv2-Trap and Report share one shape;
//   GetBulkRequest has it too, with non-repeaters in error_status and
//   max-repetitions in error_index. The v1 Trap has its own shape and fills
//   the trap fields, with request_id, error_status and error_index 0.
// - INTEGER values must lie in -2^31..2^31-1; a longer value is refused, not
//   clamped, since a clamped status would read as a real one. Counter32,
//   Gauge32 and TimeTicks must fit 32 bits unsigned, Counter64 64 bits; their
//   contents are read as a plain magnitude (see Reader::ReadUnsigned).
//   Redundant leading bytes are tolerated in all of them.
// - Every element must fill its parent exactly: extra bytes inside a
//   SEQUENCE or after the message are refused.
// - Value text: numbers in plain decimal, object identifiers dotted,
//   IpAddress dotted, OCTET STRING and Opaque as their raw bytes, NULL and the
//   v2 exceptions as the empty text. The exceptions are told apart only by
//   their kind; a caller that wants a value must check IsException.
// - Object identifier text: at least two arcs of decimal digits, each below
//   2^32, the first 0, 1 or 2, the second below 40 unless the first is 2, and
//   40 * first + second below 2^32 (that pair is one sub-identifier on the
//   wire). Leading zeros in an arc are read as the number they spell; decoded
//   text never has them.
// - Memory grows linearly with the input; no size is taken on trust from a
//   length field before the bytes behind it have been checked to exist.
#ifndef KOVRAN_SNMP_MESSAGE_H_
#define KOVRAN_SNMP_MESSAGE_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace snmp {

// The values are the PDU tags.
enum class PduType : uint8_t {
  kGetRequest = 0xA0,
  kGetNextRequest = 0xA1,
  kGetResponse = 0xA2,
  kSetRequest = 0xA3,
  kTrapV1 = 0xA4,
  kGetBulkRequest = 0xA5,
  kInformRequest = 0xA6,
  kTrapV2 = 0xA7,
  kReport = 0xA8,
};

// The values are the value tags.
enum class ValueKind : uint8_t {
  kInteger = 0x02,
  kOctetString = 0x04,
  kNull = 0x05,
  kObjectId = 0x06,
  kIpAddress = 0x40,
  kCounter32 = 0x41,
  kGauge32 = 0x42,
  kTimeTicks = 0x43,
  kOpaque = 0x44,
  kCounter64 = 0x46,
  kNoSuchObject = 0x80,
  kNoSuchInstance = 0x81,
  kEndOfMibView = 0x82,
};

// noSuchObject, noSuchInstance and endOfMibView: the agent has no value.
bool IsException(ValueKind kind);

// Every member has an initializer, so a designated initializer may leave
// any of them out.
struct VarBind {
  std::string oid{};  // dotted decimal
  ValueKind kind = ValueKind::kNull;
  std::string text{};  // the value as text, as described above
  bool operator==(const VarBind&) const = default;
};

struct Message {
  int32_t version = 0;  // 0 = v1, 1 = v2c
  std::string community{};
  PduType type = PduType::kGetRequest;
  int32_t request_id = 0;
  int32_t error_status = 0;
  int32_t error_index = 0;
  // v1 Trap only.
  std::string enterprise{};     // dotted decimal
  std::string agent_address{};  // dotted IPv4
  int32_t generic_trap = 0;
  int32_t specific_trap = 0;
  uint32_t time_stamp = 0;
  std::vector<VarBind> bindings{};
  bool operator==(const Message&) const = default;
};

struct DecodeResult {
  bool ok = false;
  Message message;    // meaningful only when ok
  std::string error;  // e.g. "length beyond its parent at byte 12"
  std::size_t error_offset = 0;
};

// Decodes one datagram.
DecodeResult Decode(std::string_view datagram);

struct EncodeResult {
  bool ok = false;
  std::string bytes;  // empty unless ok
  std::string error;
};

// Encodes any message Decode can return, in the shortest form. Fails, with
// nothing encoded, on a version other than 0 or 1 or on a text that does not
// fit its kind (an object identifier, an address, a number out of range).
EncodeResult Encode(const Message& message);

// A GetRequest for `oids` (dotted decimal), each bound to NULL.
EncodeResult EncodeGetRequest(int32_t version, std::string_view community,
                              int32_t request_id,
                              const std::vector<std::string>& oids);

// The arcs of a dotted object identifier, checked as described above; on
// failure `error` says why.
bool ParseOid(std::string_view text, std::vector<uint32_t>* arcs,
              std::string* error);

}  // namespace snmp

#endif  // KOVRAN_SNMP_MESSAGE_H_
