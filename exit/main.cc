// EXIT.EXE: switches the PC off when KOVRAN's countdown has run out. Takes
// no arguments; reads upsser.cfg beside its own executable.
#include "exit/exit_program.h"
#include "platform/real_platform.h"

int main() {
  platform::RealPlatform platform(/*exit_process=*/false);
  return exitprogram::Run(platform);
}
