#define LOG_MODULE "./src/binParser"
#include "xmlParser.h"

#include <tinyxml2.h>

#include <cctype>
#include <cstdio>
#include <utility>
#include <vector>

#include "log.h"
#include "mutex.h"
#include "paths.h"

using tinyxml2::XMLDocument;
using tinyxml2::XMLElement;

namespace {

constexpr long kMaxElementIndex = 1000;
// Deeper paths are refused: the parser reads back no document nested deeper than 100 elements, so a
// file edited past that could never be read again.
constexpr size_t kMaxElementDepth = 64;
constexpr const char* kXmlLockName = "LOCKXML";
constexpr size_t kRecordField = 128;

// Holds "LOCKXML" for one edit of a shared XML file.
class xmlFileLock {
 public:
  xmlFileLock() {
    if (m_mutex.OpenMutex(kXmlLockName)) m_mutex.Lock();
  }
  ~xmlFileLock() {
    if (m_mutex.IsLocked()) m_mutex.Unlock();
  }

 private:
  chMutex m_mutex;
};

bool isXmlName(const std::string& name) {
  if (name.empty()) return false;
  unsigned char first = static_cast<unsigned char>(name[0]);
  if (!isalpha(first) && first != '_') return false;
  for (unsigned char c : name)
    if (!isalnum(c) && c != '_' && c != '-') return false;
  return true;
}

bool isIndex(const std::string& component) {
  if (component.empty()) return false;
  for (unsigned char c : component)
    if (!isdigit(c)) return false;
  return true;
}

// The index of a numeric component, 0 when it is out of range.
long parseIndex(const std::string& component) {
  if (component.size() > 5) return 0;
  long index = std::stol(component);
  return index >= 1 && index <= kMaxElementIndex ? index : 0;
}

std::vector<std::string> splitPath(const std::string& path) {
  std::vector<std::string> parts;
  size_t start = 0;
  for (;;) {
    size_t dot = path.find('.', start);
    parts.push_back(path.substr(start, dot == std::string::npos ? std::string::npos : dot - start));
    if (dot == std::string::npos) return parts;
    start = dot + 1;
  }
}

// The `index`-th (from 1) child named `name` of `parent` (the document or an element), appending
// as many as are missing.
XMLElement* nthChild(XMLDocument& document, tinyxml2::XMLNode& parent, const std::string& name, long index) {
  XMLElement* element = parent.FirstChildElement(name.c_str());
  XMLElement* last = nullptr;
  long position = 1;
  for (; element && position < index; ++position) {
    last = element;
    element = element->NextSiblingElement(name.c_str());
  }
  if (element) return element;
  for (; position <= index; ++position) {
    XMLElement* created = document.NewElement(name.c_str());
    if (last)
      parent.InsertAfterChild(last, created);
    else
      parent.InsertEndChild(created);
    last = created;
  }
  return last;
}

bool saveDocument(const XMLDocument& document, const std::string& destination) {
  tinyxml2::XMLPrinter printer;
  document.Print(&printer);
  return writeFileAtomic(destination, std::string(printer.CStr(), static_cast<size_t>(printer.CStrSize() - 1)));
}

bool loadDocument(XMLDocument& document, const std::string& path) {
  std::string text;
  return readTextFile(path, text) && xmlParseDocument(document, text);
}

// Loads a rule file, starting a new one with `root` when it is missing, corrupt or has no `root`.
XMLElement* loadOrRecreate(XMLDocument& document, const std::string& destination, const char* root) {
  if (loadDocument(document, destination)) {
    if (XMLElement* element = document.FirstChildElement(root)) return element;
  }
  remove(hostPath(destination).c_str());
  document.Clear();
  XMLElement* element = document.NewElement(root);
  document.InsertEndChild(element);
  return saveDocument(document, destination) ? element : nullptr;
}

std::string upper(std::string text) {
  for (char& c : text) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
  return text;
}

}  // namespace

bool xmlParseDocument(XMLDocument& document, const std::string& text) {
  if (document.Parse(text.data(), text.size()) != tinyxml2::XML_SUCCESS || !document.RootElement()) return false;
  // The parser takes a stray end tag without any element, and text beside the root element, but prints
  // either back in a form it refuses: such a file, once edited, could never be read again.
  for (const tinyxml2::XMLNode* node = document.FirstChild(); node; node = node->NextSibling()) {
    if (node->ToText()) return false;
  }
  return true;
}

XMLElement* xmlElementByPath(XMLDocument& document, const std::string& path) {
  // The whole path is checked before anything is created, so a refused path leaves no trace.
  std::vector<std::pair<std::string, long>> steps;
  std::vector<std::string> parts = splitPath(path);
  for (size_t i = 0; i < parts.size(); ++i) {
    if (!isXmlName(parts[i])) return nullptr;
    long index = 1;
    if (i + 1 < parts.size() && isIndex(parts[i + 1])) {
      index = parseIndex(parts[i + 1]);
      if (index == 0) {
        LOG_ERR("Invalid Element Index !");
        return nullptr;
      }
    }
    steps.emplace_back(parts[i], index);
    if (i + 1 < parts.size() && isIndex(parts[i + 1])) ++i;
  }
  if (steps.size() > kMaxElementDepth) return nullptr;
  tinyxml2::XMLNode* parent = &document;
  XMLElement* element = nullptr;
  for (const auto& step : steps) {
    element = nthChild(document, *parent, step.first, step.second);
    parent = element;
  }
  return element;
}

int xmlApplyItems(XMLDocument& document, autopItemList& items) {
  int applied = 0;
  for (auto& item : items) {
    if (!item) continue;
    std::string path = item->section;
    std::string attribute = item->key;
    size_t mark = attribute.find("::");
    if (mark != std::string::npos) {
      path += "." + attribute.substr(0, mark);
      attribute = attribute.substr(mark + 2);
    }
    if (!isXmlName(attribute)) continue;
    XMLElement* element = xmlElementByPath(document, path);
    if (!element) continue;
    element->SetAttribute(attribute.c_str(), item->value.c_str());
    item->changed = true;
    ++applied;
  }
  return applied;
}

int autoXmlParser::modifyFile(const std::string& destination, autopItemList& items) {
  if (destination.empty()) {
    LOG_NULL_POINTER();
    return 0;
  }
  xmlFileLock lock;
  if (!pathFileExist(destination)) {
    LOG_ERR("File[%s] not exist !", destination.c_str());
    return 0;
  }
  XMLDocument document;
  if (!loadDocument(document, destination)) {
    LOG_ERR("Can't load xml file [%s] !", destination.c_str());
    return 0;
  }
  if (xmlApplyItems(document, items) == 0) return 0;
  if (!saveDocument(document, destination)) {
    LOG_ERR("Can't save xml file [%s] !", destination.c_str());
    return 0;
  }
  return 1;
}

int autoXmlParser::checkFile() {
  if (!checkSpace()) return 0;
  XMLDocument document;
  if (!loadDocument(document, m_srcPath)) {
    LOG_ERR("Can't load xml file [%s] !", m_srcPath.c_str());
    return 0;
  }
  const char* root = expectedRoot();
  XMLElement* first = document.RootElement();
  if (!first || (*root && std::string(first->Name()) != root)) {
    LOG_ERR("Xml file [%s] has no root element [%s] !", m_srcPath.c_str(), root);
    return 0;
  }
  return 1;
}

int autoContactParser::upgradePost() { return runActionMethods(); }

int autoDialPlan::modifyFile(const std::string& destination, autopItemList& items) {
  m_destPath = destination;
  return autoXmlParser::modifyFile(destination, items);
}

int autoDialNow::modifyFile(const std::string& destination, autopItemList& items) {
  m_destPath = destination;
  return autoXmlParser::modifyFile(destination, items);
}

int addDialRule(const std::string& destination, const std::string& record) {
  int index = 0;
  char prefix[kRecordField] = {}, replace[kRecordField] = {}, lineId[kRecordField] = {};
  if (sscanf(record.c_str(), "%d,%127[^,],%127[^,],%127s", &index, prefix, replace, lineId) < 2) {
    LOG_ERR("Invalid dial rule record !");
    return -1;
  }
  xmlFileLock lock;
  XMLDocument document;
  XMLElement* root = loadOrRecreate(document, destination, "DialRule");
  if (!root) return -1;
  for (XMLElement* data = root->FirstChildElement("Data"); data; data = data->NextSiblingElement("Data")) {
    const char* existing = data->Attribute("Prefix");
    if (existing && std::string(existing) == prefix) {
      LOG_IFO("same_record_already_exist!");
      return -1;
    }
  }
  XMLElement* data = document.NewElement("Data");
  data->SetAttribute("Prefix", prefix);
  data->SetAttribute("Replace", replace);
  data->SetAttribute("LineID", lineId);
  root->InsertEndChild(data);
  return saveDocument(document, destination) ? 0 : -1;
}

int addDialNowRule(const std::string& destination, const std::string& record) {
  size_t comma = record.find(',');
  std::string rule = record.substr(0, comma);
  if (rule.empty()) {
    LOG_ERR("Invalid dial now record !");
    return -1;
  }
  xmlFileLock lock;
  XMLDocument document;
  XMLElement* root = loadOrRecreate(document, destination, "DialNow");
  if (!root) return -1;
  for (XMLElement* data = root->FirstChildElement("Data"); data; data = data->NextSiblingElement("Data")) {
    const char* existing = data->Attribute("DialNowRule");
    if (existing && upper(existing) == upper(rule)) {
      LOG_IFO("the_same_already_exist !");
      return -1;
    }
  }
  XMLElement* data = document.NewElement("Data");
  data->SetAttribute("DialNowRule", rule.c_str());
  if (comma != std::string::npos) data->SetAttribute("LineID", record.substr(comma + 1).c_str());
  root->InsertEndChild(data);
  return saveDocument(document, destination) ? 0 : -1;
}
