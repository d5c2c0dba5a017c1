// Which configured key decrypts a file: the built-in key text counts as no custom key, and with no
// key configured at all the factory default (that text) applies. Files are encrypted by openssl.
#include <gtest/gtest.h>

#include "autoParserCrypt.h"
#include "registry.h"
#include "testRoot.h"

using namespace testing_support;

namespace {

std::string hexOf(const std::string& text) {
  std::string key = text.substr(0, 16);
  key.resize(16, '\0');
  std::string out;
  char digits[3];
  for (unsigned char c : key) {
    snprintf(digits, sizeof(digits), "%02x", c);
    out += digits;
  }
  return out;
}

class AesKeyChoiceTest : public RootedTest {};

}  // namespace

TEST_F(AesKeyChoiceTest, BuiltInTextIsNoCustomKeyAndTheDefaultWhenNoneIsSet) {
  const std::string builtIn = kBuiltInAesKeyText;
  struct Case {
    std::string keys;  // [AutoProvision] lines
    bool perDevice;
    std::string encryptedWith;
  } cases[] = {
      {"strKeyAES16MAC = " + builtIn + "\nstrKeyAES16 = commonKey\n", true, "commonKey"},
      {"", true, builtIn},
      {"", false, builtIn},
      {"strKeyAES16 = " + builtIn + "\n", false, builtIn},
  };
  const std::string plain = "#!version:1.0.0.1\naccount.1.label = x\n" + std::string(10, ' ');
  for (const Case& c : cases) {
    root->write("/config/system/system.ini", "[AutoProvision]\n" + c.keys);
    registryResetCache();
    root->write("/tmp/plain.in", plain);
    std::string out;
    ASSERT_EQ(runCommand("openssl enc -aes-128-ecb -nopad -K " + hexOf(c.encryptedWith) + " -in '" +
                             root->host("/tmp/plain.in") + "' -out '" + root->host("/tmp/xxx.cfg") + "'",
                         &out),
              0)
        << out;
    EXPECT_TRUE(decryptIfNeeded("/tmp/xxx.cfg", c.perDevice, AesKeySources{})) << c.keys << c.perDevice;
    EXPECT_EQ(root->read("/tmp/xxx.cfg"), plain) << c.keys << c.perDevice;
  }
}
