// Reading texts as numbers, the one way the program does it everywhere: in
// settings, language file numbers, server time fields and SNMP values.
#ifndef KOVRAN_FRAME_NUMERIC_H_
#define KOVRAN_FRAME_NUMERIC_H_

#include <cstdint>
#include <optional>
#include <string_view>

namespace frame {

// The number formed by the leading characters of `text`. Blanks, tabs and
// line feeds are skipped anywhere, also between digits. Then an optional
// sign, digits, an optional "." with digits and an optional exponent (E or D
// in either case, optional sign, digits); or "&H" / "&O" (either case)
// followed by hexadecimal or octal digits, read as an unsigned value.
// Reading stops at the first character that does not fit; a text without a
// leading number gives 0. Values too large for a double give +-infinity.
double NumericValue(std::string_view text);

// Rounds to the nearest integer, halves to the even neighbour (2.5 -> 2,
// 3.5 -> 4, -2.5 -> -2).
double RoundHalfEven(double value);

// RoundHalfEven(value) when it fits a 16-bit signed integer; nothing for
// values outside -32768..32767, infinities and NaN.
std::optional<int16_t> ToInt16(double value);

// The length of a countdown for a power failure that gives `seconds`,
// rounded. Less than 3 s (0, negative, no number at all) means the PC may
// not run on battery any longer: it gets 3 s, so that the countdown ends at
// its first tick instead of never. More than 32767 s is held to 32767.
int16_t CountdownSeconds(double seconds);

}  // namespace frame

#endif  // KOVRAN_FRAME_NUMERIC_H_
