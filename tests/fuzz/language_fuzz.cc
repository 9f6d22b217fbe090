// Fuzzes the language file reader ParseLanguage. Every check holds for any
// text; a failed one aborts the run.
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "frame/language.h"
#include "frame/program_state.h"
#include "tests/fuzz/fuzz_check.h"

namespace {

using frame::kMessageCount;
using Table = std::array<std::string, kMessageCount>;

Table Parse(std::string_view text, Table table) {
  frame::ParseLanguage(text, table);
  return table;
}

// A table that holds a text in every entry, so that an entry the reading
// left alone can be told from one it wrote.
Table Filled() {
  Table table;
  for (int n = 0; n < kMessageCount; ++n) {
    table[n] = "\x01" + std::to_string(n);
  }
  return table;
}

// Each line's text part: the line without blanks at both ends, from its
// fifth character on (lines too short to have one give nothing).
std::unordered_set<std::string_view> LineTexts(
    const std::vector<std::string_view>& lines) {
  std::unordered_set<std::string_view> texts;
  for (std::string_view line : lines) {
    const auto first = line.find_first_not_of(' ');
    if (first == std::string_view::npos) continue;
    line = line.substr(first, line.find_last_not_of(' ') - first + 1);
    if (line.size() > 4) texts.insert(line.substr(4));
  }
  return texts;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  static const Table kFilled = Filled();

  const Table empty = Parse(text, Table{});
  const Table filled = Parse(text, kFilled);
  const std::vector<std::string_view> lines = fuzz::Lines(text);
  const auto line_texts = LineTexts(lines);
  // Numbers 0 and 200 are outside 1..199: never written.
  FUZZ_CHECK(empty[0].empty() && empty[kMessageCount - 1].empty());
  FUZZ_CHECK(filled[0] == kFilled[0] &&
             filled[kMessageCount - 1] == kFilled[kMessageCount - 1]);
  for (int n = 1; n < kMessageCount - 1; ++n) {
    const std::string& got = empty[n];
    if (got.empty()) {
      // No line for n: left alone whatever it held.
      FUZZ_CHECK(filled[n] == kFilled[n]);
      continue;
    }
    // Written: a line's text whatever the entry held before; never empty,
    // never ending with a blank.
    FUZZ_CHECK(filled[n] == got);
    FUZZ_CHECK(got.back() != ' ');
    FUZZ_CHECK(line_texts.count(got) == 1);
  }

  // CR LF, CR and LF end lines alike.
  FUZZ_CHECK(Parse(fuzz::Join(lines, lines.size(), "\r\n"), Table{}) == empty);
  FUZZ_CHECK(Parse(fuzz::Join(lines, lines.size(), "\r"), Table{}) == empty);
  // Lines are read one by one with nothing carried between them, and blanks
  // around a line do not count.
  Table one_by_one;
  std::string padded;
  for (std::string_view line : lines) {
    frame::ParseLanguage(line, one_by_one);
    padded.append("  ").append(line).append(" \n");
  }
  FUZZ_CHECK(one_by_one == empty);
  FUZZ_CHECK(Parse(padded, Table{}) == empty);
  return 0;
}
