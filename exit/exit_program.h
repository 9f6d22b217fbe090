// EXIT.EXE, the shutdown program. KOVRAN's exit timer starts it from the
// program folder once the UPS's battery time has run out and the users were
// warned ("SHUTDOWN"). It reads EXITACTION and EXITBEFORE from the
// upsser.cfg beside it, runs the EXITBEFORE command first, and switches the
// PC off (POWEROFF, also when EXITACTION is missing or unknown), hibernates
// it (HIBERNATE), or only logs what it would do (TEST). Every step goes to
// KOVRAN's monthly event log, in its line format.
#ifndef KOVRAN_EXIT_EXIT_PROGRAM_H_
#define KOVRAN_EXIT_EXIT_PROGRAM_H_

#include "platform/platform.h"

namespace exitprogram {

// How long the EXITBEFORE command may take. A PC on battery may not wait
// long: the command's failure or time-out never holds the switch-off back.
inline constexpr double kBeforeSeconds = 30;

// Does it all; the exit status: 0 when the switch-off was ordered (or only
// logged), 1 when it failed.
int Run(platform::Platform& platform);

}  // namespace exitprogram

#endif  // KOVRAN_EXIT_EXIT_PROGRAM_H_
