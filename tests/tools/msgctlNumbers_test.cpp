// msgctl reads its numbers as decimal or 0x hexadecimal: a leading zero is no octal mark.
#include <gtest/gtest.h>

#include "launcher.h"
#include "testRoot.h"

using namespace testing_support;

TEST(MsgctlNumbers, DecimalWithLeadingZerosAndHexadecimal) {
  TempRoot root;
  const std::string msgctl = programCommand("msgctl");
  std::string out;
  // The post is tried again until the listener has taken its name.
  EXPECT_EQ(runCommand(msgctl + " listen app_numbers --count 1 --timeout 20 & for i in $(seq 300); do " + msgctl +
                           " post app_numbers 0x10 010 0X1f 2>/dev/null && break; sleep 0.01; done; wait $!",
                       &out),
            0);
  EXPECT_EQ(out, "id=0x10 wparam=10 lparam=31 extra=\n");
}
