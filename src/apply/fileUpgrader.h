// The upgraders: one upgrader of the item's type applies the whole item list of one table object.
//
//   type text  number  class
//   "cfg"      0       autoCfgUpgrader  (INI values, cfgUpgrader.h)
//   "bin"      1       autoBinUpgrader  (resource files, binUpgrader.h)
//   "pwd"      2       autoPwdUpgader   (web login users, pwdUpgrader.h; the name is spelled so)
//   "rom"      3       autoRomUpgrader  (firmware, romUpgrader.h)
//   other      4       none
//
// An upgrader lives for one item list: created by createFileUpgrader, flagged, called once,
// deleted by its caller.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "autopItem.h"

enum autopUpgradeType : int32_t {
  kUpgradeTypeCfg = 0,
  kUpgradeTypeBin = 1,
  kUpgradeTypePwd = 2,
  kUpgradeTypeRom = 3,
  kUpgradeTypeNone = 4,
};

enum autopOperation : int32_t {
  kOperationUnknown = 0,
  kOperationCover = 1,   // replace the destination with the downloaded file
  kOperationModify = 2,  // edit the destination in place from the items
  kOperationDelete = 3,  // remove
};

class autoFileUpgrader {
 public:
  virtual ~autoFileUpgrader();
  autoFileUpgrader(const autoFileUpgrader&) = delete;
  autoFileUpgrader& operator=(const autoFileUpgrader&) = delete;

  // Applies one item; nonzero for success. The base accepts any item that is there.
  virtual int upgradeItem(autopItem* item);
  // Applies a whole list; nonzero when anything was applied. The base calls upgradeItem on every
  // item in order without stopping at a failure: 1 when the list is non-empty and every call
  // succeeded (an empty slot counts as a failed call).
  virtual int upgrade(autopItemList& items);

  // Set by the apply loop before upgrade: 1 when the configuration file is the same as the one
  // applied last time, so that only resource and firmware items are being applied.
  void setUnchanged(bool unchanged) { m_unchanged = unchanged ? 1 : 0; }
  int32_t isUnchanged() const { return m_unchanged; }

 protected:
  autoFileUpgrader() = default;

 private:
  int32_t m_unchanged = 0;
};

// The upgrader of a type number (0..3), or nullptr for any other number.
std::unique_ptr<autoFileUpgrader> createFileUpgrader(int32_t type);

// "cfg" 0, "bin" 1, "pwd" 2, "rom" 3; any other text, or none, 4.
int32_t upgradeTypeOf(const char* text);
inline int32_t upgradeTypeOf(const std::string& text) { return upgradeTypeOf(text.c_str()); }

// The operation named by the word before the first "." of a usage text: "cover" 1, "modify" 2,
// "delete" 3, any other word 0; no text, or no "." in it, 1 (cover is the default).
int32_t operationOf(const char* text);
inline int32_t operationOf(const std::string& text) { return operationOf(text.c_str()); }

// MD5 of a file's bytes as 32 lower-case hexadecimal digits. 1, or 0 when `out` is missing or the
// file can't be opened (logical path).
int fileMd5(const std::string& path, std::string* out);

// The destination path shared by the items: the first non-empty path, "" when a later item names
// another one (or no item names any).
std::string commonDestinationPath(const autopItemList& items);
