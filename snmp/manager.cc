#include "snmp/manager.h"

#include <random>

namespace snmp {

namespace {

constexpr int32_t kVersion1 = 0;

}  // namespace

// Request ids start at a random point, so that a host on the LAN cannot
// guess the id of the next poll and answer it in the agent's name.
Manager::Manager(platform::Platform& platform)
    : platform_(platform),
      next_request_id_(static_cast<int32_t>(std::random_device{}() & 0x3FFFFFFF) + 1) {}

bool Manager::Open(int port) {
  Close();
  auto socket = platform_.NewUdpSocket();
  if (!socket->Bind(port)) return false;
  socket->SetEvents({.on_datagram = [this](const std::string& data,
                                           const std::string& sender, int) {
    OnDatagram(data, sender);
  }});
  socket_ = std::move(socket);
  ++generation_;
  return true;
}

void Manager::Close() {
  socket_.reset();
  ++generation_;
}

const Variable& Manager::Var(int position) const {
  static const Variable kNone;
  if (position < 1 || position > Count()) return kNone;
  return variables_[position - 1];
}

// A name's resolution serves the program's events: meanwhile this send
// counts as waiting, so that no other send starts and no reply is taken
// before the request has gone out, and a close ends it.
bool Manager::Send() {
  if (!socket_ || waiting_) return false;
  const int32_t id = next_request_id_;
  next_request_id_ = next_request_id_ == INT32_MAX ? 1 : next_request_id_ + 1;
  std::vector<std::string> oids;
  for (const Variable& v : variables_) oids.push_back(v.oid);
  const EncodeResult request = EncodeGetRequest(kVersion1, community_, id, oids);
  if (!request.ok) return false;
  waiting_ = true;
  awaited_sender_.clear();
  reply_.reset();
  const uint64_t generation = generation_;
  const std::string address = platform_.ResolveIPv4(std::string(agent_address_));
  if (generation_ != generation || address.empty() ||
      !socket_->SetRemote(address, agent_port_) || !socket_->Send(request.bytes)) {
    waiting_ = false;
    return false;
  }
  if (timeout_ms_ <= 0) {
    waiting_ = false;
    return true;
  }
  awaited_id_ = id;
  awaited_sender_ = address;
  platform_.RunUntil([&] { return reply_ || generation_ != generation; },
                     platform_.SteadySeconds() + timeout_ms_ / 1000.0);
  waiting_ = false;
  if (!reply_ || generation_ != generation) return false;
  const Message reply = std::move(*reply_);
  reply_.reset();
  if (reply.error_status != 0) return false;
  for (const VarBind& b : reply.bindings) {
    if (IsException(b.kind)) return false;
  }
  variables_.clear();
  for (const VarBind& b : reply.bindings) variables_.push_back({b.oid, b.text});
  return true;
}

void Manager::OnDatagram(const std::string& data, const std::string& sender) {
  DecodeResult decoded = Decode(data);
  if (!decoded.ok) return;
  const Message& m = decoded.message;
  if (waiting_ && !reply_ && m.type == PduType::kGetResponse &&
      m.request_id == awaited_id_ && sender == awaited_sender_) {
    reply_ = std::move(decoded.message);
    return;
  }
  agent_address_ = sender;
  if (on_reply_) on_reply_();
}

}  // namespace snmp
