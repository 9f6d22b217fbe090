// The shutdown controller in virtual time: the countdown and its shutdown
// flag, the exit timer that starts EXIT.EXE, and the end-program timer.
#include "power/shutdown_controller.h"

#include <algorithm>

#include "tests/unit/program_fixture.h"

namespace kovran_testing {
namespace {

constexpr char kExitExe[] = "/kovran/EXIT.EXE";
constexpr char kStopcon[] = "/kovran/STOPCON.BAT";
using R = ControllerRig;
using Act = std::function<void(R&)>;

// A countdown of `delay` s started 0.4 s after start-up at `wall` s past
// midnight (300 s from 10:00:00.4: 299 left at its first tick). The flag
// comes at `flag_at` (0: never), checked 1 ms before and at it; 30 exit
// timer ticks later, the first at the first whole second not before the
// flag, EXIT.EXE starts and the program ends. `act` may disturb the road.
TEST(ShutdownControllerTest, Countdowns) {
  const Act clock_back = [](R& r) {
    r.fake.SetWallClock(r.fake.Today(), r.fake.SecondsSinceMidnight() - 3600);
  };
  const Act restart_70 = [](R& r) {
    r.s.DELAYSECONDS = 70;
    r.main.parts.PENCEREKUR();
  };
  const Act stale_count_exit_fails = [](R& r) {
    r.s.EXITCOUNT = 29;
    r.fake.failing_starts.insert(kExitExe);
  };
  const Act saymasifir = [](R& r) { r.main.parts.SAYMASIFIR(); };
  const Act overwrite = [](R& r) { r.s.ALARMTEXT = "left alone"; };
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
    double wall = 36000;
  } cases[] = {
      {kOn, 300, 1400ms, Left(299), 297400ms},
      {kOn, 300, 100400ms, Left(200), 297400ms, 0s, nullptr, 86300},
      {kOn, 300, 150400ms, Left(150), 297400ms, 150s, clock_back},
      {kOn, 300, 1400ms, Left(299), 297400ms, 500ms, stale_count_exit_fails},
      {kOn, 300, 101500ms, Left(69), 167500ms, 100500ms, restart_70},
      {kOn, 300, 101400ms, Left(299), 397400ms, 100500ms, saymasifir},
      {kOn, 300, 311s, Left(69), 297400ms, 310s, restart_70},
      {kOn, 3, 1400ms, Text(25), 1400ms},
      {kOn, 4, 1400ms, Text(25), 1400ms},
      // Ticks past the end change nothing once the flag is set.
      {kOn, 5, 15s, "left alone", 2400ms, 10s, overwrite},
      // Ticks held up past the last seconds: the countdown has run out.
      {kOn, 10, 21s, Text(25), 21s, 2s, held},
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
    r.fake.SetWallClock({2026, 11, 23}, c.wall);
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
    const bool fails = !r.fake.failing_starts.empty();
    EXPECT_EQ(r.LogCount(std::string(kExitExe) + " " + Text(52)), fails);
    ASSERT_EQ(r.fake.starts.size(), fails ? 0u : 1u);
    if (fails) continue;
    EXPECT_EQ(r.fake.starts[0].command_line, kExitExe);
    EXPECT_EQ(r.fake.starts[0].window_style, platform::kWindowNormalFocus);
  }
}

// The end-program timer (6000 ms here, as after a window's "ENDPROGRAM").
// Off the NT family it closes the SNMP manager and the server socket and
// ends; on it the program runs as a service, and STOPCON.BAT, started hidden
// at every tick (a failure logged each time), must end it from outside.
TEST(ShutdownControllerTest, EndProgramTimer) {
  for (const auto& [nt, stopcon_fails] :
       {std::pair{false, false}, std::pair{true, false},
        std::pair{true, true}}) {
    SCOPED_TRACE(testing::Message() << "NT " << nt << ", " << stopcon_fails);
    ControllerRig r(kOn);
    if (nt) r.fake.platform_number = platform::kPlatformNt;
    r.fake.files["/kovran/CRKOVRA.BAT"] = "installed";
    if (stopcon_fails) r.fake.failing_starts.insert(kStopcon);
    std::string closed;
    r.main.parts.CloseSnmpManager = [&] { closed += "manager "; };
    r.main.parts.CloseServerSocket = [&] { closed += "server"; };
    r.main.Load();
    r.main.Timer6->SetInterval(6000);
    r.fake.Advance(18s);
    EXPECT_EQ(r.fake.Now(), nt ? 18s : 6s);
    EXPECT_EQ(closed, nt ? "" : "manager server");
    EXPECT_EQ(r.LogCount("QueryUnload Program ended"), !nt);
    EXPECT_EQ(r.LogCount(std::string(kStopcon) + " " + Text(52)),
              stopcon_fails ? 3 : 0);
    ASSERT_EQ(r.fake.starts.size(), nt && !stopcon_fails ? 3u : 0u);
    for (const auto& start : r.fake.starts) {
      EXPECT_EQ(start.command_line, kStopcon);
      EXPECT_EQ(start.window_style, platform::kWindowHidden);
    }
  }
}

}  // namespace
}  // namespace kovran_testing
