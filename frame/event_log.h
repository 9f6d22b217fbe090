// The event log: one time-stamped line per event in a monthly file
// SERLOGS/YYYY-MM.CLG beside the program.
#ifndef KOVRAN_FRAME_EVENT_LOG_H_
#define KOVRAN_FRAME_EVENT_LOG_H_

#include <string>

#include "platform/platform.h"

namespace frame {

// "dd-mm-yyyy--hh:mm:ss.." for the date and the time of day (whole seconds
// since local midnight; the fraction is dropped). Always 22 characters for
// years 1000..9999.
std::string LogStamp(const platform::LocalDate& date, double seconds);

// "YYYY-MM.CLG", the log file of the month of `date`.
std::string LogFileName(const platform::LocalDate& date);

// Appends `text` with its time stamp and CR LF to the month's log file in
// `folder`'s SERLOGS and returns the stamped line. A failure is swallowed:
// the log never stops the program.
std::string WriteLogLine(platform::Platform& platform,
                         const std::string& folder, const std::string& text);

}  // namespace frame

#endif  // KOVRAN_FRAME_EVENT_LOG_H_
