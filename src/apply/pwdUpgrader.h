// Web login users: adds, changes and deletes users of the web server's password file, and renames
// a user when the configuration upgrader changes a web login name.
//
// The password file holds one "name:hash" line per user, the hash being cryptPassword's (13
// characters per 8-character block, at most 3 blocks). An item's value is "name:password"; the
// password "%NULL%" stands for the empty password. The item's operation chooses: cover adds or
// changes, modify changes an existing user only, delete removes.
//
// Re-provisioning the same password hashes it with the old hash as salt, which reproduces the old
// hash: the file is then not written at all. The file is rewritten atomically (temporary file,
// fsync, rename), so the web server never reads half a file. When the administrator's password
// changes, the plain password also goes to the TR-069 agent's configuration.
//
// A login name holding ":" or a control character is refused wherever it would enter the file (a
// new user, a rename): "root:AAxxx" would read back as the user "root" with a broken hash, and a
// line end would make two lines, so the administrator would be locked out.
//
// Lines without ":" name no user the server could check; the reader drops them (and empty lines),
// so a file written by savePasswordFile reads back unchanged.
#pragma once

#include <string>
#include <vector>

#include "fileUpgrader.h"

struct autoPwdEntry {
  std::string name;
  std::string hash;
};
using autoPwdEntryList = std::vector<autoPwdEntry>;

class autoPwdUpgader : public autoFileUpgrader {
 public:
  autoPwdUpgader() = default;
  ~autoPwdUpgader() override;

  // 1 when the password file was changed and saved, else 0.
  int upgrade(autopItemList& items) override;
  // Gives the user `oldName` of /config/data/htpasswd the name `newName`. Nonzero on success.
  int renameUser(const std::string& oldName, const std::string& newName);

  // Reads a password file (logical path) into `entries`, emptied first. 1, or 0 when it can't be
  // opened.
  static int loadPasswordFile(const std::string& path, autoPwdEntryList& entries);
  // Writes the entries whole, in order, atomically. 1, or 0 when the file can't be written.
  static int savePasswordFile(const std::string& path, const autoPwdEntryList& entries);
  // False for a name holding ":" or a control character (refused with a log line where it is used).
  static bool isValidLoginName(const std::string& name);
  // The line reader behind loadPasswordFile.
  static void parsePasswordText(const std::string& text, autoPwdEntryList& entries);

 private:
  // Applies one item to the entries; true when they changed.
  bool applyItem(const autopItem& item, autoPwdEntryList& entries, const std::string& adminName);
};
