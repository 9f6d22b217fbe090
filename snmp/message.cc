#include "snmp/message.h"

#include <cstdio>
#include <limits>
#include <utility>

#include "snmp/ber.h"

namespace snmp {

namespace {

constexpr uint8_t kTagInteger = 0x02;
constexpr uint8_t kTagOctetString = 0x04;
constexpr uint8_t kTagSequence = 0x30;
constexpr uint64_t kMaxUint32 = std::numeric_limits<uint32_t>::max();
constexpr uint64_t kMaxUint64 = std::numeric_limits<uint64_t>::max();
constexpr int64_t kMinInt32 = std::numeric_limits<int32_t>::min();
constexpr int64_t kMaxInt32 = std::numeric_limits<int32_t>::max();

std::string Hex(uint8_t byte) {
  char text[8];
  std::snprintf(text, sizeof text, "0x%02X", byte);
  return text;
}

// --- Decoding ---

bool ReadInt32(Reader& r, int32_t* out) {
  Reader c;
  int64_t v;
  if (!r.Expect(kTagInteger, &c) || !c.ReadSigned(kMinInt32, kMaxInt32, &v)) {
    return false;
  }
  *out = static_cast<int32_t>(v);
  return true;
}

// The contents `c` of a value whose tag, at `tag_at`, is `tag`.
bool ReadValue(uint8_t tag, std::size_t tag_at, Reader& c, VarBind* b) {
  int64_t s;
  uint64_t u;
  std::string_view bytes;
  const ValueKind kind = static_cast<ValueKind>(tag);
  switch (kind) {
    case ValueKind::kInteger:
      if (!c.ReadSigned(kMinInt32, kMaxInt32, &s)) return false;
      b->text = std::to_string(s);
      break;
    case ValueKind::kOctetString:
    case ValueKind::kOpaque:
      c.Take(c.remaining(), &bytes);
      b->text = bytes;
      break;
    case ValueKind::kNull:
    case ValueKind::kNoSuchObject:
    case ValueKind::kNoSuchInstance:
    case ValueKind::kEndOfMibView:
      if (!c.AtEnd()) return c.Fail("value of tag " + Hex(tag) + " not empty");
      b->text.clear();
      break;
    case ValueKind::kObjectId:
      if (!c.ReadOid(&b->text)) return false;
      break;
    case ValueKind::kIpAddress:
      if (c.remaining() != 4) return c.Fail("IpAddress not 4 bytes long");
      c.Take(4, &bytes);
      b->text.clear();
      for (char octet : bytes) {
        if (!b->text.empty()) b->text += '.';
        b->text += std::to_string(static_cast<uint8_t>(octet));
      }
      break;
    case ValueKind::kCounter32:
    case ValueKind::kGauge32:
    case ValueKind::kTimeTicks:
    case ValueKind::kCounter64:
      if (!c.ReadUnsigned(kind == ValueKind::kCounter64 ? 8 : 4, &u)) {
        return false;
      }
      b->text = std::to_string(u);
      break;
    default:
      return c.Fail("unknown value type " + Hex(tag), tag_at);
  }
  b->kind = kind;
  return true;
}

// A value that must be of `kind`.
bool ReadTyped(Reader& r, ValueKind kind, VarBind* b) {
  const std::size_t at = r.offset();
  Reader c;
  return r.Expect(static_cast<uint8_t>(kind), &c) &&
         ReadValue(static_cast<uint8_t>(kind), at, c, b);
}

bool ReadBindings(Reader& pdu, std::vector<VarBind>* out) {
  Reader list;
  if (!pdu.Expect(kTagSequence, &list) || !pdu.ExpectEnd()) return false;
  while (!list.AtEnd()) {
    Reader entry, c;
    VarBind b;
    if (!list.Expect(kTagSequence, &entry)) return false;
    if (!entry.Expect(static_cast<uint8_t>(ValueKind::kObjectId), &c) ||
        !c.ReadOid(&b.oid)) {
      return false;
    }
    const std::size_t at = entry.offset();
    uint8_t tag;
    if (!entry.ReadTlv(&tag, &c) || !ReadValue(tag, at, c, &b) ||
        !entry.ExpectEnd()) {
      return false;
    }
    out->push_back(std::move(b));
  }
  return true;
}

bool ReadMessage(Reader& input, Message* m) {
  Reader msg, pdu, c;
  if (!input.Expect(kTagSequence, &msg) || !input.ExpectEnd()) return false;
  const std::size_t version_at = msg.offset();
  if (!ReadInt32(msg, &m->version)) return false;
  if (m->version != 0 && m->version != 1) {
    return msg.Fail("unsupported version " + std::to_string(m->version),
                    version_at);
  }
  std::string_view community;
  if (!msg.Expect(kTagOctetString, &c)) return false;
  c.Take(c.remaining(), &community);
  m->community = community;

  const std::size_t pdu_at = msg.offset();
  uint8_t tag;
  if (!msg.ReadTlv(&tag, &pdu) || !msg.ExpectEnd()) return false;
  if (tag < 0xA0 || tag > 0xA8) {
    return msg.Fail("unknown PDU type " + Hex(tag), pdu_at);
  }
  m->type = static_cast<PduType>(tag);
  if (m->type == PduType::kTrapV1) {
    VarBind v;
    if (!ReadTyped(pdu, ValueKind::kObjectId, &v)) return false;
    m->enterprise = std::move(v.text);
    if (!ReadTyped(pdu, ValueKind::kIpAddress, &v)) return false;
    m->agent_address = std::move(v.text);
    uint64_t ticks;
    if (!ReadInt32(pdu, &m->generic_trap) ||
        !ReadInt32(pdu, &m->specific_trap) ||
        !pdu.Expect(static_cast<uint8_t>(ValueKind::kTimeTicks), &c) ||
        !c.ReadUnsigned(4, &ticks)) {
      return false;
    }
    m->time_stamp = static_cast<uint32_t>(ticks);
  } else if (!ReadInt32(pdu, &m->request_id) ||
             !ReadInt32(pdu, &m->error_status) ||
             !ReadInt32(pdu, &m->error_index)) {
    return false;
  }
  return ReadBindings(pdu, &m->bindings);
}

// --- Encoding ---

bool ParseDecimal(std::string_view text, uint64_t max, uint64_t* value) {
  if (text.empty()) return false;
  uint64_t v = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    const uint64_t digit = c - '0';
    if (v > (max - digit) / 10) return false;
    v = v * 10 + digit;
  }
  *value = v;
  return true;
}

std::string SignedContents(int64_t v) {
  return IntegerContents(static_cast<uint64_t>(v), v < 0);
}

bool EncodeValue(const VarBind& b, std::string* out, std::string* error) {
  std::string contents;
  uint64_t u = 0;
  std::vector<uint32_t> arcs;
  bool fits = true;
  switch (b.kind) {
    case ValueKind::kInteger: {
      const bool negative = !b.text.empty() && b.text[0] == '-';
      fits = ParseDecimal(std::string_view(b.text).substr(negative),
                          negative ? -kMinInt32 : kMaxInt32, &u);
      const int64_t magnitude = static_cast<int64_t>(u);
      contents = SignedContents(negative ? -magnitude : magnitude);
      break;
    }
    case ValueKind::kOctetString:
    case ValueKind::kOpaque:
      contents = b.text;
      break;
    case ValueKind::kNull:
    case ValueKind::kNoSuchObject:
    case ValueKind::kNoSuchInstance:
    case ValueKind::kEndOfMibView:
      break;
    case ValueKind::kObjectId:
      if (!ParseOid(b.text, &arcs, error)) return false;
      contents = OidContents(arcs);
      break;
    case ValueKind::kIpAddress: {
      std::string_view rest = b.text;
      for (int i = 0; i < 4 && fits; ++i) {
        const std::size_t dot = i < 3 ? rest.find('.') : rest.size();
        fits = dot != std::string_view::npos &&
               ParseDecimal(rest.substr(0, dot), 255, &u);
        contents.push_back(static_cast<char>(u));
        rest.remove_prefix(fits && i < 3 ? dot + 1 : 0);
      }
      break;
    }
    case ValueKind::kCounter32:
    case ValueKind::kGauge32:
    case ValueKind::kTimeTicks:
    case ValueKind::kCounter64:
      fits = ParseDecimal(
          b.text, b.kind == ValueKind::kCounter64 ? kMaxUint64 : kMaxUint32,
          &u);
      contents = IntegerContents(u, false);
      break;
    default:
      fits = false;
  }
  if (!fits) {
    *error = "value \"" + b.text + "\" does not fit tag " +
             Hex(static_cast<uint8_t>(b.kind));
    return false;
  }
  AppendTlv(static_cast<uint8_t>(b.kind), contents, out);
  return true;
}

}  // namespace

bool IsException(ValueKind kind) {
  return kind == ValueKind::kNoSuchObject ||
         kind == ValueKind::kNoSuchInstance || kind == ValueKind::kEndOfMibView;
}

DecodeResult Decode(std::string_view datagram) {
  DecodeResult result;
  DecodeError error;
  Reader input(datagram, &error);
  result.ok = ReadMessage(input, &result.message);
  if (!result.ok) {
    result.message = Message();
    result.error = error.what + " at byte " + std::to_string(error.offset);
    result.error_offset = error.offset;
  }
  return result;
}

EncodeResult Encode(const Message& m) {
  EncodeResult result;
  const uint8_t type = static_cast<uint8_t>(m.type);
  if (m.version != 0 && m.version != 1) {
    result.error = "version must be 0 (v1) or 1 (v2c)";
    return result;
  }
  if (type < 0xA0 || type > 0xA8) {
    result.error = "unknown PDU type " + Hex(type);
    return result;
  }
  std::string pdu, list;
  if (m.type == PduType::kTrapV1) {
    if (!EncodeValue({"", ValueKind::kObjectId, m.enterprise}, &pdu,
                     &result.error) ||
        !EncodeValue({"", ValueKind::kIpAddress, m.agent_address}, &pdu,
                     &result.error)) {
      return result;
    }
    AppendTlv(kTagInteger, SignedContents(m.generic_trap), &pdu);
    AppendTlv(kTagInteger, SignedContents(m.specific_trap), &pdu);
    AppendTlv(static_cast<uint8_t>(ValueKind::kTimeTicks),
              IntegerContents(m.time_stamp, false), &pdu);
  } else {
    AppendTlv(kTagInteger, SignedContents(m.request_id), &pdu);
    AppendTlv(kTagInteger, SignedContents(m.error_status), &pdu);
    AppendTlv(kTagInteger, SignedContents(m.error_index), &pdu);
  }
  for (const VarBind& b : m.bindings) {
    std::string entry;
    if (!EncodeValue({"", ValueKind::kObjectId, b.oid}, &entry,
                     &result.error) ||
        !EncodeValue(b, &entry, &result.error)) {
      return result;
    }
    AppendTlv(kTagSequence, entry, &list);
  }
  AppendTlv(kTagSequence, list, &pdu);

  std::string msg;
  AppendTlv(kTagInteger, SignedContents(m.version), &msg);
  AppendTlv(kTagOctetString, m.community, &msg);
  AppendTlv(type, pdu, &msg);
  AppendTlv(kTagSequence, msg, &result.bytes);
  result.ok = true;
  return result;
}

EncodeResult EncodeGetRequest(int32_t version, std::string_view community,
                              int32_t request_id,
                              const std::vector<std::string>& oids) {
  Message m;
  m.version = version;
  m.community = community;
  m.type = PduType::kGetRequest;
  m.request_id = request_id;
  for (const std::string& oid : oids) {
    m.bindings.push_back({oid, ValueKind::kNull, ""});
  }
  return Encode(m);
}

bool ParseOid(std::string_view text, std::vector<uint32_t>* arcs,
              std::string* error) {
  const auto fail = [&](const char* why) {
    *error = "object identifier \"" + std::string(text) + "\": " + why;
    return false;
  };
  arcs->clear();
  std::string_view rest = text;
  while (true) {
    const std::size_t dot = rest.find('.');
    uint64_t arc;
    if (!ParseDecimal(rest.substr(0, dot), kMaxUint32, &arc)) {
      return fail("each arc must be a number below 2^32");
    }
    arcs->push_back(static_cast<uint32_t>(arc));
    if (dot == std::string_view::npos) break;
    rest.remove_prefix(dot + 1);
  }
  if (arcs->size() < 2) return fail("fewer than two arcs");
  const uint64_t first = (*arcs)[0], second = (*arcs)[1];
  if (first > 2) return fail("first arc above 2");
  if (first < 2 && second > 39) return fail("second arc above 39");
  if (first * 40 + second > kMaxUint32) return fail("second arc too large");
  return true;
}

}  // namespace snmp
