// Fuzzes the language file reader: an entry it writes holds a line's text as
// read, whatever the entry held before; entries 0 and 200 are never written.
#include <array>
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>

#include "frame/language.h"
#include "frame/program_state.h"
#include "frame/text_lines.h"
#include "tests/fuzz/fuzz_check.h"

using Table = std::array<std::string, frame::kMessageCount>;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  Table empty, filled;
  filled.fill("\x01");  // tells an entry left alone from one written
  frame::ParseLanguage(text, empty);
  frame::ParseLanguage(text, filled);
  // Each line's text: the line without blanks at both ends, from its fifth
  // character on.
  std::set<std::string_view> texts;
  frame::ForEachLine(text, [&](std::string_view line, int) {
    const auto first = line.find_first_not_of(' ');
    if (first == std::string_view::npos) return;
    line = line.substr(first, line.find_last_not_of(' ') - first + 1);
    if (line.size() > 4) texts.insert(line.substr(4));
  });
  for (int n = 0; n < frame::kMessageCount; ++n) {
    const bool written = !empty[n].empty();
    FUZZ_CHECK(filled[n] == (written ? empty[n] : "\x01"));
    FUZZ_CHECK(!written || (n > 0 && n < frame::kMessageCount - 1 &&
                            empty[n].back() != ' ' && texts.count(empty[n])));
  }
  return 0;
}
