#include "platform/real_platform.h"

#include <asio.hpp>
#include <cstdlib>

#include "platform/asio_local_sockets.h"
#include "platform/asio_tcp_client.h"
#include "platform/real_platform_impl.h"
#include "platform/timer_schedule.h"

// The part of the real platform that Linux and Windows share: the event
// loop, its timers and the sockets, all on Asio.
namespace platform {

using Clock = RealPlatform::Impl::Clock;

namespace {

// How long ResolveIPv4 waits for a name.
constexpr double kResolveSeconds = 3;

class RealTimer : public Timer {
 public:
  struct State {
    State(RealPlatform::Impl* i, std::function<void()> fn)
        : impl(i), timer(i->io), on_expiry(std::move(fn)) {}
    RealPlatform::Impl* impl;
    asio::steady_timer timer;
    std::function<void()> on_expiry;
    TimerSchedule schedule;
    // Bumped whenever the pending wait is replaced, so that a wait Asio
    // still delivers after cancel() is recognised as stale and dropped.
    uint64_t generation = 0;
  };

  RealTimer(RealPlatform::Impl* impl, std::function<void()> fn)
      : state_(std::make_shared<State>(impl, std::move(fn))) {}
  ~RealTimer() override {
    ++state_->generation;
    state_->timer.cancel();
  }

  void SetInterval(int32_t ms) override {
    state_->schedule.SetInterval(ms, state_->impl->Now());
    Reschedule(state_);
  }
  int32_t Interval() const override { return state_->schedule.interval_ms(); }
  void SetEnabled(bool enabled) override {
    state_->schedule.SetEnabled(enabled, state_->impl->Now());
    Reschedule(state_);
  }
  bool Enabled() const override { return state_->schedule.enabled(); }

 private:
  static void Reschedule(const std::shared_ptr<State>& s) {
    const uint64_t generation = ++s->generation;
    s->timer.cancel();
    if (!s->schedule.Armed()) return;
    s->timer.expires_at(s->impl->epoch + s->schedule.due());
    std::weak_ptr<State> weak = s;
    s->timer.async_wait([weak, generation](const asio::error_code& ec) {
      auto s = weak.lock();
      if (!s || ec || s->generation != generation || s->impl->ended) return;
      Fire(s);
    });
  }

  static void Fire(const std::shared_ptr<State>& s) {
    s->schedule.BeginExpiry(s->impl->Now());
    ++s->generation;
    s->on_expiry();
    s->schedule.EndExpiry();
    Reschedule(s);
  }

  std::shared_ptr<State> state_;
};

}  // namespace

RealPlatform::RealPlatform(bool exit_process)
    : impl_(std::make_unique<Impl>(exit_process)) {
  impl_->os = StartOs(*impl_);
}

RealPlatform::~RealPlatform() = default;

void RealPlatform::Run() { impl_->io.run(); }

void RealPlatform::RunFor(std::chrono::milliseconds d) {
  impl_->io.run_for(d);
  impl_->io.restart();
}

bool RealPlatform::ended() const { return impl_->ended; }

std::unique_ptr<Timer> RealPlatform::NewTimer(
    std::function<void()> on_expiry) {
  return std::make_unique<RealTimer>(impl_.get(), std::move(on_expiry));
}

void RealPlatform::Post(std::function<void()> task) {
  asio::post(impl_->io, [impl = impl_.get(), task = std::move(task)] {
    if (!impl->ended) task();
  });
}

void RealPlatform::Yield() {
  if (!impl_->ended) impl_->io.poll();
}

// Never spins: between events it sleeps in Asio's wait for the next one,
// bounded by the deadline.
bool RealPlatform::RunUntil(const std::function<bool()>& done,
                            double deadline_seconds) {
  while (!impl_->ended) {
    impl_->io.poll();
    if (impl_->ended || done()) break;
    const double left = deadline_seconds - SteadySeconds();
    if (left <= 0) break;
    impl_->io.run_one_for(std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(left)));
  }
  return done();
}

void RealPlatform::EndNow(int exit_code) {
  BeforeExit(*impl_, exit_code);
  if (impl_->exit_process) std::_Exit(exit_code);
  impl_->ended = true;
  impl_->io.stop();
}

void RealPlatform::SetCloseHandler(std::function<void()> on_close) {
  impl_->on_close = std::move(on_close);
}

void RealPlatform::SetServiceHandler(std::function<void(int)> on_state) {
  impl_->on_service = std::move(on_state);
}

double RealPlatform::SteadySeconds() {
  return std::chrono::duration<double>(Clock::now().time_since_epoch()).count();
}

std::unique_ptr<TcpClient> RealPlatform::NewTcpClient() {
  return NewAsioTcpClient(impl_->io);
}

struct Resolution {
  Resolution(asio::io_context& io, std::string name)
      : host(std::move(name)), resolver(io) {}
  std::string host;
  asio::ip::udp::resolver resolver;
  bool done = false;
  std::string address;  // the first IPv4 answer; empty when there is none
};

// The system's resolver blocks its thread, and a dead name server may keep
// it for half a minute; here it runs on Asio's resolver thread while the
// loop serves events. A resolution given up stays under way, and later
// calls for the same name wait for that one instead of queuing another
// behind it (a call for another name meanwhile fails at once), so a long
// outage of the name servers never piles resolutions up.
std::string RealPlatform::ResolveIPv4(const std::string& host) {
  asio::error_code ec;
  const auto dotted = asio::ip::make_address_v4(host, ec);
  if (!ec) return dotted.to_string();
  if (host.empty()) return "";
  std::shared_ptr<Resolution> r = impl_->resolution;
  if (r && !r->done && r->host != host) return "";
  if (!r || r->done) {
    r = std::make_shared<Resolution>(impl_->io, host);
    impl_->resolution = r;
    r->resolver.async_resolve(
        asio::ip::udp::v4(), host, "",
        [r](const asio::error_code& ec,
            asio::ip::udp::resolver::results_type results) {
          r->done = true;
          if (!ec && !results.empty()) {
            r->address = results.begin()->endpoint().address().to_string();
          }
        });
  }
  RunUntil([&r] { return r->done; }, SteadySeconds() + kResolveSeconds);
  return r->done ? r->address : "";
}

std::unique_ptr<UdpSocket> RealPlatform::NewUdpSocket() {
  return NewAsioUdpSocket(impl_->io);
}

std::unique_ptr<TcpListener> RealPlatform::NewTcpListener() {
  return NewAsioTcpListener(impl_->io);
}

}  // namespace platform
