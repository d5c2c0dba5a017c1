// A firmware download asked for by the remote management client, end to end: the daemon checks the
// image header at a real web server, arms safe mode and records its reboot; the boot loader's stand-in
// then installs the payload into the slot and leaves safe mode.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "actions.h"
#include "daemon.h"
#include "device.h"
#include "firmware.h"
#include "firmwareImages.h"
#include "launcher.h"
#include "msgqueue.h"

using namespace testing_support;

namespace {

constexpr const char* kMac = "001565aabbcc";

bool waitForFile(const TempRoot& root, const std::string& logical, const std::string& text) {
  for (int i = 0; i < 1500; ++i, usleep(20000))
    if (root.exists(logical) && root.read(logical).find(text) != std::string::npos) return true;
  return false;
}

}  // namespace

TEST(CwmpRomDownload, GoodImageRebootsIntoSafeModeAndInstallsIt) {
  TempRoot root;
  FirmwareKit kit(root);
  ASSERT_TRUE(kit.ready());
  root.write(kHostDeviceIni, std::string("[device]\nmac = ") + kMac + "\nip = 127.0.0.1\nfamily = duna\n");
  root.write("/config/system/system.ini", "[AutoProvision]\nbEnablePoweron = 0\n");
  root.write(kFirmwareSlotPath, "old firmware");
  HttpServer http;
  ASSERT_TRUE(http.start());
  const std::string payload = testBytes(150000, 7);
  http.put("fw/new.rom", kit.image("duna", payload));
  const std::string url = "http://127.0.0.1:" + std::to_string(http.port()) + "/fw/new.rom";
  root.write("/tmp/tr069_" + std::string(kMac) + ".cfg",
             "[firmware]\nhttp_url = " + url + "\nfirmware_name = Image.ROM\n");

  // The phone application answers "not in a call", so the reboot is not held back.
  ScratchDir peers("peers");
  ServerProcess phone;
  ASSERT_TRUE(phone.start(programArgv("msgctl", {"listen", "app_vpPhone", "--reply", "1"}), peers.file("phone.log")));
  for (int i = 0; i < 500 && msgGetThreadByName("app_vpPhone").empty(); ++i) usleep(10000);

  DaemonProcess daemon(root.path(), {}, true);
  ASSERT_TRUE(daemon.waitReachable()) << daemon.log();
  std::string out;
  ASSERT_EQ(runCommand(programCommand("msgctl") + " post provisor 0xb0005", &out), 0) << out;
  ASSERT_TRUE(waitForFile(root, kHostActionsLog, "reboot")) << daemon.log();
  EXPECT_EQ(daemon.wait(), 0);  // a recorded reboot ends the process as the restart would
  EXPECT_EQ(userenv_get("BOOTMODE"), "safemode");
  EXPECT_EQ(userenv_get("strUpgradeURL"), url);
  EXPECT_EQ(root.read(kFirmwareSlotPath), "old firmware");  // nothing flashed before the restart

  // The boot loader's turn, in the same root.
  int rc = runCommand("PROVISOR_FAKE_CLOCK=1 PROVISOR_ROOT=" + root.path() + " " + programCommand("autoptool") +
                          " safemode-install",
                      &out);
  EXPECT_EQ(rc, 0) << out;
  EXPECT_TRUE(root.read(kFirmwareSlotPath) == payload);
  EXPECT_EQ(userenv_get("BOOTMODE"), "");
}
