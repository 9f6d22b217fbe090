#include "frame/event_log.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace frame {

std::string LogStamp(const platform::LocalDate& date, double seconds) {
  const double clamped = std::clamp(std::floor(seconds), 0.0, 86399.0);
  const int whole = static_cast<int>(clamped);
  char stamp[64];
  std::snprintf(stamp, sizeof stamp, "%02d-%02d-%04d--%02d:%02d:%02d..",
                date.day, date.month, date.year, whole / 3600,
                whole / 60 % 60, whole % 60);
  return stamp;
}

std::string LogFileName(const platform::LocalDate& date) {
  char name[32];
  std::snprintf(name, sizeof name, "%04d-%02d.CLG", date.year, date.month);
  return name;
}

std::string WriteLogLine(platform::Platform& platform,
                         const std::string& folder, const std::string& text) {
  const platform::LocalDate date = platform.Today();
  const std::string line = LogStamp(date, platform.SecondsSinceMidnight()) + text;
  const char sep = platform.PathSeparator();
  platform.AppendToFile(folder + sep + "SERLOGS" + sep + LogFileName(date),
                        line + "\r\n");
  return line;
}

}  // namespace frame
