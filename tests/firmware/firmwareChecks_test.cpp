// What the phone already runs decides what it installs: the version, model and family rules of the
// header check, the same rules in the boot loader's safe-mode install, runs that name the running
// firmware again (nothing to do, no reboot) for each family, and lyra refusing before it stops any
// application. Images come from `autoptool image build` (an empty one from Python and openssl).
#include <gtest/gtest.h>

#include "actions.h"
#include "autoUpgrade.h"
#include "autopTranslator.h"
#include "device.h"
#include "firmware.h"
#include "firmwareImages.h"
#include "firmwareSource.h"
#include "firmwareUrl.h"
#include "registry.h"
#include "romInstaller.h"
#include "runContext.h"
#include "servers.h"

using namespace testing_support;

namespace {

const std::string kPayload = testBytes(40000, 9);

class FirmwareChecksTest : public RootedTest {
 protected:
  void SetUp() override {
    RootedTest::SetUp();
    kit = std::make_unique<FirmwareKit>(*root);
    ASSERT_TRUE(kit->ready());
    START_PEER(http);
  }
  // A family of "" leaves the family to the hardware version (/proc/hwversion, when given).
  void useDevice(const std::string& family, const std::string& running, bool allowDowngrade = false) {
    root->write(kHostDeviceIni, "[device]\nmac = 001565aabbcc\nip = 127.0.0.1\nnetwork_type = 0\n" +
                                    (family.empty() ? "" : "family = " + family + "\n"));
    root->write("/phone/version", "[version]\nFIRMWARE_VERSION = " + running + "\n");
    root->write("/config/system/system.ini", std::string("[AutoProvision]\nstrCommName = common.cfg\n") +
                                                 "bAllowFirmwareDowngrade = " + (allowDowngrade ? "1" : "0") + "\n");
    registryResetCache();
  }
  std::string serve(const std::string& name, const std::string& image) {
    http.put(name, image);
    return "http://127.0.0.1:" + std::to_string(http.port()) + "/" + name;
  }
  static int tool(const std::string& args, std::string* out) {
    return runCommand("PROVISOR_FAKE_CLOCK=1 " + programCommand("autoptool") + " " + args, out);
  }
  std::unique_ptr<FirmwareKit> kit;
  HttpServer http;
};

TEST(FirmwareVersionTest, VersionsCompareFieldByFieldAsNumbers) {
  const struct {
    const char *a, *b;
    int order;
  } cases[] = {
      {"3.1.0.10", "3.1.0.9", 1}, {"3.1.0.9", "3.1.0.10", -1}, {"3.1.0.9", "3.1.0.9", 0},
      {"3.1", "3.1.0.0", 0},      {"3.1.0.1", "3.1", 1},       {"10.0", "9.99", 1},
      {"3.01.0", "3.1.0", 0},     {"3.1.0b", "3.1.0a", 1},     {"99999999999999999999.1", "1.1", 1},
  };
  for (const auto& c : cases) EXPECT_EQ(firmwareCompareVersions(c.a, c.b), c.order) << c.a << " vs " << c.b;
}

TEST_F(FirmwareChecksTest, TheHeaderCheckAndTheSafeModeInstallApplyTheVersionModelAndFamilyRules) {
  const struct {
    const char* what;
    std::string family, hardware, running;  // hardware: /proc/hwversion ("-": none)
    bool allowDowngrade;
    std::string image;
    std::string refusal;  // "" installed; "already installed" is nothing to do
  } cases[] = {
      {"newer by a two-digit field", "lyra", "-", "3.1.0.9", false, kit->image("lyra", kPayload, false, "3.1.0.10"),
       ""},
      {"the running version", "lyra", "-", "3.1.0.10", false, kit->image("lyra", kPayload, false, "3.1.0.10"),
       "already installed"},
      {"older", "lyra", "-", "3.1.0.10", false, kit->image("lyra", kPayload, false, "3.1.0.9"),
       "older than the running firmware"},
      {"older, downgrades allowed", "lyra", "-", "3.1.0.10", true, kit->image("lyra", kPayload, false, "3.1.0.9"), ""},
      {"another model", "lyra", "-", "3.1.0.9", false, kit->image("lyra", kPayload, false, "3.1.0.10", "QF5,RM410T"),
       "image for another model"},
      {"device id outside the table", "", "99.0.0.0.0.0.0", "3.1.0.9", false,
       kit->image("lyra", kPayload, false, "3.1.0.10"), "device family unknown"},
      {"empty hardware version", "", "", "3.1.0.9", false, kit->image("lyra", kPayload, false, "3.1.0.10"),
       "device family unknown"},
      {"empty payload", "lyra", "-", "3.1.0.9", false, kit->emptyImage("lyra", "3.1.0.10"), "empty payload"},
  };
  int n = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    useDevice(c.family, c.running, c.allowDowngrade);
    if (c.hardware != "-") root->write("/proc/hwversion", c.hardware);
    std::string url = serve("img" + std::to_string(n++) + ".rom", c.image);
    int status = firmware_Upgrade(firmwareStreams(), url.c_str(), 10000, false, true, false);
    EXPECT_EQ(c.refusal.empty() ? "ok" : c.refusal, firmware_GetStatusName(status));
    EXPECT_FALSE(root->exists(kHostBootEnv));

    root->write(kFirmwareSlotPath, "old firmware");
    root->write(kHostBootEnv, "[env]\nBOOTMODE=safemode\nstrUpgradeURL=" + url + "\n");
    std::string out;
    bool nothingToDo = c.refusal == "already installed";
    EXPECT_EQ(tool("safemode-install", &out), c.refusal.empty() || nothingToDo ? 0 : 1) << out;
    EXPECT_TRUE(out.find(c.refusal.empty() ? "firmware installed" : c.refusal) != std::string::npos) << out;
    EXPECT_TRUE(root->read(kFirmwareSlotPath) == (c.refusal.empty() ? kPayload : "old firmware"));
    EXPECT_EQ(userenv_get("BOOTMODE"), "");
    root->write("/proc/hwversion", "");
    unlink(root->host("/proc/hwversion").c_str());
    unlink(root->host(kHostBootEnv).c_str());
  }
}

TEST_F(FirmwareChecksTest, AnEmptyPayloadIsNotBuilt) {
  root->write("/scratch/empty.bin", "");
  std::string out;
  EXPECT_EQ(tool("image build --key " + kit->signingKey() + " --family lyra --models QA5 --version 1.0 " +
                     root->host("/scratch/empty.bin") + " " + root->host("/scratch/empty.rom"),
                 &out),
            1)
      << out;
  EXPECT_FALSE(root->exists("/scratch/empty.rom"));
  EXPECT_TRUE(out.find("empty payload") != std::string::npos) << out;
}

TEST_F(FirmwareChecksTest, VerifyTellsTheRunningVersionAndWhatThisPhoneWouldDo) {
  useDevice("lyra", "3.1.0.9");
  const struct {
    const char* what;
    std::string image, verdict;
  } cases[] = {
      {"newer", kit->image("lyra", kPayload, false, "3.1.0.10"), "would be installed"},
      {"same", kit->image("lyra", kPayload, false, "3.1.0.9"), "refused, already installed"},
      {"older", kit->image("lyra", kPayload, false, "3.1.0.8"), "refused, older than the running firmware"},
      {"another model", kit->image("lyra", kPayload, false, "3.1.0.10", "QF5"), "refused, image for another model"},
      {"another family", kit->image("orin", kPayload, false, "3.1.0.10"), "refused, image for another device family"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    root->write("/scratch/verify.rom", c.image);
    std::string out;
    EXPECT_EQ(tool("image verify " + root->host("/scratch/verify.rom"), &out), 0) << out;
    EXPECT_TRUE(out.find("running version: 3.1.0.9\non this phone: " + c.verdict + "\n") != std::string::npos) << out;
  }
}

// Power-on after power-on with the same configuration file: the running firmware is named each
// time. Nothing happens until a newer one is named; that one installs exactly once.
TEST_F(FirmwareChecksTest, RunsNamingTheRunningFirmwareNeitherInstallNorRebootAndANewerOneInstallsOnce) {
  testing_support::TestRunContext run;
  ASSERT_TRUE(run.loadShippedTable());
  int& reboots = run.reboots;
  for (const std::string family : {"lyra", "orin", "duna"}) {
    SCOPED_TRACE(family);
    reboots = 0;
    useDevice(family, "3.1.0.9");
    unlink(root->host(kFirmwareSlotPath).c_str());
    std::string running = serve(family + "-running.rom", kit->image(family, kPayload, false, "3.1.0.9"));
    root->write("/srv/p/common.cfg", "#!version:1.0.0.1\nfirmware.url = " + running + "\n");
    for (int boot = 0; boot < 3; ++boot) EXPECT_TRUE(autoUpgrade::UpgradeFromURL(run.context, "/srv/p"));
    EXPECT_EQ(reboots, 0);
    EXPECT_FALSE(root->exists(kHostActionsLog)) << root->read(kHostActionsLog);
    EXPECT_EQ(userenv_get("BOOTMODE"), "");
    EXPECT_FALSE(root->exists(kFirmwareSlotPath));

    std::string newer = serve(family + "-newer.rom", kit->image(family, kPayload, false, "3.1.0.10"));
    root->write("/srv/p/common.cfg", "#!version:1.0.0.1\nfirmware.url = " + newer + "\n");
    for (int boot = 0; boot < 3; ++boot) {
      EXPECT_TRUE(autoUpgrade::UpgradeFromURL(run.context, "/srv/p"));
      std::string out;
      if (family == "duna" && boot == 0) {
        EXPECT_EQ(tool("safemode-install", &out), 0) << out;
      }
      // The new firmware starts and names its own version.
      if (boot == 0) useDevice(family, "3.1.0.10");
    }
    EXPECT_EQ(reboots, 1);
    if (family != "orin") {
      EXPECT_TRUE(root->read(kFirmwareSlotPath) == kPayload);
    }
    unlink(root->host(kHostActionsLog).c_str());
  }
}

// A TR-069 request for the running firmware is done as asked: no safe mode and no restart.
TEST_F(FirmwareChecksTest, ATr069RequestForTheRunningFirmwareArmsNoSafeMode) {
  useDevice("duna", "3.1.0.9");
  const struct {
    const char* version;
    bool safeMode;
  } cases[] = {{"3.1.0.9", false}, {"3.1.0.10", true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.version);
    std::string url = serve(std::string("tr") + c.version + ".rom", kit->image("duna", kPayload, false, c.version));
    root->write(tr069RequestFile(), "[firmware]\nhttp_url = " + url + "\nfirmware_name = fw.rom\n");
    EXPECT_EQ(tr069DownloadRom(), 1);
    EXPECT_EQ(userenv_get("BOOTMODE"), c.safeMode ? "safemode" : "");
  }
}

TEST_F(FirmwareChecksTest, LyraRefusesALocationOrAnImageBeforeStoppingAnyApplication) {
  useDevice("lyra", "3.1.0.9");
  root->write("/proc/4100/cmdline", std::string("/bin/sh\0/etc/init.d/GuiApp.sh", 29));
  root->write("/proc/4100/stat", "4100 (sh) S 1");
  const struct {
    const char* what;
    std::string location;
  } cases[] = {
      {"no scheme, no host", "/fw/lyra.rom"},
      {"port 0", "http://127.0.0.1:0/fw/lyra.rom"},
      {"another family's image", serve("duna.rom", kit->image("duna", kPayload, false, "3.1.0.10"))},
      {"the running version", serve("same.rom", kit->image("lyra", kPayload, false, "3.1.0.9"))},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_NE(createRomInstallerFor("lyra")->install(c.location.c_str()), 1);
    EXPECT_FALSE(root->exists(kHostActionsLog)) << root->read(kHostActionsLog);
  }
}

// Once the applications are stopped, a refused image restarts the phone instead of leaving it up
// without them (on the host the restart is a line in the actions log and the process ends).
TEST_F(FirmwareChecksTest, LyraRestartsThePhoneWhenTheFlasherRefusesAfterTheStop) {
  // Forked where it stands, so the child writes into this test's root.
  GTEST_FLAG_SET(death_test_style, "fast");
  useDevice("lyra", "3.1.0.9");
  std::string image = kit->image("lyra", kPayload, false, "3.1.0.10");
  image[kImageHeaderSize + 100] = static_cast<char>(image[kImageHeaderSize + 100] ^ 1);  // header fine, payload not
  std::string url = serve("bad-payload.rom", image);
  EXPECT_EXIT(createRomInstallerFor("lyra")->install(url.c_str()), ::testing::ExitedWithCode(0), "");
  EXPECT_NE(root->read(kHostActionsLog).find("reboot"), std::string::npos) << root->read(kHostActionsLog);
  EXPECT_FALSE(root->exists(kFirmwareSlotPath));
}

}  // namespace
