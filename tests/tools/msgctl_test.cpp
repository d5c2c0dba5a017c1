// msgctl as the other applications use it: numbers in decimal or 0x hexadecimal (a leading zero is no
// octal mark), file bytes as the extra block, and a listener that prints text blocks as text and any
// other block in hexadecimal. (Text given on the command line travels in the daemon's tests.)
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "launcher.h"
#include "msgqueue.h"
#include "testRoot.h"

using namespace testing_support;

TEST(Msgctl, NumbersAndExtraBlocksTravelAsGivenAndBinaryBlocksPrintInHex) {
  TempRoot root;
  ScratchDir files("msgctl");
  files.write("record.bin", std::string("ab\0\x01\xff", 5));
  files.write("text.bin", "hello");
  FILE* listener = popen((programCommand("msgctl") + " listen app_test --count 3 --timeout 20").c_str(), "r");
  ASSERT_NE(listener, nullptr);
  for (int i = 0; i < 300 && msgGetThreadByName("app_test").empty(); ++i) usleep(10000);
  const std::string msgctl = programCommand("msgctl") + " post app_test 0x42 1 2 ";
  EXPECT_EQ(runCommand(msgctl + "--extra-file '" + files.file("record.bin") + "'"), 0);
  EXPECT_EQ(runCommand(msgctl + "--extra-file '" + files.file("text.bin") + "'"), 0);
  EXPECT_NE(runCommand(msgctl + "--extra-file '" + files.file("missing") + "'"), 0);
  EXPECT_EQ(runCommand(programCommand("msgctl") + " post app_test 0x10 010 0X1f"), 0);
  std::string out;
  char line[256];
  while (fgets(line, sizeof(line), listener)) out += line;
  pclose(listener);
  EXPECT_EQ(out,
            "id=0x42 wparam=1 lparam=2 extra=61620001ff\n"
            "id=0x42 wparam=1 lparam=2 extra=hello\n"
            "id=0x10 wparam=10 lparam=31 extra=\n");
}
