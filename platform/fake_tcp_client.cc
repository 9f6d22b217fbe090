#include "platform/fake_tcp_client.h"

namespace platform {

void FakeTcpClient::Raise(std::function<void()> event) {
  loop_.Post([this, generation = generation_, event = std::move(event)] {
    if (generation == generation_) event();
  });
}

void FakeTcpClient::Connect(const std::string& host, int port) {
  ++generation_;
  ++connects_;
  host_ = host;
  port_ = port;
  sent_.clear();
  received_.clear();
  state_ = State::kConnecting;
}

// The server's side acts only on a socket that can hear it: a closed socket
// receives nothing, and only a connecting one can be accepted or refused.
void FakeTcpClient::Accept() {
  if (state_ != State::kConnecting) return;
  state_ = State::kConnected;
  Raise([this] {
    if (events_.on_connect) events_.on_connect();
  });
}

void FakeTcpClient::Deliver(const std::string& bytes) {
  if (state_ != State::kConnected) return;
  received_ += bytes;
  Raise([this] {
    if (events_.on_data) events_.on_data();
  });
}

void FakeTcpClient::PeerClose() {
  if (state_ == State::kClosed) return;
  Raise([this] {
    if (events_.on_close) events_.on_close();
  });
}

void FakeTcpClient::RaiseError(int number, const std::string& description) {
  if (state_ == State::kClosed) return;
  Raise([this, number, description] {
    if (events_.on_error) events_.on_error(number, description);
  });
}

bool FakeTcpClient::Close() {
  ++closes_;
  if (fail_close) return false;
  ++generation_;
  state_ = State::kClosed;
  return true;
}

bool FakeTcpClient::Send(const std::string& bytes) {
  if (state_ != State::kConnected) return false;
  sent_ += bytes;
  return true;
}

std::string FakeTcpClient::ReadAll() {
  std::string all;
  all.swap(received_);
  return all;
}

}  // namespace platform
