// The power evaluation of SNMP mode: turns the two values read from the
// UPS's agent into the power state (on mains, on battery, battery low),
// which starts, restarts or stops the shutdown countdown.
#ifndef KOVRAN_POWER_POWER_EVALUATION_H_
#define KOVRAN_POWER_POWER_EVALUATION_H_

#include <string>

#include "frame/main_window.h"

namespace power {

class PowerEvaluation {
 public:
  // Registers the evaluation with `main`; the main tick calls it.
  explicit PowerEvaluation(frame::MainWindow& main);

  // V1: the value of the type's BATSTAT object (0 on mains); V2: the value
  // of its TIME object (the battery-status code).
  void Evaluate(const std::string& V1, const std::string& V2);

  // In SNMP mode, logs each countdown setting that holds no number or gives
  // less than 3 s, with what a power failure then does.
  void CheckSettings();

 private:
  void MainsReturn();
  // Runs `on_match` once for every entry of `codes` (from entry 1, up to the
  // first empty one) that equals N.
  template <typename F>
  void ForEachMatch(const std::array<int16_t, frame::kBatteryCodes>& codes,
                    double N, F on_match);

  frame::MainWindow& main_;
  frame::ProgramState& s_;
};

}  // namespace power

#endif  // KOVRAN_POWER_POWER_EVALUATION_H_
