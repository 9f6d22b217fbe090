// Fuzzes the language file reader: an entry it writes holds a text of the
// file without trailing blanks, whatever the entry held before; entries 0 and
// 200 are never written.
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "frame/language.h"
#include "frame/program_state.h"
#include "tests/fuzz/fuzz_check.h"

using Table = std::array<std::string, frame::kMessageCount>;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  Table empty, filled;
  filled.fill("\x01");  // tells an entry left alone from one written
  frame::ParseLanguage(text, empty);
  frame::ParseLanguage(text, filled);
  for (int n = 0; n < frame::kMessageCount; ++n) {
    const bool written = !empty[n].empty();
    FUZZ_CHECK(filled[n] == (written ? empty[n] : "\x01"));
    FUZZ_CHECK(!written || (n > 0 && n < frame::kMessageCount - 1 &&
                            empty[n].back() != ' ' &&
                            text.find(empty[n]) != std::string_view::npos));
  }
  return 0;
}
