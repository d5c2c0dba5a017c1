// The administrator's tool: encryption compatible with openssl, the dry-run check, and the exit
// status of a provisioning run that reaches nothing.
#include <gtest/gtest.h>

#include "testRoot.h"

using namespace testing_support;

namespace {

const char* kConfig =
    "#!version:1.0.0.1\n"
    "account.1.enable = 1\n"
    "account.1.label = Reception\n"
    "no.such.setting = 3\n";

const std::string kSampleTable = PROVISOR_SOURCE_DIR "/data/autopTranslator.xml";

// The tool's output; its exit status in `status`. Run inside `root` when one is given.
std::string tool(const std::string& args, int* status, const TempRoot* root = nullptr) {
  std::string out;
  *status =
      runCommand((root ? "PROVISOR_ROOT=" + root->path() + " " : "") + programCommand("autoptool") + " " + args, &out);
  return out;
}

}  // namespace

TEST(Autoptool, EncryptAndDecryptMatchOpenssl) {
  TempRoot root;
  root.write("/plain.cfg", kConfig);
  const std::string padded = std::string(kConfig) + std::string((16 - strlen(kConfig) % 16) % 16, ' ');
  int rc = -1;
  // A key text and the derived per-device key each read back what they wrote; another key is refused.
  for (const std::string key : {"mac:001565aabbcc", "'desk key'"}) {
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
  // openssl with the raw key text ("desk key" zero padded to 16 bytes) reads the last one.
  std::string plain;
  ASSERT_EQ(
      runCommand("openssl enc -d -aes-128-ecb -nopad -K 6465736b206b65790000000000000000 -in " + root.host("/enc.cfg"),
                 &plain),
      0);
  EXPECT_EQ(plain, padded);
}

TEST(Autoptool, CheckMapsEveryKeyAndFailsOnUnknownOnesWithoutWriting) {
  TempRoot root;
  root.write("/c.cfg", kConfig);
  int rc = -1;
  std::string out = tool("check --table " + kSampleTable + " " + root.host("/c.cfg"), &rc);
  EXPECT_EQ(rc, 1);
  EXPECT_NE(out.find("account.1.label -> cfg /config/user/voip/sipAccount0.cfg [account] Label = Reception"),
            std::string::npos)
      << out;
  EXPECT_NE(out.find("no.such.setting -> unknown"), std::string::npos);
  EXPECT_NE(out.find("3 keys, 1 unknown"), std::string::npos);

  // An older-model file with a byte-order mark is left exactly as it was.
  std::string m2 = "\xEF\xBB\xBF[cfg:/config/user/voip/sipAccount0.cfg]\naccount.Label = Front\n";
  root.write("/m2.cfg", m2);
  out = tool("check --table " + kSampleTable + " " + root.host("/m2.cfg"), &rc);
  EXPECT_EQ(rc, 0) << out;
  EXPECT_EQ(root.read("/m2.cfg"), m2);
  EXPECT_NE(out.find("account.1.label -> cfg"), std::string::npos) << out;
  EXPECT_EQ(root.read("/c.cfg"), kConfig);

  // A run that reaches no file fails; runs that apply are in the image and power-loss tests.
  tool("provision /srv/nothing/", &rc, &root);
  EXPECT_EQ(rc, 1);
}
