// The program's one SNMP manager: a UDP socket on the manager's port, one
// outgoing get request at a time, and the reply event for every other
// message that arrives.
//
// Requests go out as SNMPv1 GetRequests. With a timeout above 0, Send()
// waits for the GetResponse that carries the request's id and comes from
// the agent's address; the program keeps serving its timers and sockets
// meanwhile (Platform::RunUntil). A reply with an error status or with an
// exception value (noSuchObject, noSuchInstance, endOfMibView) fails the
// send: a value that is not there must never read as a number.
#ifndef KOVRAN_SNMP_MANAGER_H_
#define KOVRAN_SNMP_MANAGER_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "snmp/message.h"

namespace snmp {

inline constexpr int kAgentPort = 161;
inline constexpr int kManagerPort = 162;
inline constexpr char kDefaultCommunity[] = "public";

struct Variable {
  std::string oid;    // dotted decimal, as it was set or as the agent sent it
  std::string value;  // the value as text; empty in a request
};

class Manager {
 public:
  explicit Manager(platform::Platform& platform);
  Manager(const Manager&) = delete;
  Manager& operator=(const Manager&) = delete;

  bool IsOpen() const { return socket_ != nullptr; }
  // Binds the local UDP `port`; false when it cannot be bound (taken, or
  // below 1024 without the right to bind it). Closes an open port first.
  bool Open(int port);
  // Releases the port. A send waiting for its reply fails at once.
  void Close();

  // Where the next request goes: a host name, a dotted IPv4 address or
  // 255.255.255.255. While a reply event is handled it names the sender of
  // the message, in dotted form.
  void SetAgentAddress(const std::string& address) { agent_address_ = address; }
  const std::string& AgentAddress() const { return agent_address_; }
  void SetAgentPort(int port) { agent_port_ = port; }
  // Milliseconds Send() waits for the reply; 0 or below: it does not wait.
  void SetTimeout(int32_t ms) { timeout_ms_ = ms; }

  // Empties the request of its variables; the community stays.
  void ClearRequest() { variables_.clear(); }
  void SetCommunity(const std::string& community) { community_ = community; }
  // Appends a variable with `oid` to the request.
  void AddVariable(const std::string& oid) { variables_.push_back({oid, ""}); }

  // Sends the request as a GetRequest for all its variables. Without a
  // timeout, true once it has gone out. With one, true when the matching
  // reply came in time without an error; the request then holds the reply's
  // variables in the reply's order. False when closed, when the address
  // does not resolve, when a variable's identifier cannot be encoded, when
  // the datagram cannot be sent, or while another send is waiting.
  bool Send();

  // The request's variables (after a waited-for send: the reply's).
  int Count() const { return static_cast<int>(variables_.size()); }
  // Variable at `position`, 1-based; an empty one outside 1..Count().
  const Variable& Var(int position) const;

  // Raised for every SNMP message that no waiting send takes, once
  // AgentAddress() names its sender. A datagram that is not an SNMP message
  // is dropped.
  void SetOnReply(std::function<void()> on_reply) { on_reply_ = std::move(on_reply); }

 private:
  void OnDatagram(const std::string& data, const std::string& sender);

  platform::Platform& platform_;
  std::unique_ptr<platform::UdpSocket> socket_;
  uint64_t generation_ = 0;  // bumped by every Open and Close
  std::string agent_address_;
  int agent_port_ = kAgentPort;
  int32_t timeout_ms_ = 0;
  std::string community_ = kDefaultCommunity;
  std::vector<Variable> variables_;
  int32_t next_request_id_;
  std::function<void()> on_reply_;

  // The send that waits: its request id, the agent's dotted address, and
  // the reply once it came.
  bool waiting_ = false;
  int32_t awaited_id_ = 0;
  std::string awaited_sender_;
  std::optional<Message> reply_;
};

}  // namespace snmp

#endif  // KOVRAN_SNMP_MANAGER_H_
