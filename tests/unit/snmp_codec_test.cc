// The SNMP message codec: hand-made datagrams, limits of every value type,
// truncations and lengths that lie.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <span>
#include <string>
#include <tuple>
#include <vector>

#include "snmp/ber.h"
#include "snmp/message.h"

namespace snmp {
namespace {

using std::string_literals::operator""s;

// "30 3A 02 ..." (one blank between bytes) to bytes.
std::string FromHex(std::string_view hex) {
  std::string out;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 3) {
    out += static_cast<char>(std::stoi(std::string(hex, i, 2), nullptr, 16));
  }
  return out;
}

std::string Short(char tag, const std::string& contents) {
  return std::string(1, tag) + static_cast<char>(contents.size()) + contents;
}

// A v2c GetResponse, community "c", binding 1.3.6.1 to `value`, whose tag
// lands at byte 28.
std::string Wrap(const std::string& value) {
  const std::string pdu =
      FromHex("02 01 00 02 01 00 02 01 00") +
      Short(0x30, Short(0x30, FromHex("06 03 2B 06 01") + value));
  return Short(0x30, FromHex("02 01 01 04 01 63") + Short('\xA2', pdu));
}

// v1 GetResponse "public", request 1: UPS battery status INTEGER 2 and
// seconds on battery Gauge32 0.
const char kV1Response[] =
    "30 3A 02 01 00 04 06 70 75 62 6C 69 63 A2 2D 02 01 01 02 01 00 02 01 00"
    " 30 22 30 0F 06 0A 2B 06 01 02 01 21 01 02 01 00 02 01 02"
    " 30 0F 06 0A 2B 06 01 02 01 21 01 02 03 00 42 01 00";
const char kBattery[] = "1.3.6.1.2.1.33.1.2.1.0";
const char kOnBattery[] = "1.3.6.1.2.1.33.1.2.3.0";

// clang-format off
const std::pair<const char*, Message> kKnown[] = {
    {kV1Response,
     {.community = "public", .type = PduType::kGetResponse, .request_id = 1,
      .bindings = {{kBattery, ValueKind::kInteger, "2"},
                   {kOnBattery, ValueKind::kGauge32, "0"}}}},
    {"30 26 02 01 01 04 06 70 75 62 6C 69 63 A2 19 02 01 02 02 01 00 02 01 00"
     " 30 0E 30 0C 06 08 2B 06 01 02 01 01 02 00 80 00",
     {.version = 1, .community = "public", .type = PduType::kGetResponse,
      .request_id = 2,
      .bindings = {{"1.3.6.1.2.1.1.2.0", ValueKind::kNoSuchObject, ""}}}},
    {"30 28 02 01 00 04 06 70 75 62 6C 69 63 A4 1B 06 07 2B 06 01 04 01 82 3E"
     " 40 04 0A 00 00 01 02 01 06 02 01 05 43 02 01 00 30 00",
     {.community = "public", .type = PduType::kTrapV1,
      .enterprise = "1.3.6.1.4.1.318", .agent_address = "10.0.0.1",
      .generic_trap = 6, .specific_trap = 5, .time_stamp = 256}},
    {"30 3B 02 01 01 04 06 70 75 62 6C 69 63 A0 2E 02 04 12 34 56 78 02 01 00"
     " 02 01 00 30 20 30 0E 06 0A 2B 06 01 02 01 21 01 02 01 00 05 00"
     " 30 0E 06 0A 2B 06 01 02 01 21 01 02 03 00 05 00",
     {.version = 1, .community = "public", .request_id = 0x12345678,
      .bindings = {{kBattery, ValueKind::kNull, ""},
                   {kOnBattery, ValueKind::kNull, ""}}}}};
// clang-format on

TEST(SnmpCodecTest, KnownDatagramsDecodeAndEncode) {
  for (const auto& [hex, message] : kKnown) {
    const DecodeResult decoded = Decode(FromHex(hex));
    EXPECT_EQ(decoded.message, message) << hex << ": " << decoded.error;
    EXPECT_EQ(Encode(message).bytes, FromHex(hex));
  }
}

TEST(SnmpCodecTest, EveryTruncatedPrefixIsRejected) {
  for (const auto& [hex, message] : kKnown) {
    const std::string bytes = FromHex(hex);
    for (std::size_t n = 0; n < bytes.size(); ++n) {
      const DecodeResult r = Decode(bytes.substr(0, n));
      EXPECT_TRUE(!r.ok && r.error_offset <= n) << hex << " cut to " << n;
    }
  }
}

// The kind of each value is its tag. Values with redundant leading bytes
// decode, but encode shorter or (an unsigned value without its sign byte)
// longer.
TEST(SnmpCodecTest, ValuesOfEveryTypeUpToTheirLimits) {
  // clang-format off
  using Row = std::pair<const char*, std::string>;
  const Row shortest[] = {
      {"02 01 02", "2"},                   {"02 01 FF", "-1"},
      {"02 01 80", "-128"},                {"02 02 00 80", "128"},
      {"02 02 FF 7F", "-129"},             {"02 04 80 00 00 00", "-2147483648"},
      {"02 04 7F FF FF FF", "2147483647"}, {"04 03 61 00 62", "a\0b"s},
      {"04 00", ""},                       {"44 02 9F 78", "\x9F\x78"},
      {"05 00", ""},                       {"06 01 27", "0.39"},
      {"06 01 28", "1.0"},                 {"06 01 50", "2.0"},
      {"06 02 88 37", "2.999"},            {"42 01 00", "0"},
      {"06 06 2B 8F FF FF FF 7F", "1.3.4294967295"},
      {"06 05 8F FF FF FF 7F", "2.4294967215"},
      {"40 04 C0 A8 01 14", "192.168.1.20"},
      {"40 04 FF FF FF FF", "255.255.255.255"},
      {"41 05 00 FF FF FF FF", "4294967295"},
      {"43 04 7F FF FF FF", "2147483647"},
      {"46 09 00 FF FF FF FF FF FF FF FF", "18446744073709551615"},
      {"80 00", ""},                       {"81 00", ""},
      {"82 00", ""}};
  const Row padded[] = {
      {"02 03 00 00 05", "5"},             {"02 03 FF FF FE", "-2"},
      {"41 04 FF FF FF FF", "4294967295"},
      {"46 08 FF FF FF FF FF FF FF FF", "18446744073709551615"}};
  // clang-format on
  for (const std::span<const Row> table :
       {std::span<const Row>(shortest), std::span<const Row>(padded)}) {
    for (const auto& [hex, text] : table) {
      const std::string bytes = Wrap(FromHex(hex));
      const DecodeResult r = Decode(bytes);
      ASSERT_EQ(r.message.bindings.size(), 1u) << hex << ": " << r.error;
      EXPECT_EQ(static_cast<char>(r.message.bindings[0].kind), bytes[28]);
      EXPECT_EQ(r.message.bindings[0].text, text) << hex;
      const EncodeResult again = Encode(r.message);
      EXPECT_EQ(again.bytes == bytes, table.data() == shortest) << hex;
      EXPECT_EQ(Decode(again.bytes).message, r.message) << hex;
    }
  }
}

TEST(SnmpCodecTest, BadValuesAreRejectedWithTheirPlace) {
  const std::pair<const char*, const char*> cases[] = {
      {"02 05 00 80 00 00 00", "integer out of range at byte 30"},
      {"02 05 FF 7F FF FF FF", "integer out of range at byte 30"},
      {"02 00", "empty integer at byte 30"},
      {"41 05 01 00 00 00 00", "integer out of range at byte 30"},
      {"43 00", "empty integer at byte 30"},
      {"46 09 01 00 00 00 00 00 00 00 00", "integer out of range at byte 30"},
      {"06 00", "empty object identifier at byte 30"},
      {"06 03 2B 80 01", "padded sub-identifier at byte 31"},
      {"06 06 2B 90 80 80 80 00", "sub-identifier beyond 32 bits at byte 31"},
      {"06 05 90 80 80 80 00", "sub-identifier beyond 32 bits at byte 30"},
      {"06 02 2B 81", "truncated sub-identifier at byte 31"},
      {"40 03 01 02 03", "IpAddress not 4 bytes long at byte 30"},
      {"40 05 01 02 03 04 05", "IpAddress not 4 bytes long at byte 30"},
      {"05 01 00", "value of tag 0x05 not empty at byte 30"},
      {"45 00", "unknown value type 0x45 at byte 28"},
      {"1F 01 00", "high tag number form at byte 28"}};
  for (const auto& [hex, error] : cases) {
    EXPECT_EQ(Decode(Wrap(FromHex(hex))).error, error) << hex;
  }
}

// The known v1 response with one byte changed (or one added at the end).
TEST(SnmpCodecTest, LengthsThatLieAndBrokenFraming) {
  const std::tuple<std::size_t, uint8_t, const char*> cases[] = {
      {1, 0x3B, "length beyond the input at byte 1"},
      {1, 0x39, "unexpected bytes at byte 59"},
      {1, 0x80, "indefinite length at byte 1"},
      {1, 0x85, "more than four length bytes at byte 1"},
      {14, 0x2E, "length beyond its parent at byte 14"},
      {25, 0x23, "length beyond its parent at byte 25"},
      {27, 0x10, "unexpected bytes at byte 43"},
      {44, 0x10, "length beyond its parent at byte 44"},
      {2, 0x03, "expected tag 0x02, found 0x03 at byte 2"},
      {4, 0x03, "unsupported version 3 at byte 2"},
      {13, 0xA9, "unknown PDU type 0xA9 at byte 13"}};
  for (const auto& [at, byte, error] : cases) {
    std::string bytes = FromHex(kV1Response);
    bytes.resize(std::max(bytes.size(), at + 1));
    bytes[at] = static_cast<char>(byte);
    EXPECT_EQ(Decode(bytes).error, error);
  }
  const std::string tail = FromHex(kV1Response).substr(2);
  for (const char* head : {"30 81 3A", "30 82 00 3A", "30 84 00 00 00 3A"}) {
    EXPECT_EQ(Decode(FromHex(head) + tail).message, kKnown[0].second) << head;
  }
}

TEST(SnmpCodecTest, NestingIsBounded) {
  std::string nested;
  for (int i = 0; i <= kMaxDepth; ++i) nested = Short(0x30, nested);
  DecodeError error;
  Reader r(nested, &error), child;
  int depth = 0;
  for (uint8_t tag; r.ReadTlv(&tag, &child); ++depth) r = child;
  EXPECT_EQ(depth, kMaxDepth);
  EXPECT_EQ(error.what, "nesting too deep");
}

// The smallest and largest request ids and arcs; long-form lengths.
TEST(SnmpCodecTest, GetRequestsRoundTrip) {
  const std::string community(300, 'x');
  const std::vector<std::string> extremes = {"0.0", "2.4294967215",
                                             "1.39.4294967295"};
  for (const int32_t id : {INT32_MIN, INT32_MAX}) {
    const auto oids =
        id < 0 ? extremes : std::vector<std::string>(40, kBattery);
    Message m{.version = 1, .community = community, .request_id = id};
    for (const std::string& oid : oids) m.bindings.push_back({oid});
    const EncodeResult e = EncodeGetRequest(1, community, id, oids);
    EXPECT_EQ(Decode(e.bytes).message, m) << e.error;
  }
}

TEST(SnmpCodecTest, NothingIsEncodedFromBadText) {
  for (const char* oid :
       {"", "1", "3.1", "0.40", "1.40", "2.4294967216", "1.3..6", ".1.3",
        "1.3.", "1.3.a", "1.3.4294967296", "1.3.-1", "1.3. 6", "1,3,6"}) {
    const EncodeResult e = EncodeGetRequest(0, "public", 1, {"1.3.6", oid});
    EXPECT_TRUE(!e.ok && e.bytes.empty() && e.error.find(oid) != e.error.npos)
        << oid;
  }
  EXPECT_FALSE(EncodeGetRequest(2, "public", 1, {"1.3.6"}).ok);
  const std::pair<ValueKind, std::vector<std::string>> values[] = {
      {ValueKind::kInteger, {"2147483648", "-2147483649", "+1", "-", "", "1x"}},
      {ValueKind::kCounter32, {"4294967296", "-1", ""}},
      {ValueKind::kCounter64, {"18446744073709551616"}},
      {ValueKind::kIpAddress, {"1.2.3", "1.2.3.256", "1.2.3.4.5", "1..2.3"}}};
  for (const auto& [kind, texts] : values) {
    for (const std::string& text : texts) {
      EXPECT_FALSE(Encode({.bindings = {{"1.3", kind, text}}}).ok) << text;
    }
  }
}

}  // namespace
}  // namespace snmp
