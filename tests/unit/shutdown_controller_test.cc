// The shutdown controller in virtual time: the countdown and its shutdown
// flag, the exit timer that starts EXIT.EXE, and the end-program timer.
#include "power/shutdown_controller.h"

#include <algorithm>
#include <tuple>

#include "tests/unit/program_fixture.h"

namespace kovran_testing {
namespace {

// A countdown of `delay` s started 0.4 s after start-up (300 s: 299 left at
// its first tick). The flag comes at `flag_at` (0: never), checked 1 ms
// before and at it; 30 exit timer ticks later, the first at the first whole
// second not before the flag, EXIT.EXE starts and the program ends.
TEST(ShutdownControllerTest, Countdowns) {
  // settings, delay, alarm text at the first tick ("from before" when left
  // alone, kept to 600 s), flag_at
  const std::tuple<const char*, int16_t, std::string, Duration> cases[] = {
      {kOn, 300, Left(299), 297400ms},
      {kOn, 0, "from before", 0s},
      // Switched off, the countdown clears the text.
      {"ENABLESHUT: 0.0\r\n", 10, "", 0s},
  };
  for (const auto& [settings, delay, alarm, flag_at] : cases) {
    SCOPED_TRACE(settings + std::to_string(delay));
    ControllerRig r(settings);
    r.main.Load();
    r.AdvanceTo(400ms);
    r.s.DETAILTEXT = "Mains failure";
    r.s.DELAYSECONDS = delay;
    r.main.parts.PENCEREKUR();
    r.s.ALARMTEXT = "from before";
    EXPECT_EQ(r.LogCount("Mains failure"), 1);
    r.AdvanceTo(1400ms);
    EXPECT_EQ(r.s.ALARMTEXT, alarm);
    if (flag_at > 0s) {
      r.AdvanceTo(flag_at - 1ms);
      EXPECT_EQ(r.s.SHUTDOWNFLAG, 0);
    }
    r.AdvanceTo(flag_at > 0s ? flag_at : 600s);
    EXPECT_EQ(r.s.SHUTDOWNFLAG, flag_at > 0s);
    EXPECT_EQ(r.s.ALARMTEXT, flag_at > 0s ? Text(25) : alarm);
    r.fake.Advance(3600s);
    ASSERT_EQ(r.fake.ended(), flag_at > 0s);
    if (flag_at == 0s) continue;
    EXPECT_EQ(r.fake.Now(),
              std::chrono::ceil<std::chrono::seconds>(flag_at) + 29s);
    ASSERT_EQ(r.fake.starts.size(), 1u);
    EXPECT_EQ(r.fake.starts[0].command_line, "/kovran/EXIT.EXE");
    EXPECT_EQ(r.fake.starts[0].window_style, platform::kWindowNormalFocus);
  }
}

// The end-program timer (6000 ms here, as after a window's "ENDPROGRAM") on
// the NT family, where the program runs as a service: STOPCON.BAT, started
// hidden at every tick, must end it from outside.
TEST(ShutdownControllerTest, EndProgramTimer) {
  ControllerRig r(kOn);
  r.fake.platform_number = platform::kPlatformNt;
  r.fake.files["/kovran/CRKOVRA.BAT"] = "installed";
  r.main.Load();
  r.main.Timer6->SetInterval(6000);
  r.fake.Advance(18s);
  ASSERT_EQ(r.fake.starts.size(), 3u);
  for (const auto& start : r.fake.starts) {
    EXPECT_EQ(start.command_line, "/kovran/STOPCON.BAT");
    EXPECT_EQ(start.window_style, platform::kWindowHidden);
  }
}

}  // namespace
}  // namespace kovran_testing
