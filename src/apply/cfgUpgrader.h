// The configuration upgrader: writes the values of "cfg" items into the phone's INI files.
//
// Before a value is written a fixed set of per-item rules may rewrite it (custom MAC file location,
// the random AES key check, shared-line words, inverted booleans, the phone-lock PIN hash, the
// action-URI host limit) and may encrypt it. After a web login name changed, the web password file
// follows (autoPwdUpgader::renameUser).
//
// The upgrader keeps one section open at a time and flushes it only when the next item names
// another file or section, and at the end: items of one section are written in one go, so the
// table should keep them together.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "fileUpgrader.h"

// One open section of one configuration file. Closing (destruction) does not flush.
class autoConfigSection {
 public:
  virtual ~autoConfigSection() = default;
  virtual std::string getString(const std::string& key, const std::string& defaultValue) = 0;
  virtual bool setString(const std::string& key, const std::string& value) = 0;
  virtual bool flush() = 0;
};

// Where the upgrader reads and writes configuration: the platform's configuration store, or a
// stand-in.
class autoConfigStore {
 public:
  virtual ~autoConfigStore() = default;
  // nullptr when the section can't be opened.
  virtual std::unique_ptr<autoConfigSection> open(const std::string& file, const std::string& section) = 0;
  virtual std::string getString(const std::string& file, const std::string& section, const std::string& key,
                                const std::string& defaultValue) = 0;
  virtual int32_t getInt(const std::string& file, const std::string& section, const std::string& key,
                         int32_t defaultValue) = 0;
};

// The platform's configuration store (registry).
autoConfigStore& registryConfigStore();

class autoCfgUpgrader : public autoFileUpgrader {
 public:
  // `store` must outlive the upgrader; nullptr means the platform's configuration store.
  explicit autoCfgUpgrader(autoConfigStore* store = nullptr);
  ~autoCfgUpgrader() override;

  // 1 when at least one value was written, else 0.
  int upgrade(autopItemList& items) override;
  // Applies the value rules to one item: 1 when they changed its value or path, else 0.
  int prepareItemValue(autopItem* item);

 private:
  int prepareByTarget(autopItem& item);
  int encryptValue(autopItem& item, int result);
  void checkActionUriLimit(const autopItem& item);
  void carryUserName(const autopItem* item, const std::string& oldValue);

  autoConfigStore& m_store;
};

// The salted crypt() hash of web passwords and the phone-lock PIN: the password is cut to 20
// characters and hashed in blocks of 8, each block giving 13 characters. A salt from an earlier
// hash reproduces that hash for the same password; a missing or short salt is filled up with
// random salt characters.
std::string cryptPassword(const char* password, const char* salt);
