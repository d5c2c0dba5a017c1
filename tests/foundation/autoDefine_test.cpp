// Device identity: where the hardware version comes from and the model name of every device id.
#include <gtest/gtest.h>

#include <cstring>

#include "autoDefine.h"
#include "testRoot.h"

using namespace testing_support;

namespace {

class AutoDefineTest : public RootedTest {
 protected:
  std::string modelFor(const std::string& version) {
    root->write("/proc/hwversion", version + "\n");
    char buffer[16];
    memset(buffer, 'x', sizeof(buffer));
    EXPECT_EQ(getModelName(buffer), 0);
    std::string name(buffer);
    EXPECT_EQ(buffer[name.size() + 1], 'x') << "wrote past the name's zero";
    return name;
  }
};

}  // namespace

TEST_F(AutoDefineTest, HardwareVersionSources) {
  {
    // No source at all: one error line, and the unknown version's model without a warning.
    LogCapture capture;
    char buffer[kModelNameSize];
    ASSERT_EQ(getModelName(buffer), 0);
    EXPECT_STREQ(buffer, "QA5");
    const std::string text = capture.text();
    EXPECT_TRUE(capture.contains("ERR Could not open device: /dev/lcd0"));
    EXPECT_EQ(text.find("Could not open device"), text.rfind("Could not open device")) << "one error line only";
    EXPECT_FALSE(capture.contains("Unknown Device ID"));
  }
  {
    // The display driver fills the text; the host stand-in leaves it as it is, without complaint.
    root->write("/dev/lcd0", "");
    LogCapture capture;
    EXPECT_EQ(readHardwareVersion(), "0.0.0.0.0.0.0");
    EXPECT_FALSE(capture.contains("Could not open device"));
  }
  const std::pair<std::string, std::string> versions[] = {
      {"23.0.0.16.0.0.9 trailing words\n", "23.0.0.16.0.0.9"},
      {"", ""},
      {std::string(400, '7'), std::string(255, '7')}};
  for (const auto& [file, version] : versions) {
    root->write("/proc/hwversion", file);
    EXPECT_EQ(readHardwareVersion(), version);
  }
}

TEST_F(AutoDefineTest, ModelNames) {
  struct Case {
    const char* version;
    const char* model;
  } cases[] = {
      {"0.0.0.0.0.0.0", "QA5"},    {"1.0.0.0.0.0.0", "QA5"},    {"15.0.0.0.0.0.0", "QA5"},
      {"2.0.0.0.0.0.0", "QE5"},    {"3.0.0.0.0.0.0", "QD5"},    {"8.0.0.0.0.0.0", "QD5"},
      {"4.0.0.0.0.0.0", "QB5"},    {"5.0.0.0.0.0.0", "QC5"},    {"14.0.0.0.0.0.0", "QC5"},
      {"7.0.0.0.0.0.0", "QF5"},    {"13.0.0.0.0.0.0", "QF5"},   {"21.0.0.0.0.0.0", "QG5"},
      {"22.0.0.0.0.0.0", "QH5"},   {"25.0.0.0.0.0.0", "KQ7D"},  {"23.0.0.16.0.0.9", "RM410T"},
      {"23.0.0.0.0.0.7", "RM420P"}, {"23.0.0.0.0.0.3", "RM4200P"}, {"23.1.2.32.4.5.8", "RM420T"},
      {"23.0.0.48.0.0.12", "RM410T"}, {"23.0.0.15.0.0.0", "RM4200P"}, {"23.0.0.64.0.0.7", "RM420P"},
      {"23.0.0.48.0.0.6", "RM4200T"}, {"", "QA5"}, {"garbage", "QA5"}, {"23", "RM4200P"},
  };
  for (const Case& c : cases) EXPECT_EQ(modelFor(c.version), c.model) << c.version;

  for (const char* notAModel : {"6", "9", "12", "16", "20", "24", "26"}) {
    LogCapture capture;
    EXPECT_EQ(modelFor(std::string(notAModel) + ".0.0.0.0.0.0"), "QA5");
    EXPECT_TRUE(capture.contains(std::string("WAR Unknown Device ID [") + notAModel + "]!")) << notAModel;
  }
  EXPECT_EQ(getModelName(nullptr), -1);
}
