// Resource files (contacts, dial plans, certificates, ring tones, wallpapers, packages): downloads
// the file an item names and lets the resource parser of its type install it.
//
// Waiting for the resource-file issue: for now upgrade logs and applies nothing. That issue adds
// the download-stream base and the fields (temporary path, destination, MD5 text).
#pragma once

#include "fileUpgrader.h"

class autoBinUpgrader : public autoFileUpgrader {
 public:
  autoBinUpgrader() = default;
  ~autoBinUpgrader() override;

  int upgrade(autopItemList& items) override;
};
