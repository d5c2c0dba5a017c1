// Signed images through the tool: verify, and the boot loader's safe-mode install with every
// refusal leaving the slot as it was. (A firmware object in a whole provisioning run is part of the
// power-loss test; the installers of each family have their own tests.)
#include <gtest/gtest.h>

#include "device.h"
#include "firmware.h"
#include "firmwareImages.h"

using namespace testing_support;

namespace {

class AutoptoolImageTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(kit.ready()); }
  int tool(const std::string& args, std::string* out) {
    return runCommand(
        "PROVISOR_FAKE_CLOCK=1 PROVISOR_ROOT=" + root.path() + " " + programCommand("autoptool") + " " + args, out);
  }
  TempRoot root;
  FirmwareKit kit{root};
};

std::string flip(std::string bytes, size_t at) {
  bytes[at] = static_cast<char>(bytes[at] ^ 0x80);
  return bytes;
}

}  // namespace

TEST_F(AutoptoolImageTest, VerifyPrintsTheHeaderAndNamesWhatIsWrong) {
  std::string image = kit.image("lyra", testBytes(9000, 2));
  root.write("/good.rom", image);
  root.write("/payload.rom", flip(image, image.size() - 1));
  root.write("/foreign.rom", kit.image("lyra", "x", true));
  std::string key = root.host(kFirmwareKeyPath);
  std::string out;
  ASSERT_EQ(tool("image verify --key " + key + " " + root.host("/good.rom"), &out), 0) << out;
  EXPECT_NE(out.find("family: lyra\nmodels: QA5,QE5\nversion: 2.1.0.7\npayload length: 9000\n"), std::string::npos);
  EXPECT_EQ(tool("image verify " + root.host("/payload.rom"), &out), 1);
  EXPECT_NE(out.find("payload digest mismatch"), std::string::npos);
  EXPECT_EQ(tool("image verify --key " + key + " " + root.host("/foreign.rom"), &out), 1);
  EXPECT_NE(out.find("bad signature"), std::string::npos);
}

TEST_F(AutoptoolImageTest, SafeModeInstallFlashesOnlyAWholeGoodImageAndAlwaysLeavesSafeMode) {
  root.write(kHostDeviceIni, "[device]\nmac = 001565aabbcc\nfamily = duna\n");
  HttpServer http;
  ASSERT_TRUE(http.start());
  std::string payload = testBytes(150000, 4);
  std::string good = kit.image("duna", payload);
  std::string base = "http://127.0.0.1:" + std::to_string(http.port()) + "/";
  struct Case {
    const char* what;
    std::string image, reason;  // reason empty: installed
  } cases[] = {
      {"flipped header byte", flip(good, kImageFamilyOffset + 40), "bad signature"},
      {"flipped signature byte", flip(good, kImageSignatureOffset), "bad signature"},
      {"flipped payload byte", flip(good, kImageHeaderSize + 7000), "payload digest mismatch"},
      {"another family", kit.image("lyra", payload), "image for another device family"},
      {"header cut short", good.substr(0, 300), "header cut short"},
      {"other key", kit.image("duna", payload, true), "bad signature"},
      {"payload cut short", good.substr(0, good.size() - 10), "payload cut short"},
      {"good image", good, ""},
  };
  int n = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::string name = "img" + std::to_string(n++) + ".rom";
    http.put(name, c.image);
    root.write(kFirmwareSlotPath, "old firmware");
    root.write(kHostBootEnv, "[env]\nBOOTMODE=safemode\nstrUpgradeURL=" + base + name + "\n");
    std::string out;
    EXPECT_EQ(tool("safemode-install", &out), c.reason.empty() ? 0 : 1) << out;
    EXPECT_EQ(userenv_get("BOOTMODE"), "");
    EXPECT_NE(out.find(c.reason.empty() ? "firmware installed" : "Safe mode install failed : " + c.reason),
              std::string::npos)
        << out;
    EXPECT_TRUE(root.read(kFirmwareSlotPath) == (c.reason.empty() ? payload : "old firmware"));
  }
}
