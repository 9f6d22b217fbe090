// The whole program on the fake platform for the fuzz targets, polling a
// PAVO server every second; the first poll reports a power failure with
// 30 s left, so a countdown runs while the target plays its input.
#ifndef KOVRAN_TESTS_FUZZ_FUZZ_PROGRAM_H_
#define KOVRAN_TESTS_FUZZ_FUZZ_PROGRAM_H_

#include <chrono>
#include <string>

#include "app/program.h"
#include "platform/fake_platform.h"
#include "tests/fuzz/fuzz_check.h"

struct CountingDown {
  explicit CountingDown(const std::string& settings, int platform_number = 1) {
    fake.platform_number = platform_number;
    fake.files["/kovran/CRKOVRA.BAT"] = "";  // the service is installed
    fake.folders.insert("/kovran/SERLOGS");
    fake.files["/kovran/upsser.cfg"] =
        "HOST:127.0.0.1\r\nCLIENTPORT:3052\r\nPOLLINGTIME:1\r\nENABLESHUT:1\r\n" +
        settings;
    fake.files["/kovran/LANGSE1.TXT"] = "049 reloaded\r\n051 started\r\n";
    program.Load();
    fake.Advance(std::chrono::seconds(1));
    platform::FakeTcpClient& server = *fake.tcp_clients.at(0);
    server.Accept();
    server.Deliver("#100000000030000Power failure\r\n");
    fake.RunReady();
    FUZZ_CHECK(s.DELAYSECONDS == 30);
  }
  // The countdown and the exit timer end the program in order, whatever
  // came in between.
  void ExpectOrderlyEnd() {
    fake.Advance(std::chrono::seconds(62));
    FUZZ_CHECK(fake.ended() && fake.exit_code() == frame::kExitNormal);
  }

  platform::FakePlatform fake;
  app::Program program{fake};
  const frame::ProgramState& s = program.main.state;
};

#endif  // KOVRAN_TESTS_FUZZ_FUZZ_PROGRAM_H_
