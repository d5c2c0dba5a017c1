// XML resources: attribute edits by element path (the "::" key form, 1-based indexes, created
// elements, the index limit).
#include <tinyxml2.h>

#include "parserFixture.h"
#include "xmlParser.h"

namespace {

using parser_test::ParserTest;
using testing_support::LogCapture;

constexpr const char* kPlan = "/config/data/DialPlan.xml";

class XmlParserTest : public ParserTest {
 protected:
  // Attribute `name` of every "Data" of the file's root, "-" where it is absent.
  std::vector<std::string> column(const std::string& file, const char* name) {
    tinyxml2::XMLDocument document;
    std::vector<std::string> values;
    if (document.Parse(root->read(file).c_str()) != tinyxml2::XML_SUCCESS || !document.RootElement()) return {"<bad>"};
    for (auto* d = document.RootElement()->FirstChildElement("Data"); d; d = d->NextSiblingElement("Data"))
      values.push_back(d->Attribute(name) ? d->Attribute(name) : "-");
    return values;
  }
  void add(autopItemList& items, const std::string& section, const std::string& key, const std::string& value) {
    items.push_back(std::make_unique<autopItem>());
    items.back()->section = section;
    items.back()->key = key;
    items.back()->value = value;
  }
};

TEST_F(XmlParserTest, ElementPathEdits) {
  root->write(kPlan, "<DialRule><Data Prefix=\"1\"/><Data Prefix=\"2\"/></DialRule>");
  autopItemList items;
  add(items, "DialRule", "Data::Prefix", "9");
  add(items, "DialRule.Data.2", "Replace", "0049");
  add(items, "DialRule.Data.4", "LineID", "3");
  add(items, "DialRule.Data.1001", "Prefix", "x");
  add(items, "DialRule.Data.0", "Prefix", "x");
  add(items, "DialRule.Bad Name", "Prefix", "x");
  add(items, "DialRule.Data.1", "Bad\"Attr", "x");
  LogCapture log;
  EXPECT_EQ(autoDialPlan().modifyFile(kPlan, items), 1);
  EXPECT_EQ(column(kPlan, "Prefix"), (std::vector<std::string>{"9", "2", "-", "-"}));
  EXPECT_EQ(column(kPlan, "Replace"), (std::vector<std::string>{"-", "0049", "-", "-"}));
  EXPECT_EQ(column(kPlan, "LineID"), (std::vector<std::string>{"-", "-", "-", "3"}));
  EXPECT_TRUE(log.contains("Invalid Element Index !"));

  // Up to 1000 elements may be made; nothing of a refused item is.
  autopItemList limit;
  add(limit, "DialRule.Data.1000", "Prefix", "last");
  EXPECT_EQ(autoXmlParser().modifyFile(kPlan, limit), 1);
  EXPECT_EQ(column(kPlan, "Prefix").size(), 1000u);
  EXPECT_EQ(column(kPlan, "Prefix").back(), "last");

  root->write("/config/data/broken.xml", "<DialRule><Data>");
  EXPECT_EQ(autoDialPlan().modifyFile("/config/data/broken.xml", items), 0);
  EXPECT_EQ(autoDialPlan().modifyFile("/config/data/none.xml", items), 0);
  EXPECT_TRUE(log.contains("Can't load xml file [/config/data/broken.xml] !"));
  EXPECT_EQ(root->read("/config/data/broken.xml"), "<DialRule><Data>");
}

}  // namespace
