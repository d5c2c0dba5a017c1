// DSS key files: the line-key and memory-key layouts. A cover installs a downloaded file only when it
// is well-formed XML with root "LineKey" (line keys) or "MemoryKey" (memory keys); a modify edits
// attributes by element path as for every XML resource (xmlParser.h). After an install the phone
// application is told to reload through the item's action.
#pragma once

#include "xmlParser.h"

class autoLineKey : public autoXmlParser {
 public:
  int modifyFile(const std::string& destination, autopItemList& items) override;
  int upgradePost() override;

 protected:
  const char* expectedRoot() const override { return "LineKey"; }
};

class autoMemoryKey : public autoXmlParser {
 public:
  int modifyFile(const std::string& destination, autopItemList& items) override;
  int upgradePost() override;

 protected:
  const char* expectedRoot() const override { return "MemoryKey"; }
};
