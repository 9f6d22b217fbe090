#include "power/power_evaluation.h"

#include "frame/numeric.h"

namespace power {

namespace {

// Ten seconds more than the whole minutes of LOWTIME.
constexpr double kLowBatteryExtraSeconds = 10;

}  // namespace

PowerEvaluation::PowerEvaluation(frame::MainWindow& main)
    : main_(main), s_(main.state) {
  main.parts.PowerEvaluation = [this](const std::string& V1,
                                      const std::string& V2) {
    Evaluate(V1, V2);
  };
  main.parts.SettingsRead = [this] { CheckSettings(); };
}

// Such a setting is most likely a mistake in the file, yet it cannot be
// refused: every power failure needs a countdown, and the shortest is 3 s.
void PowerEvaluation::CheckSettings() {
  if (!main_.SnmpMode()) return;
  const struct {
    frame::SettingIndex key;
    const char *name, *event;
    double extra;
  } settings[] = {
      {frame::BACKUPTIME, "BACKUPTIME:", "a power failure", 0},
      {frame::LOWTIME, "LOWTIME:", "a low battery", kLowBatteryExtraSeconds},
  };
  for (const auto& setting : settings) {
    const std::string& text = s_.SETTINGS[setting.key];
    const double seconds = frame::NumericValue(text) * 60 + setting.extra;
    const bool number = text.find_first_of("0123456789") != std::string::npos;
    if (number && seconds >= 3) continue;
    s_.LOGLINE = setting.name + text +
                 (number ? " gives less than 3 s" : " holds no number") +
                 ": in SNMP mode " + setting.event +
                 " switches the PC off after a countdown of " +
                 std::to_string(frame::CountdownSeconds(seconds)) + " s";
    main_.WRITELOG();
  }
}

template <typename F>
void PowerEvaluation::ForEachMatch(
    const std::array<int16_t, frame::kBatteryCodes>& codes, double N,
    F on_match) {
  for (int k = 1; k < frame::kBatteryCodes; ++k) {
    if (codes[k] == frame::kEmptyBatteryCode) break;
    if (N == codes[k]) on_match();
  }
}

// Mains return leaves BATTERYLOW as it is: after a low-battery episode the
// mains-return text stays until the all-clear replaces it, and a later
// low-battery reading on battery shows its text without a new countdown.
void PowerEvaluation::Evaluate(const std::string& V1, const std::string& V2) {
  s_.COMMOK = 1;
  if (frame::NumericValue(V1) == 0) {
    if (s_.ONBATTERY == 1) MainsReturn();
  } else {
    // A row outside the table has no codes: nothing matches.
    const int row = s_.AGENTNO;
    const bool known = row >= 0 && row < frame::kUpsTypeRows;
    const double N = frame::NumericValue(V2);
    if (known) {
      ForEachMatch(s_.BTNORMAL[row], N, [this] {
        if (s_.ONBATTERY == 0) {
          s_.DELAYSECONDS = frame::CountdownSeconds(
              frame::NumericValue(s_.SETTINGS[frame::BACKUPTIME]) * 60);
          main_.parts.SAYMASIFIR();
          main_.parts.PENCEREKUR();
          s_.DETAILTEXT = s_.Message(39);
          s_.ONBATTERY = 1;
        }
        if (s_.BATTERYLOW == 1) {
          s_.DETAILTEXT = s_.Message(39);
          s_.BATTERYLOW = 0;
        }
      });
      ForEachMatch(s_.BTLOW[row], N, [this] {
        if (s_.BATTERYLOW == 0) {
          s_.DELAYSECONDS = frame::CountdownSeconds(
              frame::NumericValue(s_.SETTINGS[frame::LOWTIME]) * 60 +
              kLowBatteryExtraSeconds);
          main_.parts.SAYMASIFIR();
          main_.parts.PENCEREKUR();
          s_.BATTERYLOW = 1;
        }
        s_.DETAILTEXT = s_.Message(41);
        s_.ONBATTERY = 1;
      });
    }
  }
  if (s_.BATTERYLOW == 0 && s_.ONBATTERY == 0) s_.DETAILTEXT = s_.Message(42);
}

void PowerEvaluation::MainsReturn() {
  s_.DETAILTEXT = s_.Message(40);
  s_.ONBATTERY = 0;
  s_.ALARMTEXT.clear();
  main_.parts.ACIL();
  main_.parts.SAYMASIFIR();
  main_.StopCountdownTimer();
  main_.StartAllClearTimer();
}

}  // namespace power
