// KOVRANW.EXE's logic on the fake platform, with a desktop that records what
// it was asked to show and a KOVRAN that answers from a script.
#include <deque>

#include "gmock/gmock.h"
#include "platform/fake_platform.h"
#include "tray/tray.h"

namespace {

using enum platform::IconColour;
using ::testing::HasSubstr;
using Text = const std::string&;

// Icons, balloons, warnings and the close go to `shown`, in order.
struct FakeDesktop : platform::Desktop {
  bool Start(platform::DesktopEvents e) override { return events = e, true; }
  bool AnotherCopyInSession() override { return false; }
  void ShowIcon(platform::IconColour c, Text tip) override {
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

// Each test starts the tray itself, after any change to the machine.
struct TrayTest : ::testing::Test {
  TrayTest() {
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

// KOVRAN's answers, one a second, and what the icon and the windows show.
TEST_F(TrayTest, TheRoadOfAPowerFailure) {
  ASSERT_TRUE(tray.Start());
  EXPECT_EQ(desktop.shown, "amber(Waiting for KOVRAN's answer) ");
  EXPECT_EQ(Poll({"001++S++On mains++"}), "green(On mains) ");
  EXPECT_EQ(Poll({"001++S++++"}), "green(S) ");
  EXPECT_EQ(Poll({"011++S++D++"}), "amber(Watching stopped\nD) ");
  EXPECT_EQ(desktop.menu.at(1).text, "Resume watching");
  EXPECT_EQ(Poll({"000++S++UPS link lost++"}), "amber(UPS link lost) ");
  EXPECT_EQ(Poll({"001++S++" + std::string(200, 'd') + "++"}),
            "green(" + std::string(124, 'd') + "...) ");
  EXPECT_EQ(Poll({"101++S++Power failure++"}), "amber(Power failure) ");
  EXPECT_EQ(Poll({"101++S++Power failure++9 seconds left"}),
            "red(Power failure\n9 seconds left) ");
  EXPECT_EQ(Poll({"CLOSE"}), "balloon(KOVRAN: mains power is back) ");
  EXPECT_EQ(Poll({"", ""}, 2), "") << "one request unanswered";
  EXPECT_EQ(Poll({""}), "amber(KOVRAN does not answer) ");
  EXPECT_EQ(Poll({"SHUTDOWN", "SHUTDOWN"}, 2),
            "warning red(SHUTDOWN: this PC is switched off in about 30 seconds) ");
  EXPECT_THAT(desktop.status, HasSubstr("10:00:12 SHUTDOWN: this PC"));
  EXPECT_EQ(Poll({"ENDWINDOW"}), "closed ");
  EXPECT_TRUE(fake.ended());
  EXPECT_EQ(fake.exit_code(), 0);
}

TEST_F(TrayTest, MenuSendsTheWindowRequests) {
  ASSERT_TRUE(tray.Start());
  fake.RunReady();  // the first LABELS
  EXPECT_EQ(desktop.menu.at(1).text, "Stop watching");
  auto choose = [&](int id) {  // what KOVRAN hears
    heard.clear();
    desktop.events.on_menu(id);
    fake.RunReady();
    return heard;
  };
  EXPECT_EQ(choose(tray::kStopWatching), "STOP LABELS ");
  EXPECT_EQ(choose(tray::kResumeWatching), "STAR LABELS ");
  desktop.yes = false;
  EXPECT_EQ(choose(tray::kEndKovran), "") << "the user said No";
  desktop.yes = true;
  EXPECT_EQ(choose(tray::kEndKovran), "ENDPROGRAM LABELS ");
  EXPECT_EQ(choose(tray::kStartWithWindows), "");
  EXPECT_TRUE(desktop.menu.at(6).checked) << "Start with Windows";
  desktop.events.on_menu(tray::kExit);
  EXPECT_TRUE(fake.ended());
}

// Every window taken (kovranctl watching as 1, others as 2 and 3): the icon
// says so and the program takes the first window that comes free.
TEST_F(TrayTest, NoFreeWindowIsShownAndRetried) {
  fake.network.taken_udp_ports = {5000, 5002, 5004};
  ASSERT_TRUE(tray.Start());
  EXPECT_THAT(desktop.shown, HasSubstr("amber(KOVRAN: no free window"));
  fake.network.taken_udp_ports.clear();
  Poll({});
  EXPECT_THAT(desktop.status, HasSubstr("Local window 1 (UDP port 5000)"));
}

}  // namespace
