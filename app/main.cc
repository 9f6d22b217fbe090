// KOVRAN: the UPS shutdown client. Takes no arguments; finds upsser.cfg, the
// language file and SERLOGS beside its own executable.
#include "app/program.h"
#include "platform/real_platform.h"

int main() {
  platform::RealPlatform platform;
  app::Program program(platform);
  program.Load();
  platform.Run();
  return 0;
}
