// The shipped translation table against the names this program reads: a provisioned setting
// stored under a key nobody reads is lost without a word, so both sides are walked here.
#include <gtest/gtest.h>
#include <strings.h>
#include <tinyxml2.h>

#include <map>
#include <set>
#include <string>

#include "autopSettings.h"

namespace {

struct TableItem {
  std::string name;
};

using SectionKey = std::pair<std::string, std::string>;

// Items of the shipped table by (section, key) of the system INI file; nested objects inherit the
// file of their parent, as the loader does.
void collectSystemIniItems(const tinyxml2::XMLElement* object, std::string path,
                           std::multimap<SectionKey, TableItem>& items) {
  if (const char* own = object->Attribute("path")) path = own;
  const char* section = object->Attribute("section");
  for (auto* child = object->FirstChildElement(); child; child = child->NextSiblingElement()) {
    if (std::string(child->Name()) == "object") {
      collectSystemIniItems(child, path, items);
    } else if (std::string(child->Name()) == "item" && path == kSystemIni && section) {
      items.emplace(SectionKey{section, child->Attribute("key")}, TableItem{child->Attribute("name")});
    }
  }
}

std::multimap<SectionKey, TableItem> shippedSystemIniItems() {
  tinyxml2::XMLDocument document;
  EXPECT_EQ(document.LoadFile(PROVISOR_SOURCE_DIR "/data/autopTranslator.xml"), tinyxml2::XML_SUCCESS);
  std::multimap<SectionKey, TableItem> items;
  const tinyxml2::XMLElement* root = document.RootElement();
  for (auto* cfg = root ? root->FirstChildElement() : nullptr; cfg; cfg = cfg->NextSiblingElement()) {
    for (auto* object = cfg->FirstChildElement("object"); object; object = object->NextSiblingElement("object"))
      collectSystemIniItems(object, "", items);
  }
  return items;
}

TEST(ShippedTable, StoresTheServiceSettingsUnderTheNamesTheServiceReads) {
  const auto items = shippedSystemIniItems();
  ASSERT_FALSE(items.empty());
  const std::set<std::string> read(std::begin(kAutoProvisionKeysRead), std::end(kAutoProvisionKeysRead));

  for (const auto& [where, item] : items) {
    if (where.first != kAutoProvisionSection) continue;
    EXPECT_TRUE(read.count(where.second))
        << "item " << item.name << " stores [AutoProvision] " << where.second << ", which nothing reads";
  }
  for (const std::string& key : read)
    EXPECT_TRUE(items.count({kAutoProvisionSection, key})) << "no item provisions [AutoProvision] " << key;
}

// A key spelled with other capitals is another key of the INI file: whichever section the table
// puts it in, the service would never see it.
TEST(ShippedTable, NoItemMissesAServiceKeyByItsCapitals) {
  for (const auto& [where, item] : shippedSystemIniItems()) {
    for (const char* key : kAutoProvisionKeysRead) {
      if (strcasecmp(where.second.c_str(), key) == 0) {
        EXPECT_EQ(where.second, key) << "item " << item.name;
      }
    }
  }
}

}  // namespace
