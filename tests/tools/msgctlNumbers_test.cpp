// msgctl reads its numbers as decimal or 0x hexadecimal: a leading zero is no octal mark.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>

#include "msgqueue.h"
#include "testRoot.h"

using namespace testing_support;

TEST(MsgctlNumbers, DecimalWithLeadingZerosAndHexadecimal) {
  TempRoot root;
  const std::string msgctl = "'" + buildBinary("msgctl") + "'";
  FILE* listener = popen((msgctl + " listen app_numbers --count 1 --timeout 20").c_str(), "r");
  ASSERT_NE(listener, nullptr);
  for (int i = 0; i < 300 && msgGetThreadByName("app_numbers").empty(); ++i) usleep(10000);
  EXPECT_EQ(runCommand(msgctl + " post app_numbers 0x10 010 0X1f"), 0);
  std::string out;
  char buffer[256];
  while (fgets(buffer, sizeof(buffer), listener)) out += buffer;
  EXPECT_EQ(pclose(listener), 0);
  EXPECT_EQ(out, "id=0x10 wparam=10 lparam=31 extra=\n");
}
