// A main window on the fake platform, with a program folder, a log folder
// and readers for what the program wrote.
#ifndef KOVRAN_TESTS_UNIT_FRAME_FIXTURE_H_
#define KOVRAN_TESTS_UNIT_FRAME_FIXTURE_H_

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "frame/main_window.h"
#include "platform/fake_platform.h"

namespace frame {

class FrameTest : public ::testing::Test {
 protected:
  static constexpr int kStampLength = 22;

  FrameTest() {
    fake_.folders.insert("/kovran/SERLOGS");
    fake_.SetWallClock({2026, 11, 23}, 10 * 3600);
    SetSettings("HOST:127.0.0.1\r\nMAXLOCALUSERS:3\r\n");
    SetLanguage("042 On mains\r\n051 started\r\n052 could not start\r\n"
                "083 no batch file\r\n");
  }

  void SetSettings(const std::string& text) {
    fake_.files["/kovran/upsser.cfg"] = text;
  }
  void SetLanguage(const std::string& text, char selector = '1') {
    fake_.files[std::string("/kovran/LANGSE") + selector + ".TXT"] = text;
  }

  // Every log line of every month, in file order, without the time stamps.
  std::vector<std::string> LogTexts() const {
    std::vector<std::string> texts;
    for (const auto& [path, content] : fake_.files) {
      if (path.find("SERLOGS") == std::string::npos) continue;
      std::size_t start = 0;
      while (start < content.size()) {
        const auto end = content.find("\r\n", start);
        const std::string line = content.substr(start, end - start);
        texts.push_back(line.size() >= kStampLength ? line.substr(kStampLength)
                                                    : line);
        start = end == std::string::npos ? content.size() : end + 2;
      }
    }
    return texts;
  }

  platform::FakePlatform fake_;
  MainWindow main_{fake_};
};

}  // namespace frame

#endif  // KOVRAN_TESTS_UNIT_FRAME_FIXTURE_H_
