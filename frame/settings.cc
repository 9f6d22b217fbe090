#include "frame/settings.h"

#include <optional>
#include <string>

#include "frame/numeric.h"
#include "frame/text_lines.h"

namespace frame {

namespace {

struct NumberKey {
  std::string_view key;
  int16_t SettingsItems::*item;
};
constexpr NumberKey kNumberKeys[] = {
    {"LOCALWINDOWPORT:", &SettingsItems::LOCALWINDOWPORT},
    {"CLIENTPORT:", &SettingsItems::CLIENTPORT},
    {"MAXLOCALUSERS:", &SettingsItems::MAXLOCALUSERS},
    {"AGENTNO:", &SettingsItems::AGENTNO},
};

struct IndexedKey {
  std::string_view key;
  int index;
};
constexpr IndexedKey kSettingKeys[] = {
    {"HOST:", HOST},         {"POLLINGTIME:", POLLINGTIME},
    {"STARTUP:", STARTUP},   {"CONNECTION:", CONNECTION},
    {"BACKUPTIME:", BACKUPTIME}, {"LOWTIME:", LOWTIME},
    {"ENABLESHUT:", ENABLESHUT}, {"PCPOWEROFF:", PCPOWEROFF},
};
constexpr IndexedKey kTypeFieldKeys[] = {
    {"NAME:", NAME}, {"SYSOBJE:", SYSOBJE}, {"BATSTAT:", BATSTAT},
    {"TIME:", TIME}, {"SHORT:", SHORT},
};

// The reading's position within the type blocks.
struct TypeBlock {
  std::optional<double> number;  // none before the first TYPE: line
  int normal_count = 0;
  int low_count = 0;
};

Status LineError(int line, std::string_view what) {
  return Status::Error("line " + std::to_string(line) + ": " +
                       std::string(what));
}

Status ReadInt16(std::string_view key, std::string_view value, int line,
                 int16_t& out) {
  const auto number = ToInt16(NumericValue(value));
  if (!number) {
    return LineError(line, std::string(key) +
                               " value is not within -32768..32767");
  }
  out = *number;
  return Status::Ok();
}

// The table row of the current block, or an error when there is none in
// range. `row` stays unset (and the line is ignored) before any TYPE: line.
Status BlockRow(const TypeBlock& block, std::string_view key, int line,
                std::optional<int>& row) {
  if (!block.number) return Status::Ok();
  const double rounded = RoundHalfEven(*block.number);
  if (!(rounded >= 0 && rounded < kUpsTypeRows)) {
    return LineError(line, std::string(key) +
                               " belongs to a TYPE number outside 0..10");
  }
  row = static_cast<int>(rounded);
  return Status::Ok();
}

Status ReadBatteryCode(
    std::string_view key, std::string_view value, int line, int& count,
    std::array<int16_t, kBatteryCodes>& codes) {
  if (++count >= kBatteryCodes) {
    return LineError(line, std::string("more than five ") + std::string(key) +
                               " lines in one TYPE block");
  }
  return ReadInt16(key, value, line, codes[count]);
}

Status ApplyLine(std::string_view key, std::string_view value, int line,
                 TypeBlock& block, SettingsItems& into) {
  for (const auto& k : kNumberKeys) {
    if (key == k.key) return ReadInt16(key, value, line, into.*k.item);
  }
  for (const auto& k : kSettingKeys) {
    if (key == k.key) {
      into.SETTINGS[k.index] = value;
      return Status::Ok();
    }
  }
  if (key == "LANGUAGE:") {
    into.LANGUAGE = value;
    return Status::Ok();
  }
  if (key == "TYPE:") {
    block = TypeBlock{NumericValue(value), 0, 0};
    return Status::Ok();
  }
  const bool normal = key == "BTNORMAL:";
  const bool low = key == "BTLOW:";
  const IndexedKey* field = nullptr;
  for (const auto& k : kTypeFieldKeys) {
    if (key == k.key) field = &k;
  }
  if (!normal && !low && !field) return Status::Ok();  // unknown key

  std::optional<int> row;
  if (Status s = BlockRow(block, key, line, row); !s.ok() || !row) return s;
  if (field) {
    into.UPSTYPES[*row][field->index] = value;
    return Status::Ok();
  }
  if (normal) {
    return ReadBatteryCode(key, value, line, block.normal_count,
                           into.BTNORMAL[*row]);
  }
  return ReadBatteryCode(key, value, line, block.low_count, into.BTLOW[*row]);
}

}  // namespace

Status ParseSettings(std::string_view text, SettingsItems& into) {
  for (int row = 1; row < kUpsTypeRows; ++row) {
    for (int field = 1; field < kUpsTypeFields; ++field) {
      into.UPSTYPES[row][field].clear();
    }
    for (int k = 1; k < kBatteryCodes; ++k) {
      into.BTNORMAL[row][k] = kEmptyBatteryCode;
      into.BTLOW[row][k] = kEmptyBatteryCode;
    }
  }
  TypeBlock block;
  Status result;
  ForEachLine(text, [&](std::string_view line, int number) {
    if (!result.ok()) return;
    const auto colon = line.find(':');
    if (colon == std::string_view::npos || colon == 0) return;
    result = ApplyLine(line.substr(0, colon + 1), line.substr(colon + 1),
                       number, block, into);
  });
  return result;
}

std::optional<std::string> SettingValue(std::string_view text,
                                        std::string_view key) {
  std::optional<std::string> value;
  ForEachLine(text, [&](std::string_view line, int) {
    if (line.starts_with(key) && line.find(':') + 1 == key.size()) {
      value = std::string(line.substr(key.size()));
    }
  });
  return value;
}

}  // namespace frame
