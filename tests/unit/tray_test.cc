// KOVRANW.EXE's logic on the fake platform, with a desktop that records what
// it was asked to show and a KOVRAN that answers from a script.
#include <deque>

#include "gmock/gmock.h"
#include "platform/fake_platform.h"
#include "tray/tray.h"

namespace {

using platform::IconColour;
using enum platform::IconColour;
using ::testing::HasSubstr;
using Text = const std::string&;

// Icons, balloons, warnings and the close go to `shown`, in order.
struct FakeDesktop : platform::Desktop {
  bool Start(platform::DesktopEvents e) override { return events = e, true; }
  bool AnotherCopyInSession() override { return false; }
  void ShowIcon(IconColour c, Text tip) override {
    shown += (c == kGreen ? "green(" : c == kAmber ? "amber(" : "red(") + tip + ") ";
  }
  void SetMenu(std::vector<platform::MenuEntry> entries) override { menu = entries; }
  void ShowBalloon(Text title, Text) override { shown += "balloon(" + title + ") "; }
  void ShowWarning(Text, Text) override { shown += "warning "; }
  void ShowStatus(Text text, bool) override { status = text; }
  void Confirm(Text, std::function<void(bool)> answer) override { answer(yes); }
  bool StartsWithWindows() override { return autostart; }
  bool SetStartWithWindows(bool on) override { return autostart = on, true; }
  void Close() override { shown += "closed "; }

  platform::DesktopEvents events;
  std::string shown, status;
  std::vector<platform::MenuEntry> menu;
  bool yes = true, autostart = false;
};

struct TrayRig {
  TrayRig() {
    fake.files["/kovran/upsser.cfg"] = "LOCALWINDOWPORT:5000\r\nMAXLOCALUSERS:3\r\n";
    kovran.Bind(5001);
    kovran.SetRemote("127.0.0.1", 5000);
    kovran.SetEvents({.on_datagram = [this](Text data, Text, int) {
      heard += data + " ";
      if (data == "LABELS" && !answers.empty()) {
        if (!answers.front().empty()) kovran.Send(answers.front());
        answers.pop_front();
      }
    }});
  }
  // The answers to the next LABELS requests ("" for none), then a second.
  std::string Poll(std::deque<std::string> next, int seconds = 1) {
    answers = next;
    desktop.shown.clear();
    fake.Advance(std::chrono::seconds(seconds));
    return desktop.shown;
  }
  platform::FakePlatform fake;
  platform::FakeUdpSocket kovran{fake.network};
  std::deque<std::string> answers;
  std::string heard;
  FakeDesktop desktop;
  tray::Tray tray{fake, desktop, {}};
};

// A KOVRAN that answers with a status line; the road below shows the rest.
TEST(TrayTest, LooksFollowTheStatusLine) {
  const struct {
    std::string answer;
    IconColour colour;
    std::string tooltip;
  } cases[] = {
      {"001++S++On mains++", kGreen, "On mains"},
      {"001++S++++", kGreen, "S"},
      {"101++S++Power failure++Shut down in 57 seconds", kRed,
       "Power failure\nShut down in 57 seconds"},
      {"101++S++Power failure++", kAmber, "Power failure"},
      {"011++S++D++", kAmber, "Watching stopped\nD"},
      {"000++S++UPS link lost++", kAmber, "UPS link lost"},
      {"001++S++" + std::string(200, 'd') + "++", kGreen, std::string(124, 'd') + "..."},
  };
  for (const auto& c : cases) {
    const auto look = tray::LookOf(localports::ParseStatusLine(c.answer), false, true);
    EXPECT_EQ(look.colour, c.colour) << c.answer;
    EXPECT_EQ(look.tooltip, c.tooltip) << c.answer;
  }
}

TEST(TrayTest, TheRoadOfAPowerFailure) {
  TrayRig rig;
  ASSERT_TRUE(rig.tray.Start());
  EXPECT_EQ(rig.desktop.shown, "amber(Waiting for KOVRAN's answer) ");
  EXPECT_EQ(rig.Poll({"001++S++On mains++"}), "green(On mains) ");
  EXPECT_EQ(rig.Poll({"101++S++Power failure++9 seconds left"}),
            "red(Power failure\n9 seconds left) ");
  EXPECT_EQ(rig.Poll({"CLOSE"}), "balloon(KOVRAN: mains power is back) ");
  EXPECT_EQ(rig.Poll({"", ""}, 2), "") << "one request unanswered";
  EXPECT_EQ(rig.Poll({""}), "amber(KOVRAN does not answer) ");
  EXPECT_EQ(rig.Poll({"SHUTDOWN", "SHUTDOWN"}, 2),
            "warning red(SHUTDOWN: this PC is switched off in about 30 seconds) ");
  EXPECT_THAT(rig.desktop.status, HasSubstr("10:00:07 SHUTDOWN: this PC"));
  EXPECT_EQ(rig.Poll({"ENDWINDOW"}), "closed ");
  EXPECT_TRUE(rig.fake.ended());
  EXPECT_EQ(rig.fake.exit_code(), 0);
}

TEST(TrayTest, MenuSendsTheWindowRequests) {
  TrayRig rig;
  ASSERT_TRUE(rig.tray.Start());
  rig.Poll({"001++S++D++"});
  EXPECT_EQ(rig.desktop.menu.at(1).text, "Stop watching");
  const struct {
    int id;
    bool confirm;
    std::string heard;
  } cases[] = {
      {tray::kStopWatching, true, "STOP LABELS "},
      {tray::kResumeWatching, true, "STAR LABELS "},
      {tray::kReloadSettings, true, "SETUPR "},
      {tray::kFindAgents, true, "DISCOV "},
      {tray::kEndKovran, false, ""},
      {tray::kEndKovran, true, "ENDPROGRAM LABELS "},
      {tray::kStartWithWindows, true, ""},
  };
  for (const auto& c : cases) {
    rig.heard.clear();
    rig.desktop.yes = c.confirm;
    rig.desktop.events.on_menu(c.id);
    rig.fake.RunReady();
    EXPECT_EQ(rig.heard, c.heard) << c.id;
  }
  rig.Poll({"011++S++D++"});
  EXPECT_EQ(rig.desktop.menu.at(1).text, "Resume watching");
  EXPECT_TRUE(rig.desktop.menu.at(6).checked) << "Start with Windows";
  rig.desktop.events.on_menu(tray::kExit);
  EXPECT_TRUE(rig.fake.ended());
}

// Every window taken (kovranctl watching as 1, others as 2 and 3): the icon
// says so and the program takes the first window that comes free.
TEST(TrayTest, NoFreeWindowIsShownAndRetried) {
  TrayRig rig;
  rig.fake.network.taken_udp_ports = {5000, 5002, 5004};
  ASSERT_TRUE(rig.tray.Start());
  EXPECT_THAT(rig.desktop.shown, HasSubstr("amber(KOVRAN: no free window"));
  rig.fake.network.taken_udp_ports.clear();
  rig.Poll({});
  EXPECT_THAT(rig.desktop.status, HasSubstr("Local window 1 (UDP port 5000)"));
}

}  // namespace
