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
// The download's file name comes from a server: it names the installed file of a folder
// destination, so it is refused before any download when it could not be a file of its own there
// (isSafeServerFileName). It never names the download itself: that is a file this process creates
// in its private folder under /tmp (privateTmp.h), so a link planted in /tmp or a name such as
// "XML.cfg" reaches none of the phone's files. Its extension is kept, as the ring tone and picture
// checks judge a file by it.
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

  // 1 when fetched and saved (no size limit) through `file`, opened for writing, 0 when it could not
  // be opened, delivered nothing or broke off, -1 when the URL is missing or does not parse.
  // 1 downloaded whole, 0 failed, -1 no valid URL, kNotModified the server's copy is the installed one.
  static constexpr int kNotModified = 2;
  int downloadTo(const std::string& url, int file);
  // 1 when the download differs from the installed file or no MD5 is remembered; 0 when it is the
  // same or its MD5 can't be computed.
  int isNewFile();
  // Writes the MD5 text to the destination's ".MD5" companion.
  void saveMd5();

  // A name usable as a file of its own in a destination folder (see the header comment).
  static bool isSafeDownloadName(const std::string& name);

 private:
  int coverItem(autopItem& item, autoBinParser& parser);

  std::string m_tmpPath;
  httpValidators m_answerValidators;  // of the last download, kept once it is installed
  std::string m_destPath;
  char m_md5[33] = {};
};
