// autoUpgrade: where every source of a provisioning address ends. UpgradeFromURL completes the URL
// text ("$mac", a default "tftp://"), decides whether it names one configuration file or a
// directory, and for a directory processes the common file and then the per-device file
// (<MAC>.cfg, or the custom location the common file gave), so per-device values win.
#pragma once

#include <string>

#include "autopContext.h"
#include "autopInfo.h"
#include "autopUrl.h"

class autoUpgrade {
 public:
  // True when at least one configuration file was downloaded, whatever became of it afterwards;
  // false for an invalid URL or when nothing could be downloaded. `context` is the run's (table,
  // reboot request); `info` brings the request's keys.
  static bool UpgradeFromURL(const autopContext& context, const std::string& urlText, const AutopInfo* info = nullptr);
  // The record UpgradeFromURL downloads from: "$mac" marks replaced, "tftp://" put before a text
  // without a scheme that is no local path; cleared when the text does not parse.
  static ns_net::autopUrl UrlFromText(const std::string& urlText);
};

// True when the text after the last "." is "cfg", "ini", "php" or "xml", ignoring case.
bool isConfigFileName(const char* path);
// strCommName of /config/system/system.ini, else of /phone/factory/system.ini; "" when neither.
std::string getCommonConfigName();
// Every "$mac" replaced by the MAC text, left to right, without rescanning what was inserted.
std::string replaceMacMarks(const std::string& text, const std::string& macText);
