// The local windows and the control port of the real program, through real
// sockets: what a window and a control client see on the wire.
#include "gmock/gmock.h"
#include "tests/integration/harness.h"

namespace kovran::integration {
namespace {

using ::testing::ElementsAre;
using ::testing::MatchesRegex;

// Connects to the control port; the reply up to the program's close, or
// what came before a 2 s silence.
struct Control {
  Control() {
    const sockaddr_in a = Address("127.0.0.1", 1499);
    EXPECT_EQ(::connect(fd, (const sockaddr*)&a, sizeof a), 0);
  }
  ~Control() { ::close(fd); }
  std::string Ask(const std::string& command) {
    const std::string request = "H:TS>IP:127.0.0.1>C:" + command + "\r\n";
    ::send(fd, request.data(), request.size(), MSG_NOSIGNAL);
    std::string reply;
    char buffer[256];
    for (ssize_t n; (n = ::recv(fd, buffer, sizeof buffer, 0)) > 0;) reply.append(buffer, n);
    return reply;
  }
  int fd = Bound(SOCK_STREAM, 0);
};

// The control port taken by another program: logged, and the rest runs.
TEST(LocalPortsTest, EndProgramEndsSixSecondsLater) {
  ProgramFolder folder;
  const int other = Bound(SOCK_STREAM, 1499);
  ASSERT_EQ(::listen(other, 1), 0);
  Program& program = folder.Start();
  Window window;
  ASSERT_TRUE(window.Ready());
  EXPECT_THAT(window.Ask("LABELS"), MatchesRegex(R"(000\+\+.*\+\+.*\+\+.*)"));
  // The test's window holds window 1: kovranctl takes the first free one.
  const std::string status =
      Shell(KOVRANCTL_BINARY " status --config " + folder.Path("upsser.cfg"));
  EXPECT_THAT(status, ::testing::StartsWith(
                          "watching on\nserver link lost\nalarm raised no\n"));
  const auto asked = Clock::now();
  EXPECT_EQ(window.Ask("ENDPROGRAM", 300), "(none)");
  EXPECT_EQ(window.Ask("LABELS"), "ENDWINDOW");
  EXPECT_EQ(program.WaitForExit(), 0);
  EXPECT_GE(Clock::now() - asked, std::chrono::seconds(6));
  EXPECT_THAT(folder.Log(),
              ElementsAre(kStartLine, "Local control port in use", kEndLine));
  ::close(other);
}

// Outside the NT family EXITPROGRAM ends the program itself, 4 s later.
TEST(LocalPortsTest, ExitProgramEndsTheProgram) {
  ProgramFolder folder;
  Program& program = folder.Start();
  ASSERT_TRUE(Window().Ready());
  const auto asked = Clock::now();
  EXPECT_EQ(Control().Ask("EXITPROGRAM"), "OK-EXITPROGRAM");
  EXPECT_EQ(program.WaitForExit(), 0);
  EXPECT_GE(Clock::now() - asked, std::chrono::seconds(4));
}

// A second namespace joined by a veth pair plays another host on the LAN:
// it reaches the control port, but its window requests are dropped.
TEST(LocalPortsTest, WindowRequestsFromAnotherHostAreDropped) {
  ProgramFolder folder;
  RemoteHost remote(folder, "kv0", "10.9.0.2/24");
  ASSERT_EQ(std::system("ip addr add 10.9.0.1/24 dev kv0 && ip link set kv0 up"), 0);
  const std::string in_remote = remote.In();
  folder.Start();
  Window window;
  ASSERT_TRUE(window.Ready());
  EXPECT_EQ(Shell(in_remote + "bash -c 'exec 3<>/dev/tcp/10.9.0.1/1499; "
                              "printf \"H:TS>IP:x>C:RUNSTATUS\" >&3; head -c 2 <&3'"),
            "3\r");
  Shell(in_remote + "bash -c 'printf STOP >/dev/udp/10.9.0.1/5001'");
  EXPECT_THAT(window.Ask("LABELS"), MatchesRegex("00.\\+\\+.*")) << "a remote STOP";
  // An interface address of this machine is a local sender.
  Shell("bash -c 'printf STOP >/dev/udp/10.9.0.1/5001'");
  EXPECT_THAT(window.Ask("LABELS"), MatchesRegex("01.\\+\\+.*"));
}

// A veth pair plays the PC's network adapter, whose address the answers go
// to; when the address changes (a new DHCP lease), they follow it.
TEST(LocalPortsTest, AnswersFollowTheMachinesAddress) {
  ASSERT_EQ(std::system("ip link add kv5 type veth peer name kv6 && "
                        "ip addr add 203.0.113.9/24 dev kv5 && "
                        "ip link set kv5 up && ip link set kv6 up"),
            0);
  ProgramFolder folder;
  folder.Start();
  Window window;
  ASSERT_TRUE(window.Ready());
  ASSERT_EQ(std::system("ip addr flush dev kv5 && "
                        "ip addr add 203.0.113.10/24 dev kv5"),
            0);
  EXPECT_TRUE(WaitUntil([&] { return window.Ask("LABELS", 200) != "(none)"; },
                        std::chrono::seconds(2)));
}

}  // namespace
}  // namespace kovran::integration
