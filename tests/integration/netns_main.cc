// The integration test runner: moves the whole test process into a private
// network namespace with only a loopback interface, so that the program's
// fixed ports never collide between tests that run in parallel. Every
// program the tests start inherits the namespace.
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "gtest/gtest.h"

namespace {

// Moves this process into a new network namespace and brings up its
// loopback interface; says why on stderr when it cannot.
bool EnterPrivateNetwork() {
  if (::unshare(CLONE_NEWNET) != 0) {
    std::fprintf(stderr,
                 "kovran_integration_tests: cannot create a private network "
                 "namespace (%s).\nThe integration tests must run as root "
                 "(they need CAP_SYS_ADMIN for unshare(CLONE_NEWNET)).\n",
                 std::strerror(errno));
    return false;
  }
  ifreq request{};
  std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
  const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  bool up = fd >= 0 && ::ioctl(fd, SIOCGIFFLAGS, &request) == 0;
  request.ifr_flags |= IFF_UP | IFF_RUNNING;
  up = up && ::ioctl(fd, SIOCSIFFLAGS, &request) == 0;
  if (!up) {
    std::fprintf(stderr,
                 "kovran_integration_tests: cannot bring up the loopback "
                 "interface in the private network namespace (%s).\n",
                 std::strerror(errno));
  }
  if (fd >= 0) ::close(fd);
  return up;
}

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  // Listing the tests (done at build time) runs nothing and needs no
  // namespace.
  if (!GTEST_FLAG_GET(list_tests) && !EnterPrivateNetwork()) return 2;
  return RUN_ALL_TESTS();
}
