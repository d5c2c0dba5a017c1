#define LOG_MODULE "./src/autoParser"
#include "autoParserCrypt.h"
#include "autopSettings.h"

#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "device.h"
#include "log.h"
#include "paths.h"
#include "registry.h"

namespace {

constexpr const char* kUserIni = "/config/user/user.ini";
constexpr size_t kSniffBytes = 23;
constexpr size_t kSniffExamined = 20;
constexpr size_t kBlock = 16;

// Material mixed into the derived per-device key; it never leaves the phone.
constexpr const char* kDerivedKeyMaterial = "orin-autop-device-key-material-v1";

struct CipherCtxFree {
  void operator()(EVP_CIPHER_CTX* ctx) const { EVP_CIPHER_CTX_free(ctx); }
};
using CipherCtx = std::unique_ptr<EVP_CIPHER_CTX, CipherCtxFree>;
struct MdCtxFree {
  void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};

bool isBuiltInOrEmpty(const std::string& key) { return key.empty() || key == kBuiltInAesKeyText; }

// A configured key; the factory default (the built-in key text) when the configuration holds none.
std::string configured(const char* key) {
  return brisaGetProfileString(kSystemIni, kAutoProvisionSection, key, kBuiltInAesKeyText);
}

// A key that may be stored in the platform's protected form, as plain text when it is.
std::string unprotected(const std::string& key) {
  std::string plain;
  return pw_data_decrypt(key, plain) == 0 ? plain : std::string();
}

// 16 bytes of a text: the deterministic conversion used for both halves of the derived key.
AesKey sixteenBytesOf(const std::string& text) {
  AesKey out{};
  std::unique_ptr<EVP_MD_CTX, MdCtxFree> ctx(EVP_MD_CTX_new());
  unsigned int size = 0;
  unsigned char digest[EVP_MAX_MD_SIZE];
  if (ctx && EVP_DigestInit_ex(ctx.get(), EVP_md5(), nullptr) == 1 &&
      EVP_DigestUpdate(ctx.get(), text.data(), text.size()) == 1 &&
      EVP_DigestFinal_ex(ctx.get(), digest, &size) == 1 && size == out.size())
    memcpy(out.data(), digest, out.size());
  return out;
}

bool plainSniff(const unsigned char* bytes, size_t count) {
  size_t start = (count >= 3 && bytes[0] == 0xEF && bytes[1] == 0xBB && bytes[2] == 0xBF) ? 3 : 0;
  size_t end = std::min(count, start + kSniffExamined);
  for (size_t i = start; i < end; ++i) {
    unsigned char c = bytes[i];
    if (c == '\r' || c == '\t' || c == ' ') continue;
    if (c == ';' || c == '#') return true;
    if (c > 0x7f) return false;
  }
  return true;
}

// Runs AES-128-ECB over `in` into `out`, 16 bytes at a time, blank-filling a short last block.
bool cryptStream(FILE* in, FILE* out, const AesKey& key, bool encrypt) {
  CipherCtx ctx(EVP_CIPHER_CTX_new());
  if (!ctx || EVP_CipherInit_ex(ctx.get(), EVP_aes_128_ecb(), nullptr, key.data(), nullptr, encrypt ? 1 : 0) != 1)
    return false;
  EVP_CIPHER_CTX_set_padding(ctx.get(), 0);
  unsigned char block[kBlock];
  unsigned char result[kBlock * 2];
  size_t n;
  while ((n = fread(block, 1, kBlock, in)) > 0) {
    if (n < kBlock) memset(block + n, ' ', kBlock - n);
    int produced = 0;
    if (EVP_CipherUpdate(ctx.get(), result, &produced, block, kBlock) != 1 || produced != static_cast<int>(kBlock))
      return false;
    if (fwrite(result, 1, kBlock, out) != kBlock) {
      LOG_IFO("Decrypted fail, Can't Write to File !");
      return false;
    }
    if (n < kBlock) break;
  }
  return !ferror(in) && fflush(out) == 0;
}

}  // namespace

bool looksEncrypted(const std::string& path) {
  FilePtr file = openFile(path, "rb");
  unsigned char bytes[kSniffBytes];
  size_t count = file ? fread(bytes, 1, sizeof(bytes), file.get()) : 0;
  if (count < kSniffBytes) {
    LOG_ERR("Fail to read BufNum[%d] from the file !", static_cast<int>(kSniffBytes));
    return false;
  }
  return !plainSniff(bytes, count);
}

bool plainFilesAllowed() {
  if (brisaGetProfileInt(kSystemIni, kAutoProvisionSection, autop_key::kUpdateFileMode, 0) == 0) return true;
  std::string key = configured(autop_key::kDeviceAesKey);
  if (isBuiltInOrEmpty(key)) key = configured(autop_key::kCommonAesKey);
  return isBuiltInOrEmpty(key);
}

bool valueEncryptionInUse() { return brisaGetProfileString(kUserIni, "PhoneSetting", "EnLock", "0") != "0"; }

AesKey aesKeyFromText(const std::string& text) {
  std::string cut = text;
  if (cut.size() > kBlock) {
    LOG_IFO("provisor: AES Key is too long !");
    cut.resize(kBlock);
  }
  AesKey key{};
  memcpy(key.data(), cut.data(), cut.size());
  return key;
}

AesKey derivedDeviceKey(const std::string& macText) {
  bool valid = !macText.empty() && std::all_of(macText.begin(), macText.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
  });
  // The key is formed regardless; a bad device text only shows in the log.
  if (!valid) LOG_ERR("The aes random key must 'a-z', 'A-Z' or '0-9'");
  AesKey fromDevice = sixteenBytesOf(macText);
  AesKey fromMaterial = sixteenBytesOf(kDerivedKeyMaterial);
  AesKey key{};
  for (size_t i = 0; i < kBlock; ++i) key[i] = fromDevice[i] ^ fromMaterial[i];
  std::reverse(key.begin(), key.end());
  return key;
}

bool selectAesKey(bool perDevice, const AesKeySources& sources, AesKey& key) {
  std::string text;
  bool alreadyUnprotected = false;
  if (!perDevice) {
    if (!sources.infoCommonKey.empty()) {
      LOG_IFO("Use AutopInfo Struct AES Key !");
      text = sources.infoCommonKey;
    } else {
      LOG_IFO("Use Config COM AES KEY");
      text = configured(autop_key::kCommonAesKey);
    }
  } else if (brisaGetProfileInt(kSystemIni, kAutoProvisionSection, autop_key::kBuiltInDeviceKey, 0) != 0) {
    LOG_IFO("Use build in aes key");
    key = derivedDeviceKey(netGetMACText());
    return true;
  } else if (!sources.infoMacKey.empty()) {
    LOG_IFO("Use AutopInfo Struct MAC AES Key !");
    text = sources.infoMacKey;
  } else if (!sources.infoCommonKey.empty()) {
    LOG_IFO("Use AutopInfo Struct AES Key !");
    text = sources.infoCommonKey;
  } else if (!isBuiltInOrEmpty(configured(autop_key::kDeviceAesKey))) {
    // The built-in key text there is no custom key: the common file's key serves instead.
    LOG_IFO("Use Config MAC AES KEY");
    text = configured(autop_key::kDeviceAesKey);
    std::string plain = unprotected(text);
    // A key stored as plain text is used as it stands.
    if (!plain.empty()) {
      text = plain;
      alreadyUnprotected = true;
    }
  } else {
    LOG_IFO("Config MAC AES_KEY is empty! Use Config COM AES_KEY !");
    text = configured(autop_key::kCommonAesKey);
  }
  if (text.empty()) return false;
  if (!alreadyUnprotected && valueEncryptionInUse()) {
    std::string plain = unprotected(text);
    if (!plain.empty()) {
      LOG_IFO("AES Key is decrypted !");
      text = plain;
    }
  }
  key = aesKeyFromText(text);
  return true;
}

bool decryptFile(const std::string& path, const AesKey& key) {
  const std::string output = path + "decrypt";
  FilePtr in = openFile(path, "rb");
  if (!in) {
    LOG_ERR("Can't open the file %s !", path.c_str());
    return false;
  }
  bool ok;
  {
    // The output is the configuration in clear, passwords included: the owner's only.
    FilePtr out = createPrivateFile(output) ? openFile(output, "wb") : nullptr;
    if (!out) {
      LOG_ERR("Can't open the file %s !", output.c_str());
      return false;
    }
    ok = cryptStream(in.get(), out.get(), key, false);
  }
  // A wrong key gives bytes that do not look like text: that is how it is told apart.
  if (!ok || looksEncrypted(output)) {
    unlink(hostPath(output).c_str());
    return false;
  }
  std::string plain;
  ok = readTextFile(output, plain) && writeFileAtomic(path, plain);
  unlink(hostPath(output).c_str());
  return ok;
}

bool encryptFile(const std::string& in, const std::string& out, const AesKey& key) {
  FilePtr input = openFile(in, "rb");
  FilePtr output = input ? openFile(out, "wb") : nullptr;
  return input && output && cryptStream(input.get(), output.get(), key, true);
}

bool decryptIfNeeded(const std::string& path, bool perDevice, const AesKeySources& sources) {
  if (!looksEncrypted(path)) {
    if (plainFilesAllowed()) return true;
    LOG_IFO("AES KEY,File donot decrypt,update fail");
    return false;
  }
  AesKey key;
  if (!selectAesKey(perDevice, sources, key)) return false;
  if (!decryptFile(path, key)) {
    LOG_ERR("Fail to decrypt file!");
    return false;
  }
  return true;
}
