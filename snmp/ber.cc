#include "snmp/ber.h"

#include <cstdio>

namespace snmp {

namespace {

constexpr uint64_t kMaxSubId = 0xFFFFFFFF;

std::string Hex(uint8_t byte) {
  char text[8];
  std::snprintf(text, sizeof text, "0x%02X", byte);
  return text;
}

}  // namespace

bool Reader::Fail(std::string_view what) { return Fail(what, offset()); }

bool Reader::Fail(std::string_view what, std::size_t offset) {
  if (error_->what.empty()) {
    error_->what = what;
    error_->offset = offset;
  }
  return false;
}

bool Reader::Take(std::size_t n, std::string_view* out) {
  if (n > remaining()) return Fail("truncated");
  *out = data_.substr(pos_, n);
  pos_ += n;
  return true;
}

bool Reader::ReadTlv(uint8_t* tag, Reader* contents) {
  const std::size_t tag_at = offset();
  if (depth_ >= kMaxDepth) return Fail("nesting too deep");
  std::string_view b;
  if (!Take(1, &b)) return false;
  *tag = static_cast<uint8_t>(b[0]);
  if ((*tag & 0x1F) == 0x1F) return Fail("high tag number form", tag_at);

  const std::size_t length_at = offset();
  if (!Take(1, &b)) return false;
  uint64_t length = static_cast<uint8_t>(b[0]);
  if (length == 0x80) return Fail("indefinite length", length_at);
  if (length > 0x80) {
    const std::size_t count = length & 0x7F;
    if (count > 4) return Fail("more than four length bytes", length_at);
    if (!Take(count, &b)) return false;
    length = 0;
    for (char c : b) length = (length << 8) | static_cast<uint8_t>(c);
  }
  if (length > remaining()) {
    return Fail(
        depth_ == 0 ? "length beyond the input" : "length beyond its parent",
        length_at);
  }
  *contents = Reader(data_.substr(pos_, length), offset(), error_, depth_ + 1);
  pos_ += length;
  return true;
}

bool Reader::Expect(uint8_t tag, Reader* contents) {
  const std::size_t at = offset();
  uint8_t found;
  if (!ReadTlv(&found, contents)) return false;
  if (found != tag) {
    return Fail("expected tag " + Hex(tag) + ", found " + Hex(found), at);
  }
  return true;
}

bool Reader::ExpectEnd() { return AtEnd() || Fail("unexpected bytes"); }

bool Reader::ReadSigned(int64_t min, int64_t max, int64_t* value) {
  const std::size_t at = offset();
  if (AtEnd()) return Fail("empty integer");
  std::string_view bytes;
  Take(remaining(), &bytes);
  // Each step is an arithmetic shift of the final value, so a step out of
  // range means the final value is too; int64 never overflows on the way.
  int64_t v = static_cast<int8_t>(bytes[0]);
  for (std::size_t i = 1; i < bytes.size() && v >= min && v <= max; ++i) {
    v = v * 256 + static_cast<uint8_t>(bytes[i]);
  }
  if (v < min || v > max) return Fail("integer out of range", at);
  *value = v;
  return true;
}

bool Reader::ReadUnsigned(int width, uint64_t* value) {
  const std::size_t at = offset();
  if (AtEnd()) return Fail("empty integer");
  std::string_view bytes;
  Take(remaining(), &bytes);
  uint64_t v = 0;
  for (char c : bytes) {
    if ((v >> (8 * (width - 1))) != 0) {
      return Fail("integer out of range", at);
    }
    v = (v << 8) | static_cast<uint8_t>(c);
  }
  *value = v;
  return true;
}

bool Reader::ReadOid(std::string* dotted) {
  if (AtEnd()) return Fail("empty object identifier");
  dotted->clear();
  bool first = true;
  while (!AtEnd()) {
    const std::size_t at = offset();
    uint64_t sub = 0;
    uint8_t byte;
    do {
      std::string_view b;
      if (AtEnd()) return Fail("truncated sub-identifier", at);
      Take(1, &b);
      byte = static_cast<uint8_t>(b[0]);
      if (sub == 0 && byte == 0x80) return Fail("padded sub-identifier", at);
      sub = (sub << 7) | (byte & 0x7F);
      if (sub > kMaxSubId) return Fail("sub-identifier beyond 32 bits", at);
    } while (byte & 0x80);
    if (first) {
      const uint64_t x = sub < 40 ? 0 : sub < 80 ? 1 : 2;
      *dotted = std::to_string(x) + "." + std::to_string(sub - 40 * x);
      first = false;
    } else {
      *dotted += "." + std::to_string(sub);
    }
  }
  return true;
}

void AppendTlv(uint8_t tag, std::string_view contents, std::string* out) {
  out->push_back(static_cast<char>(tag));
  const uint64_t length = contents.size();
  if (length < 0x80) {
    out->push_back(static_cast<char>(length));
  } else {
    int count = 0;
    while (count < 8 && (length >> (8 * count)) != 0) ++count;
    out->push_back(static_cast<char>(0x80 | count));
    for (int i = count - 1; i >= 0; --i) {
      out->push_back(static_cast<char>(length >> (8 * i)));
    }
  }
  out->append(contents);
}

std::string IntegerContents(uint64_t bits, bool negative) {
  std::string bytes(1, negative ? '\xFF' : '\0');
  for (int i = 7; i >= 0; --i)
    bytes.push_back(static_cast<char>(bits >> 8 * i));
  // A leading byte is redundant when it only repeats the next byte's sign.
  std::size_t skip = 0;
  while (skip + 1 < bytes.size()) {
    const uint8_t lead = bytes[skip], next = bytes[skip + 1];
    if (!(lead == 0x00 && next < 0x80) && !(lead == 0xFF && next >= 0x80)) {
      break;
    }
    ++skip;
  }
  return bytes.substr(skip);
}

std::string OidContents(const std::vector<uint32_t>& arcs) {
  std::string out;
  for (std::size_t i = 1; i < arcs.size(); ++i) {
    const uint64_t sub = i == 1 ? uint64_t{arcs[0]} * 40 + arcs[1] : arcs[i];
    int groups = 1;
    while (groups < 5 && (sub >> (7 * groups)) != 0) ++groups;
    for (int g = groups - 1; g >= 0; --g) {
      const uint8_t more = g > 0 ? 0x80 : 0x00;
      out.push_back(static_cast<char>(((sub >> (7 * g)) & 0x7F) | more));
    }
  }
  return out;
}

}  // namespace snmp
