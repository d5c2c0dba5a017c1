// The log record format, the 510-character cut, and the level words of the fixed-level calls.
#define LOG_MODULE "./src/baseMethod"
#include "log.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <string>

#include "testRoot.h"

using testing_support::LogCapture;

TEST(Log, RecordPrefixAndLevels) {
  LogCapture capture;
  const int line = __LINE__ + 1;
  LOG_IFO("Talking, Delay [%d] seconds ... ", 60);
  char expected[128];
  snprintf(expected, sizeof(expected), "[%-25s:%-4d] IFO Talking, Delay [60] seconds ... \n", "./src/baseMethod", line);
  EXPECT_EQ(capture.text(), expected);
  // The module path fills 25 columns and the line number 4.
  EXPECT_EQ(capture.text().substr(0, 32), "[./src/baseMethod         :" + std::to_string(line) + "  ]");

  capture.clear();
  logWarning("disk %s", "full");
  logDebug("d");
  logInfo("i");
  logError("e");
  EXPECT_EQ(capture.text(), "WAR:disk full\nDEB:d\nIFO:i\nERR:e\n");

  // Debug records are written at the default level.
  capture.clear();
  LOG_DEB("x");
  EXPECT_TRUE(capture.contains("] DEB x\n"));
}

TEST(Log, LongRecordsAreCutTo510CharactersAndLoseTheirNewline) {
  LogCapture capture;
  std::string longText(600, 'a');
  log(4, "%s", longText.c_str());
  EXPECT_EQ(capture.text(), std::string(510, 'a'));

  capture.clear();
  std::string exact(509, 'b');  // 509 characters and the newline fit exactly
  log(4, "%s", exact.c_str());
  EXPECT_EQ(capture.text(), exact + "\n");

  // A "%" that reaches the record through an argument stays text.
  capture.clear();
  log(4, "%s", "url=http://x/%s%n");
  EXPECT_EQ(capture.text(), "url=http://x/%s%n\n");
}

TEST(Log, SyslogPriorities) {
  const std::pair<int, int> priorities[] = {{1, LOG_CRIT}, {2, LOG_ERR}, {3, LOG_WARNING}, {4, LOG_INFO},
                                            {5, LOG_DEBUG}, {0, LOG_DEBUG}, {9, LOG_DEBUG}};
  for (const auto& [level, priority] : priorities) EXPECT_EQ(logSyslogPriority(level), priority) << level;
}
