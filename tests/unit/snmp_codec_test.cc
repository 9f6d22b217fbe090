// The SNMP message codec: datagrams captured from net-snmp's tools, values
// at the limits of their types, truncations and lengths that lie.
#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "snmp/ber.h"
#include "snmp/message.h"

namespace snmp {
namespace {

using enum PduType;
using enum ValueKind;
using std::string_literals::operator""s;

// "30 3A 02 ..." to bytes.
std::string FromHex(const std::string& hex) {
  std::istringstream in(hex);
  std::string out;
  for (int byte; in >> std::hex >> byte;) out += static_cast<char>(byte);
  return out;
}

std::string Short(char tag, const std::string& contents) {
  return std::string(1, tag) + static_cast<char>(contents.size()) + contents;
}

// A v2c GetResponse, community "c", binding 1.3.6.1 to the value in `hex`,
// whose tag lands at byte 28.
std::string Wrap(const std::string& hex) {
  const std::string pdu =
      FromHex("02 01 00 02 01 00 02 01 00") +
      Short(0x30, Short(0x30, FromHex("06 03 2B 06 01 " + hex)));
  return Short(0x30, FromHex("02 01 01 04 01 63") + Short('\xA2', pdu));
}

// clang-format off
const char kSysObjectId[] = "1.3.6.1.2.1.1.2.0",
  kSysName[] = "1.3.6.1.2.1.1.5.0", kNoInstance[] = "1.3.6.1.2.1.1.5.1",
  kNoObject[] = "1.3.6.1.2.1.99.0", kAgent[] = "1.3.6.1.4.1.99999.1",
  kLimit[] = "1.3.6.1.4.1.99999.3.", kTopArc[] = "1.3.6.1.4.1.99999.4294967295";

// tests/data/snmp/NAME.hex, each with the command that captured it.
const std::pair<const char*, Message> kCaptured[] = {
    {"v1_get_response",
     {.community = "public", .type = kGetResponse, .request_id = 0x24339AA5,
      .bindings = {{kSysObjectId, kObjectId, kAgent},
                   {kSysName, kOctetString, "kovran-test"}}}},
    {"v2c_exceptions_response",
     {.version = 1, .community = "public", .type = kGetResponse,
      .request_id = 0x5F37BD5D,
      .bindings = {{kSysObjectId, kObjectId, kAgent},
                   {kNoObject, kNoSuchObject}, {kNoInstance, kNoSuchInstance},
                   {kTopArc, kNoSuchObject}}}},
    {"v2c_limits_response",
     {.version = 1, .community = "public", .type = kGetResponse,
      .request_id = 0x549073F6,
      .bindings = {{kLimit + "1.0"s, kCounter64, "18446744073709551615"},
                   {kLimit + "2.0"s, kIpAddress, "192.168.1.20"},
                   {kLimit + "3.0"s, kInteger, "-2147483648"},
                   {kLimit + "4.0"s, kCounter32, "4294967295"},
                   {kLimit + "5.0"s, kInteger, "2147483647"}}}}};
// clang-format on

// Each decodes field by field and encodes again to the very same bytes.
TEST(SnmpCodecTest, DatagramsCapturedFromNetSnmp) {
  for (const auto& [name, message] : kCaptured) {
    std::ifstream file(KOVRAN_TEST_DATA "/snmp/"s + name + ".hex");
    std::string line, hex;
    while (std::getline(file, line)) hex += line[0] == '#' ? "" : line + ' ';
    const std::string bytes = FromHex(hex);
    const DecodeResult decoded = Decode(bytes);
    EXPECT_EQ(decoded.message, message) << name << ": " << decoded.error;
    EXPECT_EQ(Encode(message).bytes, bytes) << name;
  }
}

// Kinds and limits the captures lack; the kind of each value is its tag.
// Redundant leading bytes and long-form lengths are read, then written in
// the shortest form.
TEST(SnmpCodecTest, ValuesOfEveryTypeRoundTrip) {
  // clang-format off
  const std::pair<const char*, std::string> rows[] = {
      {"04 03 61 00 62", "a\0b"s}, {"06 01 27", "0.39"}, {"02 03 FF FF FE", "-2"},
      {"06 05 8F FF FF FF 7F", "2.4294967215"}, {"05 84 00 00 00 00", ""}};
  // clang-format on
  for (const auto& [hex, text] : rows) {
    const DecodeResult r = Decode(Wrap(hex));
    const VarBind want{"1.3.6.1", ValueKind(uint8_t(FromHex(hex)[0])), text};
    EXPECT_EQ(r.message.bindings, std::vector{want}) << hex << ": " << r.error;
    EXPECT_EQ(Decode(Encode(r.message).bytes).message, r.message) << hex;
  }
}

TEST(SnmpCodecTest, MalformedDatagramsAreRejectedWithTheirPlace) {
  const std::pair<std::string, const char*> cases[] = {
      {Wrap("05 01"), "length beyond its parent at byte 29"},
      {Wrap("05 80"), "indefinite length at byte 29"},
      {Wrap("05 85 00 00 00 00 00"), "more than four length bytes at byte 29"},
      {Wrap("05 00 05 00"), "unexpected bytes at byte 30"},
      {Wrap("80 01 00"), "value of tag 0x80 not empty at byte 30"},
      {Wrap("41 05 01 00 00 00 00"), "integer out of range at byte 30"},
      {Wrap("06 06 2B 90 80 80 80 00"),
       "sub-identifier beyond 32 bits at byte 31"},
      {Wrap("40 05 01 02 03 04 05"), "IpAddress not 4 bytes long at byte 30"}};
  for (const auto& [bytes, error] : cases)
    EXPECT_EQ(Decode(bytes).error, error);
}

}  // namespace
}  // namespace snmp
