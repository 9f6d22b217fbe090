// The whole program: the main window with every subsystem plugged into it.
// Used by main() on the real platform and by whole-program tests on the fake.
#ifndef KOVRAN_APP_PROGRAM_H_
#define KOVRAN_APP_PROGRAM_H_

#include "frame/main_window.h"
#include "localports/control_port.h"
#include "localports/local_windows.h"
#include "power/main_tick.h"
#include "power/power_evaluation.h"
#include "power/shutdown_controller.h"
#include "serverlink/server_link.h"
#include "snmp/agent_link.h"

namespace app {

class Program {
 public:
  explicit Program(platform::Platform& platform)
      : main(platform),
        shutdown(main),
        tick(main),
        evaluation(main),
        server_link(main),
        agent_link(main),
        windows(main),
        control_port(main) {}

  // Start-up; afterwards the platform's loop delivers the events.
  void Load() { main.Load(); }

  frame::MainWindow main;
  power::ShutdownController shutdown;
  power::MainTick tick;
  power::PowerEvaluation evaluation;
  serverlink::ServerLink server_link;
  snmp::AgentLink agent_link;
  localports::LocalWindows windows;
  localports::ControlPort control_port;
};

}  // namespace app

#endif  // KOVRAN_APP_PROGRAM_H_
