// Encrypted configuration files against an independent tool: files are encrypted with
// `openssl enc -aes-128-ecb -nopad` after blank padding, then decrypted in place by the service
// with the key it chooses from the request, the configuration or the device.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "autoParserCrypt.h"
#include "device.h"
#include "testRoot.h"

using namespace testing_support;

namespace {

const std::string kPlain =
    "#!version:1.0.0.1\n"
    "account.1.enable = 1\n"
    "account.1.label = Front desk\n";  // 68 bytes: the last block is short

std::string hex(const AesKey& key) {
  std::string out;
  char digits[3];
  for (uint8_t b : key) {
    snprintf(digits, sizeof(digits), "%02x", b);
    out += digits;
  }
  return out;
}

std::string padded(const std::string& plain) { return plain + std::string((16 - plain.size() % 16) % 16, ' '); }

class CryptTest : public RootedTest {
 protected:
  // Encrypts `plain` into the logical path with openssl, blank-padded to whole blocks.
  void encryptWithOpenssl(const std::string& logical, const std::string& plain, const AesKey& key) {
    root->write("/tmp/plain.in", padded(plain));
    std::string out;
    ASSERT_EQ(runCommand("openssl enc -aes-128-ecb -nopad -K " + hex(key) + " -in '" + root->host("/tmp/plain.in") +
                             "' -out '" + root->host(logical) + "'",
                         &out),
              0)
        << out;
  }
  void config(const std::string& autoProvisionKeys) {
    root->write("/config/system/system.ini", "[AutoProvision]\n" + autoProvisionKeys);
  }
};


}  // namespace

TEST_F(CryptTest, CipherTextTest) {
  const std::pair<std::string, bool> files[] = {
      {kPlain, false},
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

TEST_F(CryptTest, KeysFromRequestConfigurationAndDevice) {
  config("strKeyAES16 = commonKey0123456\nstrKeyAES16MAC = macKey\n");
  // The common file: the request's key wins over the configured one.
  encryptWithOpenssl("/tmp/xxx.cfg", kPlain, aesKeyFromText("requestKey"));
  ASSERT_TRUE(decryptIfNeeded("/tmp/xxx.cfg", false, AesKeySources{"requestKey", ""}));
  EXPECT_EQ(root->read("/tmp/xxx.cfg"), padded(kPlain));
  EXPECT_FALSE(root->exists("/tmp/xxx.cfgdecrypt"));

  encryptWithOpenssl("/tmp/xxx.cfg", kPlain, aesKeyFromText("commonKey0123456"));
  ASSERT_TRUE(decryptIfNeeded("/tmp/xxx.cfg", false, AesKeySources{}));
  EXPECT_EQ(root->read("/tmp/xxx.cfg"), padded(kPlain));

  // The per-device file: the configured MAC key (10 characters, zero padded).
  encryptWithOpenssl("/tmp/xxx.cfg", kPlain, aesKeyFromText("macKey"));
  ASSERT_TRUE(decryptIfNeeded("/tmp/xxx.cfg", true, AesKeySources{}));
  EXPECT_EQ(root->read("/tmp/xxx.cfg"), padded(kPlain));

  // The derived key of this device.
  root->write("/host/device.ini", "[device]\nmac = 001565aabbcc\nip = 127.0.0.1\n");
  config("strKeyAES16MAC = macKey\nuse_build_in_aes_key_16_mac = 1\n");
  AesKey derived = derivedDeviceKey("001565aabbcc");
  EXPECT_NE(hex(derived), hex(derivedDeviceKey("001565aabbcd")));
  encryptWithOpenssl("/tmp/xxx.cfg", kPlain, derived);
  LogCapture log;
  ASSERT_TRUE(decryptIfNeeded("/tmp/xxx.cfg", true, AesKeySources{"requestKey", "requestMacKey"}));
  EXPECT_TRUE(log.contains("Use build in aes key"));
  EXPECT_EQ(root->read("/tmp/xxx.cfg"), padded(kPlain));
}

TEST_F(CryptTest, WrongKeyLeavesTheDownloadAsItWas) {
  config("strKeyAES16 = rightKey\n");
  encryptWithOpenssl("/tmp/xxx.cfg", kPlain, aesKeyFromText("otherKey"));
  std::string before = root->read("/tmp/xxx.cfg");
  LogCapture log;
  EXPECT_FALSE(decryptIfNeeded("/tmp/xxx.cfg", false, AesKeySources{}));
  EXPECT_TRUE(log.contains("Fail to decrypt file!"));
  EXPECT_EQ(root->read("/tmp/xxx.cfg"), before);
  EXPECT_FALSE(root->exists("/tmp/xxx.cfgdecrypt"));

  // No key at all.
  config("");
  EXPECT_FALSE(decryptIfNeeded("/tmp/xxx.cfg", false, AesKeySources{}));
}

TEST_F(CryptTest, PlainFilePolicy) {
  root->write("/tmp/xxx.cfg", kPlain);
  config("UpdateFileMode = 1\nstrKeyAES16 = custom\n");
  LogCapture log;
  EXPECT_FALSE(decryptIfNeeded("/tmp/xxx.cfg", false, AesKeySources{}));
  EXPECT_TRUE(log.contains("AES KEY,File donot decrypt,update fail"));
  config(std::string("UpdateFileMode = 1\nstrKeyAES16 = ") + kBuiltInAesKeyText + "\n");
  EXPECT_TRUE(decryptIfNeeded("/tmp/xxx.cfg", false, AesKeySources{}));
  config("UpdateFileMode = 0\nstrKeyAES16 = custom\n");
  EXPECT_TRUE(plainFilesAllowed());
  // A custom MAC key alone is enough to refuse.
  config("UpdateFileMode = 1\nstrKeyAES16MAC = custom\n");
  EXPECT_FALSE(plainFilesAllowed());
}

TEST_F(CryptTest, KeyTextIsCutOrPaddedAndProtectedKeysAreUnwrapped) {
  LogCapture log;
  AesKey cut = aesKeyFromText("0123456789abcdefWXYZ");
  EXPECT_EQ(std::string(cut.begin(), cut.end()), "0123456789abcdef");
  EXPECT_TRUE(log.contains("provisor: AES Key is too long !"));
  AesKey shortKey = aesKeyFromText("0123456789");
  EXPECT_EQ(std::string(shortKey.begin(), shortKey.end()), std::string("0123456789") + std::string(6, '\0'));

  // A configured key stored in the platform's protected form is used in its plain form.
  std::string stored;
  ASSERT_EQ(pw_data_encrypt("protectedKey", stored), 0);
  config("strKeyAES16MAC = " + stored + "\n");
  encryptWithOpenssl("/tmp/xxx.cfg", kPlain, aesKeyFromText("protectedKey"));
  EXPECT_TRUE(decryptIfNeeded("/tmp/xxx.cfg", true, AesKeySources{}));

  // Round trip through the administrator's encryption.
  root->write("/tmp/in.cfg", kPlain);
  ASSERT_TRUE(encryptFile("/tmp/in.cfg", "/tmp/out.cfg", aesKeyFromText("k")));
  EXPECT_TRUE(looksEncrypted("/tmp/out.cfg"));
  ASSERT_TRUE(decryptFile("/tmp/out.cfg", aesKeyFromText("k")));
  EXPECT_EQ(root->read("/tmp/out.cfg"), padded(kPlain));
}
