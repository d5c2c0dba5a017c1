// Firmware: works out the firmware URL from the items and hands it to the ROM installer of the
// phone's device family.
//
// Waiting for the firmware issue: for now upgradeItem and upgrade log and apply nothing. That
// issue adds the download-stream base and the URL composition.
#pragma once

#include "fileUpgrader.h"

class autoRomUpgrader : public autoFileUpgrader {
 public:
  autoRomUpgrader() = default;
  ~autoRomUpgrader() override;

  int upgradeItem(autopItem* item) override;
  int upgrade(autopItemList& items) override;
};
