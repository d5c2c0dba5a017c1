// Configuration file models: recognition (with a byte-order mark), the M7 line rules, and the older
// M1/M2 sections turned into keys through the translation table.
#include <gtest/gtest.h>

#include "autoParserModel.h"
#include "autopTranslator.h"
#include "testRoot.h"

using namespace testing_support;

namespace {

const char* kTable = R"(<?xml version="1.0"?>
<autopTranslator>
  <cfg>
    <object name="account" indexMask="$i" range="0-5" path="/config/user/voip/sipAccount$i.cfg" section="account">
      <item name="enable" key="Enable"/>
      <item name="label" key="Label"/>
    </object>
    <object name="network" path="/config/system/system.ini" section="Network">
      <item name="vlan" key="VlanID"/>
    </object>
  </cfg>
  <pwd>
    <object name="security" path="/valdrun/config/.htpasswd">
      <item name="user_password" section="user" key=""/>
      <item name="delete_user" section="del_user" key=""/>
    </object>
  </pwd>
</autopTranslator>
)";

class ModelTest : public RootedTest {
 protected:
  void SetUp() override {
    RootedTest::SetUp();
    root->write("/tmp/table.xml", kTable);
    ASSERT_TRUE(table.loadTransData("/tmp/table.xml"));
  }
  autopTranslator table;
};

}  // namespace

TEST_F(ModelTest, RecognitionAndTheM7LineRules) {
  std::string version;
  root->write("/tmp/xxx.cfg",
              "\xEF\xBB\xBF#!version:1.0.0.1 trailing\n"
              "   # comment after blanks\n"
              "account.1.enable = 1\n"
              "a.b=\n"
              "a.c = %NULL%\n"
              "  a.d  =  x = y  \r\n"
              "no equals sign\n"
              " = orphan value\n"
              "[cfg:/config/system/system.ini]\n"
              "after.bracket = ignored\n");
  EXPECT_EQ(recogniseModel("/tmp/xxx.cfg", version), ConfigModel::kM7);
  EXPECT_EQ(version, "1.0.0.1");
  RawPairList pairs;
  ASSERT_TRUE(loadM7Pairs("/tmp/xxx.cfg", pairs));
  RawPairList expected = {{"account.1.enable", "1"}, {"a.b", ""}, {"a.c", "%NULL%"}, {"a.d", "x = y"}};
  EXPECT_EQ(pairs, expected);

  root->write("/tmp/empty.cfg", "");
  LogCapture log;
  EXPECT_EQ(recogniseModel("/tmp/empty.cfg", version), ConfigModel::kUnreadable);
  EXPECT_TRUE(log.contains("Can't get model version flag !!"));
  EXPECT_EQ(recogniseModel("/tmp/missing.cfg", version), ConfigModel::kUnreadable);
  root->write("/tmp/only-comments.cfg", "#!version:1.0.0.1\n# nothing\n");
  EXPECT_FALSE(loadM7Pairs("/tmp/only-comments.cfg", pairs));
}

TEST_F(ModelTest, M2SectionsAreTranslatedBackToKeys) {
  root->write("/tmp/xxx.cfg",
              "\xEF\xBB\xBF[ cfg:/config/user/voip/sipAccount2.cfg,reboot=1 ]\n"
              "account.Enable = 1\n"
              "account.Label = Desk 3\n"
              "account.Unknown = 5\n"
              "#account.Label = skipped\n"
              "[psw:/valdrun/config/.htpasswd]\n"
              "admin = secret\n"
              "-guest = x\n");
  std::string version;
  EXPECT_EQ(recogniseModel("/tmp/xxx.cfg", version), ConfigModel::kM1OrM2);
  EXPECT_EQ(root->read("/tmp/xxx.cfg").substr(0, 6), "[ cfg:");  // the byte-order mark is gone
  RawPairList pairs;
  LogCapture log;
  ASSERT_TRUE(loadM1OrM2Pairs("/tmp/xxx.cfg", table, pairs));
  RawPairList expected = {{"account.3.enable", "1"},
                          {"account.3.label", "Desk 3"},
                          {"security.user_password", "admin:secret"},
                          {"security.delete_user", "guest:x"}};
  EXPECT_EQ(pairs, expected);
  EXPECT_TRUE(log.contains("Warning: Not found /config/user/voip/sipAccount2.cfg::account:Unknown "));
}

TEST_F(ModelTest, M1SectionsAndLegacyWebLogins) {
  root->write("/config/user/user.ini", "[UserName]\nadmin = root\n");
  root->write("/tmp/xxx.cfg",
              "[network]\n"
              "path = /config/system/system.ini\n"
              "vlan = 7\n"
              "CommonAesKey = k0123456789\n"
              "[security]\n"
              "AdminPassword = s3cret\n"
              "UserPassword = u\n");
  RawPairList pairs;
  LogCapture log;
  ASSERT_TRUE(loadM1OrM2Pairs("/tmp/xxx.cfg", table, pairs));
  RawPairList expected = {
      {"security.network", "7"}, {"security.network", "k0123456789"}, {"security.user_password", "root:s3cret"}};
  EXPECT_EQ(pairs, expected);
  // A key holding "aes" is as secret here as when it is applied.
  EXPECT_TRUE(log.contains("security.network = 7"));
  EXPECT_TRUE(log.contains("security.network = ******"));
  EXPECT_FALSE(log.contains("k0123456789")) << log.text();
  // No login name for "user" anywhere: the section ends there.
  EXPECT_TRUE(log.contains("Fail to get [user] name for WEB Login !"));
}
