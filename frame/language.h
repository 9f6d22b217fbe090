// The language file LANGSE<c>.TXT: numbered message texts.
#ifndef KOVRAN_FRAME_LANGUAGE_H_
#define KOVRAN_FRAME_LANGUAGE_H_

#include <string>
#include <string_view>

#include "frame/program_state.h"

namespace frame {

// File name (without folder) of the language file that `language` selects:
// its first character, or "1" when it is empty.
std::string LanguageFileName(std::string_view language);

// Stores the messages of `text` into `messages`. Each line is stripped of
// blanks at both ends; characters 1..3 are the number (read like a settings
// number and rounded), character 4 a separator, the rest the text. Lines with
// number 0, a number outside 1..199 or an empty text leave the table alone;
// a later line replaces an earlier one. Never fails.
void ParseLanguage(std::string_view text,
                   std::array<std::string, kMessageCount>& messages);

}  // namespace frame

#endif  // KOVRAN_FRAME_LANGUAGE_H_
