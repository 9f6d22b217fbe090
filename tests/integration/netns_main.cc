// The integration test runner: moves the whole test process, and so every
// program it starts, into a private network namespace with only a loopback
// interface, so that the program's fixed ports never collide between tests
// that run in parallel.
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>

#include "gtest/gtest.h"

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  // Listing the tests (done at build time) needs no namespace.
  if (!GTEST_FLAG_GET(list_tests)) {
    ifreq lo{};
    std::strncpy(lo.ifr_name, "lo", IFNAMSIZ - 1);
    lo.ifr_flags = IFF_UP;  // the kernel keeps the loopback's own flags
    if (::unshare(CLONE_NEWNET) != 0 ||
        ::ioctl(::socket(AF_INET, SOCK_DGRAM, 0), SIOCSIFFLAGS, &lo) != 0) {
      std::perror(
          "kovran_integration_tests: no private network namespace "
          "with loopback (the tests need root)");
      return 2;
    }
  }
  return RUN_ALL_TESTS();
}
