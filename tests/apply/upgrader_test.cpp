// The upgrader framework (types, operations, factory, MD5, the firmware URL) and the configuration
// upgrader against INI files in the test root: writes per section, the value rules, the user-name
// hook and the crypt hash.
#include <gtest/gtest.h>

#include <set>
#include <tuple>

#include "binUpgrader.h"
#include "cfgUpgrader.h"
#include "device.h"
#include "inifile.h"
#include "pwdUpgrader.h"
#include "registry.h"
#include "romUpgrader.h"
#include "testRoot.h"

using namespace testing_support;

namespace {

std::unique_ptr<autopItem> makeItem(const std::string& path, const std::string& section, const std::string& key,
                                    const std::string& value, const std::string& name = "test.item") {
  auto item = std::make_unique<autopItem>();
  std::tie(item->name, item->path, item->section, item->key, item->value) = std::tie(name, path, section, key, value);
  return item;
}

TEST(UpgraderFramework, UpgradeTypesOperationsAndTheFactory) {
  const std::pair<const char*, int> types[] = {{"cfg", 0}, {"bin", 1}, {"pwd", 2}, {"rom", 3}, {"CFG", 4}, {"", 4}};
  for (const auto& [word, type] : types) EXPECT_EQ(upgradeTypeOf(word), type) << word;
  // The word before the first "." decides; none at all is cover. It is compared from a 30-byte
  // buffer: 29 characters at most.
  const std::pair<std::string, int> operations[] = {
      {"modify.anything at all", 2}, {"cover.contact_list", 1}, {"delete.trusted_cert", 3}, {"cover", 1},
      {"modify", 1}, {"unknown.x", 0}, {".x", 0}, {"", 1}, {"Cover.x", 0}, {std::string(29, 'x') + ".y", 0},
      {"cover" + std::string(25, ' ') + ".y", 0}};
  for (const auto& [usage, operation] : operations) EXPECT_EQ(operationOf(usage), operation) << usage;
  EXPECT_EQ(operationOf(static_cast<const char*>(nullptr)), 1);

  EXPECT_NE(dynamic_cast<autoCfgUpgrader*>(createFileUpgrader(0).get()), nullptr);
  EXPECT_NE(dynamic_cast<autoBinUpgrader*>(createFileUpgrader(1).get()), nullptr);
  EXPECT_NE(dynamic_cast<autoPwdUpgader*>(createFileUpgrader(2).get()), nullptr);
  EXPECT_NE(dynamic_cast<autoRomUpgrader*>(createFileUpgrader(3).get()), nullptr);
  for (int other : {4, -1}) EXPECT_EQ(createFileUpgrader(other), nullptr) << other;
}

TEST(UpgraderFramework, CommonDestinationPathAndFirmwareUrl) {
  // nullptr stands for an empty slot of the list.
  const std::pair<std::vector<const char*>, std::string> paths[] = {
      {{}, ""}, {{"", "/a", nullptr, "", "/a"}, "/a"}, {{"", "/a", "/b"}, ""}};
  for (const auto& [list, common] : paths) {
    autopItemList items;
    for (const char* path : list) items.push_back(path ? makeItem(path, "s", "k", "v") : nullptr);
    EXPECT_EQ(commonDestinationPath(items), common) << list.size();
  }
  using Pairs = std::vector<std::pair<std::string, std::string>>;
  const std::pair<Pairs, std::string> urls[] = {
      {{{"server_type", "tftp"}, {"server_ip", "10.0.0.5"}, {"firmware_name", "fw.rom"}}, "tftp://10.0.0.5/fw.rom"},
      {{{"server_type", "ftp"}, {"server_ip", "h"}, {"server_port", "2121"}, {"login_name", "u"},
        {"login_pswd", "p"}, {"firmware_name", "a/fw.rom"}, {"color", "blue"}},
       "ftp://u:p@h:2121/a/fw.rom"},
      {{{"server_type", "https"}, {"http_url", "https://s/fw"}, {"firmware_name", "x.rom"}, {"server_ip", "ignored"}},
       "https://s/fw/x.rom"},
  };
  for (const auto& [pairs, url] : urls) {
    autopItemList items;
    for (const auto& [key, value] : pairs) items.push_back(makeItem("", "", key, value));
    EXPECT_EQ(composeFirmwareUrl(items), url);
  }
}

class UpgraderTest : public RootedTest {
 protected:
  // A settings file as another application left it.
  void setting(const std::string& file, const std::string& text) {
    root->write(file, text);
    registryResetCache();
  }
  std::string onDisk(const std::string& file, const std::string& section, const std::string& key) {
    iniFile ini;
    ini.LoadFromFile(file);
    return ini.GetTextValue(section, key, "<none>");
  }
  int prepare(autopItem& item) { return upgrader.prepareItemValue(&item); }
  autoCfgUpgrader upgrader;
};

TEST_F(UpgraderTest, EverySectionReachesItsFileAndUnwritableItemsAreSkipped) {
  const std::string account = "/config/user/voip/sipAccount0.cfg";
  setting(account, "[account]\nEnable = 0\nLabel = old\n");
  LogCapture log;
  autopItemList items;
  items.push_back(makeItem(account, "account", "Enable", "1"));
  items.push_back(makeItem(account, "account", "ShareLine", "shared"));
  items.push_back(nullptr);
  items.push_back(makeItem(account, "DTMF", "DTMFType", "2"));
  items.push_back(makeItem("", "Time", "TimeZone", "+2"));                // no file: nothing opens
  items.push_back(makeItem("/config/system/system.ini", "Time", "", "x"));  // the store refuses it
  items.push_back(makeItem("/config/system/system.ini", "Time", "TimeZone", "50%"));
  EXPECT_EQ(upgrader.upgrade(items), 1);
  const std::vector<std::string> written[] = {{account, "account", "Enable", "1"},
                                              {account, "account", "Label", "old"},
                                              {account, "account", "ShareLine", "1"},
                                              {account, "DTMF", "DTMFType", "2"},
                                              {"/config/system/system.ini", "Time", "TimeZone", "50%"}};
  for (const auto& w : written) EXPECT_EQ(onDisk(w[0], w[1], w[2]), w[3]) << w[1] << "." << w[2];
  const bool changed[] = {true, true, false, true, false, false, true};
  for (size_t i = 0; i < items.size(); ++i) EXPECT_EQ(items[i] && items[i]->changed, changed[i]) << i;

  for (const char* line :
       {"DEB --- Open File [/config/user/voip/sipAccount0.cfg]", "DEB --- Set [account::Enable] Value [1]",
        "DEB Time.TimeZone value has special char", "WAR Unexpected null pointer !"})
    EXPECT_TRUE(log.contains(line)) << line;
  // Reopening is silent; a value with special characters is not echoed.
  for (const char* line : {"Open File [/config/system", "Set [Time::TimeZone]"})
    EXPECT_FALSE(log.contains(line)) << line;

  // Nothing written: 0.
  autopItemList refused;
  refused.push_back(makeItem(account, "account", "", "x"));
  EXPECT_EQ(upgrader.upgrade(refused), 0);
}

TEST_F(UpgraderTest, ValueRules) {
  const std::string account = "/config/user/voip/sipAccount3.cfg", adv = "/phone/config/ADVnumber.cfg";
  struct Rule {
    std::string path, section, key, value, valueType;
    bool switchOn;  // the built-in MAC key switch
    int result;     // what the rules report: 1 when they changed the item
    std::string out, outPath, logged;
  };
  const std::string invalid = "WAR AES_RANDOM_KEY is invalid ! Will clear it !";
  const Rule rules[] = {
      // The custom per-device location moves to the file the phone reads; only from the download.
      {"/tmp/download.cfg", "CUSTOM_MAC_CFG_PATH", "server_address", "tftp://10.0.0.1/", "", false, 1,
       "tftp://10.0.0.1/", "/tmp/provisor.d/autop_tmp_config.cfg", "IFO Get CustomMacUrl, Set to file /tmp/provisor.d/autop_tmp_config.cfg"},
      {"/tmp/other.cfg", "CUSTOM_MAC_CFG_PATH", "server_address", "x", "", false, 0, "x", "/tmp/other.cfg", ""},
      // The random key: any value with the switch off, exactly 16 letters or digits with it on.
      {adv, "sn", "AES_RANDOM_KEY", "abcdefghijklmno", "", false, 0, "abcdefghijklmno", adv, ""},
      {adv, "sn", "AES_RANDOM_KEY", "abcdefghijklmno", "", true, 1, "", adv, invalid},
      {adv, "sn", "AES_RANDOM_KEY", "abcdefgh-jklmnop", "", true, 1, "", adv, invalid},
      {adv, "sn", "AES_RANDOM_KEY", "abcdefghijklmnopq", "", true, 1, "", adv, invalid},
      {adv, "sn", "AES_RANDOM_KEY", "0123456789abcDEF", "", true, 0, "0123456789abcDEF", adv, ""},
      // Shared-line words in the account files; another word is left, and no inversion after it.
      {account, "account", "ShareLine", "private", "", false, 1, "0", account, ""},
      {account, "account", "ShareLine", "1", "!boolean", false, 0, "1", account, ""},
      {"/config/user/user.ini", "account", "ShareLine", "shared", "!boolean", false, 1, "0", "/config/user/user.ini", ""},
      // Inverted booleans; plain ones stay.
      {account, "account", "HideLine", "0", "!boolean", false, 1, "1", account, ""},
      {account, "account", "Enable", "1", "boolean", false, 0, "1", account, ""},
  };
  for (const Rule& r : rules) {
    SCOPED_TRACE(r.key + " = " + r.value + " " + r.valueType);
    setting("/config/system/system.ini",
            std::string("[AutoProvision]\nuse_build_in_aes_key_16_mac = ") + (r.switchOn ? "1\n" : "0\n"));
    LogCapture log;
    auto item = makeItem(r.path, r.section, r.key, r.value);
    item->valueType = r.valueType;
    EXPECT_EQ(prepare(*item), r.result);
    EXPECT_EQ(item->value, r.out);
    EXPECT_EQ(item->path, r.outPath);
    EXPECT_TRUE(r.logged.empty() || log.contains(r.logged));
    EXPECT_EQ(log.contains("AES_RANDOM_KEY is invalid"), r.logged == invalid);
  }
}

TEST_F(UpgraderTest, SecretsAreHashedOrEncryptedAndNeverLoggedAndWebLoginNamesFollow) {
  LogCapture log;
  auto pin =
      makeItem("/config/user/user.ini", "Phone_Lock", "Unlock_PIN", "4711", "phone_setting.phone_lock.unlock_pin");
  EXPECT_EQ(prepare(*pin), 1);
  ASSERT_EQ(pin->value.size(), 13u);
  EXPECT_EQ(cryptPassword("4711", pin->value.c_str()), pin->value);
  EXPECT_TRUE(log.contains("DEB Item [phone_setting.phone_lock.unlock_pin] has crypted!"));

  // Encryption follows the phone-lock switch; without it the value stays as it is.
  auto secret = makeItem("/config/user/voip/sipAccount0.cfg", "account", "password", "s3cret!", "account.1.password");
  secret->encrypt = true;
  EXPECT_EQ(prepare(*secret), 0);
  EXPECT_EQ(secret->value, "s3cret!");
  setting("/config/user/user.ini", "[PhoneSetting]\nEnLock = 1\n[UserName]\nadmin = admin\n");
  EXPECT_EQ(prepare(*secret), 1);
  std::string plain;
  ASSERT_EQ(pw_data_decrypt(secret->value, plain), 0);
  EXPECT_EQ(plain, "s3cret!");

  // A web login name change is carried to the password file too.
  root->write("/config/data/htpasswd", "admin:xyz\nguest:abc\n");
  autopItemList items;
  items.push_back(makeItem("/config/user/user.ini", "Phone_Lock", "Unlock_PIN", "918273"));
  items.push_back(makeItem("/config/user/voip/sipAccount0.cfg", "account", "password", "hunter22"));
  items.push_back(makeItem("/config/user/user.ini", "UserName", "admin", "root"));
  items.push_back(makeItem("/config/user/other.ini", "UserName", "user", "guest"));
  items.push_back(makeItem("/config/user/user.ini", "UserName", "nobody", "x"));
  log.clear();
  EXPECT_EQ(upgrader.upgrade(items), 1);
  EXPECT_TRUE(log.contains("Set [Phone_Lock::Unlock_PIN] Value [********]"));
  EXPECT_TRUE(log.contains("Set [account::password] Value [********]"));
  EXPECT_EQ(onDisk("/config/user/voip/sipAccount0.cfg", "account", "password"), "hunter22");
  for (const char* secretText : {"918273", "hunter22"}) EXPECT_FALSE(log.contains(secretText)) << secretText;
  EXPECT_TRUE(log.contains("IFO Modify Web Login UserName [admin] =>> [root]"));
  for (const char* other : {"=>> [guest]", "=>> [x]"}) EXPECT_FALSE(log.contains(other)) << other;
  EXPECT_EQ(root->read("/config/data/htpasswd"), "root:xyz\nguest:abc\n");
  EXPECT_EQ(onDisk("/config/user/user.ini", "UserName", "admin"), "root");
}

TEST(CryptPassword, ReproducesFromItsOwnSaltAndCutsAt20) {
  // Blocks of 8 characters, 13 hash characters each; 20 characters at most.
  const std::pair<std::string, size_t> sizes[] = {{"12345678", 13}, {"123456789", 26}, {"exactly-twenty-chars", 39}};
  for (const auto& [password, size] : sizes) {
    std::string hash = cryptPassword(password.c_str(), nullptr);
    ASSERT_EQ(hash.size(), size) << password;
    EXPECT_EQ(cryptPassword(password.c_str(), hash.c_str()), hash) << password;
  }
  std::string hash = cryptPassword("abcdefghijklmnopqrst", nullptr);
  EXPECT_NE(cryptPassword("abcdefghijklmnopqrsX", hash.c_str()), hash);
  // A given salt decides, and the hash is the one the system's crypt gives (web servers check it).
  std::string perl;
  ASSERT_EQ(runCommand("perl -e 'print crypt(\"New#pw8\", \"ab\")'", &perl), 0);
  EXPECT_EQ(cryptPassword("New#pw8", "ab"), perl);
  // Random salts differ (64 * 64 possibilities), so equal passwords do not show as equal hashes.
  std::set<std::string> salts;
  for (int i = 0; i < 20; ++i) salts.insert(cryptPassword("pw", nullptr).substr(0, 2));
  EXPECT_GT(salts.size(), 1u);
  // Nor does a process seeded like another (phones started in the same second) repeat its salts.
  std::set<std::string> seededAlike;
  for (int i = 0; i < 4; ++i) {
    srand(1);
    seededAlike.insert(cryptPassword("pw", nullptr));
  }
  EXPECT_EQ(seededAlike.size(), 4u);
  // A salt the library refuses (a damaged password file entry) still gives a usable hash.
  std::string repaired = cryptPassword("pw", "*0");
  ASSERT_EQ(repaired.size(), 13u);
  EXPECT_EQ(cryptPassword("pw", repaired.c_str()), repaired);
}

}  // namespace
