// Resource files (contacts, dial plans, certificates, ring tones, wallpapers, packages): downloads
// the file an item names into /tmp and lets the resource parser of its type install it; modify and
// delete items go straight to the parser without a download.
//
// Beside every installed file lies a companion named like it plus ".MD5", holding the 32 hex digits
// of the installed file's MD5 and nothing else. A download whose MD5 equals the companion's is not
// installed again; removing the companion forces the next run to install.
//
// One object carries one resource: unless the operation is modify, an object with more than one
// item is refused. With an unchanged configuration file only cover items are applied.
//
// The download's file name comes from a server and is refused before any download when it is
// empty, ".", "..", longer than 255 bytes or holds a control character: "/tmp/" plus such a name
// would not be a file of its own.
#pragma once

#include <string>

#include "fileStream.h"
#include "fileUpgrader.h"

class autoBinParser;

class autoBinUpgrader : public autoFileUpgrader, public ns_net::fileDownload {
 public:
  autoBinUpgrader() = default;
  ~autoBinUpgrader() override;

  // The parser's result: nonzero when the resource was installed, modified or deleted.
  int upgrade(autopItemList& items) override;

  // 1 when fetched and saved (no size limit), 0 when it could not be opened or delivered nothing,
  // -1 when the URL is missing or does not parse.
  int downloadTo(const std::string& url, const std::string& temporaryPath);
  // 1 when the download differs from the installed file or no MD5 is remembered; 0 when it is the
  // same or its MD5 can't be computed.
  int isNewFile();
  // Writes the MD5 text to the destination's ".MD5" companion.
  void saveMd5();

  // A name usable as a file of its own under /tmp (see the header comment).
  static bool isSafeDownloadName(const std::string& name);

 private:
  int coverItem(autopItem& item, autoBinParser& parser);

  std::string m_tmpPath;
  std::string m_destPath;
  char m_md5[33] = {};
};
