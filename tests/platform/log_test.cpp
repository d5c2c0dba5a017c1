// The log record format, the 510-character cut, and the level words of the fixed-level calls.
#define LOG_MODULE "./src/baseMethod"
#include "log.h"

#include <gtest/gtest.h>

#include "testRoot.h"

TEST(Log, RecordFormatCutAndLevels) {
  testing_support::LogCapture capture;
  const int line = __LINE__ + 1;
  LOG_IFO("Talking, Delay [%d] seconds ... ", 60);
  char expected[128];  // the module path fills 25 columns and the line number 4
  snprintf(expected, sizeof(expected), "[%-25s:%-4d] IFO Talking, Delay [60] seconds ... \n", "./src/baseMethod", line);
  EXPECT_EQ(capture.text(), expected);

  capture.clear();
  logWarning("disk %s", "full");
  logDebug("d");
  logInfo("i");
  logError("e");
  // 509 characters and the newline fit exactly; a longer record is cut to 510 and loses its newline. A "%"
  // that reaches the record through an argument stays text.
  log(4, "%s", std::string(509, 'b').c_str());
  log(4, "%s", std::string(600, 'a').c_str());
  log(4, "%s", "url=http://x/%s%n");
  EXPECT_EQ(capture.text(), "WAR:disk full\nDEB:d\nIFO:i\nERR:e\n" + std::string(509, 'b') + "\n" +
                                std::string(510, 'a') + "url=http://x/%s%n\n");
}

TEST(Log, OutsideTextCannotForgeARecord) {
  const std::pair<std::string, std::string> cases[] = {
      {"a\n[./src/fake :1 ] ERR injected", "a\\n[./src/fake :1 ] ERR injected"},
      {"cr\rtab\tdel\x7f", "cr\\rtab\\tdel\\x7f"},
      {std::string("nul\0esc\x1b", 8), "nul\\x00esc\\x1b"},
      {"Ring (1).wav \xc3\xa9", "Ring (1).wav \xc3\xa9"},
  };
  for (const auto& [raw, escaped] : cases) EXPECT_EQ(logEscaped(raw), escaped);
}
