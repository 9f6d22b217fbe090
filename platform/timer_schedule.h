// The schedule of one periodic timer, shared by the real and the fake
// implementation so that both follow the same rules: when the next expiry is
// due, what setting the interval or the enabled flag does, and how an expiry
// that came due while the handler was busy is folded into one.
#ifndef KOVRAN_PLATFORM_TIMER_SCHEDULE_H_
#define KOVRAN_PLATFORM_TIMER_SCHEDULE_H_

#include <chrono>
#include <cstdint>

namespace platform {

class TimerSchedule {
 public:
  using Time = std::chrono::nanoseconds;  // since the loop's own epoch

  void SetInterval(int32_t ms, Time now) {
    interval_ms_ = ms;
    due_ = now + Period();
  }
  int32_t interval_ms() const { return interval_ms_; }

  void SetEnabled(bool enabled, Time now) {
    if (enabled && !enabled_) due_ = now + Period();
    enabled_ = enabled;
  }
  bool enabled() const { return enabled_; }

  // Whether an expiry is to be scheduled at due(): active and not inside its
  // own handler. A busy timer is looked at again when its handler ends.
  bool Armed() const { return enabled_ && interval_ms_ > 0 && !busy_; }
  Time due() const { return due_; }

  // Called when the expiry at due() is delivered at `now`. The next expiry
  // keeps the cadence, but one that would already be past is moved to a full
  // period from now: a late timer fires once, never as a catch-up burst.
  void BeginExpiry(Time now) {
    busy_ = true;
    due_ += Period();
    if (due_ <= now) due_ = now + Period();
  }
  // After the handler: if the handler's own settings or its duration made the
  // next expiry due already, Armed() with due() <= now fires it at once.
  void EndExpiry() { busy_ = false; }
  bool busy() const { return busy_; }

 private:
  Time Period() const { return std::chrono::milliseconds(interval_ms_); }

  int32_t interval_ms_ = 0;
  bool enabled_ = true;
  bool busy_ = false;
  Time due_{0};
};

}  // namespace platform

#endif  // KOVRAN_PLATFORM_TIMER_SCHEDULE_H_
