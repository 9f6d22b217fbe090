// SNMP mode on the real binary against Debian's snmpd playing the UPS's
// agent, whose UPS-MIB battery objects ups-mib-pass serves from files that
// the test rewrites. The program polls every second. As in server mode the
// program may be late, never early: lower bounds come from its own timers,
// upper bounds are generous deadlines.
#include <sched.h>
#include <sys/mount.h>

#include <regex>

#include "gmock/gmock.h"
#include "tests/integration/harness.h"

namespace kovran::integration {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::AllOf;
using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::Le;

const std::string kPassScript =
    fs::path(__FILE__).replace_filename("ups-mib-pass").string();
constexpr char kExitRan[] = "EXIT-RAN";  // made by EXIT.EXE
// The sysObjectID of the UPS type that the discovery test adds as type 3.
constexpr char kTestUps[] = "1.3.6.1.4.1.99999.1";
// Texts of the shipped language file.
constexpr char kReceived[] = "UPS status received";
constexpr char kOnMains[] = "The UPS is running on mains power";
constexpr char kOnBattery[] = "Power failure: the UPS is running on battery";
constexpr char kBatteryLow[] =
    "Battery low: the computer will be shut down soon";
constexpr char kMainsBack[] = "Mains power has returned";

// A status line as the windows get it, as a regex: the only special
// character of the texts, '.', matches itself as well.
std::string Line(const std::string& flags, const std::string& status,
                 const std::string& detail, const std::string& alarm) {
  return flags + "\\+\\+" + status + "\\+\\+" + detail + "\\+\\+" + alarm;
}

// Debian's snmpd playing a UPS's agent at `address`: community "public",
// sysObjectID `object`, upsSecondsOnBattery and upsBatteryStatus from its
// state folder; in the namespace of `host` when one is given.
class Agent {
 public:
  Agent(ProgramFolder& folder, const std::string& address,
        const std::string& object = kTestUps, const RemoteHost* host = nullptr)
      : folder_(folder),
        address_(address),
        host_(host),
        dir_(folder.Path("agent-" + address)) {
    EXPECT_TRUE(fs::exists(kPassScript)) << kPassScript;
    fs::create_directories(dir_ + "/state");
    std::ofstream(dir_ + "/snmpd.conf")  // and snmpd's own in persistent/
        << "[snmp] persistentDir " << dir_ << "/persistent\n"
        << "rocommunity public\n"
        << "sysobjectid ." << object << "\npass .1.3.6.1.2.1.33 /bin/sh "
        << kPassScript << " " << dir_ << "/state\n";
    Ups(0, 2);
  }
  // Seconds on battery (0: on mains) and the battery status (2 normal, 3 low).
  void Ups(int seconds_on_battery, int battery_status) {
    Put("upsSecondsOnBattery", seconds_on_battery);
    Put("upsBatteryStatus", battery_status);
  }
  // Starts snmpd on udp:`endpoint` and waits until it answers here.
  void Start(const std::string& endpoint) {
    std::vector<std::string> argv;
    if (host_) argv = {"/usr/bin/nsenter", "--net=" + host_->ns()};
    argv.insert(argv.end(), {"/usr/sbin/snmpd", "-f", "-Lo", "-C", "-m", "",
                             "-c", dir_ + "/snmpd.conf", "udp:" + endpoint});
    folder_.Start(argv);
    const std::string get = "snmpget -m '' -v1 -c public -t 0.2 -r 0 -Ovq " +
                            address_ + " 1.3.6.1.2.1.1.2.0 2>/dev/null";
    EXPECT_TRUE(WaitUntil([&] { return !Shell(get).empty(); })) << get;
  }

 private:
  void Put(const std::string& name, int value) {  // atomically
    const std::string file = dir_ + "/state/" + name;
    std::ofstream(file + ".new") << value << "\n";
    fs::rename(file + ".new", file);
  }

  ProgramFolder& folder_;
  std::string address_;
  const RemoteHost* host_;
  std::string dir_;
};

class SnmpModeTest : public ::testing::Test {
 protected:
  SnmpModeTest() {
    folder_.SetSetting("CONNECTION:SNMP");
    folder_.SetSetting("POLLINGTIME:1");
    folder_.Write("EXIT.EXE", "#!/bin/sh\n: > " + folder_.Path(kExitRan));
    fs::permissions(folder_.Path("EXIT.EXE"), fs::perms::all);
  }

  // The agent on loopback (HOST of the shipped settings) on mains, then the
  // program, up to its first reading.
  void Start() {
    agent_.Start("127.0.0.1:161");
    program_ = &folder_.Start();
    ASSERT_TRUE(window_.Ready());
    ASSERT_TRUE(WaitForLabels(Line("001", kReceived, kOnMains, "")));
  }
  // Asks "LABELS": the answer is left in last_, the longest wait in slowest_.
  const std::string& Labels() {
    const auto asked = Clock::now();
    last_ = window_.Ask("LABELS");
    slowest_ = std::max(slowest_, Clock::now() - asked);
    return last_;
  }
  bool WaitForLabels(const std::string& line,
                     Clock::duration timeout = seconds(10)) {
    const std::regex re(line);
    return WaitUntil([&] { return std::regex_match(Labels(), re); }, timeout);
  }
  // The seconds left once the status line shows a countdown with `detail`
  // and at most `most` seconds, or -1 when it does not come.
  int Countdown(const std::string& detail, int most = 1000) {
    const std::regex re(
        Line("101", kReceived, detail,
             "The computer will be shut down in (\\d+) seconds"));
    std::smatch m;
    int left = -1;
    const bool seen = WaitUntil([&] {
      return std::regex_match(Labels(), m, re) &&
             (left = std::stoi(m[1])) <= most;
    });
    return seen ? left : -1;
  }
  // What the window gets for a "DISCOV": the first answer that is the
  // result, which takes the 2 s of collecting replies at least.
  std::string Discover() {
    const auto asked = Clock::now();
    window_.Ask("DISCOV", 200);  // an empty answer, if any
    const auto result = [&] { return Labels().starts_with("DISCOVER"); };
    if (!WaitUntil(result, seconds(15))) return "(no result) " + last_;
    EXPECT_GE(Clock::now() - asked, seconds(2));
    return last_;
  }

  ProgramFolder folder_;
  Window window_;
  Agent agent_{folder_, "127.0.0.1"};
  Program* program_ = nullptr;
  std::string last_;
  Clock::duration slowest_{};
};

// BACKUPTIME "0.5" gives 30 s on battery. The mains come back: the countdown
// stops, and 15 s later the windows hear "CLOSE", not the "SHUTDOWN" it would
// have brought by then. On battery again, a low battery restarts the
// countdown from that reading with LOWTIME "0", 10 s; when it runs out the
// windows hear "SHUTDOWN" and EXIT.EXE runs 30 s later. Each countdown start
// logs the detail text as it stood before.
TEST_F(SnmpModeTest, MainsBackThenLowBatteryEndsInExitExe) {
  folder_.SetSetting("BACKUPTIME:0.5");
  folder_.SetSetting("LOWTIME:0");
  ASSERT_NO_FATAL_FAILURE(Start());
  agent_.Ups(30, 2);
  EXPECT_THAT(Countdown(kOnBattery), AllOf(Ge(27), Le(29))) << last_;
  agent_.Ups(0, 2);
  const auto mains = Clock::now();
  ASSERT_TRUE(WaitForLabels(Line("101", kReceived, kOnMains, ""))) << last_;
  ASSERT_TRUE(WaitUntil([&] { return Labels() == "CLOSE"; }, seconds(25)));
  EXPECT_GE(Clock::now() - mains, milliseconds(14750));
  // The next reading on mains replaces the all-clear's text.
  ASSERT_TRUE(WaitForLabels(Line("001", kReceived, kOnMains, ""))) << last_;

  agent_.Ups(30, 2);
  ASSERT_NE(Countdown(kOnBattery, 25), -1) << last_;
  agent_.Ups(30, 3);
  const auto low = Clock::now();
  EXPECT_THAT(Countdown(kBatteryLow, 9), AllOf(Ge(7), Le(9))) << last_;
  ASSERT_TRUE(WaitUntil([&] { return Labels() == "SHUTDOWN"; }));
  const auto flag = Clock::now();
  EXPECT_GE(flag - low, seconds(6)) << "at 3 s left of 10";
  ASSERT_TRUE(WaitUntil([&] { return fs::exists(folder_.Path(kExitRan)); },
                        seconds(40)));
  EXPECT_GE(Clock::now() - flag, milliseconds(28750));
  EXPECT_EQ(program_->WaitForExit(), 0);
  EXPECT_THAT(folder_.Log(), ElementsAre(kStartLine, kOnMains, kMainsBack,
                                         kOnMains, kOnBattery, kEndLine));
}

// HOST names the agent and the name server is dead: it takes every query
// and never answers. Each poll gives the name up after 3 s and the reply
// watchdog shows the agent as not answering, while the windows are answered
// at once all along.
TEST_F(SnmpModeTest, ADeadNameServerNeverHoldsTheProgramUp) {
  // A view of /etc/resolv.conf of this test's own, which the program shares.
  ASSERT_EQ(::unshare(CLONE_NEWNS), 0);
  ASSERT_EQ(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
  folder_.Write("resolv.conf", "nameserver 127.0.0.1\noptions timeout:30 attempts:1\n");
  ASSERT_EQ(::mount(folder_.Path("resolv.conf").c_str(), "/etc/resolv.conf",
                    nullptr, MS_BIND, nullptr),
            0);
  const int name_server = Bound(SOCK_DGRAM, 53);
  folder_.SetSetting("HOST:ups.example");
  program_ = &folder_.Start();
  ASSERT_TRUE(window_.Ready());
  EXPECT_TRUE(WaitForLabels(
      Line("000", "No answer from the UPS server; connecting again",
           "The UPS server does not answer", ""),
      seconds(20)))
      << last_;
  char query[512];
  EXPECT_GT(::recv(name_server, query, sizeof query, 0), 0) << "asked";
  EXPECT_LT(slowest_, milliseconds(500)) << "a window waited for its answer";
  program_->ExpectOrderlyEnd();
  ::close(name_server);
}

// Discovery on a LAN of two more hosts bridged to the program's namespace,
// first with no agent on them, then with one agent of the UPS type added as
// type 3 and one of no known type. The loopback agent that the program polls
// meanwhile does not hear the broadcast.
TEST_F(SnmpModeTest, DiscoveryNamesTheAgentsOnTheLan) {
  folder_.Write("upsser.cfg", ReadFile(folder_.Path("upsser.cfg")) +
                                  "TYPE:3\r\nSYSOBJE:" + kTestUps +
                                  "\r\nSHORT:KVTEST\r\n");
  RemoteHost ups_host(folder_, "kv2", "198.51.100.2/24");
  RemoteHost other_host(folder_, "kv3", "198.51.100.3/24");
  // The bridge of an earlier run of this test in the same process goes first.
  ASSERT_EQ(std::system("ip link del br0 2>/dev/null; "
                        "ip link add br0 type bridge && ip link set br0 up && "
                        "ip addr add 198.51.100.1/24 dev br0 && "
                        "ip link set kv2 master br0 up && "
                        "ip link set kv3 master br0 up && "
                        "ip route add 255.255.255.255/32 dev br0"),
            0);
  ASSERT_NO_FATAL_FAILURE(Start());
  EXPECT_EQ(Discover(), "DISCOVERNo UPS found.\r\n");

  Agent ups(folder_, "198.51.100.2", kTestUps, &ups_host);
  Agent other(folder_, "198.51.100.3", "1.3.6.1.4.1.8072.3.2.10", &other_host);
  ups.Start("161");
  other.Start("161");
  // In the order the replies came.
  EXPECT_THAT(Discover(),
              AnyOf("DISCOVERKVTEST-198.51.100.2\r\n198.51.100.3\r\n",
                    "DISCOVER198.51.100.3\r\nKVTEST-198.51.100.2\r\n"));
  agent_.Ups(30, 2);
  EXPECT_NE(Countdown(kOnBattery), -1) << "polls again: " << last_;
}

}  // namespace
}  // namespace kovran::integration
