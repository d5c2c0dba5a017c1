// The translation table: loading, key lookups with numbered objects, first-match order and reverse
// lookups.
#include <gtest/gtest.h>

#include <array>
#include <tuple>

#include "autopTranslator.h"
#include "runContext.h"
#include "testRoot.h"

using testing_support::LogCapture;
using testing_support::RootedTest;

namespace {

const char* kTable = R"XML(<?xml version="1.0"?>
<autopTranslator>
  <cfg>
    <object name="acc" indexMask="$i" range="0-5" path="/config/acc$i.cfg" section="line$i" action="reload($i)">
      <item name="en" key="Enable$i" action="note($i)" encrypt="1" reboot="1" valueType="boolean"/>
      <item name="label" key="Label"/>
      <object name="codec" indexMask="$j" range="1-4" section="audio$j"><item name="on" key="on"/></object>
      <object name="plain"><item name="x" key="X"/></object>
    </object>
    <object name="shifted" indexMask="#" range="3-5" path="/config/shifted.cfg" section="s#"><item name="v" key="V"/></object>
    <object name="free" indexMask="@" path="/config/free@.cfg" section="free"><item name="v" key="V"/></object>
    <object name="dup" path="/config/first.ini" section="one">
      <item name="a" key="A"/><item name="@LONG@" key="Long"/><item name="x.y" key="DottedItem"/>
      <object name="x" section="sub1"><item name="q" key="Q1"/></object>
      <object name="x" section="sub2"><item name="y" key="Y"/><item name="z" key="Z"/></object>
    </object>
    <object name="dup" path="/config/second.ini" section="two"><item name="a" key="A"/><item name="b" key="B"/></object>
    <object name="bare"><item name="own" path="/config/own.ini" section="Own" key="K"/></object>
    <ignored name="not-an-object"/>
  </cfg>
  <pwd>
    <object name="dup" path="/valdrun/config/.htpasswd"><item name="c" section="user" key="" usage="cover.user"/></object>
  </pwd>
</autopTranslator>
)XML";

class TranslatorTest : public RootedTest {
 protected:
  void SetUp() override {
    RootedTest::SetUp();
    std::string xml = kTable;
    xml.replace(xml.find("@LONG@"), 6, std::string(kAutopKeyMax - 4, 'n'));  // "dup." + it: 127 characters
    load(xml);
  }
  void load(const std::string& xml) {
    root->write("/config/table.xml", xml);
    ASSERT_TRUE(table.loadTransData("/config/table.xml"));
  }
  // The item's target as "path|section|key", or "" when the key is unknown.
  std::string target(const std::string& key) {
    autopItem item;
    if (!table.findItem(key, item)) return "";
    return item.path + "|" + item.section + "|" + item.key;
  }
  std::string reverse(const std::string& path, const std::string& section, const std::string& key) {
    std::string name;
    return table.findItemName(path, section, key, name) ? name : "<none>";
  }
  autopTranslator table;
};

std::string wrapped(const std::string& objects) {
  return "<autopTranslator><cfg>" + objects + "</cfg></autopTranslator>";
}

TEST_F(TranslatorTest, ForwardLookups) {
  const std::string longName(kAutopKeyMax - 4, 'n');
  const std::pair<std::string, const char*> lookups[] = {
      // Range 0-5: key index 1 is stored index 0, 6 is 5; 0, 7, negative and non-numbers are unknown.
      {"acc.1.en", "/config/acc0.cfg|line0|Enable0"}, {"acc.6.en", "/config/acc5.cfg|line5|Enable5"},
      {"acc.7.en", ""}, {"acc.0.en", ""}, {"acc.-1.en", ""}, {"acc.x.en", ""}, {"acc.1x.en", ""}, {"acc..en", ""},
      {"acc.en", ""}, {"acc.99999999999.en", ""},
      // A range that does not start at 0 or 1 still counts keys from 1; without one the index stands.
      {"shifted.1.v", "/config/shifted.cfg|s3|V"}, {"shifted.3.v", "/config/shifted.cfg|s5|V"}, {"shifted.4.v", ""},
      {"free.0.v", "/config/free0.cfg|free|V"}, {"free.42.v", "/config/free42.cfg|free|V"},
      // Nested numbered objects replace their own masks and inherit the path; a bare object keeps the item's.
      {"acc.2.codec.5.on", ""}, {"acc.2.codec.4.on", "/config/acc1.cfg|audio4|on"},
      {"acc.2.plain.x", "/config/acc1.cfg|line1|X"}, {"bare.own", "/config/own.ini|Own|K"},
      // Two objects named "dup": the first whose remainder matches wins; items before sub-objects,
      // like-named sub-objects in order.
      {"dup.a", "/config/first.ini|one|A"}, {"dup.b", "/config/second.ini|two|B"},
      {"dup.x.y", "/config/first.ini|one|DottedItem"}, {"dup.x.q", "/config/first.ini|sub1|Q1"},
      {"dup.x.z", "/config/first.ini|sub2|Z"}, {"dup.nothing", ""}, {"nothing.a", ""}, {"", ""}, {"not-an-object", ""},
      // A lookup leaves the table as it was: the next key sees clean templates.
      {"acc.5.en", "/config/acc4.cfg|line4|Enable4"}, {"acc.5.label", "/config/acc4.cfg|line4|Label"},
      // Keys are cut to 127 characters before matching.
      {"dup." + longName, "/config/first.ini|one|Long"}, {"dup." + longName + "tail", "/config/first.ini|one|Long"},
      {"dup." + longName.substr(1) + "X", ""}};
  for (const auto& [key, expected] : lookups) EXPECT_EQ(target(key), expected) << key;

  // Completion: the key as name, the group's type, the item's own calls then its object's, all with
  // the index in place; the value is emptied for the caller.
  autopItem item;
  item.value = "stale";
  ASSERT_TRUE(table.findItem("acc.3.en", item));
  EXPECT_EQ(item.name + "|" + item.type + "|" + item.action + "|" + item.valueType + "|" + item.value,
            "acc.3.en|cfg|note(2);reload(2)|boolean|");
  EXPECT_TRUE(item.encrypt && item.reboot && !item.changed);
  ASSERT_TRUE(table.findItem("dup.c", item));  // across groups too: the pwd object comes last
  EXPECT_EQ(item.type + "|" + item.usage + "|" + item.fileType, "pwd|cover.user|");
}

TEST_F(TranslatorTest, ReverseLookupFindsTheKeyOfATarget) {
  const std::pair<std::array<const char*, 3>, const char*> reverses[] = {
      {{"/config/first.ini", "one", "A"}, "dup.a"},
      // The second "dup" gives the key even though the first one shadows it forwards.
      {{"/config/second.ini", "two", "A"}, "dup.a"}, {{"/config/second.ini", "two", "B"}, "dup.b"},
      {{"/valdrun/config/.htpasswd", "user", ""}, "dup.c"}, {{"/config/own.ini", "Own", "K"}, "bare.own"},
      {{"/config/first.ini", "one", "Z"}, "<none>"},
      // Numbered objects: the mask stands for a stored index in range, written back as a key index.
      {{"/config/acc0.cfg", "line0", "Enable0"}, "acc.1.en"}, {{"/config/acc5.cfg", "line5", "Label"}, "acc.6.label"},
      {{"/config/acc2.cfg", "audio3", "on"}, "acc.3.codec.3.on"}, {{"/config/shifted.cfg", "s4", "V"}, "shifted.2.v"},
      {{"/config/free17.cfg", "free", "V"}, "free.17.v"}, {{"/config/acc5.cfg", "line5", "X"}, "acc.6.plain.x"},
      // Out of range, one mask with two values, leading zeros, the mask text itself: no key.
      {{"/config/acc6.cfg", "line6", "Label"}, "<none>"}, {{"/config/acc1.cfg", "line2", "Label"}, "<none>"},
      {{"/config/acc01.cfg", "line01", "Label"}, "<none>"}, {{"/config/acc$i.cfg", "line$i", "Label"}, "<none>"},
      {{"/config/shifted.cfg", "s2", "V"}, "<none>"}, {{"/config/acc2.cfg", "audio0", "on"}, "<none>"}};
  for (const auto& [where, key] : reverses) EXPECT_EQ(reverse(where[0], where[1], where[2]), key) << where[0];
}

// Nesting 94 deep and 16 masks side by side: items reachable through at most 16 objects resolve both
// ways, deeper ones neither way; a split that the longest-first choice gets wrong is still found; a
// digit run no split fits is refused without trying every split (the 16-mask case would otherwise
// not end within the test's time).
TEST_F(TranslatorTest, DeepNestingAndAdjacentMasks) {
  std::string tables = R"(<object name="d0" path="/config/deep.ini" section="top">)", path;
  for (int level = 1; level < 94; ++level)
    tables += "<object name=\"d" + std::to_string(level) + "\"><item name=\"v\" key=\"K" + std::to_string(level) + "\"/>";
  for (int level = 0; level < 94; ++level) tables += "</object>";
  for (int m = 0; m < 16; ++m) path += "$m" + std::to_string(m);
  tables += R"(<object name="o" indexMask="$m0" range="1-12" path="/config/x)" + path + R"(.cfg" section="s">)";
  for (int m = 1; m < 16; ++m) tables += "<object name=\"o\" indexMask=\"$m" + std::to_string(m) + "\">";
  tables += "<item name=\"v\" key=\"K\"/>";
  for (int m = 0; m < 16; ++m) tables += "</object>";
  load(wrapped(tables));
  std::string chain = "d0";
  for (int level = 1; level < 16; ++level) chain += ".d" + std::to_string(level);
  EXPECT_EQ(target(chain + ".v"), "/config/deep.ini|top|K15");
  EXPECT_EQ(reverse("/config/deep.ini", "top", "K15"), chain + ".v");
  EXPECT_EQ(target(chain + ".d16.v"), "");
  EXPECT_EQ(reverse("/config/deep.ini", "top", "K16"), "<none>");

  // key "o.<first>.o.<second>.o.1...o.1.v" of sixteen masks
  auto ones = [](const std::string& first, const std::string& second) {
    std::string key = "o." + first + ".o." + second;
    for (int m = 2; m < 16; ++m) key += ".o.1";
    return key + ".v";
  };
  const std::pair<std::string, std::string> splits[] = {
      {std::string(16, '1'), ones("1", "1")},
      // Longest first, the first mask would take 13, outside its range 1-12: the next split serves.
      {"13" + std::string(15, '1'), ones("1", "31")},
      {std::string(161, '1'), "<none>"}, {std::string(15, '1'), "<none>"}, {"0" + std::string(15, '1'), "<none>"}};
  for (const auto& [run, key] : splits) {
    EXPECT_EQ(reverse("/config/x" + run + ".cfg", "s", "K"), key) << run;
    EXPECT_EQ(target(key), key == "<none>" ? "" : "/config/x" + run + ".cfg|s|K");
  }
}

TEST_F(TranslatorTest, LoadingChoosesTheFileAndReportsFailures) {
  LogCapture log;
  autopTranslator single;
  // logical file, its contents, then: load result, log lines, whether the phone's table ("p.x") is in use
  const std::tuple<const char*, std::string, bool, std::vector<std::string>, bool> cases[] = {
      {kTranslatorPhonePath, wrapped(R"(<object name="p"><item name="x" path="/a" section="s" key="k"/></object>)"), true,
       {"Load trans data from /phone/resource/autopTranslator.xml", "IFO Load return 1"}, true},
      // A table under /config replaces the phone's one entirely.
      {kTranslatorConfigPath, wrapped(R"(<object name="c"><item name="x" path="/b" section="s" key="k"/></object>)"), true,
       {"Load trans data from /config/autopTranslator.xml"}, false},
      {kTranslatorConfigPath, "<autopTranslator><cfg><object name=", false,
       {"failed to load file [/config/autopTranslator.xml]! \n", "IFO Load return 0"}, false},
      {kTranslatorConfigPath, "<other><cfg/></other>", false, {"no root elem [/config/autopTranslator.xml]! \n"}, false}};
  for (const auto& [file, xml, loaded, lines, phoneTable] : cases) {
    root->write(file, xml);
    EXPECT_EQ(single.loadDefaultTable(), loaded) << xml;
    EXPECT_EQ(single.isLoaded(), loaded);
    for (const std::string& line : lines) EXPECT_TRUE(log.contains(line)) << line;
    autopItem item;
    EXPECT_EQ(single.findItem("p.x", item), phoneTable) << xml;
    EXPECT_EQ(single.objectCount() + single.itemCount(), loaded ? 2u : 0u);
  }
}

}  // namespace
