// The subset of BER (X.690) that SNMP v1 and v2c messages use: one-byte tags,
// definite lengths of at most four length bytes, INTEGER-shaped numbers and
// OBJECT IDENTIFIER contents.
#ifndef KOVRAN_SNMP_BER_H_
#define KOVRAN_SNMP_BER_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace snmp {

// Where a decode stopped: what went wrong and the offset, counted from the
// first byte of the whole input, of the item at fault.
struct DecodeError {
  std::string what;
  std::size_t offset = 0;
};

// The deepest nesting a reader accepts. An SNMP message needs five levels
// (message, PDU, binding list, binding, value); the bound is a backstop for
// any future recursive use.
inline constexpr int kMaxDepth = 8;

// The only way a decoder takes bytes. A reader sees a window of the input;
// the reader of a nested TLV is limited to its parent's contents, so no
// length inside can reach past the parent. Every method that fails records
// the first failure in the DecodeError given at construction and returns
// false; after a failure the reader's position is unspecified.
class Reader {
 public:
  Reader() = default;
  // `error` must outlive this reader and every reader made from it.
  Reader(std::string_view input, DecodeError* error)
      : data_(input), error_(error) {}

  bool AtEnd() const { return pos_ == data_.size(); }
  std::size_t remaining() const { return data_.size() - pos_; }
  // Offset of the next byte within the whole input.
  std::size_t offset() const { return base_ + pos_; }

  // The next n bytes; fails when fewer are left.
  bool Take(std::size_t n, std::string_view* out);
  // One TLV: its tag and a reader of its contents. Rejects the high-tag
  // form, the indefinite length, more than four length bytes, a length past
  // this reader's end and nesting deeper than kMaxDepth.
  bool ReadTlv(uint8_t* tag, Reader* contents);
  // ReadTlv, also requiring the tag.
  bool Expect(uint8_t tag, Reader* contents);
  // Fails when bytes are left over.
  bool ExpectEnd();

  // Decoders of primitive contents; each consumes the whole reader.
  // A two's-complement INTEGER within [min, max]. Redundant leading sign
  // bytes are tolerated: they do not change the value.
  bool ReadSigned(int64_t min, int64_t max, int64_t* value);
  // An unsigned number of at most `width` (1..8) significant bytes, read as
  // a plain big-endian magnitude, so an agent that drops the leading 0x00 of
  // a value with the top bit set (FF FF FF FF for 4294967295) is read as it
  // meant.
  bool ReadUnsigned(int width, uint64_t* value);
  // OBJECT IDENTIFIER contents as dotted decimal. Every sub-identifier,
  // the combined first one included, must fit 32 bits and must not start
  // with the padding byte 0x80.
  bool ReadOid(std::string* dotted);

  // Records `what` at `offset` (the current one by default) unless a
  // failure is recorded already. Always returns false.
  bool Fail(std::string_view what);
  bool Fail(std::string_view what, std::size_t offset);

 private:
  Reader(std::string_view data, std::size_t base, DecodeError* error, int depth)
      : data_(data), base_(base), error_(error), depth_(depth) {}

  std::string_view data_;
  std::size_t pos_ = 0;
  std::size_t base_ = 0;
  DecodeError* error_ = nullptr;
  int depth_ = 0;
};

// Writers. Lengths are written in the shortest form.
void AppendTlv(uint8_t tag, std::string_view contents, std::string* out);
// Contents of the shortest two's-complement encoding of `bits` taken as a
// signed value when `negative`, else as an unsigned one (so unsigned values
// with the top bit set get a leading 0x00).
std::string IntegerContents(uint64_t bits, bool negative);
// Contents of an OBJECT IDENTIFIER. Needs at least two arcs with
// arcs[0] * 40 + arcs[1] < 2^32, which ParseOid guarantees.
std::string OidContents(const std::vector<uint32_t>& arcs);

}  // namespace snmp

#endif  // KOVRAN_SNMP_BER_H_
