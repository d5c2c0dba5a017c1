// The administrator's tool: encryption compatible with openssl, the dry-run check, one provisioning
// run into a sandbox; and the daemon applying a file another application pushed.
#include <gtest/gtest.h>

#include <csignal>

#include "daemon.h"
#include "testRoot.h"

using namespace testing_support;

namespace {

const char* kConfig =
    "#!version:1.0.0.1\n"
    "account.1.enable = 1\n"
    "account.1.label = Reception\n"
    "no.such.setting = 3\n";

std::string tool(const std::string& args, int* status = nullptr) {
  std::string out;
  int rc = runCommand(programCommand("autoptool") + " " + args, &out);
  if (status) *status = rc;
  return out;
}

std::string sampleTable() { return std::string(PROVISOR_SOURCE_DIR) + "/data/autopTranslator.xml"; }

void installSampleTable(const TempRoot& root) {
  ASSERT_EQ(runCommand("mkdir -p " + root.host("/phone/resource") + " && cp " + sampleTable() + " " +
                       root.host("/phone/resource/autopTranslator.xml")),
            0);
}

}  // namespace

TEST(Autoptool, EncryptAndDecryptMatchOpenssl) {
  TempRoot root;
  root.write("/plain.cfg", kConfig);
  const std::string padded = std::string(kConfig) + std::string((16 - strlen(kConfig) % 16) % 16, ' ');
  int rc = -1;
  // A key text and the derived per-device key each read back what they wrote; another key is refused.
  for (const std::string key : {"'desk key'", "mac:001565aabbcc"}) {
    tool("encrypt " + key + " " + root.host("/plain.cfg") + " " + root.host("/enc.cfg"), &rc);
    ASSERT_EQ(rc, 0) << key;
    tool("decrypt " + key + " " + root.host("/enc.cfg") + " " + root.host("/dec.cfg"), &rc);
    EXPECT_EQ(rc, 0) << key;
    EXPECT_EQ(root.read("/dec.cfg"), padded) << key;
    std::string out = tool("decrypt other " + root.host("/enc.cfg") + " " + root.host("/bad.cfg"), &rc);
    EXPECT_EQ(rc, 1);
    EXPECT_NE(out.find("wrong key"), std::string::npos);
    EXPECT_FALSE(root.exists("/bad.cfg"));
  }
  // openssl with the raw key text ("desk key" zero padded to 16 bytes) reads it.
  tool("encrypt 'desk key' " + root.host("/plain.cfg") + " " + root.host("/enc.cfg"), &rc);
  std::string plain;
  ASSERT_EQ(runCommand("openssl enc -d -aes-128-ecb -nopad -K 6465736b206b65790000000000000000 -in " +
                           root.host("/enc.cfg"),
                       &plain),
            0);
  EXPECT_EQ(plain, padded);
}

TEST(Autoptool, CheckMapsEveryKeyAndFailsOnUnknownOnesWithoutWriting) {
  TempRoot root;
  root.write("/c.cfg", kConfig);
  int rc = -1;
  std::string out = tool("check --table " + sampleTable() + " " + root.host("/c.cfg"), &rc);
  EXPECT_EQ(rc, 1);
  EXPECT_NE(out.find("account.1.label -> cfg /config/user/voip/sipAccount0.cfg [account] Label = Reception"),
            std::string::npos)
      << out;
  EXPECT_NE(out.find("no.such.setting -> unknown"), std::string::npos);
  EXPECT_NE(out.find("3 keys, 1 unknown"), std::string::npos);

  // An older-model file with a byte-order mark is left exactly as it was.
  std::string m2 = "\xEF\xBB\xBF[cfg:/config/user/voip/sipAccount0.cfg]\naccount.Label = Front\n";
  root.write("/m2.cfg", m2);
  out = tool("check --table " + sampleTable() + " " + root.host("/m2.cfg"), &rc);
  EXPECT_EQ(rc, 0) << out;
  EXPECT_EQ(root.read("/m2.cfg"), m2);
  EXPECT_NE(out.find("account.1.label -> cfg"), std::string::npos) << out;
  EXPECT_EQ(root.read("/c.cfg"), kConfig);
}

TEST(Autoptool, ProvisionRunsOneUrlIntoTheSandbox) {
  TempRoot root;
  installSampleTable(root);
  root.write("/host/device.ini", "[device]\nmac = 001565aabbcc\nip = 127.0.0.1\n");
  root.write("/srv/p/001565aabbcc.cfg", kConfig);
  int rc = -1;
  std::string out;
  ASSERT_EQ(runCommand("PROVISOR_ROOT=" + root.path() + " " + programCommand("autoptool") + " provision /srv/p/", &out), 0)
      << out;
  EXPECT_NE(root.read("/config/user/voip/sipAccount0.cfg").find("Label=Reception"), std::string::npos);
  EXPECT_NE(out.find("Warning! Not found item no.such.setting"), std::string::npos);
  out = tool("provision /srv/nothing/", &rc);
  EXPECT_EQ(rc, 1);
}

TEST(Autoptool, DaemonAppliesAPushedFileOnTheReparseMessage) {
  TempRoot root;
  installSampleTable(root);
  root.write("/tmp/XML.cfg", kConfig);
  DaemonProcess daemon(root.path(), {"-byzero"});
  ASSERT_TRUE(daemon.waitReachable());
  std::string out;
  runCommand(programCommand("msgctl") + " post provisor 0xa1003 0 0", &out);
  runCommand(programCommand("msgctl") + " send provisor 0xa0001 0 0", &out);  // after the push was handled
  EXPECT_EQ(out, "0\n");
  EXPECT_NE(root.read("/config/user/voip/sipAccount0.cfg").find("Label=Reception"), std::string::npos);
  EXPECT_FALSE(root.exists("/tmp/XML.cfg"));  // taken over
  EXPECT_EQ(daemon.stop(SIGTERM), 0);
  EXPECT_NE(daemon.log().find("PushXml:cp /tmp/XML.cfg to /tmp/xxx.cfg"), std::string::npos);
  EXPECT_EQ(daemon.log().find("MD5 is same"), std::string::npos);  // no MD5 test for pushed files
}
