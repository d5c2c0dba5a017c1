// The phone platform's upgrade library: checks firmware images and flashes them.
//
// Image format (all numbers big-endian; text fields zero-padded and zero-terminated):
//
//   offset  size  field
//        0     8  magic "PVFWIMG\0"
//        8     2  header version (1)
//       10     2  header size (340)
//       12    32  device family ("lyra", "orin", "duna")
//       44   128  models the image fits, comma-separated ("QA5,QE5")
//      172    64  firmware version text
//      236     8  payload length in bytes
//      244    32  SHA-256 of the payload
//      276    64  Ed25519 signature over bytes 0..275 (every field above, the digest included)
//      340     -  payload
//
// The signature covers the digest, and the digest covers the payload, so one signature check on the
// header and one digest over the payload vouch for every byte. The verifying key is the PEM public
// key /phone/keys/firmware.pem.
//
// Why the library reads through a seam: the download streams (TFTP, FTP, HTTP, HTTPS, local files)
// belong to the service above the platform, and the platform may not include from there. So this
// library works on bytes and on an abstract image source; the service installs, once, the opener
// that turns a URL into a source over its own streams and the function that tells what the device
// accepts: family, model, running version, downgrades (src/firmware/firmwareSource.h). Without them firmware_Upgrade
// fails with FW_ERR_NO_SOURCE.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

constexpr const char* kFirmwareKeyPath = "/phone/keys/firmware.pem";
// The host's stand-in for the flash partition the boot loader starts from.
constexpr const char* kFirmwareSlotPath = "/host/flash/firmware.bin";

constexpr size_t kFirmwareHeaderSize = 340;
constexpr size_t kFirmwareSignedSize = 276;
constexpr uint16_t kFirmwareHeaderVersion = 1;
constexpr size_t kFirmwareFamilyField = 32;
constexpr size_t kFirmwareModelsField = 128;
constexpr size_t kFirmwareVersionField = 64;
constexpr size_t kFirmwareDigestSize = 32;
constexpr size_t kFirmwareSignatureSize = 64;
// Larger than any flash partition of the phone; a header announcing more is not ours.
constexpr uint64_t kFirmwarePayloadMax = 1ull << 30;

// Results of the library: 0 success, negative failures (firmware_GetStatusName names each).
enum firmwareStatus : int {
  FW_OK = 0,
  FW_ERR_BAD_ARGUMENT = -1,
  FW_ERR_NO_SOURCE = -2,
  FW_ERR_BAD_URL = -3,
  FW_ERR_OPEN = -4,
  FW_ERR_HEADER_SHORT = -5,
  FW_ERR_BAD_MAGIC = -6,
  FW_ERR_HEADER_VERSION = -7,
  FW_ERR_BAD_FIELD = -8,
  FW_ERR_WRONG_FAMILY = -9,
  FW_ERR_NO_KEY = -10,
  FW_ERR_BAD_SIGNATURE = -11,
  FW_ERR_PAYLOAD_SHORT = -12,
  FW_ERR_PAYLOAD_LONG = -13,
  FW_ERR_BAD_DIGEST = -14,
  FW_ERR_WRITE = -15,
  FW_ERR_EMPTY_PAYLOAD = -16,
  FW_ERR_UNKNOWN_FAMILY = -17,
  FW_ERR_WRONG_MODEL = -18,
  FW_ERR_DOWNGRADE = -19,
  // Not a fault: the image is the firmware the phone runs. Callers treat it as nothing to do.
  FW_ALREADY_INSTALLED = -20,
};

// What this phone accepts. An image is refused when the family is unknown (empty) or another, when
// its models list does not name `model`, when its version is the running one (FW_ALREADY_INSTALLED)
// or older, unless `allowDowngrade`. An empty `runningVersion` (no version file) skips the version
// rules, so a phone that lost it can still be repaired.
struct firmwareDevice {
  std::string family;
  std::string model;
  std::string runningVersion;
  bool allowDowngrade = false;
};

// Compares version texts field by field ("3.1.0.10" is newer than "3.1.0.9"): each dot-separated
// field by its leading number, then by the rest as text; a missing field counts as 0. <0, 0, >0.
int firmwareCompareVersions(const std::string& a, const std::string& b);

const char* firmware_GetStatusName(int status);

struct firmwareHeader {
  uint16_t headerVersion = kFirmwareHeaderVersion;
  std::string family;
  std::vector<std::string> models;
  std::string version;
  uint64_t payloadLength = 0;
  uint8_t digest[kFirmwareDigestSize] = {};
  uint8_t signature[kFirmwareSignatureSize] = {};
};

// Decodes a header from its first bytes: FW_ERR_HEADER_SHORT, FW_ERR_BAD_MAGIC,
// FW_ERR_HEADER_VERSION or FW_ERR_BAD_FIELD (a size other than ours, an unterminated or
// non-printable text, an empty family, a payload beyond kFirmwarePayloadMax), else FW_OK.
int firmwareParseHeader(const uint8_t* data, size_t size, firmwareHeader* out);
// The header bytes of a record (signature field as given).
std::string firmwareEncodeHeader(const firmwareHeader& header);
// The rules of firmwareDevice on a parsed header: FW_OK or the refusal.
int firmwareJudgeHeader(const firmwareHeader& header, const firmwareDevice& device);
// Parses, refuses an empty payload, checks the signature with the PEM public key at `keyPath` (a
// host path), then, with a `device`, judges the signed fields. Without one (the administrator's
// check of an image on its own) no device rule applies.
int firmwareCheckHeader(const uint8_t* data, size_t size, const firmwareDevice* device, const std::string& keyPath,
                        firmwareHeader* out);
// Signs encoded header bytes in place with a PEM Ed25519 private key (host path). FW_OK,
// FW_ERR_NO_KEY or FW_ERR_BAD_ARGUMENT.
int firmwareSignHeader(std::string& headerBytes, const std::string& privateKeyPath);

// Where an image's bytes come from. Read fills up to `n` bytes and returns fewer only at the end of
// the image or when the transfer failed for good.
class firmwareImageSource {
 public:
  virtual ~firmwareImageSource() = default;
  virtual int Read(void* buffer, int n) = 0;
  // The whole image's length (header and payload), told once the header was read: a transfer that
  // ends before it was cut short, even when it looked complete.
  virtual void SetExpectedSize(uint64_t) {}
};

struct firmwareServices {
  // Opens the image at `url`; nullptr with FW_ERR_BAD_URL or FW_ERR_OPEN in `status` when it
  // cannot. `headerOnly`: only the header will be read. `resume`: a transfer cut short may be
  // taken up again where it stopped.
  std::unique_ptr<firmwareImageSource> (*open)(const std::string& url, int32_t timeoutMs, bool headerOnly, bool resume,
                                               int* status) = nullptr;
  // What this device accepts; without it every image is refused (the family is unknown).
  firmwareDevice (*device)() = nullptr;
};

// Reads a whole image from `source` and checks header, family, signature, payload length and digest
// before anything reaches the slot. With a non-empty `slotPath` (logical) the payload streams into a
// new file beside the slot (exclusive, 0600), its digest is read back from that file's descriptor,
// and only then is it synced and renamed over the slot; a failure unlinks it and leaves the slot as
// it was. With an empty `slotPath` it only verifies. Memory stays at one 256 KiB chunk.
int firmwareVerifyImage(firmwareImageSource& source, const firmwareDevice* device, const std::string& keyPath,
                        const std::string& slotPath, firmwareHeader* out);

// The upgrade entry of the library.
//   flash:      verify the whole image, then write its payload into the slot;
//   headerOnly: (without flash) read just the header and check it; the transfer stops there;
//   resume:     a transfer cut short is taken up again where it stopped (HTTP and HTTPS).
// Without flash or headerOnly the whole image is verified and nothing is written.
// `services` open the image and say what this device accepts (the caller's, handed in).
int firmware_Upgrade(const firmwareServices& services, const char* url, int32_t timeoutMs, bool flash, bool headerOnly,
                     bool resume);

// The flashing tool's side of a hand-over: the image already opened by the service, verified and
// flashed as firmware_Upgrade with flash does.
int firmwareFlashFromSource(firmwareImageSource& source, const firmwareDevice& device);
