// Fuzzes the settings reader: ParseSettings on its own, and a whole
// MainWindow::LOADSETTINGS reading the bytes as upsser.cfg from the fake
// platform. Every check holds for any text; a failed one aborts the run.
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "frame/main_window.h"
#include "frame/numeric.h"
#include "frame/program_state.h"
#include "frame/settings.h"
#include "platform/fake_platform.h"
#include "tests/fuzz/fuzz_check.h"

namespace {

using frame::kBatteryCodes;
using frame::kEmptyBatteryCode;
using frame::kUpsTypeFields;
using frame::kUpsTypeRows;
using frame::SettingsItems;
using frame::Status;

// Every item of SettingsItems; keep in step with the struct.
bool Same(const SettingsItems& a, const SettingsItems& b) {
  return a.LOCALWINDOWPORT == b.LOCALWINDOWPORT &&
         a.CLIENTPORT == b.CLIENTPORT && a.MAXLOCALUSERS == b.MAXLOCALUSERS &&
         a.LANGUAGE == b.LANGUAGE && a.AGENTNO == b.AGENTNO &&
         a.SETTINGS == b.SETTINGS && a.UPSTYPES == b.UPSTYPES &&
         a.BTNORMAL == b.BTNORMAL && a.BTLOW == b.BTLOW;
}

// Items that hold `number` and `text` everywhere, so that an item a reading
// left alone can be told from one it wrote.
SettingsItems Filled(int16_t number, const std::string& text) {
  SettingsItems items;
  items.LOCALWINDOWPORT = items.CLIENTPORT = items.MAXLOCALUSERS =
      items.AGENTNO = number;
  items.LANGUAGE = text;
  items.SETTINGS.fill(text);
  for (auto& row : items.UPSTYPES) row.fill(text);
  for (auto& row : items.BTNORMAL) row.fill(number);
  for (auto& row : items.BTLOW) row.fill(number);
  return items;
}

struct Reading {
  Status status;
  SettingsItems items;
};

Reading Parse(std::string_view text, const SettingsItems& start) {
  Reading r{Status::Ok(), start};
  r.status = frame::ParseSettings(text, r.items);
  return r;
}

bool SameReading(const Reading& a, const Reading& b) {
  return a.status.ok() == b.status.ok() &&
         a.status.message() == b.status.message() && Same(a.items, b.items);
}

// A reading from two different starting points: each item was either left
// alone in both or written with the same value in both.
template <typename T>
bool KeptOrWritten(const T& a, const T& b, const T& start_a, const T& start_b) {
  return (a == start_a && b == start_b) || a == b;
}

std::string_view Key(std::string_view line) {
  return line.substr(0, line.find(':') + 1);
}

// The text with every line of key `key` emptied; line numbers stay.
std::string WithoutKey(const std::vector<std::string_view>& lines,
                       std::string_view key) {
  std::string text;
  for (std::string_view line : lines) {
    if (Key(line) != key) text.append(line);
    text += '\n';
  }
  return text;
}

void CheckReading(const Reading& a, const Reading& b, const SettingsItems& sa,
                  const SettingsItems& sb) {
  // The outcome depends on the text only.
  FUZZ_CHECK(a.status.ok() == b.status.ok());
  FUZZ_CHECK(a.status.message() == b.status.message());
  for (auto item : {&SettingsItems::LOCALWINDOWPORT, &SettingsItems::CLIENTPORT,
                    &SettingsItems::MAXLOCALUSERS, &SettingsItems::AGENTNO}) {
    FUZZ_CHECK(KeptOrWritten(a.items.*item, b.items.*item, sa.*item, sb.*item));
  }
  FUZZ_CHECK(KeptOrWritten(a.items.LANGUAGE, b.items.LANGUAGE, sa.LANGUAGE,
                           sb.LANGUAGE));
  FUZZ_CHECK(!fuzz::HasLineEnd(a.items.LANGUAGE));
  // SETTINGS: only elements 1..8 are ever written.
  for (int i = 0; i < static_cast<int>(sa.SETTINGS.size()); ++i) {
    const auto& got = a.items.SETTINGS[i];
    FUZZ_CHECK(!fuzz::HasLineEnd(got));
    if (i >= frame::HOST && i <= frame::PCPOWEROFF) {
      FUZZ_CHECK(KeptOrWritten(got, b.items.SETTINGS[i], sa.SETTINGS[i],
                               sb.SETTINGS[i]));
    } else {
      FUZZ_CHECK(got == sa.SETTINGS[i] &&
                 b.items.SETTINGS[i] == sb.SETTINGS[i]);
    }
  }
  // The type table: rows 1..10 are reset, so they end alike from any start;
  // row 0 (TYPE 0) is written but never reset. Field 0 and battery code
  // entry 0 are never written; fields 6..10 are only cleared.
  for (int row = 0; row < kUpsTypeRows; ++row) {
    for (int f = 0; f < kUpsTypeFields; ++f) {
      const auto& got = a.items.UPSTYPES[row][f];
      const auto& other = b.items.UPSTYPES[row][f];
      FUZZ_CHECK(!fuzz::HasLineEnd(got));
      if (f == 0) {
        FUZZ_CHECK(got == sa.UPSTYPES[row][f] && other == sb.UPSTYPES[row][f]);
      } else if (row > 0) {
        FUZZ_CHECK(got == other);
        if (f > frame::SHORT) FUZZ_CHECK(got.empty());
      } else if (f > frame::SHORT) {
        FUZZ_CHECK(got == sa.UPSTYPES[row][f] && other == sb.UPSTYPES[row][f]);
      } else {
        FUZZ_CHECK(KeptOrWritten(got, other, sa.UPSTYPES[row][f],
                                 sb.UPSTYPES[row][f]));
      }
    }
    for (auto table : {&SettingsItems::BTNORMAL, &SettingsItems::BTLOW}) {
      const auto& got = (a.items.*table)[row];
      const auto& other = (b.items.*table)[row];
      FUZZ_CHECK(got[0] == (sa.*table)[row][0] &&
                 other[0] == (sb.*table)[row][0]);
      for (int k = 1; k < kBatteryCodes; ++k) {
        if (row > 0) {
          FUZZ_CHECK(got[k] == other[k]);
        } else {
          FUZZ_CHECK(KeptOrWritten(got[k], other[k], (sa.*table)[row][k],
                                   (sb.*table)[row][k]));
        }
      }
    }
  }
}

// The values of every line with a key, by key, in file order.
using LineValues = std::map<std::string_view, std::vector<std::string_view>>;

LineValues ValuesByKey(const std::vector<std::string_view>& lines) {
  LineValues values;
  for (std::string_view line : lines) {
    const std::string_view key = Key(line);
    if (key.size() > 1) values[key].push_back(line.substr(key.size()));
  }
  return values;
}

bool FromTextLine(const LineValues& values, std::string_view key,
                  std::string_view value) {
  const auto it = values.find(key);
  if (it == values.end()) return false;
  for (std::string_view v : it->second) {
    if (v == value) return true;
  }
  return false;
}

bool FromNumberLine(const LineValues& values, std::string_view key,
                    int16_t number) {
  const auto it = values.find(key);
  if (it == values.end()) return false;
  for (std::string_view v : it->second) {
    if (frame::ToInt16(frame::NumericValue(v)) == number) return true;
  }
  return false;
}

// Every item a reading wrote holds the value of one of the text's lines
// with the item's own key: the rest of the line, or its number.
void CheckValuesFromLines(const SettingsItems& got, const SettingsItems& start,
                          const LineValues& values) {
  constexpr std::pair<const char*, int16_t SettingsItems::*> kNumbers[] = {
      {"LOCALWINDOWPORT:", &SettingsItems::LOCALWINDOWPORT},
      {"CLIENTPORT:", &SettingsItems::CLIENTPORT},
      {"MAXLOCALUSERS:", &SettingsItems::MAXLOCALUSERS},
      {"AGENTNO:", &SettingsItems::AGENTNO}};
  for (auto [key, item] : kNumbers) {
    if (got.*item != start.*item) {
      FUZZ_CHECK(FromNumberLine(values, key, got.*item));
    }
  }
  if (got.LANGUAGE != start.LANGUAGE) {
    FUZZ_CHECK(FromTextLine(values, "LANGUAGE:", got.LANGUAGE));
  }
  constexpr const char* kSettingKeys[] = {
      "",         "HOST:",       "POLLINGTIME:",
      "STARTUP:", "CONNECTION:", "BACKUPTIME:",
      "LOWTIME:", "ENABLESHUT:", "PCPOWEROFF:"};
  for (int i = frame::HOST; i <= frame::PCPOWEROFF; ++i) {
    if (got.SETTINGS[i] != start.SETTINGS[i]) {
      FUZZ_CHECK(FromTextLine(values, kSettingKeys[i], got.SETTINGS[i]));
    }
  }
  constexpr const char* kFieldKeys[] = {
      "", "NAME:", "SYSOBJE:", "BATSTAT:", "TIME:", "SHORT:"};
  for (int row = 0; row < kUpsTypeRows; ++row) {
    for (int f = frame::NAME; f <= frame::SHORT; ++f) {
      const std::string& value = got.UPSTYPES[row][f];
      if (row == 0 ? value != start.UPSTYPES[0][f] : !value.empty()) {
        FUZZ_CHECK(FromTextLine(values, kFieldKeys[f], value));
      }
    }
    for (auto [key, table] : {std::pair{"BTNORMAL:", &SettingsItems::BTNORMAL},
                              std::pair{"BTLOW:", &SettingsItems::BTLOW}}) {
      for (int k = 1; k < kBatteryCodes; ++k) {
        const int16_t code = (got.*table)[row][k];
        if (row == 0 ? code != (start.*table)[0][k]
                     : code != kEmptyBatteryCode) {
          FUZZ_CHECK(FromNumberLine(values, key, code));
        }
      }
    }
  }
}

// A failure names the first line that breaks a limit: the lines before it
// read fine, and it fails on its own line number with the same message.
void CheckFailure(const Status& status,
                  const std::vector<std::string_view>& lines,
                  const SettingsItems& start) {
  const std::string& message = status.message();
  FUZZ_CHECK(message.rfind("line ", 0) == 0);
  const std::size_t colon = message.find(": ");
  FUZZ_CHECK(colon != std::string::npos && colon > 5 && colon < 16);
  const long line = std::stol(message.substr(5, colon - 5));
  FUZZ_CHECK(line >= 1 && static_cast<std::size_t>(line) <= lines.size());
  FUZZ_CHECK(Parse(fuzz::Join(lines, line - 1, "\n"), start).status.ok());
  const Reading upto = Parse(fuzz::Join(lines, line, "\n"), start);
  FUZZ_CHECK(!upto.status.ok() && upto.status.message() == message);
}

// Battery code lines write their own table and nothing else: without them
// the reading succeeds alike, with that table's rows 1..10 all empty codes.
void CheckWithoutBatteryLines(const Reading& a,
                              const std::vector<std::string_view>& lines,
                              const SettingsItems& start) {
  for (auto [key, table] : {std::pair{"BTNORMAL:", &SettingsItems::BTNORMAL},
                            std::pair{"BTLOW:", &SettingsItems::BTLOW}}) {
    Reading expected = a;
    expected.items.*table = start.*table;
    for (int row = 1; row < kUpsTypeRows; ++row) {
      for (int k = 1; k < kBatteryCodes; ++k) {
        (expected.items.*table)[row][k] = kEmptyBatteryCode;
      }
    }
    FUZZ_CHECK(SameReading(Parse(WithoutKey(lines, key), start), expected));
  }
}

// A whole reading by the main window: all or nothing.
void CheckLoadSettings(const std::string& text, const Reading& a,
                       const SettingsItems& start) {
  platform::FakePlatform fake;
  frame::MainWindow window(fake);
  const std::string path = window.ProgramFile(frame::kSettingsFileName);
  fake.files[path] = text;
  static_cast<SettingsItems&>(window.state) = start;
  window.state.MESSAGES[42] = "message 42";
  window.state.DETAILTEXT = "detail";
  window.state.POLLPHASE = 3;

  const Status s = window.LOADSETTINGS();
  FUZZ_CHECK(s.ok() == a.status.ok());
  FUZZ_CHECK(!fake.ended());
  if (!s.ok()) {
    FUZZ_CHECK(s.message() ==
               "Settings file " + path + " " + a.status.message());
    FUZZ_CHECK(Same(window.state, start));
    FUZZ_CHECK(window.state.DETAILTEXT == "detail");
    FUZZ_CHECK(window.state.POLLPHASE == 3);
    FUZZ_CHECK(window.Timer1->Interval() == 0);
    return;
  }
  FUZZ_CHECK(Same(window.state, a.items));
  FUZZ_CHECK(window.state.DETAILTEXT == "message 42");
  FUZZ_CHECK(window.state.POLLPHASE == 0);
  FUZZ_CHECK(window.Timer1->Interval() == 500);
  // Reading the same file again changes nothing.
  FUZZ_CHECK(window.LOADSETTINGS().ok());
  FUZZ_CHECK(Same(window.state, a.items));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  static const SettingsItems kStartA = Filled(-7, "\001a");
  static const SettingsItems kStartB = Filled(12345, "\002b");

  const Reading a = Parse(text, kStartA);
  const Reading b = Parse(text, kStartB);
  CheckReading(a, b, kStartA, kStartB);

  const std::vector<std::string_view> lines = fuzz::Lines(text);
  CheckValuesFromLines(a.items, kStartA, ValuesByKey(lines));
  // CR LF, CR and LF end lines alike.
  FUZZ_CHECK(
      SameReading(Parse(fuzz::Join(lines, lines.size(), "\r\n"), kStartA), a));
  if (a.status.ok()) {
    CheckWithoutBatteryLines(a, lines, kStartA);
  } else {
    CheckFailure(a.status, lines, kStartA);
  }
  CheckLoadSettings(text, a, kStartA);
  return 0;
}
