#include "frame/numeric.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace frame {
namespace {

TEST(NumericValueTest, ReadsTheLeadingNumber) {
  const struct {
    const char* text;
    double value;
  } cases[] = {
      {"", 0},
      {"abc", 0},
      {"42", 42},
      {"  42  ", 42},
      {"4 2", 42},        // blanks between digits are skipped
      {"4\t2\n0", 420},   // so are tabs and line feeds
      {"-17", -17},
      {"+17", 17},
      {"- 17", -17},
      {"3.25", 3.25},
      {".5", 0.5},
      {"5.", 5},
      {".", 0},
      {"-", 0},
      {"12abc", 12},
      {"1e3", 1000},
      {"1E3", 1000},
      {"1d3", 1000},
      {"1D-2", 0.01},
      {"2e", 2},          // an exponent without digits is not read
      {"2e+", 2},
      {"2,5", 2},         // the decimal separator is always the point
      {"1.2.3", 1.2},
      {"&H1F", 31},
      {"&hff", 255},
      {"&O17", 15},
      {"&o8", 0},         // 8 is no octal digit
      {"&H", 0},
      {"&X1", 0},
      {"&HFFFFFFFF", 4294967295.0},
      {"0120", 120},
      {"\r5", 0},         // a carriage return is not skipped
  };
  for (const auto& c : cases) {
    EXPECT_DOUBLE_EQ(NumericValue(c.text), c.value) << '"' << c.text << '"';
  }
}

TEST(NumericValueTest, HugeValuesBecomeInfinite) {
  EXPECT_TRUE(std::isinf(NumericValue("1e999")));
  EXPECT_TRUE(std::isinf(NumericValue(std::string(400, '9'))));
  EXPECT_EQ(NumericValue("1e-999"), 0);
  EXPECT_TRUE(std::isinf(NumericValue("&H" + std::string(300, 'F'))));
}

TEST(RoundHalfEvenTest, HalvesGoToTheEvenNeighbour) {
  const struct {
    double in, out;
  } cases[] = {{0.5, 0},  {1.5, 2},   {2.5, 2},   {3.5, 4},  {-0.5, -0},
               {-1.5, -2}, {-2.5, -2}, {2.4999, 2}, {2.5001, 3}, {-2.6, -3},
               {7, 7}};
  for (const auto& c : cases) {
    EXPECT_EQ(RoundHalfEven(c.in), c.out) << c.in;
  }
}

TEST(ToInt16Test, AcceptsOnlyWhatFitsAfterRounding) {
  EXPECT_EQ(ToInt16(32767), 32767);
  EXPECT_EQ(ToInt16(-32768), -32768);
  EXPECT_EQ(ToInt16(32767.5), std::nullopt);  // rounds to 32768
  EXPECT_EQ(ToInt16(32766.5), 32766);         // rounds to even 32766
  EXPECT_EQ(ToInt16(-32768.5), -32768);
  EXPECT_EQ(ToInt16(32768), std::nullopt);
  EXPECT_EQ(ToInt16(std::numeric_limits<double>::infinity()), std::nullopt);
  EXPECT_EQ(ToInt16(std::nan("")), std::nullopt);
}

}  // namespace
}  // namespace frame
