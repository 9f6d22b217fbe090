// The SNMP agent link: the status poll of the UPS's agent and the discovery
// of the agents on the local segment, both through the one manager.
//
// The manager serves one request at a time. A poll and a collection step
// wait for replies while the program goes on serving its timers and
// sockets; anything that would use the manager meanwhile (a discovery asked
// for by a window, a collection step come due during a poll) waits until
// the poll or the step has returned, and then runs in the order it came.
#ifndef KOVRAN_SNMP_AGENT_LINK_H_
#define KOVRAN_SNMP_AGENT_LINK_H_

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "frame/main_window.h"
#include "snmp/manager.h"

namespace snmp {

inline constexpr char kSysNameOid[] = "1.3.6.1.2.1.1.5.0";
inline constexpr char kSysObjectIdOid[] = "1.3.6.1.2.1.1.2.0";
inline constexpr char kNetworkError[] = "NETWORK ERROR";
inline constexpr char kNoUpsFound[] = "No UPS found.";
// Agents one discovery lists at most; later replies are ignored. Each
// listed agent may cost an identification of 3 s, during which the poll
// rests, so a flood of replies must not be able to stall it for long.
inline constexpr std::size_t kMaxListedAgents = 100;

class AgentLink {
 public:
  // Registers OPENSNMP, POLLSNMP, DISCOVERAGENTS, the manager's close,
  // Timer5's handler and the manager guard with `main`.
  explicit AgentLink(frame::MainWindow& main);

  bool OPENSNMP();
  void POLLSNMP();
  void DISCOVERAGENTS();
  void Manager_Reply();  // the manager's reply event
  void Timer5_Timer();   // the collection step
  void IDENTIFYAGENT(std::string address);

  // Runs `task` now, or once the poll or collection step under way has
  // returned.
  void WhenManagerFree(std::function<void()> task);

  snmp::Manager Manager;
  // The poll trace: the agent address, both identifiers, then each value
  // received or "NETWORK ERROR".
  std::vector<std::string> List1;

 private:
  // Runs `body` as a section that owns the manager.
  void OwnManager(const std::function<void()>& body);

  frame::MainWindow& main_;
  frame::ProgramState& s_;
  bool manager_owned_ = false;
  bool in_reply_ = false;
  bool step_running_ = false;
  std::deque<std::function<void()>> waiting_tasks_;
};

}  // namespace snmp

#endif  // KOVRAN_SNMP_AGENT_LINK_H_
