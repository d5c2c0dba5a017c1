// The daemon as a whole process: banner, zero-touch start, the status queries, the host name, the
// plug-and-play start-up paths, and a clean end on SIGTERM.
#include <gtest/gtest.h>

#include <csignal>

#include "daemon.h"
#include "device.h"
#include "servicePeers.h"

using namespace testing_support;
using namespace service_test;

TEST(Provisor, ZeroTouchStartAnswersQueriesSetsHostNameAndEndsOnSigterm) {
  TempRoot root;
  DaemonProcess daemon(root.path(), {"-byzero"});
  ASSERT_TRUE(daemon.waitReachable());

  EXPECT_EQ(msgctl("send provisor 0xa0001 0 0"), "0\n");
  EXPECT_EQ(msgctl("send provisor 0xb0009 0 0"), "0\n");
  // Without extra data the host name message is not handled: nothing is written.
  EXPECT_EQ(msgctl("post provisor 0xa0003 0 0"), "");
  EXPECT_EQ(msgctl("post provisor 0xa0003 0 0 --extra \"\""), "");
  EXPECT_EQ(msgctl("send provisor 0xa0001 0 0"), "0\n");  // the post before it has been handled
  EXPECT_EQ(userenv_get("HOST_NAME"), "ORIN-PH");
  EXPECT_EQ(msgctl("post provisor 0xa0003 0 0 --extra desk-42"), "");
  EXPECT_EQ(msgctl("send provisor 0xa0001 0 0"), "0\n");
  EXPECT_EQ(userenv_get("HOST_NAME"), "desk-42");

  EXPECT_EQ(daemon.stop(SIGTERM), 0);
  std::string log = daemon.log();
  // The banner comes from main's own source file, with the log's padded "[file:line]" prefix.
  size_t banner = log.find("] provisor version = 3.0.0.80 build at Oct 17 2012 14:27:42\n");
  ASSERT_NE(banner, std::string::npos) << log;
  size_t lineStart = log.rfind('\n', banner) + 1;
  EXPECT_NE(log.substr(lineStart, banner - lineStart).find("[./src/main"), std::string::npos) << log;
  for (const char* line : {"] WAR Run by Zero-sp-Touch Thread !\n",
                           "] IFO Load trans data from /phone/resource/autopTranslator.xml\n",
                           "] IFO Zero-sp-touch launch Autop,do not PNP!!!\n",
                           "Receive Message [MSG_GET_AUTO_PROVISION] ! Will ReplyMessage [0]"})
    EXPECT_TRUE(contains(log, line)) << line;
  EXPECT_EQ(msgGetThreadByName("provisor"), "");
}

TEST(Provisor, NormalStartWaitsThirtySecondsForTheNetworkThenFallsBackToThePowerOnTimer) {
  TempRoot root;
  root.write("/config/system/system.ini", "[AutoProvision]\nbEnablePNP = 1\n");
  root.write("/host/device.ini", "[device]\nnetwork_state = 0\nmac = 001565aabbcc\nip = 127.0.0.1\n");
  // -byzero with another argument is normal mode. The fake clock makes the 30 s wait instant.
  DaemonProcess daemon(root.path(), {"-byzero", "extra"}, true);
  ASSERT_TRUE(daemon.waitForLog("PNP Check Network Fail"));
  ASSERT_TRUE(daemon.waitReachable());
  EXPECT_EQ(daemon.stop(SIGINT), 0);
  std::string log = daemon.log();
  EXPECT_EQ(occurrences(log, "PNP Network Fail,sleep 1 seconds"), 30);
  EXPECT_FALSE(contains(log, "Zero-sp-Touch"));
}

TEST(Provisor, NormalStartWithTheNetworkUpAsksThePlugAndPlayThread) {
  TempRoot root;
  root.write("/config/system/system.ini", "[AutoProvision]\nbEnablePNP = 1\nstrPNPMulticastIP = 224.0.1.99\n");
  root.write("/host/device.ini", "[device]\nnetwork_state = 2\nmac = 001565aabbcc\nip = 127.0.0.1\n");
  FILE* pnp = popen((programCommand("msgctl") + " listen app_PnpManger --count 1 --timeout 20").c_str(), "r");
  for (int i = 0; i < 300 && msgGetThreadByName("app_PnpManger").empty(); ++i) usleep(10000);
  DaemonProcess daemon(root.path(), {});
  ASSERT_TRUE(daemon.waitReachable());
  char line[256] = {0};
  ASSERT_NE(fgets(line, sizeof(line), pnp), nullptr);
  pclose(pnp);
  EXPECT_STREQ(line, "id=0xb0000 wparam=0 lparam=0 extra=224.0.1.99\n");
  // Waiting for the plug-and-play answer.
  EXPECT_EQ(msgctl("send provisor 0xa0001 0 0"), "2\n");
  EXPECT_EQ(daemon.stop(SIGTERM), 0);
  EXPECT_TRUE(contains(daemon.log(), "PNP Server IP = 224.0.1.99"));
}
