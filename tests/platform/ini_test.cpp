// INI files in memory: parsing, writing back without losing comments, edits, hostile values.
#include <gtest/gtest.h>

#include <tuple>

#include "inifile.h"

namespace {

const char* kSample =
    "; written by the phone\r\n"
    "global = 1\r\n"
    "\r\n"
    "[AutoProvision]\r\n"
    "  strServerURL =  http://10.0.0.1/cfg  \r\n"
    "# a comment\r\n"
    "bEnablePNP=1\r\n"
    "pair=a=b\r\n"
    "garbage line\r\n"
    "\r\n"
    "[ Other ]\r\n"
    "key=\r\n";

}  // namespace

TEST(IniFile, ParsesWritesBackAndEditsInPlaceAndHostileTextCannotAddKeys) {
  iniFile ini;
  ini.LoadFromText(kSample);
  const std::tuple<const char*, const char*, const char*> values[] = {
      {"", "global", "1"}, {"AutoProvision", "strServerURL", "http://10.0.0.1/cfg"}, {"AutoProvision", "bEnablePNP", "1"},
      {"AutoProvision", "pair", "a=b"}, {"Other", "key", ""}, {"AutoProvision", "missing", "x"}, {"NoSection", "bEnablePNP", "x"}};
  for (const auto& [section, key, value] : values) EXPECT_EQ(ini.GetTextValue(section, key, "x"), value) << key;
  EXPECT_FALSE(ini.HasKey("AutoProvision", "garbage line"));

  // Edits keep comments, blank lines and lines that are no key where they stood.
  ini.SetTextValue("AutoProvision", "bEnablePNP", "0");
  ini.SetTextValue("AutoProvision", "nRepeatMinutes", "1440");
  ini.SetTextValue("New", "a", "b");
  EXPECT_TRUE(ini.RemoveKey("Other", "key"));
  EXPECT_FALSE(ini.RemoveKey("Other", "key"));

  const std::string text = ini.ExportToText();
  EXPECT_EQ(text,
            "; written by the phone\n"
            "global=1\n"
            "\n"
            "[AutoProvision]\n"
            "strServerURL=http://10.0.0.1/cfg\n"
            "# a comment\n"
            "bEnablePNP=0\n"
            "pair=a=b\n"
            "garbage line\n"
            "nRepeatMinutes=1440\n"
            "\n"
            "[Other]\n"
            "[New]\n"
            "a=b\n");

  // Keys without a section stay first; hostile names and values cannot add keys or sections.
  iniFile back;
  back.LoadFromText("[s]\nk=v\n");
  back.SetTextValue("", "top", "1");
  back.SetTextValue("s", "evil", "x\n[other]\ninjected=1");
  for (const char* bad : {"bad=key", "[bad", "#bad"}) back.SetTextValue("s", bad, "1");
  back.LoadFromText(back.ExportToText());
  EXPECT_EQ(back.GetTextValue("", "top", ""), "1");
  EXPECT_EQ(back.GetTextValue("s", "evil", ""), "x [other] injected=1");
  EXPECT_EQ(back.findSection("other"), nullptr);
  for (const char* bad : {"bad", "[bad", "#bad"}) EXPECT_FALSE(back.HasKey("s", bad)) << bad;
  EXPECT_EQ(back.sections().size(), 2u);
}
