// A provisioning run whose every URL carries a password (the provisioning URL, the custom
// per-device location, a URL-valued setting) leaves none of them in the log.
#include <gtest/gtest.h>

#include <unistd.h>

#include "autoUpgrade.h"
#include "autopTranslator.h"
#include "registry.h"
#include "servers.h"
#include "testRoot.h"

using namespace testing_support;

TEST(CredentialMasking, NoPasswordOfAnyUrlReachesTheLog) {
  TempRoot root;
  ASSERT_EQ(symlink(PROVISOR_SOURCE_DIR "/data/autopTranslator.xml", root.host("/tmp/table.xml").c_str()), 0);
  autopTranslator table;
  ASSERT_TRUE(table.loadTransData("/tmp/table.xml"));
  root.write("/host/device.ini", "[device]\nmac = 001565aabbcc\nip = 127.0.0.1\nnetwork_type = 0\n");
  root.write("/config/system/system.ini", "[AutoProvision]\nstrCommName = common.cfg\n");
  registryResetCache();
  HttpServer http;
  ASSERT_TRUE(http.start());
  // The test server takes user:secret for /auth/; every other URL carries a password of its own.
  const std::string server = "127.0.0.1:" + std::to_string(http.port());
  http.put("auth/common.cfg", "#!version:1.0.0.1\n"
                              "custom_mac_cfg.url = http://user:secret@" + server + "/auth/devices/\n"
                              "auto_provision.server.url = ftp://admin:secret@" + server + "/prov/\n");
  http.put("auth/devices/001565aabbcc.cfg", "#!version:1.0.0.1\naccount.1.label = Reached\n");
  autoUpgrade::setTranslator(&table);
  LogCapture log;
  // Twice: the second run also logs the unchanged files by their URLs.
  for (int run = 0; run < 2; ++run) EXPECT_TRUE(autoUpgrade::UpgradeFromURL("http://user:secret@" + server + "/auth"));
  autoUpgrade::setTranslator(nullptr);
  registryResetCache();
  EXPECT_EQ(brisaGetProfileString("/config/user/voip/sipAccount0.cfg", "account", "Label", ""), "Reached");
  EXPECT_EQ(brisaGetProfileString("/config/system/system.ini", "AutoProvision", "strServerURL", ""),
            "ftp://admin:secret@" + server + "/prov/");
  // The lines that show URLs were logged, masked.
  for (const char* line : {"(MD5) is same as old file", "Get Custom MAC.CFG's URL: http://user:******@",
                           "--- Set [AutoProvision::strServerURL] Value [ftp://admin:******@"})
    EXPECT_TRUE(log.contains(line)) << line;
  const std::string text = log.text();
  size_t leak = text.find("secret");
  EXPECT_EQ(leak, std::string::npos) << text.substr(leak > 200 ? leak - 200 : 0, 400);
}
