// Internal to the real platform: the state that its shared part
// (real_platform.cc) and its OS part (os_posix.cc or os_windows.cc) both see.
#ifndef KOVRAN_PLATFORM_REAL_PLATFORM_IMPL_H_
#define KOVRAN_PLATFORM_REAL_PLATFORM_IMPL_H_

#include <asio.hpp>
// windows.h, which Asio brings on Windows, makes Yield() a macro of its own.
#ifdef Yield
#undef Yield
#endif
#include <chrono>
#include <functional>
#include <memory>

#include "platform/real_platform.h"
#include "platform/timer_schedule.h"

namespace platform {

// What only one OS keeps (signal set, instance lock, service connection).
struct OsState;
struct OsStateDeleter {
  void operator()(OsState* os) const;
};

// A name's resolution under way on Asio's resolver thread (real_platform.cc).
struct Resolution;

struct RealPlatform::Impl {
  using Clock = std::chrono::steady_clock;

  explicit Impl(bool exit) : exit_process(exit) {}

  TimerSchedule::Time Now() const {
    return std::chrono::duration_cast<TimerSchedule::Time>(Clock::now() -
                                                           epoch);
  }
  // Runs the close handler on the event thread; callable from any thread.
  void PostClose() {
    asio::post(io, [this] {
      if (!ended && on_close) on_close();
    });
  }
  // Runs the service handler with `state` on the event thread; callable
  // from any thread.
  void PostServiceState(int state) {
    asio::post(io, [this, state] {
      if (!ended && on_service) on_service(state);
    });
  }

  bool exit_process;
  asio::io_context io;
  asio::executor_work_guard<asio::io_context::executor_type> work{
      io.get_executor()};
  Clock::time_point epoch = Clock::now();
  std::function<void()> on_close;
  std::function<void(int)> on_service;
  bool ended = false;
  std::shared_ptr<Resolution> resolution;  // the latest one
  std::unique_ptr<OsState, OsStateDeleter> os;
};

// The OS part's hooks: set-up once the shared state exists (close events),
// and the last word before the process ends (the service's stopped report).
std::unique_ptr<OsState, OsStateDeleter> StartOs(RealPlatform::Impl& impl);
void BeforeExit(RealPlatform::Impl& impl, int exit_code);

}  // namespace platform

#endif  // KOVRAN_PLATFORM_REAL_PLATFORM_IMPL_H_
