// Device facts from the host's device.ini, the boot environment, password protection.
#include <gtest/gtest.h>

#include <tuple>

#include "device.h"
#include "testRoot.h"

using namespace testing_support;
using DeviceTest = RootedTest;

TEST_F(DeviceTest, FactsComeFromDeviceIniWithDefaults) {
  auto isMacText = [](const std::string& mac) {
    return mac.size() == 12 && mac.find_first_not_of("0123456789abcdef") == std::string::npos;
  };
  // Without a device.ini: defaults, and the host's own interface or the fallbacks.
  EXPECT_EQ(std::make_tuple(netGetNetworkSta(), netGetNetworkType(), netIsTrustedLocalTime()),
            std::make_tuple(2, 0, true));
  EXPECT_TRUE(isMacText(netGetMACText())) << netGetMACText();

  root->write(kHostDeviceIni,
              "[device]\nmac=00:15:65:AB:cd:EF\nip=10.1.2.3\nnetwork_state=1\nnetwork_type=3\ntime_trusted=0\n");
  EXPECT_EQ(std::make_tuple(netGetMACText(), netGetLocalIP(), netGetNetworkSta(), netGetNetworkType(),
                            netIsTrustedLocalTime()),
            std::make_tuple(std::string("001565abcdef"), std::string("10.1.2.3"), 1, 3, false));

  // A broken MAC is not used.
  root->write(kHostDeviceIni, "[device]\nmac=not-a-mac\nnetwork_state=x\n");
  EXPECT_TRUE(isMacText(netGetMACText())) << netGetMACText();
  EXPECT_EQ(netGetNetworkSta(), 2);

  fakeClock.advanceMs(5000);
  EXPECT_EQ(netGetLocalTime(), 1700000005);

}

TEST_F(DeviceTest, BootEnvironmentPersistsAtomically) {
  for (const auto& [name, value] : {std::pair<const char*, const char*>{"HOST_NAME", "ORIN-PH"}, {"BOOTMODE", "safe"},
                                    {"strUpgradeURL", "http://10.0.0.1/fw.rom?a=b"}, {"HOST_NAME", "desk-1"}})
    EXPECT_EQ(userenv_set(name, value), 0) << name;
  EXPECT_EQ(userenv_get("strUpgradeURL"), "http://10.0.0.1/fw.rom?a=b");

  // Names or values that would break the file are refused and change nothing.
  for (const auto& [name, value] : {std::pair<const char*, const char*>{"", "x"}, {"A=B", "x"}, {"[env]", "x"},
                                    {"HOST_NAME", "x\nBOOTMODE=normal"}})
    EXPECT_EQ(userenv_set(name, value), -1) << name;
  EXPECT_EQ(root->read(kHostBootEnv),
            "[env]\nHOST_NAME=desk-1\nBOOTMODE=safe\nstrUpgradeURL=http://10.0.0.1/fw.rom?a=b\n");
}

TEST_F(DeviceTest, PasswordProtectionHidesThePlainText) {
  for (const std::string& plain : {std::string(""), std::string("admin"), std::string(15, 'p'), std::string(16, 'q'),
                                   std::string("pässwörd with blanks & = ; #"), std::string(1000, 'x')}) {
    std::string protectedText, back;
    ASSERT_EQ(pw_data_encrypt(plain, protectedText), 0);
    EXPECT_EQ(protectedText.compare(0, 4, "ENC:"), 0);
    EXPECT_EQ(protectedText.find('\n'), std::string::npos);
    EXPECT_TRUE(plain.empty() || protectedText.find(plain) == std::string::npos);
    ASSERT_EQ(pw_data_decrypt(protectedText, back), 0);
    EXPECT_EQ(back, plain);
  }
  std::string a, b, out = "untouched";
  pw_data_encrypt("same", a);
  pw_data_encrypt("same", b);
  EXPECT_NE(a, b);  // a fresh IV each time
  for (const std::string& bad : {std::string(""), std::string("admin"), std::string("ENC:"), std::string("ENC:!!!!"),
                                 std::string("ENC:QUJD"), "ENC:" + std::string(44, 'A'), a.substr(0, a.size() - 4)})
    EXPECT_EQ(pw_data_decrypt(bad, out), -1) << bad;
  EXPECT_EQ(out, "untouched");
}
