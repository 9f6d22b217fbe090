#include "frame/numeric.h"

#include <cmath>
#include <cstdlib>
#include <string>

namespace frame {

namespace {

// Walks a text, passing over the blanks, tabs and line feeds that a number
// may contain anywhere.
class Cursor {
 public:
  explicit Cursor(std::string_view text) : text_(text) {}

  char Peek() {
    while (pos_ < text_.size() &&
           (text_[pos_] == ' ' || text_[pos_] == '\t' || text_[pos_] == '\n')) {
      ++pos_;
    }
    return pos_ < text_.size() ? text_[pos_] : '\0';
  }
  void Next() { ++pos_; }
  bool TakeAny(std::string_view choices) {
    const char c = Peek();
    if (c == '\0' || choices.find(c) == std::string_view::npos) return false;
    Next();
    return true;
  }

 private:
  std::string_view text_;
  std::size_t pos_ = 0;
};

int DigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return 99;
}

double ReadRadix(Cursor& in, int radix) {
  double value = 0;
  while (DigitValue(in.Peek()) < radix) {
    value = value * radix + DigitValue(in.Peek());
    in.Next();
  }
  return value;
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

void TakeDigits(Cursor& in, std::string& out) {
  while (IsDigit(in.Peek())) {
    out += in.Peek();
    in.Next();
  }
}

}  // namespace

double NumericValue(std::string_view text) {
  Cursor in(text);
  if (in.Peek() == '&') {
    in.Next();
    if (in.TakeAny("Hh")) return ReadRadix(in, 16);
    if (in.TakeAny("Oo")) return ReadRadix(in, 8);
    return 0;
  }
  // The number's characters without the blanks, in the form strtod reads.
  std::string number;
  if (in.Peek() == '-' || in.Peek() == '+') {
    number += in.Peek();
    in.Next();
  }
  const std::size_t mantissa_start = number.size();
  TakeDigits(in, number);
  if (in.Peek() == '.') {
    in.Next();
    number += '.';
    TakeDigits(in, number);
  }
  if (number.find_first_of("0123456789", mantissa_start) == std::string::npos) {
    return 0;
  }
  if (in.TakeAny("EeDd")) {
    std::string exponent = "e";
    if (in.Peek() == '-' || in.Peek() == '+') {
      exponent += in.Peek();
      in.Next();
    }
    const std::size_t digits_start = exponent.size();
    TakeDigits(in, exponent);
    if (exponent.size() > digits_start) number += exponent;
  }
  return std::strtod(number.c_str(), nullptr);
}

double RoundHalfEven(double value) {
  if (!std::isfinite(value)) return value;
  const double lower = std::floor(value);
  const double fraction = value - lower;
  if (fraction > 0.5) return lower + 1;
  if (fraction < 0.5) return lower;
  return std::fmod(lower, 2.0) == 0 ? lower : lower + 1;
}

std::optional<int16_t> ToInt16(double value) {
  const double rounded = RoundHalfEven(value);
  if (!(rounded >= -32768.0 && rounded <= 32767.0)) return std::nullopt;
  return static_cast<int16_t>(rounded);
}

int16_t CountdownSeconds(double seconds) {
  constexpr int16_t kShortest = 3;
  const double rounded = RoundHalfEven(seconds);
  if (!(rounded >= kShortest)) return kShortest;
  if (rounded > 32767) return 32767;
  return static_cast<int16_t>(rounded);
}

}  // namespace frame
