// Protection of stored passwords on the host. The phone keeps its device key in hardware; the host
// stands in with a fixed key (MD5 of a constant) and AES-128-CBC with a fresh random IV per value,
// stored as "ENC:" + base64(IV || cipher text). Equal passwords therefore never look alike, and
// nothing that reads the INI file sees the plain text.
#define LOG_MODULE "./platform/pwdata"
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <memory>
#include <string>
#include <vector>

#include "device.h"
#include "log.h"

namespace {

constexpr const char* kProtectedPrefix = "ENC:";
constexpr const char* kDeviceKeySeed = "provisor host device key 1";
constexpr int kBlock = 16;

struct CipherFree {
  void operator()(EVP_CIPHER_CTX* ctx) const { EVP_CIPHER_CTX_free(ctx); }
};
using CipherPtr = std::unique_ptr<EVP_CIPHER_CTX, CipherFree>;

bool deviceKey(unsigned char key[kBlock]) {
  unsigned int length = 0;
  std::string seed(kDeviceKeySeed);
  return EVP_Digest(seed.data(), seed.size(), key, &length, EVP_md5(), nullptr) == 1 && length == kBlock;
}

// Runs the whole of `input` through AES-128-CBC in one direction; false on any failure, including a
// wrong padding when decrypting.
bool runCipher(bool encrypt, const unsigned char* iv, const unsigned char* input, size_t length,
               std::vector<unsigned char>& output) {
  unsigned char key[kBlock];
  CipherPtr ctx(EVP_CIPHER_CTX_new());
  if (!ctx || !deviceKey(key)) return false;
  if (EVP_CipherInit_ex(ctx.get(), EVP_aes_128_cbc(), nullptr, key, iv, encrypt ? 1 : 0) != 1) return false;
  output.assign(length + kBlock, 0);
  int produced = 0;
  int last = 0;
  if (EVP_CipherUpdate(ctx.get(), output.data(), &produced, input, static_cast<int>(length)) != 1) return false;
  if (EVP_CipherFinal_ex(ctx.get(), output.data() + produced, &last) != 1) return false;
  output.resize(static_cast<size_t>(produced + last));
  return true;
}

std::string toBase64(const std::vector<unsigned char>& bytes) {
  std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&text[0]), bytes.data(), static_cast<int>(bytes.size()));
  text.resize(length > 0 ? static_cast<size_t>(length) : 0);
  return text;
}

bool fromBase64(const std::string& text, std::vector<unsigned char>& bytes) {
  if (text.empty() || text.size() % 4 != 0) return false;
  bytes.assign(text.size() / 4 * 3 + 1, 0);
  int length = EVP_DecodeBlock(bytes.data(), reinterpret_cast<const unsigned char*>(text.data()),
                               static_cast<int>(text.size()));
  if (length < 0) return false;
  // EVP_DecodeBlock counts the bytes that the "=" padding stands for.
  size_t padding = 0;
  for (size_t i = text.size(); i > 0 && text[i - 1] == '=' && padding < 2; --i) ++padding;
  bytes.resize(static_cast<size_t>(length) - padding);
  return true;
}

}  // namespace

int pw_data_encrypt(const std::string& plain, std::string& out) {
  unsigned char iv[kBlock];
  if (RAND_bytes(iv, kBlock) != 1) return -1;
  std::vector<unsigned char> cipher;
  if (!runCipher(true, iv, reinterpret_cast<const unsigned char*>(plain.data()), plain.size(), cipher)) return -1;
  std::vector<unsigned char> packed(iv, iv + kBlock);
  packed.insert(packed.end(), cipher.begin(), cipher.end());
  out = kProtectedPrefix + toBase64(packed);
  return 0;
}

int pw_data_decrypt(const std::string& protectedText, std::string& out) {
  const std::string prefix(kProtectedPrefix);
  std::vector<unsigned char> packed;
  if (protectedText.compare(0, prefix.size(), prefix) != 0 || !fromBase64(protectedText.substr(prefix.size()), packed) ||
      packed.size() < 2 * kBlock || packed.size() % kBlock != 0) {
    LOG_WAR("Protected value is malformed");
    return -1;
  }
  std::vector<unsigned char> plain;
  if (!runCipher(false, packed.data(), packed.data() + kBlock, packed.size() - kBlock, plain)) {
    LOG_WAR("Protected value does not decrypt");
    return -1;
  }
  out.assign(plain.begin(), plain.end());
  return 0;
}
