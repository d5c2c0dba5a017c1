// Encrypted configuration files: the cipher-text test, the plain-file policy, the choice of key for
// the common and the per-device file, the key derived on the phone, and the decryption in place.
//
// Files are AES-128-ECB without padding; a short last block is filled with blanks before it is
// decrypted, and nothing is stripped afterwards, so a file of N bytes decrypts to N rounded up to 16.
#pragma once

#include <array>
#include <cstdint>
#include <string>

using AesKey = std::array<uint8_t, 16>;

// The factory default of both configured keys; a configured key equal to it is no custom key.
constexpr const char* kBuiltInAesKeyText = "Qm9ndXNLZXlWYWx1ZTEyMw==";

// True when the first meaningful bytes of the file are not plain text.
bool looksEncrypted(const std::string& path);
// False when plain files must be refused (UpdateFileMode on and a custom key configured).
bool plainFilesAllowed();

// The keys a request brought with it (AutopInfo); empty when none.
struct AesKeySources {
  std::string infoCommonKey;
  std::string infoMacKey;
};

// Picks the key for a file; false when there is none. `perDevice` tells the per-device file.
bool selectAesKey(bool perDevice, const AesKeySources& sources, AesKey& key);
// A key text as raw key bytes: cut to 16 (with "provisor: AES Key is too long !"), zero padded.
AesKey aesKeyFromText(const std::string& text);
// The per-device key derived from the device's MAC text and built-in material.
AesKey derivedDeviceKey(const std::string& macText);

// Decrypts `path` in place through "<path>decrypt". False (output removed, input untouched) when the
// file cannot be read or written or the result does not look like plain text.
bool decryptFile(const std::string& path, const AesKey& key);
// The reverse, for the administrator's tool: blank-fills the last block and encrypts `in` to `out`.
bool encryptFile(const std::string& in, const std::string& out, const AesKey& key);

// Decides and decrypts as the update of a downloaded file needs: true when the file at `path` is now
// plain text that may be applied.
bool decryptIfNeeded(const std::string& path, bool perDevice, const AesKeySources& sources);

// Whether the platform stores sensitive values in its encrypted form ([PhoneSetting] EnLock).
bool valueEncryptionInUse();
