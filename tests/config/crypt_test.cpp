// Encrypted configuration files against an independent tool: files are encrypted with
// `openssl enc -aes-128-ecb -nopad` after blank padding, then decrypted in place by the service
// with the key it chooses from the request, the configuration or the device.
#include <gtest/gtest.h>

#include <tuple>

#include "autoParserCrypt.h"
#include "device.h"
#include "testRoot.h"

using namespace testing_support;

namespace {

const std::string kPlain =
    "#!version:1.0.0.1\n"
    "account.1.enable = 1\n"
    "account.1.label = Front desk\n";  // 68 bytes: the last block is short

std::string padded(const std::string& plain) { return plain + std::string((16 - plain.size() % 16) % 16, ' '); }

class CryptTest : public RootedTest {
 protected:
  // Encrypts kPlain into /tmp/xxx.cfg with openssl, blank-padded to whole blocks.
  void encryptWithOpenssl(const AesKey& key) {
    const char* digits = "0123456789abcdef";
    std::string hex;
    for (uint8_t b : key) hex += {digits[b >> 4], digits[b & 15]};
    root->write("/tmp/plain.in", padded(kPlain));
    ASSERT_EQ(runCommand("openssl enc -aes-128-ecb -nopad -K " + hex + " -in '" + root->host("/tmp/plain.in") +
                         "' -out '" + root->host("/tmp/xxx.cfg") + "'"),
              0);
  }
};

}  // namespace

TEST_F(CryptTest, CipherTextTest) {
  const std::pair<std::string, bool> files[] = {
      {"\xEF\xBB\xBF   \t\r;comment then \xFF\xFF\xFF bytes later", false},
      {"abcdefghijklmnopqrst\xFF\xFF\xFF", false},  // 20 ASCII bytes: plain
      {"abc\x80" "defghijklmnopqrstuvw", true}};
  for (const auto& [contents, encrypted] : files) {
    root->write("/tmp/a.cfg", contents);
    EXPECT_EQ(looksEncrypted("/tmp/a.cfg"), encrypted) << contents;
  }
  LogCapture log;
  root->write("/tmp/e.cfg", "\x80short");
  EXPECT_FALSE(looksEncrypted("/tmp/e.cfg"));
  EXPECT_TRUE(log.contains("Fail to read BufNum[23] from the file !"));
}

TEST_F(CryptTest, KeyFromRequestConfigurationOrDeviceAndWrongKeysLeaveTheFile) {
  root->write("/host/device.ini", "[device]\nmac = 001565aabbcc\nip = 127.0.0.1\n");
  const std::string keys = "strKeyAES16 = commonKey0123456\nstrKeyAES16MAC = macKey\n", builtIn = kBuiltInAesKeyText;
  std::string stored;  // a configured key in the platform's protected form is used in its plain form
  ASSERT_EQ(pw_data_encrypt("protectedKey", stored), 0);
  ASSERT_NE(derivedDeviceKey("001565aabbcc"), derivedDeviceKey("001565aabbcd"));
  // settings, the per-device file, the request's keys, the key openssl encrypts with, decrypted
  const std::tuple<std::string, bool, AesKeySources, AesKey, bool> cases[] = {
      // The common file: the request's key wins over the configured one.
      {keys, false, {"requestKey", ""}, aesKeyFromText("requestKey"), true},
      {keys, false, {}, aesKeyFromText("commonKey0123456"), true},
      // The per-device file: the configured MAC key (6 characters, zero padded).
      {keys, true, {}, aesKeyFromText("macKey"), true},
      // The derived key of this device wins over everything when switched on.
      {"strKeyAES16MAC = macKey\nuse_build_in_aes_key_16_mac = 1\n", true, {"requestKey", "requestMacKey"},
       derivedDeviceKey("001565aabbcc"), true},
      {"strKeyAES16MAC = " + stored + "\n", true, {}, aesKeyFromText("protectedKey"), true},
      // A custom key set to the built-in key's text is none: the per-device file takes the common key,
      // and with no key at all either file takes the built-in one.
      {"strKeyAES16MAC = " + builtIn + "\nstrKeyAES16 = commonKey\n", true, {}, aesKeyFromText("commonKey"), true},
      {"", true, {}, aesKeyFromText(builtIn), true},
      {"", false, {}, aesKeyFromText(builtIn), true},
      {"strKeyAES16 = rightKey\n", false, {}, aesKeyFromText("otherKey"), false},
  };
  for (const auto& [settings, perDevice, request, key, decrypted] : cases) {
    SCOPED_TRACE(settings);
    root->write("/config/system/system.ini", "[AutoProvision]\n" + settings);
    encryptWithOpenssl(key);
    const std::string before = root->read("/tmp/xxx.cfg");
    LogCapture log;
    EXPECT_EQ(decryptIfNeeded("/tmp/xxx.cfg", perDevice, request), decrypted);
    EXPECT_EQ(root->read("/tmp/xxx.cfg"), decrypted ? padded(kPlain) : before);
    EXPECT_FALSE(root->exists("/tmp/xxx.cfgdecrypt"));
    EXPECT_EQ(log.contains("Use build in aes key"), settings.find("use_build_in") != std::string::npos);
    EXPECT_EQ(log.contains("Fail to decrypt file!"), !decrypted);
  }
}

TEST_F(CryptTest, PlainFilePolicyAndKeyText) {
  // Plain files are refused once a custom key of either kind is set and the mode asks for it.
  const std::pair<std::string, bool> policies[] = {
      {"UpdateFileMode = 1\nstrKeyAES16 = custom\n", false},
      {"UpdateFileMode = 1\nstrKeyAES16 = " + std::string(kBuiltInAesKeyText) + "\n", true},
      {"UpdateFileMode = 0\nstrKeyAES16 = custom\n", true}};
  root->write("/tmp/xxx.cfg", kPlain);
  for (const auto& [keys, allowed] : policies) {
    root->write("/config/system/system.ini", "[AutoProvision]\n" + keys);
    LogCapture log;
    EXPECT_EQ(decryptIfNeeded("/tmp/xxx.cfg", false, AesKeySources{}), allowed) << keys;
    EXPECT_EQ(log.contains("AES KEY,File donot decrypt,update fail"), !allowed) << keys;
  }
  AesKey cut = aesKeyFromText("0123456789abcdefWXYZ");
  EXPECT_EQ(std::string(cut.begin(), cut.end()), "0123456789abcdef");
}
