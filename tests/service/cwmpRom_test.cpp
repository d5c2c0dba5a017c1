// A firmware download asked for by the remote management client, end to end: the daemon checks the
// image header at a real web server, arms safe mode and records its reboot, flashing nothing itself
// (the boot loader's stand-in installs the image; its own tests cover that step).
#include <gtest/gtest.h>

#include <string>

#include "actions.h"
#include "daemon.h"
#include "device.h"
#include "firmware.h"
#include "firmwareImages.h"
#include "servicePeers.h"

using namespace testing_support;
using namespace service_test;

TEST(CwmpRomDownload, GoodImageRebootsIntoSafeModeWithItsUrl) {
  TempRoot root;
  FirmwareKit kit(root);
  ASSERT_TRUE(kit.ready());
  root.write(kHostDeviceIni, "[device]\nmac = 001565aabbcc\nip = 127.0.0.1\nfamily = duna\n");
  root.write("/config/system/system.ini", "[AutoProvision]\nbEnablePoweron = 0\n");
  root.write(kFirmwareSlotPath, "old firmware");
  HttpServer http;
  ASSERT_TRUE(http.start());
  http.put("fw/new.rom", kit.image("duna", testBytes(150000, 7)));
  const std::string url = "http://127.0.0.1:" + std::to_string(http.port()) + "/fw/new.rom";
  root.write("/tmp/tr069_001565aabbcc.cfg",
             "[firmware]\nhttp_url = " + url + "\nfirmware_name = Image.ROM\n");

  // The phone application answers "not in a call", so the reboot is not held back.
  ScratchDir peers("peers");
  ServerProcess phone;
  ASSERT_TRUE(listen(phone, "app_vpPhone", peers.file("phone.log"), 1));

  DaemonProcess daemon(root.path(), {}, true);
  ASSERT_TRUE(daemon.waitReachable()) << daemon.log();
  EXPECT_EQ(msgctl("post provisor 0xb0005"), "");
  // A recorded reboot ends the process as the restart would.
  EXPECT_EQ(daemon.wait(30000), 0) << daemon.log();
  EXPECT_EQ(root.read(kHostActionsLog), "reboot\n");
  EXPECT_EQ(userenv_get("BOOTMODE"), "safemode");
  EXPECT_EQ(userenv_get("strUpgradeURL"), url);
  EXPECT_EQ(root.read(kFirmwareSlotPath), "old firmware");
}
