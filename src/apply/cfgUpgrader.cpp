#define LOG_MODULE "./src/fileUpgrader"
#include "cfgUpgrader.h"
#include "autopSettings.h"

#include <crypt.h>
#include <openssl/rand.h>
#include <strings.h>
#include <sys/random.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string_view>

#include "autopUrl.h"
#include "device.h"
#include "log.h"
#include "privateTmp.h"
#include "pwdUpgrader.h"
#include "redact.h"
#include "registry.h"

namespace {

constexpr const char* kCustomMacSection = "CUSTOM_MAC_CFG_PATH";
constexpr const char* kCustomMacStandIn = "/tmp/download.cfg";
// Only this process writes and reads it: kept in its private folder, out of reach of links.
constexpr const char* kCustomMacFile = "/tmp/provisor.d/autop_tmp_config.cfg";
constexpr size_t kRandomKeyLength = 16;
constexpr const char* kSipAccountPrefix = "/config/user/voip/sipAccount";
constexpr const char* kUserIni = "/config/user/user.ini";
// The LimitIP value is compared as read into a 256-byte buffer.
constexpr size_t kLimitIpMax = 255;

constexpr size_t kPasswordMax = 20;
constexpr size_t kPasswordBlock = 8;
constexpr size_t kHashPerBlock = 13;
// Salt characters: those crypt(3) accepts. The classic list ends in "+/", but the system library
// refuses "+" in a DES salt and returns a failure token instead of a hash, so "." takes its place.
constexpr char kSaltCharacters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789./";

// Stands in for values that must not reach the log.
constexpr const char* kHiddenValue = "********";

// [UserName] admin, var or user of the user settings: the web login names.
bool isWebLoginName(const autopItem& item) {
  return item.section == "UserName" && item.path == kUserIni &&
         (item.key == "admin" || item.key == "var" || item.key == "user");
}

bool isAlnumKey(const std::string& value) {
  return value.size() == kRandomKeyLength &&
         std::all_of(value.begin(), value.end(), [](unsigned char c) { return c < 0x80 && std::isalnum(c); });
}

// --- the platform's store ------------------------------------------------------------------------

class registrySection : public autoConfigSection {
 public:
  explicit registrySection(REGHANDLE handle) : m_handle(std::move(handle)) {}
  ~registrySection() override { registryClose(m_handle); }
  std::string getString(const std::string& key, const std::string& defaultValue) override {
    return registryGetString(m_handle, key, defaultValue);
  }
  bool setString(const std::string& key, const std::string& value) override {
    return registrySetString(m_handle, key, value);
  }
  bool flush() override { return registryFlush(m_handle); }

 private:
  REGHANDLE m_handle;
};

class registryStore : public autoConfigStore {
 public:
  std::unique_ptr<autoConfigSection> open(const std::string& file, const std::string& section) override {
    REGHANDLE handle = registryOpen(file, section);
    if (!handle) return nullptr;
    return std::make_unique<registrySection>(std::move(handle));
  }
  std::string getString(const std::string& file, const std::string& section, const std::string& key,
                        const std::string& defaultValue) override {
    return brisaGetProfileString(file, section, key, defaultValue);
  }
  int32_t getInt(const std::string& file, const std::string& section, const std::string& key,
                 int32_t defaultValue) override {
    return brisaGetProfileInt(file, section, key, defaultValue);
  }
};

// --- crypt ---------------------------------------------------------------------------------------

// From the system's random source: rand() repeats its sequence in every process that seeds it
// alike (or not at all), so phones started in the same second, or two runs of a tool, would share
// their salts. 64 characters divide 256, so every character is equally likely.
void appendRandomSalt(std::string& salt, size_t length) {
  static_assert(sizeof kSaltCharacters - 1 == 64, "one salt character per 6 bits");
  while (salt.size() < length) {
    unsigned char bytes[32];
    size_t want = std::min(sizeof bytes, length - salt.size());
    if (RAND_bytes(bytes, static_cast<int>(want)) != 1 && getrandom(bytes, want, 0) != static_cast<ssize_t>(want)) {
      LOG_ERR("No random source for a password salt !");
      return;
    }
    for (size_t i = 0; i < want; ++i) salt.push_back(kSaltCharacters[bytes[i] % 64]);
  }
}

// The hashes of the password's blocks, or "" when the library refused the salt.
std::string hashBlocks(const std::string& password, size_t blocks, const std::string& salt) {
  // crypt_r: the same hash as crypt() without its shared static buffer.
  auto data = std::make_unique<crypt_data>();
  std::string hash;
  for (size_t block = 0; block < blocks; ++block) {
    std::string part = password.substr(block * kPasswordBlock, kPasswordBlock);
    memset(data.get(), 0, sizeof(crypt_data));
    const char* result = crypt_r(part.c_str(), salt.c_str(), data.get());
    // A failure token ("*0", "*1") is no hash: storing it would lock the user out.
    if (!result || result[0] == '*') return "";
    hash += result;
  }
  return hash;
}

}  // namespace

autoConfigStore& registryConfigStore() {
  static registryStore store;
  return store;
}

std::string cryptPassword(const char* password, const char* salt) {
  std::string plain = password ? std::string(password).substr(0, kPasswordMax) : std::string();
  size_t blocks = plain.empty() ? 1 : (plain.size() - 1) / kPasswordBlock + 1;
  std::string saltText = salt ? salt : "";
  appendRandomSalt(saltText, kHashPerBlock * blocks);
  std::string hash = hashBlocks(plain, blocks, saltText);
  if (hash.empty()) {
    // A salt the library can't use (a damaged entry of the password file): start afresh.
    saltText.clear();
    appendRandomSalt(saltText, kHashPerBlock * blocks);
    hash = hashBlocks(plain, blocks, saltText);
  }
  return hash;
}

autoCfgUpgrader::autoCfgUpgrader(autoConfigStore* store) : m_store(store ? *store : registryConfigStore()) {}

autoCfgUpgrader::~autoCfgUpgrader() = default;

int autoCfgUpgrader::upgrade(autopItemList& items) {
  LOG_IFO("");
  LOG_IFO("***** Upgrade CFG File ***** ");
  if (items.empty()) return 0;
  std::unique_ptr<autoConfigSection> handle;
  // The item whose file and section are open: compared in place rather than copied for each item.
  const autopItem* opened = nullptr;
  int anySet = 0;
  for (auto& slot : items) {
    autopItem* item = slot.get();
    if (!item) {
      LOG_NULL_POINTER();
      continue;
    }
    // The login name must stay a name of the password file; the old name keeps working instead.
    if (isWebLoginName(*item) && !autoPwdUpgader::isValidLoginName(item->value)) {
      LOG_WAR("Refused web login name [%s] : it holds ':' or a control character", logEscaped(item->value).c_str());
      continue;
    }
    prepareItemValue(item);
    if (!opened) {
      LOG_DEB("--- Open File [%s]", logEscaped(item->path).c_str());
      handle = m_store.open(item->path, item->section);
    } else if (item->path != opened->path || item->section != opened->section) {
      if (handle) handle->flush();
      handle = m_store.open(item->path, item->section);
    }
    opened = item;
    if (!handle) {
      LOG_NULL_POINTER();
      continue;
    }
    // Only a web login name needs the value it replaces; other keys skip the read.
    std::string oldValue = isWebLoginName(*item) ? handle->getString(item->key, "") : std::string();
    if (!handle->setString(item->key, item->value)) continue;
    if (item->value.find('%') != std::string::npos)
      LOG_DEB("%s.%s value has special char", logEscaped(item->section).c_str(), logEscaped(item->key).c_str());
    else
      LOG_DEB("--- Set [%s::%s] Value [%s]", logEscaped(item->section).c_str(), logEscaped(item->key).c_str(),
              isSecretItem(*item) ? kHiddenValue : urlForLog(item->value).c_str());
    carryUserName(item, oldValue);
    item->changed = true;
    anySet = 1;
  }
  if (handle) handle->flush();
  return anySet;
}

int autoCfgUpgrader::prepareItemValue(autopItem* item) {
  if (!item) {
    LOG_NULL_POINTER();
    return 0;
  }
  return encryptValue(*item, prepareByTarget(*item));
}

// The rules that look at the item's target; the first that matches decides.
int autoCfgUpgrader::prepareByTarget(autopItem& item) {
  if (item.section == kCustomMacSection && item.path == kCustomMacStandIn) {
    LOG_IFO("Get CustomMacUrl, Set to file %s", kCustomMacFile);
    item.path = kCustomMacFile;
    ensurePrivateTmpDir();
    return 1;
  }
  if (item.section == kRandomKeySection && item.path == kRandomKeyFile) {
    if (m_store.getInt(kSystemIni, kAutoProvisionSection, autop_key::kBuiltInDeviceKey, 0) == 0) return 0;
    if (isAlnumKey(item.value)) return 0;
    LOG_WAR("AES_RANDOM_KEY is invalid ! Will clear it !");
    item.value.clear();
    return 1;
  }
  if (item.key == "ShareLine" && item.section == "account" && item.path.find(kSipAccountPrefix) != std::string::npos) {
    if (item.value == "shared") {
      item.value = "1";
      return 1;
    }
    if (item.value == "private") {
      item.value = "0";
      return 1;
    }
    return 0;
  }
  if (item.valueType == "!boolean") {
    item.value = item.value == "0" ? "1" : "0";
    return 1;
  }
  if (item.section == "Phone_Lock" && item.key == "Unlock_PIN") {
    item.value = cryptPassword(item.value.c_str(), nullptr);
    LOG_DEB("Item [%s] has crypted!", logEscaped(item.name).c_str());
    return 1;
  }
  if (item.section == "ActionURI" && strcasecmp(item.key.c_str(), "LimitIP") == 0) checkActionUriLimit(item);
  return 0;
}

// A new host limit for action URIs makes the phone show its message box for them again.
void autoCfgUpgrader::checkActionUriLimit(const autopItem& item) {
  std::string current = m_store.getString(item.path, "ActionURI", "LimitIP", "").substr(0, kLimitIpMax);
  if (current == item.value) return;
  std::unique_ptr<autoConfigSection> section = m_store.open(item.path, "ActionURI");
  if (!section) return;
  section->setString("ActionURIShowMsgBox", "1");
  section->flush();
}

int autoCfgUpgrader::encryptValue(autopItem& item, int result) {
  if (!item.encrypt) return result;
  LOG_DEB("Item [%s] value need encrypt !", logEscaped(item.name).c_str());
  if (m_store.getString(kUserIni, "PhoneSetting", "EnLock", "0") == "0") {
    LOG_IFO("Skipped Encrypt Password! Reason: [%s]", item.value.empty() ? "Empty Password" : "Not Supported");
    return result;
  }
  std::string encrypted;
  if (pw_data_encrypt(item.value, encrypted) != 0) {
    // The value itself is a secret: the item's name says which one failed.
    LOG_WAR("Fail to encrypt value %s", logEscaped(item.name).c_str());
    return result;
  }
  item.value = encrypted;
  return 1;
}

// A changed web login name renames the user in the web password file.
void autoCfgUpgrader::carryUserName(const autopItem* item, const std::string& oldValue) {
  if (!item) {
    LOG_NULL_POINTER();
    return;
  }
  if (!isWebLoginName(*item)) return;
  LOG_IFO("Modify Web Login UserName [%s] =>> [%s]", logEscaped(oldValue).c_str(), logEscaped(item->value).c_str());
  autoPwdUpgader().renameUser(oldValue, item->value);
}
