// KOVRAN: the UPS shutdown client. Takes no arguments; finds upsser.cfg, the
// language file and SERLOGS beside its own executable.
#include "frame/main_window.h"
#include "platform/posix_platform.h"

int main() {
  platform::PosixPlatform platform;
  frame::MainWindow main_window(platform);
  main_window.Load();
  platform.Run();
  return 0;
}
