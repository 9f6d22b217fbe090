#include "platform/fake_local_sockets.h"

#include <algorithm>

namespace platform {

namespace {

// Runs `event` later on the loop, unless the object that owns `alive` is gone.
void PostIfAlive(Platform& loop, const std::shared_ptr<bool>& alive,
                 std::function<void()> event) {
  loop.Post([weak = std::weak_ptr<bool>(alive), event = std::move(event)] {
    if (auto a = weak.lock(); a && *a) event();
  });
}

}  // namespace

bool FakeNetwork::IsLocal(const std::string& host) const {
  return host.starts_with("127.") ||
         std::find(addresses.begin(), addresses.end(), host) != addresses.end();
}

// ---- UDP ----

FakeUdpSocket::FakeUdpSocket(FakeNetwork& net) : net_(net) {
  net_.udp_sockets.push_back(this);
}

FakeUdpSocket::~FakeUdpSocket() {
  *alive_ = false;
  Unbind();
  std::erase(net_.udp_sockets, this);
}

void FakeUdpSocket::Unbind() {
  if (port_ != 0) net_.udp_bound.erase(port_);
  port_ = 0;
}

bool FakeUdpSocket::SetRemote(const std::string& host, int port) {
  if (port < 1 || port > 65535 || host.empty() ||
      host.find_first_not_of("0123456789.") != std::string::npos) {
    return false;
  }
  remote_host_ = host;
  remote_port_ = port;
  return true;
}

bool FakeUdpSocket::Bind(int port) {
  Unbind();
  if (port < 0 || port > 65535) return false;
  if (port == 0) {
    port = 50000;
    while (net_.udp_bound.count(port) || net_.taken_udp_ports.count(port)) ++port;
  }
  if (net_.udp_bound.count(port) || net_.taken_udp_ports.count(port)) return false;
  port_ = port;
  net_.udp_bound[port] = this;
  return true;
}

bool FakeUdpSocket::Send(const std::string& bytes) {
  if (port_ == 0 || remote_port_ == 0) return false;
  sent.push_back(bytes);
  if (!net_.IsLocal(remote_host_)) {
    if (net_.on_remote_send) net_.on_remote_send(*this, remote_host_, remote_port_, bytes);
    return true;
  }
  auto it = net_.udp_bound.find(remote_port_);
  if (it != net_.udp_bound.end()) it->second->Deliver(bytes, remote_host_, port_);
  return true;
}

void FakeUdpSocket::Deliver(const std::string& data, const std::string& sender,
                            int sender_port) {
  if (port_ == 0) return;
  PostIfAlive(net_.loop, alive_, [this, data, sender, sender_port] {
    if (port_ != 0 && events_.on_datagram) events_.on_datagram(data, sender, sender_port);
  });
}

// ---- TCP ----

void FakeTcpPeer::Deliver(const std::string& bytes) {
  if (!connection || !connection->open_) return;
  connection->received_ += bytes;
  connection->Raise([](TcpConnectionEvents& e) {
    if (e.on_data) e.on_data();
  });
}

void FakeTcpPeer::Close() {
  if (!connection || !connection->open_) return;
  connection->Raise([](TcpConnectionEvents& e) {
    if (e.on_close) e.on_close();
  });
}

void FakeTcpPeer::RaiseError(int number, const std::string& description) {
  if (!connection || !connection->open_) return;
  connection->Raise([number, description](TcpConnectionEvents& e) {
    if (e.on_error) e.on_error(number, description);
  });
}

FakeTcpConnection::FakeTcpConnection(FakeNetwork& net,
                                     std::shared_ptr<FakeTcpPeer> peer)
    : net_(net), peer_(std::move(peer)) {
  peer_->connection = this;
}

FakeTcpConnection::~FakeTcpConnection() {
  *alive_ = false;
  peer_->connection = nullptr;
  peer_->destroyed = true;
}

void FakeTcpConnection::Raise(std::function<void(TcpConnectionEvents&)> event) {
  PostIfAlive(net_.loop, alive_, [this, event = std::move(event)] {
    // A copy: the handler may destroy this connection.
    TcpConnectionEvents events = events_;
    if (open_) event(events);
  });
}

bool FakeTcpConnection::Send(const std::string& bytes) {
  if (!open_) return false;
  peer_->sent += bytes;
  Raise([](TcpConnectionEvents& e) {
    if (e.on_send_complete) e.on_send_complete();
  });
  return true;
}

std::string FakeTcpConnection::ReadAll() {
  std::string all;
  all.swap(received_);
  return all;
}

bool FakeTcpConnection::Close() {
  ++peer_->closes;
  open_ = false;
  return true;
}

FakeTcpListener::FakeTcpListener(FakeNetwork& net) : net_(net) {
  net_.tcp_listeners.push_back(this);
}

FakeTcpListener::~FakeTcpListener() {
  *alive_ = false;
  std::erase(net_.tcp_listeners, this);
}

bool FakeTcpListener::Listen(int port) {
  if (port < 0 || port > 65535 || net_.taken_tcp_ports.count(port)) return false;
  port_ = port == 0 ? 50000 : port;
  return true;
}

std::shared_ptr<FakeTcpPeer> FakeTcpListener::Connect() {
  auto peer = std::make_shared<FakeTcpPeer>();
  if (port_ == 0) return peer;
  const int64_t id = ++next_id_;
  PostIfAlive(net_.loop, alive_, [this, id, peer] {
    pending_[id] = peer;
    if (on_request_) on_request_(id);
    pending_.erase(id);
  });
  return peer;
}

std::unique_ptr<TcpConnection> FakeTcpListener::Accept(int64_t request_id) {
  auto it = pending_.find(request_id);
  if (it == pending_.end()) return nullptr;
  if (failing_accepts > 0) {
    --failing_accepts;
    return nullptr;
  }
  auto peer = it->second;
  pending_.erase(it);
  net_.tcp_peers.push_back(peer);
  return std::make_unique<FakeTcpConnection>(net_, std::move(peer));
}

}  // namespace platform
