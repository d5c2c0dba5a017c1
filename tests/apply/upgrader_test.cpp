// The upgrader framework (types, operations, factory, MD5) and the configuration upgrader: its
// value rules, the grouping of writes per section, the user-name hook and the crypt hash.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "binUpgrader.h"
#include "cfgUpgrader.h"
#include "device.h"
#include "fileUpgrader.h"
#include "inifile.h"
#include "pwdUpgrader.h"
#include "registry.h"
#include "romUpgrader.h"
#include "testRoot.h"

using testing_support::LogCapture;
using testing_support::RootedTest;
using testing_support::runCommand;

namespace {

std::unique_ptr<autopItem> makeItem(const std::string& path, const std::string& section, const std::string& key,
                                    const std::string& value, const std::string& name = "test.item") {
  auto item = std::make_unique<autopItem>();
  item->name = name;
  item->type = "cfg";
  item->path = path;
  item->section = section;
  item->key = key;
  item->value = value;
  return item;
}

// A configuration store in memory that counts what the upgrader does with it.
class CountingStore : public autoConfigStore {
 public:
  struct Section : autoConfigSection {
    Section(CountingStore& store, std::string file, std::string section)
        : store(store), prefix(file + "|" + section + "|") {}
    std::string getString(const std::string& key, const std::string& def) override {
      auto it = store.values.find(prefix + key);
      return it == store.values.end() ? def : it->second;
    }
    bool setString(const std::string& key, const std::string& value) override {
      if (key == "readonly") return false;
      store.values[prefix + key] = value;
      store.events.push_back("set " + prefix + key);
      return true;
    }
    bool flush() override {
      store.events.push_back("flush " + prefix);
      ++store.flushes;
      return true;
    }
    CountingStore& store;
    std::string prefix;
  };

  std::unique_ptr<autoConfigSection> open(const std::string& file, const std::string& section) override {
    events.push_back("open " + file + "|" + section + "|");
    ++opens;
    return std::make_unique<Section>(*this, file, section);
  }
  std::string getString(const std::string& file, const std::string& section, const std::string& key,
                        const std::string& def) override {
    auto it = values.find(file + "|" + section + "|" + key);
    return it == values.end() ? def : it->second;
  }
  int32_t getInt(const std::string& file, const std::string& section, const std::string& key, int32_t def) override {
    auto it = values.find(file + "|" + section + "|" + key);
    return it == values.end() ? def : atoi(it->second.c_str());
  }

  std::map<std::string, std::string> values;
  std::vector<std::string> events;
  int opens = 0;
  int flushes = 0;
};

class CfgUpgraderTest : public RootedTest {
 protected:
  // The value an item ends up with after the rules, and the rules' result.
  int prepare(autopItem& item) { return upgrader.prepareItemValue(&item); }
  CountingStore store;
  autoCfgUpgrader upgrader{&store};
};

TEST(UpgraderFramework, UpgradeTypesOperationsAndTheFactory) {
  const std::pair<const char*, int> types[] = {{"cfg", 0}, {"bin", 1}, {"pwd", 2}, {"rom", 3}, {"CFG", 4}, {"", 4}};
  for (const auto& [word, type] : types) EXPECT_EQ(upgradeTypeOf(word), type) << word;
  EXPECT_EQ(upgradeTypeOf(static_cast<const char*>(nullptr)), 4);
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
  EXPECT_EQ(createFileUpgrader(4), nullptr);
  EXPECT_EQ(createFileUpgrader(-1), nullptr);
}

TEST(UpgraderFramework, BaseAppliesEveryItemWithoutStoppingAtAFailure) {
  struct Recording : autoFileUpgrader {
    int upgradeItem(autopItem* item) override {
      seen.push_back(item ? item->key : "<null>");
      return item && item->key != "bad" ? 1 : 0;
    }
    std::vector<std::string> seen;
  } recording;
  autopItemList items;
  EXPECT_EQ(recording.upgrade(items), 0);
  for (const char* key : {"a", "bad", "", "c"}) items.push_back(*key ? makeItem("/p", "s", key, "1") : nullptr);
  EXPECT_EQ(recording.upgrade(items), 0);
  EXPECT_EQ(recording.seen, (std::vector<std::string>{"a", "bad", "<null>", "c"}));
  items.erase(items.begin() + 1, items.begin() + 3);
  EXPECT_EQ(recording.upgrade(items), 1);
  struct Plain : autoFileUpgrader {
  } plain;
  EXPECT_EQ(plain.upgradeItem(nullptr), 0);
  EXPECT_EQ(plain.upgradeItem(items[0].get()), 1);
}

TEST(UpgraderFramework, CommonDestinationPath) {
  autopItemList items;
  EXPECT_EQ(commonDestinationPath(items), "");
  items.push_back(makeItem("", "s", "k", "v"));
  items.push_back(makeItem("/a", "s", "k", "v"));
  items.push_back(nullptr);
  items.push_back(makeItem("", "s", "k", "v"));
  items.push_back(makeItem("/a", "s", "k", "v"));
  EXPECT_EQ(commonDestinationPath(items), "/a");
  items.push_back(makeItem("/b", "s", "k", "v"));
  EXPECT_EQ(commonDestinationPath(items), "");
}

class Md5Test : public RootedTest {};

TEST_F(Md5Test, DigestOfFilesAndFailures) {
  // Empty, short, and several read blocks with a block boundary inside the data, against md5sum.
  std::string big;
  for (int i = 0; i < 3000; ++i) big += static_cast<char>('a' + i % 26);
  for (const std::string& contents : {std::string(), std::string("abc"), big}) {
    root->write("/tmp/f", contents);
    std::string md5, expected;
    ASSERT_EQ(fileMd5("/tmp/f", &md5), 1);
    ASSERT_EQ(runCommand("md5sum '" + root->host("/tmp/f") + "' | cut -c1-32", &expected), 0);
    EXPECT_EQ(md5 + "\n", expected) << contents.size();
  }
  LogCapture log;
  EXPECT_EQ(fileMd5("/tmp/f", nullptr), 0);
  EXPECT_TRUE(log.contains("IFO MD5 error\n"));
  std::string md5 = "unchanged";
  EXPECT_EQ(fileMd5("/tmp/missing", &md5), 0);
  EXPECT_TRUE(log.contains("IFO /tmp/missing can't be opened\n"));
  EXPECT_EQ(md5, "unchanged");
}

TEST_F(CfgUpgraderTest, OneOpenAndOneFlushPerRunOfASection) {
  LogCapture log;
  autopItemList items;
  items.push_back(makeItem("/config/a.ini", "one", "k1", "v1"));
  items.push_back(makeItem("/config/a.ini", "one", "k2", "v2"));
  items.push_back(nullptr);
  items.push_back(makeItem("/config/a.ini", "two", "k3", "v3"));
  items.push_back(makeItem("/config/b.ini", "two", "k4", "v4"));
  items.push_back(makeItem("/config/b.ini", "two", "readonly", "v5"));
  items.push_back(makeItem("/config/b.ini", "two", "k6", "50%"));
  EXPECT_EQ(upgrader.upgrade(items), 1);
  EXPECT_EQ(store.events, (std::vector<std::string>{
                              "open /config/a.ini|one|", "set /config/a.ini|one|k1", "set /config/a.ini|one|k2",
                              "flush /config/a.ini|one|", "open /config/a.ini|two|", "set /config/a.ini|two|k3",
                              "flush /config/a.ini|two|", "open /config/b.ini|two|", "set /config/b.ini|two|k4",
                              "set /config/b.ini|two|k6", "flush /config/b.ini|two|"}));
  EXPECT_EQ(store.values["/config/b.ini|two|k6"], "50%");
  EXPECT_TRUE(items[0]->changed);
  EXPECT_TRUE(items[3]->changed);
  EXPECT_FALSE(items[5]->changed);  // the store refused it
  EXPECT_TRUE(items[6]->changed);

  for (const char* line : {"IFO ***** Upgrade CFG File ***** \n", "DEB --- Open File [/config/a.ini]",
                           "DEB --- Set [one::k1] Value [v1]", "DEB two.k6 value has special char",
                           "WAR Unexpected null pointer !"})
    EXPECT_TRUE(log.contains(line)) << line;
  // Reopening is silent; a value with special characters is not echoed; a refusal says nothing.
  for (const char* line : {"Open File [/config/b.ini]", "Set [two::k6]", "readonly"})
    EXPECT_FALSE(log.contains(line)) << line;

  // Nothing written: 0, and an empty list opens nothing.
  autopItemList refused;
  refused.push_back(makeItem("/config/b.ini", "two", "readonly", "x"));
  EXPECT_EQ(upgrader.upgrade(refused), 0);
  autopItemList empty;
  int opensBefore = store.opens;
  EXPECT_EQ(upgrader.upgrade(empty), 0);
  EXPECT_EQ(store.opens, opensBefore);
}

TEST_F(CfgUpgraderTest, ValueRules) {
  const std::string account = "/config/user/voip/sipAccount3.cfg", adv = "/phone/config/ADVnumber.cfg";
  const std::string keySwitch = "/config/system/system.ini|AutoProvision|use_build_in_aes_key_16_mac";
  struct Rule {
    std::string path, section, key, value, valueType;
    bool switchOn;   // the built-in MAC key switch
    int result;      // what the rules report: 1 when they changed the item
    std::string out, outPath, logged;
  };
  const std::string invalid = "WAR AES_RANDOM_KEY is invalid ! Will clear it !";
  const Rule rules[] = {
      // The custom per-device location moves to the file the phone reads; only from the download.
      {"/tmp/download.cfg", "CUSTOM_MAC_CFG_PATH", "server_address", "tftp://10.0.0.1/", "", false, 1,
       "tftp://10.0.0.1/", "/tmp/autop_tmp_config.cfg", "IFO Get CustomMacUrl, Set to file /tmp/autop_tmp_config.cfg"},
      {"/tmp/other.cfg", "CUSTOM_MAC_CFG_PATH", "server_address", "x", "", false, 0, "x", "/tmp/other.cfg", ""},
      // The random key: any value with the switch off, 16 letters or digits with it on.
      {adv, "sn", "AES_RANDOM_KEY", "abcdefghijklmno", "", false, 0, "abcdefghijklmno", adv, ""},
      {adv, "sn", "AES_RANDOM_KEY", "abcdefghijklmno", "", true, 1, "", adv, invalid},
      {adv, "sn", "AES_RANDOM_KEY", "abcdefgh-jklmnop", "", true, 1, "", adv, invalid},
      {adv, "sn", "AES_RANDOM_KEY", "abcdefghijklmnopq", "", true, 1, "", adv, invalid},
      {adv, "sn", "AES_RANDOM_KEY", "", "", true, 1, "", adv, invalid},
      {adv, "sn", "AES_RANDOM_KEY", "abcdefgh\xc3\xa9jklmno", "", true, 1, "", adv, invalid},
      {adv, "sn", "AES_RANDOM_KEY", "0123456789abcDEF", "", true, 0, "0123456789abcDEF", adv, ""},
      // Shared-line words in the account files; another word is left, and no inversion after it.
      {account, "account", "ShareLine", "shared", "", false, 1, "1", account, ""},
      {account, "account", "ShareLine", "private", "", false, 1, "0", account, ""},
      {account, "account", "ShareLine", "1", "!boolean", false, 0, "1", account, ""},
      {"/config/user/user.ini", "account", "ShareLine", "shared", "", false, 0, "shared", "/config/user/user.ini", ""},
      {"/config/user/user.ini", "account", "ShareLine", "shared", "!boolean", false, 1, "0", "/config/user/user.ini", ""},
      // Inverted booleans; plain ones stay.
      {account, "account", "HideLine", "0", "!boolean", false, 1, "1", account, ""},
      {account, "account", "HideLine", "1", "!boolean", false, 1, "0", account, ""},
      {account, "account", "HideLine", "yes", "!boolean", false, 1, "0", account, ""},
      {account, "account", "HideLine", "", "!boolean", false, 1, "0", account, ""},
      {account, "account", "Enable", "1", "boolean", false, 0, "1", account, ""},
  };
  for (const Rule& r : rules) {
    SCOPED_TRACE(r.key + " = " + r.value + " " + r.valueType);
    store.values[keySwitch] = r.switchOn ? "1" : "0";
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

TEST_F(CfgUpgraderTest, PhoneLockPinIsHashed) {
  LogCapture log;
  auto pin = makeItem("/config/user/user.ini", "Phone_Lock", "Unlock_PIN", "4711", "phone_setting.phone_lock.unlock_pin");
  EXPECT_EQ(prepare(*pin), 1);
  ASSERT_EQ(pin->value.size(), 13u);
  EXPECT_EQ(cryptPassword("4711", pin->value.c_str()), pin->value);
  EXPECT_NE(cryptPassword("4712", pin->value.c_str()), pin->value);
  EXPECT_TRUE(log.contains("DEB Item [phone_setting.phone_lock.unlock_pin] has crypted!"));

  // Written through the upgrader: the PIN itself never reaches the log.
  autopItemList items;
  items.push_back(makeItem("/config/user/user.ini", "Phone_Lock", "Unlock_PIN", "918273"));
  EXPECT_EQ(upgrader.upgrade(items), 1);
  EXPECT_FALSE(log.contains("918273"));
  EXPECT_TRUE(log.contains("Set [Phone_Lock::Unlock_PIN] Value [********]"));
}

TEST_F(CfgUpgraderTest, ActionUriLimitRaisesTheMessageBox) {
  const std::string file = "/config/user/user.ini";
  store.values[file + "|ActionURI|LimitIP"] = "10.0.0.1";
  auto same = makeItem(file, "ActionURI", "LimitIP", "10.0.0.1");
  EXPECT_EQ(prepare(*same), 0);
  EXPECT_EQ(store.opens, 0);

  auto changed = makeItem(file, "ActionURI", "limitip", "10.0.0.2");
  EXPECT_EQ(prepare(*changed), 0);
  EXPECT_EQ(changed->value, "10.0.0.2");
  EXPECT_EQ(store.values[file + "|ActionURI|ActionURIShowMsgBox"], "1");
  EXPECT_EQ(store.events, (std::vector<std::string>{"open " + file + "|ActionURI|",
                                                    "set " + file + "|ActionURI|ActionURIShowMsgBox",
                                                    "flush " + file + "|ActionURI|"}));
  auto otherSection = makeItem(file, "ActionURL", "LimitIP", "10.0.0.9");
  EXPECT_EQ(prepare(*otherSection), 0);
  EXPECT_EQ(store.opens, 1);
}

TEST_F(CfgUpgraderTest, EncryptionFollowsTheLockSwitch) {
  LogCapture log;
  auto secret = makeItem("/config/user/voip/sipAccount0.cfg", "account", "password", "s3cret!", "account.1.password");
  secret->encrypt = true;
  EXPECT_EQ(prepare(*secret), 0);
  EXPECT_EQ(secret->value, "s3cret!");
  EXPECT_TRUE(log.contains("DEB Item [account.1.password] value need encrypt !"));
  EXPECT_TRUE(log.contains("IFO Skipped Encrypt Password! Reason: [Not Supported]"));
  auto empty = makeItem("/config/user/voip/sipAccount0.cfg", "account", "password", "");
  empty->encrypt = true;
  EXPECT_EQ(prepare(*empty), 0);
  EXPECT_TRUE(log.contains("IFO Skipped Encrypt Password! Reason: [Empty Password]"));

  store.values["/config/user/user.ini|PhoneSetting|EnLock"] = "1";
  EXPECT_EQ(prepare(*secret), 1);
  EXPECT_NE(secret->value, "s3cret!");
  std::string plain;
  ASSERT_EQ(pw_data_decrypt(secret->value, plain), 0);
  EXPECT_EQ(plain, "s3cret!");

  // A rule's own change counts as well: the custom MAC location, then encrypted.
  auto mac = makeItem("/tmp/download.cfg", "CUSTOM_MAC_CFG_PATH", "server_address", "http://h/");
  mac->encrypt = true;
  EXPECT_EQ(prepare(*mac), 1);
  EXPECT_EQ(mac->path, "/tmp/autop_tmp_config.cfg");
  EXPECT_NE(mac->value, "http://h/");

  autopItemList items;
  items.push_back(makeItem("/config/user/voip/sipAccount0.cfg", "account", "password", "hunter22"));
  items[0]->encrypt = true;
  log.clear();
  EXPECT_EQ(upgrader.upgrade(items), 1);
  EXPECT_FALSE(log.contains("hunter22"));
  EXPECT_EQ(upgrader.prepareItemValue(nullptr), 0);
  EXPECT_TRUE(log.contains("WAR Unexpected null pointer !"));
}

TEST_F(CfgUpgraderTest, WebLoginNameChangeIsCarriedToThePasswordFile) {
  LogCapture log;
  store.values["/config/user/user.ini|UserName|admin"] = "admin";
  autopItemList items;
  items.push_back(makeItem("/config/user/user.ini", "UserName", "admin", "root"));
  items.push_back(makeItem("/config/user/other.ini", "UserName", "user", "guest"));
  items.push_back(makeItem("/config/user/user.ini", "UserName", "nobody", "x"));
  EXPECT_EQ(upgrader.upgrade(items), 1);
  EXPECT_TRUE(log.contains("IFO Modify Web Login UserName [admin] =>> [root]"));
  EXPECT_FALSE(log.contains("=>> [guest]"));
  EXPECT_FALSE(log.contains("=>> [x]"));
  EXPECT_EQ(store.values["/config/user/user.ini|UserName|admin"], "root");
}

TEST_F(CfgUpgraderTest, WritesThroughTheConfigurationStore) {
  registryResetCache();
  root->write("/config/user/voip/sipAccount0.cfg", "[account]\nEnable = 0\nLabel = old\n");
  autoCfgUpgrader real;
  autopItemList items;
  items.push_back(makeItem("/config/user/voip/sipAccount0.cfg", "account", "Enable", "1"));
  items.push_back(makeItem("/config/user/voip/sipAccount0.cfg", "account", "ShareLine", "shared"));
  items.push_back(makeItem("/config/user/voip/sipAccount0.cfg", "DTMF", "DTMFType", "2"));
  items.push_back(makeItem("/config/system/system.ini", "Time", "TimeZone", "+1"));
  EXPECT_EQ(real.upgrade(items), 1);
  iniFile account;
  ASSERT_TRUE(account.LoadFromFile("/config/user/voip/sipAccount0.cfg"));
  EXPECT_EQ(account.GetTextValue("account", "Enable", ""), "1");
  EXPECT_EQ(account.GetTextValue("account", "Label", ""), "old");
  EXPECT_EQ(account.GetTextValue("account", "ShareLine", ""), "1");
  EXPECT_EQ(account.GetTextValue("DTMF", "DTMFType", ""), "2");
  iniFile system;
  ASSERT_TRUE(system.LoadFromFile("/config/system/system.ini"));
  EXPECT_EQ(system.GetTextValue("Time", "TimeZone", ""), "+1");
  for (const auto& item : items) EXPECT_TRUE(item->changed);
  registryResetCache();
}

TEST(CryptPassword, ReproducesFromItsOwnSaltAndCutsAt20) {
  for (const char* password : {"", "a", "12345678", "123456789", "correct horse battery", "exactly-twenty-chars"}) {
    std::string hash = cryptPassword(password, nullptr);
    size_t length = strlen(password);
    size_t blocks = length == 0 ? 1 : (std::min<size_t>(length, 20) - 1) / 8 + 1;
    ASSERT_EQ(hash.size(), 13 * blocks) << password;
    EXPECT_EQ(cryptPassword(password, hash.c_str()), hash) << password;
    // Every block is hashed with the same salt: each 13-character part starts with it.
    for (size_t b = 1; b < blocks; ++b) EXPECT_EQ(hash.substr(13 * b, 2), hash.substr(0, 2)) << password;
    EXPECT_NE(hash[0], '*');
  }
  std::string hash = cryptPassword("abcdefghijklmnopqrst", nullptr);
  EXPECT_EQ(hash.size(), 39u);
  EXPECT_EQ(cryptPassword("abcdefghijklmnopqrstUVWXYZ", hash.c_str()), hash);
  EXPECT_NE(cryptPassword("abcdefghijklmnopqrsX", hash.c_str()), hash);
  // Blocks are hashed on their own: the first block's hash is that of the first 8 characters.
  EXPECT_EQ(hash.substr(0, 13), cryptPassword("abcdefgh", hash.substr(0, 13).c_str()));
  // A given salt decides; random salts differ (64 * 64 possibilities).
  EXPECT_EQ(cryptPassword("pw", "ab").substr(0, 2), "ab");
  std::set<std::string> salts;
  for (int i = 0; i < 20; ++i) salts.insert(cryptPassword("pw", nullptr).substr(0, 2));
  EXPECT_GT(salts.size(), 1u);
  // A salt the library refuses (a damaged password file entry) still gives a usable hash.
  std::string repaired = cryptPassword("pw", "*0");
  ASSERT_EQ(repaired.size(), 13u);
  EXPECT_NE(repaired[0], '*');
  EXPECT_EQ(cryptPassword("pw", repaired.c_str()), repaired);
  EXPECT_EQ(cryptPassword(nullptr, nullptr).size(), 13u);
}

}  // namespace
