// The settings file upsser.cfg: its reader, which turns the file's text into
// the settings items of the program state.
#ifndef KOVRAN_FRAME_SETTINGS_H_
#define KOVRAN_FRAME_SETTINGS_H_

#include <optional>
#include <string>
#include <string_view>

#include "frame/program_state.h"
#include "frame/status.h"

namespace frame {

inline constexpr const char* kSettingsFileName = "upsser.cfg";

// Reads `text` into `into` the way one reading of the settings file does:
// the UPS type table (rows 1..10) is reset first, then every known key
// overwrites its item; keys missing from the text keep their values.
//
// Fails, naming the line, at the first line that breaks one of the reader's
// limits: a numeric value outside -32768..32767, a type-block line whose
// current TYPE number is not 0..10 once rounded, a sixth BTNORMAL: or BTLOW:
// line in one block. `into` may then hold part of the file; callers read into
// a copy. Type-block lines before the first TYPE: line are ignored.
Status ParseSettings(std::string_view text, SettingsItems& into);

// The value of the last line of `text` whose key (up to and with its first
// colon) is `key`, as the reader takes values: untrimmed. Nothing when no
// line has it. For the keys that the programs beside KOVRAN read from the
// same file; KOVRAN's own reader ignores them.
std::optional<std::string> SettingValue(std::string_view text,
                                        std::string_view key);

}  // namespace frame

#endif  // KOVRAN_FRAME_SETTINGS_H_
