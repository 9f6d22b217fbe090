// The shutdown controller in virtual time: the countdown and its shutdown
// flag, the exit timer that starts EXIT.EXE, and the end-program timer.
#include "power/shutdown_controller.h"

#include <algorithm>
#include <tuple>

#include "tests/unit/program_fixture.h"

namespace kovran_testing {
namespace {

constexpr char kExitExe[] = "/kovran/EXIT.EXE";
using R = ControllerRig;
using Act = std::function<void(R&)>;

// A countdown of `delay` s started 0.4 s after start-up (300 s: 299 left at
// its first tick). The flag comes at `flag_at` (0: never), checked 1 ms
// before and at it; 30 exit timer ticks later, the first at the first whole
// second not before the flag, EXIT.EXE starts and the program ends. `act`
// may disturb the road.
TEST(ShutdownControllerTest, Countdowns) {
  const Act restart_70 = [](R& r) {
    r.s.DELAYSECONDS = 70;
    r.main.parts.PENCEREKUR();
  };
  const Act held = [](R& r) {  // no tick from 2 s to 20 s
    r.main.Timer3->SetEnabled(false);
    r.AdvanceTo(20s);
    r.main.Timer3->SetEnabled(true);
  };
  const struct {
    const char* settings;
    int16_t delay;
    Duration probe_at;
    std::string alarm;  // at probe_at; "from before" when left alone
    Duration flag_at, act_at = 0s;
    Act act = nullptr;
  } cases[] = {
      {kOn, 300, 1400ms, Left(299), 297400ms},
      {kOn, 300, 101500ms, Left(69), 167500ms, 100500ms, restart_70},
      {kOn, 300, 311s, Left(69), 297400ms, 310s, restart_70},
      {kOn, 3, 1400ms, Text(25), 1400ms},
      {kOn, 4, 1400ms, Text(25), 1400ms},
      // Ticks held up past the last seconds: the countdown has run out, but
      // after that gap the final phase waits for a fresh reading; none comes
      // here, so it comes one reply watchdog period (18 s) later.
      {kOn, 10, 21s, Left(0), 39s, 2s, held},
      {kOn, 0, 600s, "from before", 0s},
      {kOn, -32768, 600s, "from before", 0s},
      {"ENABLESHUT: 2\r\n", 10, 7400ms, Text(25), 7400ms},
      // Switched off, the countdown clears the text.
      {"ENABLESHUT:0\r\n", 10, 600s, "", 0s},
      {"", 10, 600s, "", 0s},
      {"ENABLESHUT: 0.0\r\n", 10, 600s, "", 0s},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.alarm + " at " + std::to_string(c.probe_at / 1ms));
    ControllerRig r(c.settings);
    r.main.Load();
    r.AdvanceTo(400ms);
    r.s.DETAILTEXT = "Mains failure";
    r.s.DELAYSECONDS = c.delay;
    r.main.parts.PENCEREKUR();
    r.s.ALARMTEXT = "from before";
    EXPECT_EQ(r.LogCount("Mains failure"), 1);
    std::vector<Duration> checks = {c.probe_at};
    if (c.flag_at > 0s)
      checks.insert(checks.end(), {c.flag_at - 1ms, c.flag_at});
    std::sort(checks.begin(), checks.end());
    for (Duration t : checks) {
      if (c.act && c.act_at > r.fake.Now() && c.act_at <= t) {
        r.AdvanceTo(c.act_at);
        c.act(r);
      }
      r.AdvanceTo(t);
      EXPECT_EQ(r.s.SHUTDOWNFLAG, c.flag_at > 0s && t >= c.flag_at) << t / 1ms;
      if (t == c.probe_at) {
        EXPECT_EQ(r.s.ALARMTEXT, c.alarm);
      }
    }
    r.fake.Advance(3600s);
    ASSERT_EQ(r.fake.ended(), c.flag_at > 0s);
    if (c.flag_at == 0s) continue;
    EXPECT_EQ(r.fake.Now(),
              std::chrono::ceil<std::chrono::seconds>(c.flag_at) + 29s);
    ASSERT_EQ(r.fake.starts.size(), 1u);
    EXPECT_EQ(r.fake.starts[0].command_line, kExitExe);
    EXPECT_EQ(r.fake.starts[0].window_style, platform::kWindowNormalFocus);
  }
}

// The end-program timer (6000 ms here, as after a window's "ENDPROGRAM").
// Off the NT family it closes the SNMP manager and the server socket and
// ends; on it the program runs as a service, and STOPCON.BAT, started hidden
// at every tick, must end it from outside.
TEST(ShutdownControllerTest, EndProgramTimer) {
  for (const bool nt : {false, true}) {
    SCOPED_TRACE(nt);
    ControllerRig r(kOn);
    if (nt) r.fake.platform_number = platform::kPlatformNt;
    r.fake.files["/kovran/CRKOVRA.BAT"] = "installed";
    std::string closed;
    r.main.parts.CloseSnmpManager = [&] { closed += "manager "; };
    r.main.parts.CloseServerSocket = [&] { closed += "server"; };
    r.main.Load();
    r.main.Timer6->SetInterval(6000);
    r.fake.Advance(18s);
    EXPECT_EQ(std::tuple(r.fake.Now(), closed,
                         r.LogCount("QueryUnload Program ended")),
              std::tuple(nt ? 18s : 6s, nt ? "" : "manager server", !nt));
    ASSERT_EQ(r.fake.starts.size(), nt ? 3u : 0u);
    for (const auto& start : r.fake.starts) {
      EXPECT_EQ(start.command_line, "/kovran/STOPCON.BAT");
      EXPECT_EQ(start.window_style, platform::kWindowHidden);
    }
  }
}

}  // namespace
}  // namespace kovran_testing
