#include "frame/language.h"

#include "frame/numeric.h"
#include "frame/text_lines.h"

namespace frame {

std::string LanguageFileName(std::string_view language) {
  const char selector = language.empty() ? '1' : language.front();
  return std::string("LANGSE") + selector + ".TXT";
}

void ParseLanguage(std::string_view text,
                   std::array<std::string, kMessageCount>& messages) {
  ForEachLine(text, [&](std::string_view line, int) {
    const auto first = line.find_first_not_of(' ');
    if (first == std::string_view::npos) return;
    line = line.substr(first, line.find_last_not_of(' ') - first + 1);
    const double number = RoundHalfEven(NumericValue(line.substr(0, 3)));
    if (!(number >= 1 && number <= 199)) return;
    if (line.size() <= 4) return;
    messages[static_cast<int>(number)] = line.substr(4);
  });
}

}  // namespace frame
