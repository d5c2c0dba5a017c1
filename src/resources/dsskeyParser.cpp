#define LOG_MODULE "./src/dsskeyParser"
#include "dsskeyParser.h"

int autoLineKey::modifyFile(const std::string& destination, autopItemList& items) {
  m_destPath = destination;
  return autoXmlParser::modifyFile(destination, items);
}

int autoLineKey::upgradePost() { return runActionMethods(); }

int autoMemoryKey::modifyFile(const std::string& destination, autopItemList& items) {
  m_destPath = destination;
  return autoXmlParser::modifyFile(destination, items);
}

int autoMemoryKey::upgradePost() { return runActionMethods(); }
