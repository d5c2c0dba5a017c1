#define LOG_MODULE "./src/fileUpgrader"
#include "pwdUpgrader.h"

#include <algorithm>

#include "cfgUpgrader.h"
#include "log.h"
#include "paths.h"
#include "registry.h"

namespace {

constexpr const char* kRenamePasswordFile = "/config/data/htpasswd";
constexpr const char* kUserIni = "/config/user/user.ini";
constexpr const char* kTr069Ini = "/config/TR069/tr069.ini";
constexpr const char* kNullPassword = "%NULL%";

autoPwdEntryList::iterator findUser(autoPwdEntryList& entries, const std::string& name) {
  return std::find_if(entries.begin(), entries.end(), [&](const autoPwdEntry& e) { return e.name == name; });
}

}  // namespace

autoPwdUpgader::~autoPwdUpgader() = default;

bool autoPwdUpgader::isValidLoginName(const std::string& name) {
  return std::none_of(name.begin(), name.end(), [](unsigned char c) { return c == ':' || c < 0x20 || c == 0x7f; });
}

void autoPwdUpgader::parsePasswordText(const std::string& text, autoPwdEntryList& entries) {
  entries.clear();
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(start, end - start);
    start = end + 1;
    size_t colon = line.find(':');
    if (colon == std::string::npos) continue;
    entries.push_back({line.substr(0, colon), line.substr(colon + 1)});
  }
}

int autoPwdUpgader::loadPasswordFile(const std::string& path, autoPwdEntryList& entries) {
  entries.clear();
  std::string text;
  if (!readTextFile(path, text)) {
    LOG_ERR("Fail to open Password file [%s] !", path.c_str());
    return 0;
  }
  parsePasswordText(text, entries);
  return 1;
}

int autoPwdUpgader::savePasswordFile(const std::string& path, const autoPwdEntryList& entries) {
  std::string text;
  for (const auto& entry : entries) text += entry.name + ":" + entry.hash + "\n";
  if (!writeFileAtomic(path, text)) {
    LOG_ERR("Fail to open Password file [%s]", path.c_str());
    return 0;
  }
  return 1;
}

bool autoPwdUpgader::applyItem(const autopItem& item, autoPwdEntryList& entries, const std::string& adminName) {
  int32_t operation = operationOf(item.usage);
  if (operation == kOperationUnknown) {
    LOG_IFO("Unknown USED_TYPE for [%s]!", logEscaped(item.usage).c_str());
    return false;
  }
  size_t colon = item.value.find(':');
  std::string name = item.value.substr(0, colon);
  std::string password = colon == std::string::npos ? std::string() : item.value.substr(colon + 1);
  if (name.empty()) return false;
  if (!isValidLoginName(name)) {
    LOG_WAR("Refused web login name [%s] : it holds a control character", logEscaped(name).c_str());
    return false;
  }
  if (password.empty()) {
    LOG_DEB("---Skipped empty password user : %s", logEscaped(name).c_str());
    return false;
  }
  if (password == kNullPassword) password.clear();

  auto found = findUser(entries, name);
  if (operation == kOperationDelete) {
    if (found == entries.end()) return false;
    LOG_DEB("Delete Web Login User [%s]", logEscaped(name).c_str());
    entries.erase(found);
    return true;
  }
  if (found == entries.end() && operation == kOperationModify) {
    LOG_ERR("Can not find username,update password failed!!");
    return false;
  }
  std::string hash = cryptPassword(password.c_str(), found == entries.end() ? nullptr : found->hash.c_str());
  // No hash (no random source for its salt): an empty one would let any password in.
  if (hash.empty()) return false;
  if (found == entries.end()) {
    LOG_IFO("Add Web Login User [%s]", logEscaped(name).c_str());
    entries.push_back({name, hash});
  } else {
    if (hash == found->hash) return false;  // same password: nothing to write
    LOG_IFO("Modify Web Login User[%s]'s Password !", logEscaped(name).c_str());
    found->hash = hash;
  }
  // On disk before the password file: once the new hash is saved, the next run finds the password
  // unchanged and would never write this copy again.
  if (name == adminName) brisaSetProfileStringNow(kTr069Ini, "WebPassword", "WebPassword", password);
  return true;
}

int autoPwdUpgader::upgrade(autopItemList& items) {
  LOG_IFO("");
  LOG_IFO("***** Upgrade PWD File ***** ");
  if (items.empty()) return 0;
  std::string path = commonDestinationPath(items);
  if (path.empty()) {
    LOG_IFO("Not same destination path in autop list !");
    return 0;
  }
  autoPwdEntryList entries;
  if (!loadPasswordFile(path, entries)) return 0;
  std::string adminName = brisaGetRegistryString(kUserIni, "UserName", "admin", "admin");
  bool changed = false;
  for (const auto& item : items) {
    if (item && applyItem(*item, entries, adminName)) {
      item->changed = true;
      changed = true;
    }
  }
  if (!changed) return 0;
  if (!savePasswordFile(path, entries)) LOG_WAR("Fail to save password file !");
  return 1;
}

int autoPwdUpgader::renameUser(const std::string& oldName, const std::string& newName) {
  if (oldName.empty() || newName.empty()) {
    LOG_NULL_POINTER();
    return 0;
  }
  if (!isValidLoginName(newName)) {
    LOG_WAR("Refused web login name [%s] : it holds ':' or a control character", logEscaped(newName).c_str());
    return 0;
  }
  autoPwdEntryList entries;
  if (!loadPasswordFile(kRenamePasswordFile, entries)) return 0;
  auto found = findUser(entries, oldName);
  if (found == entries.end()) {
    LOG_WAR("Can't find old user [%s]", logEscaped(oldName).c_str());
    return 0;
  }
  found->name = newName;
  if (!savePasswordFile(kRenamePasswordFile, entries)) {
    LOG_ERR("Fail to save password file !");
    return 0;
  }
  return 1;
}
