// Device identity: where the hardware version comes from and the model name of every device id.
#include <gtest/gtest.h>

#include <cstring>

#include "autoDefine.h"
#include "testRoot.h"

using namespace testing_support;

class AutoDefineTest : public RootedTest {};

TEST_F(AutoDefineTest, HardwareVersionSources) {
  // No source at all: an error line, and the unknown version's model.
  LogCapture capture;
  EXPECT_EQ(modelNameOf(readHardwareVersion()), "QA5");
  EXPECT_TRUE(capture.contains("ERR Could not open device: /dev/lcd0"));
  // The display driver fills the text; the host stand-in leaves it as it is.
  root->write("/dev/lcd0", "");
  EXPECT_EQ(readHardwareVersion(), "0.0.0.0.0.0.0");
  const std::pair<std::string, std::string> versions[] = {{"23.0.0.16.0.0.9 trailing words\n", "23.0.0.16.0.0.9"},
                                                          {std::string(400, '7'), std::string(255, '7')}};
  for (const auto& [file, version] : versions) {
    root->write("/proc/hwversion", file);
    EXPECT_EQ(readHardwareVersion(), version);
  }
  // The longest name, through the file, without a write past its zero.
  root->write("/proc/hwversion", "23.0.0.48.0.0.6\n");
  char buffer[16];
  memset(buffer, 'x', sizeof(buffer));
  EXPECT_EQ(getModelName(buffer), 0);
  EXPECT_EQ(std::string(buffer, 9), std::string("RM4200T\0x", 9));
}

TEST_F(AutoDefineTest, ModelNames) {
  // No model: an unknown device id, which gets the first model and a warning.
  const std::pair<const char*, const char*> cases[] = {
      {"0", "QA5"},  {"1", "QA5"},    {"15", "QA5"}, {"2", "QE5"},  {"3", "QD5"},       {"8", "QD5"},
      {"4", "QB5"},  {"5", "QC5"},    {"14", "QC5"}, {"7", "QF5"},  {"13", "QF5"},      {"21", "QG5"},
      {"22", "QH5"}, {"25", "KQ7D"},  {"", "QA5"},   {"23", "RM4200P"}, {"23.0.0.16.0.0.9", "RM410T"},
      {"23.0.0.0.0.0.7", "RM420P"},   {"23.1.2.32.4.5.8", "RM420T"},   {"23.0.0.48.0.0.12", "RM410T"},
      {"23.0.0.15.0.0.0", "RM4200P"}, {"6", nullptr},  {"12", nullptr}, {"26", nullptr}};
  for (const auto& [version, model] : cases) {
    LogCapture capture;
    EXPECT_EQ(modelNameOf(version), model ? model : "QA5") << version;
    EXPECT_EQ(capture.contains(std::string("WAR Unknown Device ID [") + version + "]!"), !model) << version;
  }
}
