// Helpers shared by the fuzz targets: a check that stops the run, and the
// file's lines split and joined again the way the readers split them.
#ifndef KOVRAN_TESTS_FUZZ_FUZZ_CHECK_H_
#define KOVRAN_TESTS_FUZZ_FUZZ_CHECK_H_

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "frame/text_lines.h"

// Stops the run with the failed condition, so libFuzzer saves the input.
#define FUZZ_CHECK(condition)                                               \
  do {                                                                      \
    if (!(condition)) {                                                     \
      std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, \
                   #condition);                                             \
      std::abort();                                                         \
    }                                                                       \
  } while (0)

namespace fuzz {

inline std::vector<std::string_view> Lines(std::string_view text) {
  std::vector<std::string_view> lines;
  frame::ForEachLine(
      text, [&](std::string_view line, int) { lines.push_back(line); });
  return lines;
}

// Lines [0, count) each followed by `end`.
inline std::string Join(const std::vector<std::string_view>& lines,
                        std::size_t count, std::string_view end) {
  std::string text;
  for (std::size_t i = 0; i < count && i < lines.size(); ++i) {
    text.append(lines[i]).append(end);
  }
  return text;
}

inline bool HasLineEnd(std::string_view s) {
  return s.find_first_of("\r\n") != std::string_view::npos;
}

}  // namespace fuzz

#endif  // KOVRAN_TESTS_FUZZ_FUZZ_CHECK_H_
