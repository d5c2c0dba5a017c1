// The daemon provisions by itself: a sandbox root, a web server on loopback, a phone application
// stand-in that answers the talk-status query and a listener that sees the broadcasts. Hour-long
// waits run on the fake clock.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "autopInfo.h"
#include "daemon.h"
#include "msgqueue.h"
#include "servers.h"
#include "launcher.h"
#include "testRoot.h"

using namespace testing_support;

namespace {

const char* kMac = "001565aabbcc";

const char* kTable = R"XML(<?xml version="1.0"?>
<autopTranslator>
  <cfg>
    <object name="marker" path="/config/user/marker.ini" section="Marker">
      <item name="source" key="From"/>
    </object>
  </cfg>
</autopTranslator>
)XML";

std::string markerFile(const std::string& source) { return "#!version:1.0.0.1\nmarker.source = " + source + "\n"; }

int count(const std::string& text, const std::string& needle) {
  int n = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
  return n;
}

class DaemonRunTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(http.start());
    root.write("/phone/resource/autopTranslator.xml", kTable);
    root.write("/host/device.ini", std::string("[device]\nmac = ") + kMac + "\nip = 127.0.0.1\n");
    for (const char* dir : {"prov", "dhcp66", "dhcp43", "given"}) publish(dir, dir);
  }
  // A directory of the server whose per-device file names its source.
  void publish(const std::string& dir, const std::string& source) {
    http.put(dir + "/" + kMac + ".cfg", markerFile(source));
  }
  std::string url(const std::string& dir) const { return "http://127.0.0.1:" + std::to_string(http.port()) + "/" + dir + "/"; }
  void systemIni(const std::string& autoProvisionKeys, const std::string& more = "") {
    root.write("/config/system/system.ini",
               "[AutoProvision]\nstrCommName = common.cfg\nstrServerURL = " + url("prov") + "\n" + autoProvisionKeys + more);
  }
  // The phone application (answering `talkReply`) and a listener of the broadcasts.
  void startPeers(int talkReply = 1) {
    ASSERT_TRUE(phone.start(programArgv("msgctl", {"listen", "app_vpPhone", "--reply", std::to_string(talkReply)}),
                            peers.file("phone.log")));
    ASSERT_TRUE(screen.start(programArgv("msgctl", {"listen", "app_vpScreen"}), peers.file("screen.log")));
    for (int i = 0; i < 500 && (msgGetThreadByName("app_vpPhone").empty() || msgGetThreadByName("app_vpScreen").empty()); ++i)
      usleep(10000);
  }
  std::string marker() const { return root.exists("/config/user/marker.ini") ? root.read("/config/user/marker.ini") : ""; }
  std::string broadcasts() const { return readFile(peers.file("screen.log")); }
  static std::string readFile(const std::string& path) {
    std::string out;
    runCommand("cat '" + path + "' 2>/dev/null", &out);
    return out;
  }
  bool waitBroadcast(const std::string& line, int timeoutMs = 15000) const {
    for (int waited = 0; waited < timeoutMs; waited += 20, usleep(20000))
      if (broadcasts().find(line) != std::string::npos) return true;
    return false;
  }
  static std::string msgctl(const std::string& args) {
    std::string out;
    runCommand(programCommand("msgctl") + " " + args, &out);
    return out;
  }

  TempRoot root;
  HttpServer http;
  ScratchDir peers{"peers"};
  ServerProcess phone, screen;
};

const char* kResultOk = "id=0x10201 wparam=0 lparam=1 extra=\n";

// Which source the power-on run takes, from the DHCP option store, url_priority and the lists.
struct SourceCase {
  const char* name;
  const char* keys;
  const char* dhcpOptions;
  const char* expected;  // the marker applied, "" for none
};

TEST_F(DaemonRunTest, PowerOnRunPicksItsSourceInOrder) {
  const std::string u66 = url("dhcp66"), u43 = url("dhcp43");
  const std::vector<SourceCase> cases = {
      {"configured server", "bEnablePoweron = 1\n", "", "prov"},
      {"not at power-on unless enabled", "bEnablePoweron = 0\n", "", ""},
      {"option 66 first under priority 0", "bEnablePoweron = 1\nurl_priority = 0\n", "66", "dhcp66"},
      {"configured server first under priority 1", "bEnablePoweron = 1\nurl_priority = 1\n", "66", "prov"},
      {"system options in their order", "listSystemOptions = 43,66\n", "43,66", "dhcp43"},
      {"the user's option before them", "listUserOptions = 66\nlistSystemOptions = 43\n", "43,66", "dhcp66"},
  };
  startPeers();
  for (const SourceCase& c : cases) {
    SCOPED_TRACE(c.name);
    root.write("/config/user/marker.ini", "");
    root.write("/config/OLD_VER", "");
    systemIni(c.keys);
    std::string store = "[DHCP]\n";
    if (strstr(c.dhcpOptions, "66")) store += "66 = " + u66 + "\n";
    if (strstr(c.dhcpOptions, "43")) store += "43 = " + u43 + "\n";
    root.write("/tmp/valdrun_dhcp_options", store);
    runCommand("rm -f '" + peers.file("screen.log") + "'");
    screen.start(programArgv("msgctl", {"listen", "app_vpScreen"}), peers.file("screen.log"));
    for (int i = 0; i < 300 && msgGetThreadByName("app_vpScreen").empty(); ++i) usleep(10000);

    DaemonProcess daemon(root.path(), {}, true);
    ASSERT_TRUE(daemon.waitForLog("<<<<<< Autoprovision End >>>>>>", 20000)) << daemon.log();
    const bool reached = *c.expected != '\0';
    EXPECT_TRUE(waitBroadcast(reached ? kResultOk : "id=0x10201 wparam=0 lparam=0 extra=\n"));
    EXPECT_EQ(daemon.stop(SIGTERM), 0);
    if (reached)
      EXPECT_NE(marker().find(std::string("From=") + c.expected), std::string::npos) << marker();
    else
      EXPECT_EQ(marker().find("From"), std::string::npos) << marker();
    EXPECT_NE(daemon.log().find("Upgrade finished [" + std::string(reached ? "OK" : "FAIL") + "] !"), std::string::npos);
  }
}

TEST_F(DaemonRunTest, HexadecimalOptionBecomesDottedDecimal) {
  startPeers();
  systemIni("bEnablePoweron = 1\nlistSystemOptions = 66\n");
  root.write("/tmp/valdrun_dhcp_options", "[DHCP]\n66 = 7f000001\n");  // 127.0.0.1, no TFTP server there
  DaemonProcess daemon(root.path(), {}, true);
  ASSERT_TRUE(daemon.waitForLog("<<<<<< Autoprovision End >>>>>>", 60000)) << daemon.log();
  EXPECT_EQ(daemon.stop(SIGTERM), 0);
  std::string log = daemon.log();
  EXPECT_NE(log.find("system option 66 = 127.0.0.1\n"), std::string::npos) << log;
  // Nothing answered there, so the configured server came next.
  EXPECT_NE(marker().find("From=prov"), std::string::npos);
}

TEST_F(DaemonRunTest, MessagesBeforeAndAfterTheFirstRun) {
  startPeers();
  ServerProcess pnp;
  ASSERT_TRUE(pnp.start(programArgv("msgctl", {"listen", "app_PnpManger"}), peers.file("pnp.log")));
  for (int i = 0; i < 300 && msgGetThreadByName("app_PnpManger").empty(); ++i) usleep(10000);
  // Plug-and-play on: the daemon waits ten real seconds for the answer before its power-on run.
  systemIni("bEnablePNP = 1\nbEnablePoweron = 0\n");
  DaemonProcess daemon(root.path(), {});
  ASSERT_TRUE(daemon.waitReachable());

  EXPECT_EQ(msgctl("post provisor 0xa0000"), "");
  EXPECT_EQ(msgctl("send provisor 0xa0001"), "1\n");  // refused, left running
  EXPECT_NE(daemon.log().find("Have not update first time!"), std::string::npos);

  // The plug-and-play answer arrives in time.
  EXPECT_EQ(msgctl("post provisor 0xc0001 0 0 --extra " + url("given")), "");
  ASSERT_TRUE(waitBroadcast(kResultOk));
  EXPECT_NE(marker().find("From=given"), std::string::npos);
  EXPECT_NE(readFile(peers.file("pnp.log")).find("id=0xb0002 wparam=0 lparam=0"), std::string::npos);
  EXPECT_EQ(msgctl("send provisor 0xb0009"), "2\n");

  // Now a plain request runs: without DHCP options and url_priority 0 it reaches the configured server.
  publish("prov", "prov-again");
  EXPECT_EQ(msgctl("post provisor 0xa0000"), "");
  EXPECT_EQ(msgctl("send provisor 0xa0001"), "0\n");
  EXPECT_NE(marker().find("From=prov-again"), std::string::npos) << daemon.log();

  publish("given", "given-again");
  EXPECT_EQ(msgctl("post provisor 0xa0002 0 0 --extra " + url("given")), "");
  EXPECT_EQ(msgctl("send provisor 0xa0001"), "0\n");
  EXPECT_NE(marker().find("From=given-again"), std::string::npos);
  EXPECT_EQ(count(broadcasts(), kResultOk), 3);
  EXPECT_EQ(daemon.stop(SIGTERM), 0);
  EXPECT_EQ(count(daemon.log(), "<<<<<< Autoprovision End >>>>>>"), 3);
}

TEST_F(DaemonRunTest, UpdateConfigRecordBringsUrlCredentialsAndKeys) {
  startPeers();
  const std::string comKey = "commonkey0123456", macKey = "devicekey0123456";
  auto encrypt = [&](const std::string& name, const std::string& plain, const std::string& key) {
    std::string padded = plain + std::string((16 - plain.size() % 16) % 16, ' ');
    peers.write("plain.in", padded);
    std::string hex, out;
    for (unsigned char c : key) {
      char digits[3];
      snprintf(digits, sizeof(digits), "%02x", c);
      hex += digits;
    }
    ASSERT_EQ(runCommand("openssl enc -aes-128-ecb -nopad -K " + hex + " -in '" + peers.file("plain.in") +
                             "' -out '" + peers.file("cipher.out") + "'", &out), 0) << out;
    http.put("enc/" + name, readFile(peers.file("cipher.out")));
  };
  encrypt("common.cfg", "#!version:1.0.0.1\nmarker.source = common\n", comKey);
  encrypt(std::string(kMac) + ".cfg", markerFile("encrypted"), macKey);
  systemIni("");

  AutopInfo info;
  memset(&info, 0, sizeof(info));
  memset(info.userName, 'u', sizeof(info.userName));  // no terminating zero: cut at the field's end
  strcpy(info.password, "s3cret");
  std::string serverUrl = url("enc");
  memcpy(info.url, serverUrl.c_str(), serverUrl.size());
  memcpy(info.comAesKey, comKey.data(), comKey.size());
  memcpy(info.macAesKey, macKey.data(), macKey.size());
  peers.write("info.bin", std::string(reinterpret_cast<const char*>(&info), sizeof(info)));

  DaemonProcess daemon(root.path(), {"-byzero"}, true);
  ASSERT_TRUE(daemon.waitReachable());
  EXPECT_EQ(msgctl("post provisor 0xb0001 2 0 --extra-file '" + peers.file("info.bin") + "'"), "");
  ASSERT_TRUE(waitBroadcast(kResultOk)) << daemon.log();
  EXPECT_NE(marker().find("From=encrypted"), std::string::npos) << marker();
  // A record cut short inside its URL field: only the bytes sent are read, the URL ends there.
  peers.write("short.bin", std::string(reinterpret_cast<const char*>(&info), 200 + serverUrl.size() - 2));
  EXPECT_EQ(msgctl("post provisor 0xb0001 2 0 --extra-file '" + peers.file("short.bin") + "'"), "");
  EXPECT_EQ(msgctl("send provisor 0xa0001"), "0\n");
  EXPECT_EQ(daemon.stop(SIGTERM), 0);
  std::string log = daemon.log();
  EXPECT_NE(log.find("uuuu:******@127.0.0.1"), std::string::npos) << log;
  EXPECT_EQ(log.find("s3cret"), std::string::npos);
  EXPECT_NE(log.find("Autop Success,Close Redirect!"), std::string::npos);
  EXPECT_NE(log.find("fileDownload::OpenDownloadStream[127.0.0.1][/en/"), std::string::npos) << log;
}

TEST_F(DaemonRunTest, ForcedRebootAfterTheRunWithAndWithoutUnregisterDelay) {
  startPeers();
  for (int unregister : {2, 0}) {
    SCOPED_TRACE(unregister);
    systemIni("", "[sipServerOptions]\nUnregisterOnReboot = " + std::to_string(unregister) + "\n");
    root.write("/host/actions.log", "");
    runCommand("rm -f '" + peers.file("screen.log") + "'");
    screen.start(programArgv("msgctl", {"listen", "app_vpScreen"}), peers.file("screen.log"));
    for (int i = 0; i < 300 && msgGetThreadByName("app_vpScreen").empty(); ++i) usleep(10000);

    DaemonProcess daemon(root.path(), {"-byzero"}, true);
    ASSERT_TRUE(daemon.waitReachable());
    EXPECT_EQ(msgctl("post provisor 0xb0001 0 2"), "");
    EXPECT_EQ(daemon.wait(20000), 0);  // the recorded restart ends the process
    EXPECT_EQ(root.read("/host/actions.log"), "reboot\n");
    ASSERT_TRUE(waitBroadcast("id=0x10011 wparam=0 lparam=0 extra=\n"));
    std::string seen = broadcasts();
    EXPECT_LT(seen.find("id=0x10011"), seen.find("id=0x10201"));
    EXPECT_EQ(seen.find("id=0x1000a") != std::string::npos, unregister > 0) << seen;
    std::string log = daemon.log();
    EXPECT_NE(log.find("Sip unregister on reboot need delay " + std::to_string(unregister) + "s !"), std::string::npos);
    EXPECT_LT(log.find("SIP Update and then Force to reboot!"), log.find("To reboot !!"));
    EXPECT_TRUE(root.exists("/config/autop_log/log.0") || log.find("backup") != std::string::npos);
  }
}

TEST_F(DaemonRunTest, APhoneInACallForTheWholeHourSkipsTheRun) {
  startPeers(0);
  systemIni("");
  DaemonProcess daemon(root.path(), {"-byzero"}, true);
  ASSERT_TRUE(daemon.waitReachable());
  EXPECT_EQ(msgctl("post provisor 0xa0000"), "");
  ASSERT_TRUE(daemon.waitForLog("Talking ..., Skipped !", 30000));
  EXPECT_EQ(msgctl("send provisor 0xa0001"), "0\n");
  EXPECT_EQ(daemon.stop(SIGTERM), 0);
  std::string log = daemon.log();
  EXPECT_EQ(count(log, "Talking, Delay [60] seconds ... "), 60);
  EXPECT_EQ(log.find("Lanuch AutoProvision"), std::string::npos);
  EXPECT_EQ(count(readFile(peers.file("phone.log")), "id=0x30007 wparam=0 lparam=1"), 61);
}

}  // namespace
