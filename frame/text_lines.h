// Splitting a file's text into lines, the same way for every text file the
// program reads.
#ifndef KOVRAN_FRAME_TEXT_LINES_H_
#define KOVRAN_FRAME_TEXT_LINES_H_

#include <string_view>

namespace frame {

// Calls `on_line(line, number)` for each line of `text`, numbered from 1.
// CR LF, a CR alone and a LF alone each end a line (files written on Windows
// and on POSIX read alike); a last line without an end counts too.
template <typename OnLine>
void ForEachLine(std::string_view text, OnLine on_line) {
  int number = 0;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find_first_of("\r\n", start);
    if (end == std::string_view::npos) end = text.size();
    on_line(text.substr(start, end - start), ++number);
    if (end < text.size() && text[end] == '\r' && end + 1 < text.size() &&
        text[end + 1] == '\n') {
      ++end;
    }
    start = end + 1;
  }
}

}  // namespace frame

#endif  // KOVRAN_FRAME_TEXT_LINES_H_
