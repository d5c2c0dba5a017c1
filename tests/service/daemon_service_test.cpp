// The daemon as a whole process, as the service around its runs: settings the daemon applies
// itself re-arm its policies, and SIGTERM ends it promptly wherever it waits. The daemon runs on the
// real clock here where a timer must not fire during the test.
#include <gtest/gtest.h>

#include <string>

#include "daemon.h"
#include "launcher.h"
#include "msgqueue.h"

using namespace testing_support;

namespace {

const char* kMac = "001565aabbcc";

// A translation table whose items are the policy keys of the service's own section.
const char* kPolicyTable = R"XML(<?xml version="1.0"?>
<autopTranslator><cfg>
  <object name="autoprovision" path="/config/system/system.ini" section="AutoProvision">
    <item name="repeat" key="bEnableRepeat"/><item name="minutes" key="nRepeatMinutes"/>
    <item name="weekly" key="bEnableWeekly"/><item name="mask" key="strWeeklyMask"/>
    <item name="begin" key="strWeeklyBeginTime"/><item name="end" key="strWeeklyEndTime"/>
  </object>
</cfg></autopTranslator>
)XML";

class ServiceDaemonTest : public ::testing::Test {
 protected:
  void SetUp() override {
    START_PEER(http);
    root.write("/phone/resource/autopTranslator.xml", kPolicyTable);
    root.write("/host/device.ini", std::string("[device]\nmac = ") + kMac + "\nip = 127.0.0.1\n");
  }
  // The phone application, answering the talk-status query with `talkReply`.
  void startPhone(int talkReply) {
    ASSERT_TRUE(phone.start(programArgv("msgctl", {"listen", "app_vpPhone", "--reply", std::to_string(talkReply)}),
                            peers.file("phone.log")));
    ASSERT_TRUE(pollFor([] { return !msgGetThreadByName("app_vpPhone").empty(); }, 5000));
  }
  std::string serverUrl() const { return "http://127.0.0.1:" + std::to_string(http.port()) + "/prov/"; }

  TempRoot root;
  HttpServer http;
  ScratchDir peers{"service-peers"};
  ServerProcess phone;
};

// The power-on run delivers a weekly schedule and a pushed file a repeat interval: each is armed at
// once, though the store does not report this process's own writes to its monitor.
TEST_F(ServiceDaemonTest, SettingsTheDaemonAppliesItselfArmBothPolicies) {
  startPhone(1);
  http.put(std::string("prov/") + kMac + ".cfg",
           "#!version:1.0.0.1\nautoprovision.weekly = 1\nautoprovision.mask = 0123456\n"
           "autoprovision.begin = 10:00\nautoprovision.end = 11:00\n");
  root.write("/config/system/system.ini",
             "[AutoProvision]\nbEnablePoweron = 1\nstrCommName = common.cfg\nstrServerURL = " + serverUrl() + "\n");
  DaemonProcess daemon(root.path(), {});
  ASSERT_TRUE(daemon.waitForLog("<<<<<< Autoprovision End >>>>>>", 30000)) << daemon.log();
  EXPECT_TRUE(daemon.waitForLog("Weekly AutoProvision will active at : ", 5000)) << daemon.log();
  EXPECT_FALSE(contains(daemon.log(), "Set repeatPolicy timer"));

  root.write("/tmp/XML.cfg", "#!version:1.0.0.1\nautoprovision.repeat = 1\nautoprovision.minutes = 7\n");
  EXPECT_TRUE(postMessage(AP_MSG_REPARSE_CONFIG));
  EXPECT_EQ(runState(), 0);  // the reparse before it has been handled
  EXPECT_TRUE(contains(daemon.log(), "Set repeatPolicy timer [7m]")) << daemon.log();
  EXPECT_EQ(daemon.stop(SIGTERM), 0);
}

// A server that takes connections and never says a word: a download from it waits until its
// time-out. It writes its port, then one line per connection taken.
const char* kSilentServer = R"PY(
import socket, sys
server = socket.socket()
server.bind(("127.0.0.1", 0))
server.listen(8)
open(sys.argv[1], "w").write(str(server.getsockname()[1]))
held = []
while True:
    connection, _ = server.accept()
    held.append(connection)
    with open(sys.argv[2], "a") as log:
        log.write("accepted\n")
)PY";

// SIGTERM ends the daemon within its grace wherever it is: a talk wait that would last an hour ends
// by itself at once; a download from a silent server is cut short. Neither restarts the phone.
TEST_F(ServiceDaemonTest, SigtermEndsTheDaemonPromptlyWhereverItWaits) {
  const struct {
    const char* name;
    int talkReply;
    bool silentServer;
    const char* waitingLine;  // logged once the daemon waits where SIGTERM is to find it
    bool cutShort;            // ended by the grace rather than by the wait itself
  } cases[] = {
      {"talk wait", 0, false, "Talking, Delay [60] seconds ... ", false},
      {"silent download", 1, true, "", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    phone.stop(SIGKILL);
    startPhone(c.talkReply);
    root.write("/config/system/system.ini", "[AutoProvision]\nstrCommName = common.cfg\n");
    root.write("/host/actions.log", "");
    ServerProcess silent;
    std::string url = serverUrl();
    if (c.silentServer) {
      peers.write("silent.py", kSilentServer);
      ASSERT_TRUE(
          silent.start({"/usr/bin/python3", peers.file("silent.py"), peers.file("port"), peers.file("accepted")},
                       peers.file("silent.log")));
      ASSERT_TRUE(pollFor([&] { return !readHostFile(peers.file("port")).empty(); }, 5000));
      url = "http://127.0.0.1:" + readHostFile(peers.file("port")) + "/prov/";
    }
    DaemonProcess daemon(root.path(), {"-byzero"});
    ASSERT_TRUE(daemon.waitReachable());
    EXPECT_TRUE(postMessage(MSG_START_AUTO_PROVISION_URL, 0, 0, "--extra " + url));
    if (c.silentServer)
      ASSERT_TRUE(pollFor([&] { return !readHostFile(peers.file("accepted")).empty(); }, 10000));
    else
      ASSERT_TRUE(daemon.waitForLog(c.waitingLine)) << daemon.log();
    // The grace is 1.5 s; the rest is room for a loaded machine.
    EXPECT_EQ(daemon.stop(SIGTERM, 3000), 0) << daemon.log();
    EXPECT_EQ(contains(daemon.log(), "Terminated while busy"), c.cutShort) << daemon.log();
    EXPECT_FALSE(contains(daemon.log(), "Talking ..., Skipped !"));
    EXPECT_EQ(root.read("/host/actions.log"), "");
    silent.stop(SIGKILL);
  }
}

}  // namespace
