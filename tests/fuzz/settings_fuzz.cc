// Fuzzes the settings reader, on its own and through LOADSETTINGS: nothing is
// written outside its rows, and a rejected file leaves the previous settings
// whole.
#include <cstddef>
#include <cstdint>
#include <string>
#include <tuple>

#include "frame/main_window.h"
#include "frame/settings.h"
#include "platform/fake_platform.h"
#include "tests/fuzz/fuzz_check.h"

namespace {

using frame::SettingsItems;

auto Tie(const SettingsItems& s) {
  return std::tie(s.LOCALWINDOWPORT, s.CLIENTPORT, s.MAXLOCALUSERS, s.LANGUAGE,
                  s.AGENTNO, s.SETTINGS, s.UPSTYPES, s.BTNORMAL, s.BTLOW);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  // Every item holds a value of its own, so that an item a reading left
  // alone can be told from one it wrote.
  static const SettingsItems kA = [] {
    SettingsItems s;
    s.LOCALWINDOWPORT = s.CLIENTPORT = s.MAXLOCALUSERS = s.AGENTNO = -7;
    s.SETTINGS.fill(s.LANGUAGE = "\001a");
    for (auto& row : s.UPSTYPES) row.fill("\001a");
    for (auto& row : s.BTNORMAL) row.fill(-7);
    for (auto& row : s.BTLOW) row.fill(-7);
    return s;
  }();
  SettingsItems a = kA;
  const frame::Status sa = frame::ParseSettings(text, a);
  FUZZ_CHECK(sa.ok() || sa.message().starts_with("line "));
  for (int i = 0; i < static_cast<int>(a.SETTINGS.size()); ++i) {
    FUZZ_CHECK((i >= frame::HOST && i <= frame::PCPOWEROFF) ||
               a.SETTINGS[i] == kA.SETTINGS[i]);
  }
  // Field 0 and battery code 0 are never written; fields past SHORT are only
  // cleared, in rows 1..10.
  for (int r = 0; r < frame::kUpsTypeRows; ++r) {
    for (int f = 0; f < frame::kUpsTypeFields; ++f) {
      if (f > 0 && f <= frame::SHORT) continue;
      FUZZ_CHECK(a.UPSTYPES[r][f] == (r > 0 && f > 0 ? "" : kA.UPSTYPES[r][f]));
    }
    FUZZ_CHECK(a.BTNORMAL[r][0] == kA.BTNORMAL[r][0] &&
               a.BTLOW[r][0] == kA.BTLOW[r][0]);
  }
  // The main window's reading is all or nothing.
  platform::FakePlatform fake;
  frame::MainWindow window(fake);
  const std::string path = window.ProgramFile(frame::kSettingsFileName);
  fake.files[path] = text;
  static_cast<SettingsItems&>(window.state) = kA;
  const frame::Status s = window.LOADSETTINGS();
  FUZZ_CHECK(s.ok() == sa.ok() && !fake.ended());
  FUZZ_CHECK(Tie(window.state) == Tie(s.ok() ? a : kA));
  FUZZ_CHECK(window.Timer1->Interval() == (s.ok() ? 500 : 0));
  return 0;
}
