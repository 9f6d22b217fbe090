#include "platform/fake_platform.h"

#include <chrono>
#include <cmath>
#include <utility>

namespace platform {

class FakePlatform::FakeTimer : public Timer {
 public:
  FakeTimer(FakePlatform* owner, std::shared_ptr<TimerSlot> slot)
      : owner_(owner), slot_(std::move(slot)) {}
  ~FakeTimer() override { slot_->alive = false; }

  void SetInterval(int32_t ms) override {
    slot_->schedule.SetInterval(ms, owner_->now_);
  }
  int32_t Interval() const override { return slot_->schedule.interval_ms(); }
  void SetEnabled(bool enabled) override {
    slot_->schedule.SetEnabled(enabled, owner_->now_);
  }
  bool Enabled() const override { return slot_->schedule.enabled(); }

 private:
  FakePlatform* owner_;
  std::shared_ptr<TimerSlot> slot_;
};

FakePlatform::FakePlatform() { folders.insert(program_folder); }
FakePlatform::~FakePlatform() = default;

void FakePlatform::SetWallClock(LocalDate date, double seconds_since_midnight) {
  base_date_ = date;
  base_seconds_ = seconds_since_midnight -
                  std::chrono::duration<double>(now_).count();
}

std::unique_ptr<Timer> FakePlatform::NewTimer(std::function<void()> on_expiry) {
  auto slot = std::make_shared<TimerSlot>();
  slot->on_expiry = std::move(on_expiry);
  timers_.push_back(slot);
  return std::make_unique<FakeTimer>(this, std::move(slot));
}

void FakePlatform::Post(std::function<void()> task) {
  if (!ended_) posted_.push_back(std::move(task));
}

void FakePlatform::RunPosted() {
  while (!ended_ && !posted_.empty()) {
    auto task = std::move(posted_.front());
    posted_.pop_front();
    task();
  }
}

bool FakePlatform::FireNextDue(Duration limit) {
  if (ended_) return false;
  std::shared_ptr<TimerSlot> next;
  for (const auto& slot : timers_) {
    if (!slot->alive || !slot->schedule.Armed()) continue;
    if (slot->schedule.due() > limit) continue;
    if (!next || slot->schedule.due() < next->schedule.due()) next = slot;
  }
  if (!next) return false;
  if (next->schedule.due() > now_) now_ = next->schedule.due();
  next->schedule.BeginExpiry(now_);
  next->on_expiry();
  next->schedule.EndExpiry();
  return true;
}

void FakePlatform::RunReady() {
  do {
    RunPosted();
  } while (FireNextDue(now_));
  std::erase_if(timers_, [](const auto& slot) { return !slot->alive; });
}

void FakePlatform::Yield() { RunReady(); }

bool FakePlatform::RunUntil(const std::function<bool()>& done,
                            double deadline_seconds) {
  const auto deadline = std::chrono::duration_cast<Duration>(
      std::chrono::duration<double>(deadline_seconds));
  while (!ended_) {
    RunReady();
    if (done() || !FireNextDue(deadline)) break;
  }
  if (!ended_ && !done() && now_ < deadline) now_ = deadline;
  return done();
}

void FakePlatform::At(Duration delay, std::function<void()> task) {
  if (delay < std::chrono::milliseconds(1)) return Post(std::move(task));
  auto slot = std::make_shared<TimerSlot>();
  slot->schedule.SetInterval(
      static_cast<int32_t>(
          std::chrono::duration_cast<std::chrono::milliseconds>(delay).count()),
      now_);
  slot->on_expiry = [slot = slot.get(), task = std::move(task)] {
    slot->alive = false;
    slot->schedule.SetEnabled(false, {});
    task();
  };
  timers_.push_back(std::move(slot));
}

std::string FakePlatform::ResolveIPv4(const std::string& host) {
  if (!host.empty() && host.find_first_not_of("0123456789.") == std::string::npos) {
    return host;
  }
  const auto it = hosts.find(host);
  return it == hosts.end() ? "" : it->second;
}

void FakePlatform::Advance(Duration d) {
  const Duration end = now_ + d;
  while (!ended_) {
    RunReady();
    if (!FireNextDue(end)) break;
  }
  if (!ended_ && now_ < end) now_ = end;
}

void FakePlatform::EndNow(int exit_code) {
  if (ended_) return;
  ended_ = true;
  exit_code_ = exit_code;
  posted_.clear();
}

void FakePlatform::SetCloseHandler(std::function<void()> on_close) {
  on_close_ = std::move(on_close);
}

void FakePlatform::RequestClose() {
  Post([this] {
    if (on_close_) on_close_();
  });
}

void FakePlatform::SetServiceHandler(std::function<void(int)> on_state) {
  on_service_ = std::move(on_state);
}

void FakePlatform::NotifyService(int state) {
  Post([this, state] {
    if (on_service_) on_service_(state);
  });
}

std::unique_ptr<TcpClient> FakePlatform::NewTcpClient() {
  auto client = std::make_unique<FakeTcpClient>(*this, [this](FakeTcpClient* c) {
    std::erase(tcp_clients, c);
  });
  tcp_clients.push_back(client.get());
  return client;
}

bool FakePlatform::ConnectService() {
  ++service_connect_calls_;
  return service_connects;
}

double FakePlatform::SecondsSinceMidnight() {
  const double total =
      base_seconds_ + std::chrono::duration<double>(now_).count();
  return total - 86400.0 * std::floor(total / 86400.0);
}

LocalDate FakePlatform::Today() {
  using namespace std::chrono;
  const double total = base_seconds_ + duration<double>(now_).count();
  const auto days_on = static_cast<int>(std::floor(total / 86400.0));
  const sys_days base = year_month_day{year{base_date_.year},
                                       month{unsigned(base_date_.month)},
                                       day{unsigned(base_date_.day)}};
  const year_month_day today{base + days{days_on}};
  return {int(today.year()), int(unsigned(today.month())),
          int(unsigned(today.day()))};
}

// On Windows "/" and "\\" name the same file; the fake folds both into the
// separator it plays.
std::string FakePlatform::Normalize(std::string path) const {
  for (char& c : path) {
    if (c == '/' || c == '\\') c = separator;
  }
  return path;
}

bool FakePlatform::FolderExists(const std::string& path) const {
  const auto cut = path.find_last_of(separator);
  if (cut == std::string::npos) return false;
  return folders.count(path.substr(0, cut)) > 0;
}

std::optional<std::string> FakePlatform::ReadFile(const std::string& name) {
  const std::string path = Normalize(name);
  auto it = files.find(path);
  if (it == files.end() || unreadable.count(path)) return std::nullopt;
  if (it->second.size() > kMaxReadFileBytes) return std::nullopt;
  return it->second;
}

bool FakePlatform::CanOpenForReading(const std::string& name) {
  const std::string path = Normalize(name);
  return files.count(path) && !unreadable.count(path);
}

bool FakePlatform::AppendToFile(const std::string& name,
                                const std::string& data) {
  const std::string path = Normalize(name);
  if (unwritable.count(path) || !FolderExists(path)) return false;
  files[path] += data;
  return true;
}

bool FakePlatform::WriteFile(const std::string& name, const std::string& data) {
  const std::string path = Normalize(name);
  if (unwritable.count(path) || !FolderExists(path)) return false;
  files[path] = data;
  return true;
}

bool FakePlatform::StartProcess(const std::string& command_line,
                                int window_style) {
  if (failing_starts.count(command_line)) return false;
  starts.push_back({command_line, window_style});
  return true;
}

CommandResult FakePlatform::RunCommand(const std::string& command_line,
                                       double seconds) {
  commands.push_back(command_line);
  const auto it = command_results.find(command_line);
  CommandResult result;
  result.started = result.ended = true;
  if (it != command_results.end()) result = it->second;
  if (result.started && !result.ended) {
    Advance(std::chrono::duration_cast<Duration>(
        std::chrono::duration<double>(seconds)));
  }
  return result;
}

}  // namespace platform
