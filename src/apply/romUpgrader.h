// Firmware: works out the firmware URL from the items and hands it to the ROM installer of the
// phone's device family (romInstaller.h), which checks, fetches and flashes the image.
//
// An object with one item gives its value as the URL as it stands. With several items the URL is
// composed from the location keys below (others are ignored); an object naming neither a host nor
// "http_url" gives a URL the installer refuses.
//
//   "server_type"  scheme ("tftp", "ftp", "http", "https")
//   "server_ip"    host
//   "server_port"  port, decimal (empty: none)
//   "login_name"   user name
//   "login_pswd"   password
//   "firmware_name" file name
//   "http_url"     base URL used for "http" and "https"
//
// A success marks the items applied; the apply loop then arranges the reboot through the run
// lifecycle. kRomAlreadyInstalled (the image is the running firmware) changes nothing and asks for
// no reboot.
#pragma once

#include "autopUrl.h"
#include "fileStream.h"
#include "fileUpgrader.h"
#include "romInstaller.h"

class autoRomUpgrader : public autoFileUpgrader, public ns_net::fileDownload {
 public:
  autoRomUpgrader() = default;
  ~autoRomUpgrader() override;

  int upgradeItem(autopItem* item) override;
  int upgrade(autopItemList& items) override;
};

// The firmware URL composed from the location items of one object.
std::string composeFirmwareUrl(const autopItemList& items);
