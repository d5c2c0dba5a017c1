// The firmware URL the rom upgrader composes from an object's location items.
#include <gtest/gtest.h>

#include "romUpgrader.h"

namespace {

autopItemList items(const std::vector<std::pair<std::string, std::string>>& pairs) {
  autopItemList list;
  for (const auto& p : pairs) {
    auto item = std::make_unique<autopItem>();
    item->type = "rom";
    item->key = p.first;
    item->value = p.second;
    list.push_back(std::move(item));
  }
  return list;
}

}  // namespace

TEST(RomUpgrader, ComposesTheFirmwareUrlFromTheLocationItems) {
  struct Case {
    std::vector<std::pair<std::string, std::string>> pairs;
    std::string url;
  } cases[] = {
      {{{"server_type", "tftp"}, {"server_ip", "10.0.0.5"}, {"firmware_name", "fw.rom"}}, "tftp://10.0.0.5/fw.rom"},
      {{{"server_type", "ftp"}, {"server_ip", "h"}, {"server_port", "2121"}, {"login_name", "u"},
        {"login_pswd", "p"}, {"firmware_name", "a/fw.rom"}, {"color", "blue"}},
       "ftp://u:p@h:2121/a/fw.rom"},
      {{{"server_type", "http"}, {"http_url", "http://s/fw/"}, {"firmware_name", "x.rom"}, {"server_ip", "ignored"}},
       "http://s/fw/x.rom"},
      {{{"server_type", "https"}, {"http_url", "https://s/fw"}, {"firmware_name", "x.rom"}}, "https://s/fw/x.rom"},
  };
  for (const Case& c : cases) EXPECT_EQ(composeFirmwareUrl(items(c.pairs)), c.url);
}
