// KOVRANW.EXE: KOVRAN's status in the notification area.
//   KOVRANW.EXE [--window N] [--config FILE] [--trace FILE]
#include <charconv>
#include <cstdio>
#include <string>
#include <string_view>

#include "platform/desktop.h"
#include "platform/real_platform.h"
#include "tray/tray.h"

int main(int argc, char** argv) {
  tray::Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
    const char* end = value ? value + std::string_view(value).size() : nullptr;
    if (arg == "--window" && value &&
        std::from_chars(value, end, options.window).ptr == end) {
    } else if (arg == "--config" && value) {
      options.config = value;
    } else if (arg == "--trace" && value) {
      options.trace = value;
    } else {
      std::fputs(
          "Usage: KOVRANW.EXE [--window N] [--config FILE] [--trace FILE]\n",
          stderr);
      return 1;
    }
    ++i;
  }
  platform::RealPlatform platform;
  const std::unique_ptr<platform::Desktop> desktop =
      platform::NewDesktop(platform);
  tray::Tray status(platform, *desktop, options);
  if (!status.Start()) return 1;
  platform.Run();
  return 0;
}
