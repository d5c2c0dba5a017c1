// The daemon's plug-and-play discovery against a scripted provisioning server (sipPeer.py) in a
// network of its own: late NOTIFYs are still taken, every NOTIFY is answered, each answer goes
// where its Via says, and the URL taken is provisioned from tftpd-hpa on port 69.
#include <gtest/gtest.h>

#include <thread>

#include "daemon.h"
#include "msgqueue.h"
#include "ownNetwork.h"

using namespace testing_support;

namespace {

const char* kTable = R"XML(<?xml version="1.0"?>
<autopTranslator><cfg>
  <object name="marker" path="/config/user/marker.ini" section="Marker"><item name="source" key="From"/></object>
</cfg></autopTranslator>
)XML";

struct PnpRun {
  bool fakeClock;
  const char* settings;  // more keys of section AutoProvision
  const char* trigger;   // scenario members: when the NOTIFYs go out after the fourth SUBSCRIBE
  const char* notifies;  // the scenario's NOTIFYs
  const char* answers;   // where and how each was answered, as the peer prints it
};

}  // namespace

TEST(PnpDaemon, LateNotifiesAreTakenAndEachAnsweredWhereItsViaSays) {
  RUN_IN_OWN_NETWORK();
  const PnpRun runs[] = {
      {false, "PNPOutDialogMSGEnable = 0\n", R"("delay_ms": 1500)",
       R"([{"name": "past the body", "via": "127.0.0.1:{alt}", "body": "x", "length": 9},
           {"name": "no To", "via": "127.0.0.1:{alt};rport", "omit": "To"},
           {"name": "other dialog", "via": "10.9.9.9:{alt}", "call_id": "other"},
           {"name": "no scheme", "via": "127.0.0.1", "body": "127.0.0.1/pnp"}])",
       "past the body: alt SIP/2.0 400 Bad Request | Via: SIP/2.0/UDP 127.0.0.1:{alt};branch=z9hG4bKpast-the-body\n"
       "no To: src SIP/2.0 400 Bad Request | "
       "Via: SIP/2.0/UDP 127.0.0.1:{alt};rport={src};branch=z9hG4bKno-To;received=127.0.0.1\n"
       "other dialog: alt SIP/2.0 481 Call/Transaction Does Not Exist | "
       "Via: SIP/2.0/UDP 10.9.9.9:{alt};branch=z9hG4bKother-dialog;received=127.0.0.1\n"
       "no scheme: 5060 SIP/2.0 200 OK | Via: SIP/2.0/UDP 127.0.0.1;branch=z9hG4bKno-scheme\n"},
      // The fake clock runs the 10 s wait and the power-on run that follows at once.
      {true, "", R"("text": "Pnp request timer has reached")",
       R"([{"name": "after the wait", "body": "tftp://127.0.0.1/pnp"}])",
       "after the wait: src SIP/2.0 200 OK | Via: SIP/2.0/UDP 127.0.0.1:{src};branch=z9hG4bKafter-the-wait\n"},
  };
  for (const PnpRun& run : runs) {
    SCOPED_TRACE(run.notifies);
    TempRoot root;
    TftpServer tftp;
    START_PEER(tftp, 69);
    tftp.put("pnp/common.cfg", "#!version:1.0.0.1\n");
    tftp.put("pnp/001565aabbcc.cfg", "#!version:1.0.0.1\nmarker.source = plug-and-play\n");
    root.write("/phone/resource/autopTranslator.xml", kTable);
    root.write("/host/device.ini", "[device]\nmac = 001565aabbcc\nip = 127.0.0.1\nnetwork_state = 2\n");
    root.write("/config/system/system.ini",
               std::string("[AutoProvision]\nstrCommName = common.cfg\nbEnablePNP = 1\n") + run.settings);
    root.write("/peer/scenario.json",
               std::string("{\"subscribes\": 4, ") + run.trigger + ", \"notifies\": " + run.notifies + "}");

    ServerProcess phone;  // the phone application: never in a call
    ASSERT_TRUE(phone.start(programArgv("msgctl", {"listen", "app_vpPhone", "--reply", "1"}), "/dev/null") &&
                pollFor([] { return !msgGetThreadByName("app_vpPhone").empty(); }, 5000));
    std::string answers;
    std::thread peer([&] {
      runCommand("python3 " PROVISOR_SOURCE_DIR "/tests/pnp/sipPeer.py '" + root.host("/peer/scenario.json") + "' '" +
                     root.path() + "/daemon.log'",
                 &answers);
    });
    pollFor([] { return runCommand("ss -Hlun 'sport = :5060' | grep -q .") == 0; }, 10000);
    DaemonProcess daemon(root.path(), {}, run.fakeClock);
    peer.join();
    EXPECT_EQ(run.answers, answers);
    EXPECT_TRUE(daemon.waitForLog("Provisor has done the PNP upgrade", 20000)) << daemon.log();
    EXPECT_NE(std::string::npos, root.read("/config/user/marker.ini").find("From=plug-and-play"));
  }
}

TEST(PnpDaemon, PlugAndPlayOffSaysWhy) {
  TempRoot root;
  root.write("/host/device.ini", "[device]\nmac = 001565aabbcc\nip = 127.0.0.1\nnetwork_state = 2\n");
  DaemonProcess daemon(root.path(), {}, true);
  EXPECT_TRUE(daemon.waitForLog("No need PNP Monitor. Reason: PNP CLOSED"));
}
