// A firmware image named by a remote management request, checked at a real web server: only a good
// header of this device's family with a ".rom" name switches the boot loader to safe mode; every
// refusal leaves the boot environment untouched. The broadcasts of the outcome are seen by the
// daemon's test of the request.
#include <gtest/gtest.h>

#include "device.h"
#include "firmwareImages.h"
#include "firmwareUrl.h"
#include "registry.h"

using namespace testing_support;

namespace {

constexpr const char* kMac = "001565aabbcc";

std::string flip(std::string bytes, size_t at) {
  bytes[at] = static_cast<char>(bytes[at] ^ 0x01);
  return bytes;
}

}  // namespace

TEST(FirmwareUrl, OnlyAGoodRomHeaderSwitchesToSafeMode) {
  TempRoot root;
  FirmwareKit kit(root);
  ASSERT_TRUE(kit.ready());
  root.write(kHostDeviceIni, std::string("[device]\nmac = ") + kMac + "\nfamily = duna\n");
  HttpServer http;
  ASSERT_TRUE(http.start());
  std::string good = kit.image("duna", testBytes(70000, 5));
  std::string base = "http://127.0.0.1:" + std::to_string(http.port()) + "/";

  struct Case {
    const char* what;
    std::string name, image, url, reason;  // reason empty: accepted
  } cases[] = {
      {"good, name in capitals", "Image.ROM", good, base + "a.rom", ""},
      {"payload is not read by a header check", "fw.rom", flip(good, 400), base + "b.rom", ""},
      {"not a rom name", "image.bin", good, base + "c.rom", "-"},
      {"flipped header byte", "fw.rom", flip(good, 0), base + "d.rom", "bad magic"},
      {"flipped signature byte", "fw.rom", flip(good, kImageSignatureOffset), base + "e.rom", "bad signature"},
      {"another family", "fw.rom", kit.image("orin", "x"), base + "f.rom", "image for another device family"},
      {"header cut short", "fw.rom", good.substr(0, 200), base + "g.rom", "header cut short"},
      {"other key", "fw.rom", kit.image("duna", "x", true), base + "h.rom", "bad signature"},
      {"url without a host", "fw.rom", good, "http:///i.rom", "-"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    http.put(c.url.substr(c.url.rfind('/') + 1), c.image);
    root.write("/tmp/tr069_" + std::string(kMac) + ".cfg",
               "[firmware]\nhttp_url = " + c.url + "\nfirmware_name = " + c.name + "\n");
    remove(root.host(kHostBootEnv).c_str());
    LogCapture log;
    EXPECT_EQ(tr069DownloadRom(), c.reason.empty() ? 1 : 0);
    if (c.reason.empty()) {
      EXPECT_EQ(userenv_get("BOOTMODE"), "safemode");
      EXPECT_EQ(userenv_get("strUpgradeURL"), c.url);
    } else {
      EXPECT_FALSE(root.exists(kHostBootEnv));
      if (c.reason != "-")
        EXPECT_TRUE(log.contains("Invalid rom header! status description = " + c.reason));
      else
        EXPECT_FALSE(log.contains("firmware_Upgrade-verify rom header ..."));  // refused before any download
    }
  }
  // The MAC-named request file when the configuration asks for it.
  root.write("/config/system/system.ini", "[TR069Update]\nUseTr069MacCfg = 1\n");
  registryResetCache();
  EXPECT_EQ(tr069RequestFile(), std::string("/tmp/") + kMac + ".cfg");
}
