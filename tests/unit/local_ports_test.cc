// The local windows and the control port on the fake platform: every window
// request with the notice rules, the window sockets' ports, who may speak,
// the control requests and the slot rotation.
#include <optional>

#include "tests/unit/program_fixture.h"

namespace kovran_testing {
namespace {

struct LocalPortsRig : ProgramRig {
  LocalPortsRig() : ProgramRig("LOCALWINDOWPORT:5000\r\nMAXLOCALUSERS:4\r\n") {
    program.Load();
    main.parts.OPENSNMP = [this] { return calls += "open", true; };
    main.parts.CloseSnmpManager = [this] { calls += "close"; };
    main.parts.DISCOVERAGENTS = [this] { calls += "discover"; };
  }
  // The answer to `request` from window i, or nothing.
  std::optional<std::string> Ask(int i, const std::string& request,
                                 const std::string& sender = "127.0.0.1") {
    auto& window = static_cast<platform::FakeUdpSocket&>(*program.windows.Winsock3(i));
    const std::size_t before = window.sent.size();
    window.Deliver(request, sender);
    fake.RunReady();
    if (window.sent.size() == before) return std::nullopt;
    return window.sent.back();
  }
  std::string calls;
};

// What a window request may change, in one line: STOPPED, ENDREQUEST,
// DISCOVERREQUEST, the notices of windows 1..3, the common notice, the
// calls, what the service was told (+ running, - paused).
std::string After(const LocalPortsRig& rig) {
  const frame::ProgramState& s = rig.s;
  std::string reports;
  for (bool watching : rig.fake.watching_reports) reports += watching ? "+" : "-";
  return "S" + std::to_string(s.STOPPED) + " E" + std::to_string(s.ENDREQUEST) +
         " D" + std::to_string(s.DISCOVERREQUEST) + " " + s.WINDOWMSGS[1] + "|" +
         s.WINDOWMSGS[2] + "|" + s.WINDOWMSGS[3] + " " + s.WINDOWMSG + rig.calls +
         reports;
}

TEST(LocalWindowsTest, RequestsAndNoticesInTheirOrder) {
  const struct {
    std::function<void(frame::ProgramState&)> setup;
    int window;
    std::string request;
    std::optional<std::string> answer;
    std::string after;
  } cases[] = {
      {[](auto& s) { s.STOPPED = 1, s.COMMOK = 0, s.ALARMTEXT = "12", s.WINDOWMSG = "X"; },
       1, "LABELSx", "010++Connecting++On mains++12", "S1 E0 D0 || X"},
      {[](auto& s) { s.STOPPED = 1; }, 1, "START", std::nullopt, "S0 E0 D0 || open+"},
      {{}, 2, "STOPPED", std::nullopt, "S1 E0 D0 || close-"},
      {{}, 1, "ENDPROG", std::nullopt, "S0 E0 D0 || "},
      {[](auto& s) { s.WINDOWMSGS[3] = "DISCOVER", s.WINDOWMSG = "DISCOVERa\r\n"; },
       3, "LABELS", "DISCOVERa\r\n", "S0 E0 D0 || "},
      {[](auto& s) { s.WINDOWMSGS[1] = "DISCOVER"; }, 1, "LABELS",
       "001++Connecting++On mains++", "S0 E0 D0 DISCOVER|| "},
      {[](auto& s) { s.ENDREQUEST = 1, s.SHUTDOWNFLAG = 1; }, 1, "DISCOV",
       "SHUTDOWN", "S0 E1 D1 DISCOVER|| discover"},
      {[](auto& s) { s.SETTINGS[frame::CONNECTION] = "SNMP"; }, 1, "DISCOV", "",
       "S0 E0 D1 DISCOVER|| "},
      {{}, 4, "LABELS", std::nullopt, "S0 E0 D0 || "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.request + " from window " + std::to_string(c.window));
    LocalPortsRig rig;
    rig.s.STATUSTEXT = Text(21), rig.s.COMMOK = 1;
    if (c.setup) c.setup(rig.s);
    EXPECT_EQ(rig.Ask(c.window, c.request), c.answer);
    EXPECT_EQ(After(rig), c.after);
  }
}

TEST(LocalWindowsTest, SetupWithABrokenFileKeepsTheSettings) {
  LocalPortsRig rig;
  rig.fake.files["/kovran/upsser.cfg"] = "POLLINGTIME:9\r\nCLIENTPORT:99999\r\n";
  EXPECT_EQ(rig.Ask(2, "SETUPR"), "SETUPR");
  EXPECT_THAT(rig.fake.files[kLogFile],
              ::testing::EndsWith("line 2: CLIENTPORT: value is not within -32768..32767; "
                                  "the previous settings stay\r\n23-11-2026--10:00:00.." + Text(49) + "\r\n"));
  EXPECT_THAT(rig.s.WINDOWMSGS, ElementsAre("", "SETUPR", "", "SETUPR"));
  rig.main.UnloadMainWindow();
  // Unloading closes the windows' sockets.
  EXPECT_THAT(rig.fake.network.udp_bound, ElementsAre(::testing::Key(162)));
}

// A sender missing from the address list makes it be read again, at most
// once a second.
TEST(LocalWindowsTest, OnlyThisMachineMaySpeak) {
  LocalPortsRig rig;
  EXPECT_TRUE(rig.Ask(1, "LABELS", "192.168.1.20"));
  EXPECT_FALSE(rig.Ask(1, "LABELS", "10.0.0.7"));
  rig.fake.network.addresses.push_back("10.0.0.7");
  rig.fake.Advance(999ms);
  EXPECT_FALSE(rig.Ask(1, "LABELS", "10.0.0.7"));
  rig.fake.Advance(1ms);
  EXPECT_TRUE(rig.Ask(1, "LABELS", "10.0.0.7"));
}

TEST(LocalWindowsTest, SocketsArePairedUpToTheFirstFailure) {
  const struct {
    int base, count;
    std::vector<int> bound;
    const char* log;
  } cases[] = {
      {4000, 2, {4001, 4003}, nullptr},
      {32766, 2, {32767}, " 32766 Local window Port open failed"},
      {32767, 1, {}, " 32767 Local window Port open failed"},
      {-5, 1, {}, "-5 Local window Port open failed"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.base);
    ProgramRig rig("LOCALWINDOWPORT:" + std::to_string(c.base) +
                   "\r\nMAXLOCALUSERS:" + std::to_string(c.count) + "\r\n");
    rig.program.Load();
    std::vector<int> bound;
    for (int i = 1; auto* w = rig.program.windows.Winsock3(i); ++i) {
      auto& socket = static_cast<platform::FakeUdpSocket&>(*w);
      bound.push_back(socket.LocalPort());
      EXPECT_EQ(socket.remote_host(), "192.168.1.20");
    }
    EXPECT_EQ(bound, c.bound);
    EXPECT_EQ(rig.LogCount(c.log ? c.log : "Local window Port open failed"),
              c.log ? 1 : 0);
  }
}

TEST(ControlPortTest, Requests) {
  const struct {
    std::string request;
    int platform_number;
    int16_t stopped;
    std::string reply;
  } cases[] = {
      {"H:TSIP:>C:RUNSTATUS", 2, 7, ""},
      {"H:TSIP:>C:RUNSTATUS", 1, 1, "3\r"},
      {"H:Ts>IP:>C:RUNSTATUS", 1, 0, ""},
      {"H:TS>IP>C:RUNSTATUS", 1, 0, ""},
      {"H:TS>IP:RUNSTATUS>C:", 1, 0, ""},
      {"H:TS>IP:>C:RUNSTATUS+ENDSERWIN+EXITPROGRAM", 1, 0, "OK-ENDSERWIN"},
      {"H:TS>IP:>C:EXITPROGRAM", 2, 0, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.request);
    ControllerRig rig("");
    rig.fake.platform_number = c.platform_number;
    rig.s.STOPPED = c.stopped;
    EXPECT_EQ(localports::WINDOWCOMMAND(rig.main, c.request), c.reply);
    const std::string end = c.reply == "OK-ENDSERWIN" ? "ENDWINDOW" : "";
    EXPECT_THAT(rig.s.WINDOWMSGS, ElementsAre("", end, end, end));
    EXPECT_EQ(rig.s.WINDOWMSG, end);
    const bool stopsrv = c.platform_number == 2 && c.request.ends_with("EXITPROGRAM");
    EXPECT_EQ(rig.fake.starts.size(), stopsrv ? 1u : 0u);
  }
}

TEST(ControlPortTest, SlotsRotateAndEndWithTheirConnection) {
  LocalPortsRig rig;
  auto& listener = *rig.fake.network.tcp_listeners.at(0);
  std::vector<std::shared_ptr<platform::FakeTcpPeer>> peers;
  for (int n = 0; n < 16; ++n) {
    peers.push_back(listener.Connect());
    rig.fake.RunReady();
  }
  peers[1]->Deliver("H:TS>IP:>C:RUNSTATUS\r\n");
  peers[2]->Deliver("H:TS>IP:>C:NOTHING\r\n");
  peers[3]->Close();
  rig.fake.RunReady();
  EXPECT_TRUE(peers[1]->destroyed && peers[1]->closes == 1);
  EXPECT_FALSE(peers[2]->destroyed) << "no reply keeps it open";
  EXPECT_TRUE(peers[3]->destroyed);
  EXPECT_TRUE(peers[0]->destroyed) << "the 16th takes the oldest slot";
  // Slots run 1..15, so the 16th took slot 1; a request nobody can take is
  // given up after one round of the slots.
  listener.failing_accepts = 100;
  listener.Connect();
  rig.fake.RunReady();
  EXPECT_EQ(rig.s.CONTROLSLOT, 1);
}

}  // namespace
}  // namespace kovran_testing
