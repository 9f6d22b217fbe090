#include "snmp/agent_link.h"

namespace snmp {

namespace {

constexpr int32_t kOpenTimeoutMs = 1000;
constexpr int32_t kPollTimeoutMs = 10000;
constexpr int32_t kIdentifyTimeoutMs = 3000;
constexpr int32_t kCollectionMs = 2000;
constexpr char kBroadcast[] = "255.255.255.255";
constexpr int16_t kTrue = -1;
constexpr int16_t kFalse = 0;

bool IsTypeRow(int row) { return row >= 0 && row < frame::kUpsTypeRows; }

}  // namespace

AgentLink::AgentLink(frame::MainWindow& main)
    : Manager(main.platform), main_(main), s_(main.state) {
  frame::Parts& parts = main.parts;
  parts.OPENSNMP = [this] { return OPENSNMP(); };
  parts.POLLSNMP = [this] { POLLSNMP(); };
  parts.DISCOVERAGENTS = [this] { DISCOVERAGENTS(); };
  parts.CloseSnmpManager = [this] { Manager.Close(); };
  parts.WhenManagerFree = [this](std::function<void()> task) {
    WhenManagerFree(std::move(task));
  };
  parts.CollectionStepRunning = [this] { return step_running_; };
  parts.timer_expiry[5] = [this] { Timer5_Timer(); };
  Manager.SetOnReply([this] { Manager_Reply(); });
}

void AgentLink::WhenManagerFree(std::function<void()> task) {
  if (!manager_owned_ && waiting_tasks_.empty()) return task();
  waiting_tasks_.push_back(std::move(task));
}

void AgentLink::OwnManager(const std::function<void()>& body) {
  const bool outer = manager_owned_;
  manager_owned_ = true;
  body();
  manager_owned_ = outer;
  if (outer || waiting_tasks_.empty() || main_.ending()) return;
  main_.platform.Post([this] {
    while (!manager_owned_ && !waiting_tasks_.empty() && !main_.ending()) {
      auto task = std::move(waiting_tasks_.front());
      waiting_tasks_.pop_front();
      task();
    }
  });
}

bool AgentLink::OPENSNMP() {
  if (Manager.IsOpen()) return true;
  s_.DISCOVERACTIVE = kFalse;
  Manager.SetTimeout(kOpenTimeoutMs);
  return Manager.Open(kManagerPort);
}

void AgentLink::POLLSNMP() {
  List1.clear();
  const std::string& host = s_.SETTINGS[frame::HOST];
  Manager.SetAgentAddress(host);
  List1.push_back(host);
  Manager.SetTimeout(kPollTimeoutMs);
  Manager.ClearRequest();
  Manager.SetCommunity(kDefaultCommunity);
  // A type number outside the table polls nothing: the poll fails as for an
  // agent that does not answer.
  const bool known_type = IsTypeRow(s_.AGENTNO);
  static const std::array<std::string, frame::kUpsTypeFields> kNoType;
  const auto& type = known_type ? s_.UPSTYPES[s_.AGENTNO] : kNoType;
  for (const int field : {frame::BATSTAT, frame::TIME}) {
    Manager.AddVariable(type[field]);
    List1.push_back(Manager.Var(Manager.Count()).oid);
  }
  OwnManager([&] {
    if (!known_type || !Manager.Send()) {
      List1.push_back(kNetworkError);
      return;
    }
    int slot = 0;
    const int n = Manager.Count();
    for (int i = 1; i <= n; ++i) {
      const Variable& v = Manager.Var(i);
      if (v.oid == type[frame::BATSTAT]) {
        slot = 1;
      } else if (v.oid == type[frame::TIME]) {
        slot = 2;
      }
      s_.SNMPVALUES[slot] = v.value;
      List1.push_back(s_.SNMPVALUES[slot]);
    }
  });
}

// A discovery started while another collects restarts it: the earlier
// collection step is dropped with Timer5's pending expiry.
void AgentLink::DISCOVERAGENTS() {
  WhenManagerFree([this] {
    s_.DISCOVERACTIVE = kTrue;
    main_.Timer5->SetEnabled(false);
    main_.List2.clear();
    main_.platform.Yield();
    if (main_.ending()) return;
    Manager.SetTimeout(0);
    main_.Timer5->SetInterval(kCollectionMs);
    main_.Timer5->SetEnabled(true);
    Manager.ClearRequest();
    Manager.AddVariable(kSysNameOid);
    Manager.SetAgentAddress(kBroadcast);
    Manager.SetAgentPort(kAgentPort);
    Manager.Send();
  });
}

// A reply that comes while an earlier one yields is listed without a yield
// of its own, so that a flood of datagrams cannot nest without bound.
void AgentLink::Manager_Reply() {
  if (s_.DISCOVERACTIVE == kFalse) return;
  if (main_.List2.size() >= kMaxListedAgents) return;
  main_.List2.push_back(Manager.AgentAddress());
  if (in_reply_) return;
  in_reply_ = true;
  main_.platform.Yield();
  in_reply_ = false;
}

void AgentLink::Timer5_Timer() {
  if (manager_owned_) {
    // Due while a poll waits: the step runs once, after the poll.
    main_.Timer5->SetEnabled(false);
    waiting_tasks_.push_back([this] { Timer5_Timer(); });
    return;
  }
  // The step takes the discovery over while it runs: the main tick rests
  // (it would otherwise start a discovery asked for during the collection,
  // queued behind the step), and a window's "DISCOV" meanwhile waits for
  // this step's result.
  OwnManager([this] {
    step_running_ = true;
    s_.DISCOVERREQUEST = 2;
    s_.DISCOVERACTIVE = kFalse;
    main_.platform.Yield();
    std::vector<std::string>& list = main_.List2;
    if (!list.empty()) {
      const std::size_t n = list.size();
      for (std::size_t i = 0; i < n && i < list.size() && !main_.ending(); ++i) {
        if (list[i].empty()) continue;
        IDENTIFYAGENT(list[i]);
        if (s_.AGENTTYPE != 0) {
          list[i] = s_.UPSTYPES[s_.AGENTTYPE][frame::SHORT] + "-" + list[i];
        }
      }
    } else {
      list.push_back(kNoUpsFound);
    }
    if (main_.ending()) return;
    main_.Timer5->SetEnabled(false);
    step_running_ = false;
    s_.DISCOVERREQUEST = 0;
    std::string result = "DISCOVER";
    for (const std::string& entry : list) {
      if (!entry.empty()) result += entry + "\r\n";
    }
    s_.WINDOWMSG = result;
  });
}

void AgentLink::IDENTIFYAGENT(std::string address) {
  s_.AGENTTYPE = 0;
  Manager.SetAgentAddress(address);
  Manager.SetTimeout(kIdentifyTimeoutMs);
  Manager.ClearRequest();
  Manager.SetCommunity(kDefaultCommunity);
  Manager.AddVariable(kSysObjectIdOid);
  if (!Manager.Send()) return;
  const int n = Manager.Count();
  for (int i = 1; i <= n; ++i) {
    const std::string& text = Manager.Var(i).value;
    for (int j = 1; j < frame::kUpsTypeRows; ++j) {
      if (s_.UPSTYPES[j][frame::SYSOBJE] == text) {
        s_.AGENTTYPE = static_cast<int16_t>(j);
        return;
      }
    }
  }
}

}  // namespace snmp
