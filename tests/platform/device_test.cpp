// Device facts from the host's device.ini, the boot environment, password protection.
#include <gtest/gtest.h>

#include <tuple>

#include "device.h"
#include "ownNetwork.h"
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

// The phone's network facts from the kernel, stepped through the states of a real pair of virtual
// Ethernet interfaces in a namespace of the test's own. The host build takes its MAC and address from
// the same facts when device.ini names none.
TEST_F(DeviceTest, KernelFactsFollowTheInterfaces) {
  RUN_IN_OWN_NETWORK();
  struct Step {
    const char* commands;
    int32_t state;
    const char* mac;  // "*" either of the pair
    const char* ip;
  };
  const Step steps[] = {
      {"true", 0, "", ""},  // loopback alone counts for nothing
      {"ip link add veth0 address 00:15:65:00:00:a0 type veth peer name veth1 address 00:15:65:00:00:a1 && "
       "ip link set veth0 up",
       0, "0015650000a0", ""},               // up, no carrier: its peer is down
      {"ip link set veth1 up", 1, "*", ""},  // carrier, no address
      {"ip addr add 10.9.8.7/24 dev veth0", 2, "0015650000a0", "10.9.8.7"},
      {"ip addr del 10.9.8.7/24 dev veth0 && ip addr add 10.9.9.1/24 dev veth1", 2, "0015650000a1", "10.9.9.1"},
      {"ip link set veth1 down", 0, "0015650000a0", ""},  // a down interface is not looked at
      {"ip link set veth0 down", 0, "", ""},
  };
  for (const Step& step : steps) {
    ASSERT_EQ(runCommand(step.commands), 0) << step.commands;
    KernelNetworkFacts facts = kernelNetworkFacts();
    EXPECT_EQ(facts.state, step.state) << step.commands;
    if (std::string(step.mac) == "*")
      EXPECT_TRUE(facts.mac == "0015650000a0" || facts.mac == "0015650000a1") << facts.mac;
    else
      EXPECT_EQ(facts.mac, step.mac) << step.commands;
    EXPECT_EQ(facts.ip, step.ip) << step.commands;
  }
  ASSERT_EQ(runCommand("ip link set veth0 up && ip link set veth1 up && ip addr add 10.9.8.7/24 dev veth0 && "
                       "ip addr del 10.9.9.1/24 dev veth1"),
            0);
  EXPECT_EQ(std::make_pair(netGetMACText(), netGetLocalIP()),
            std::make_pair(std::string("0015650000a0"), std::string("10.9.8.7")));
  root->write(kHostDeviceIni, "[device]\nmac=001565aabbcc\nip=10.1.2.3\nfamily=orin\n");
  EXPECT_EQ(std::make_tuple(netGetMACText(), netGetLocalIP(), deviceFamilyOverride()),
            std::make_tuple(std::string("001565aabbcc"), std::string("10.1.2.3"), std::string("orin")));
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
