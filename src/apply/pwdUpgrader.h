// Web login users: adds, changes and deletes users of the web server's password file, and renames
// a user when the configuration upgrader changes a web login name.
//
// Waiting for the web-password issue: for now upgrade logs and applies nothing, and renameUser
// does nothing; the class exists so that the factory and the user-name hook are in place.
#pragma once

#include <string>

#include "fileUpgrader.h"

class autoPwdUpgader : public autoFileUpgrader {
 public:
  autoPwdUpgader() = default;
  ~autoPwdUpgader() override;

  int upgrade(autopItemList& items) override;
  // Gives the user `oldName` of /config/data/htpasswd the name `newName`. Nonzero on success.
  int renameUser(const std::string& oldName, const std::string& newName);
};
