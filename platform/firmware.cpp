#define LOG_MODULE "./platform/firmware"
#include "firmware.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>

#include "log.h"
#include "paths.h"

namespace {

constexpr char kMagic[8] = {'P', 'V', 'F', 'W', 'I', 'M', 'G', '\0'};
constexpr size_t kOffVersion = 8;
constexpr size_t kOffSize = 10;
constexpr size_t kOffFamily = 12;
constexpr size_t kOffModels = kOffFamily + kFirmwareFamilyField;
constexpr size_t kOffFirmwareVersion = kOffModels + kFirmwareModelsField;
constexpr size_t kOffLength = kOffFirmwareVersion + kFirmwareVersionField;
constexpr size_t kOffDigest = kOffLength + 8;
constexpr size_t kOffSignature = kOffDigest + kFirmwareDigestSize;
static_assert(kOffSignature == kFirmwareSignedSize, "the signature follows every signed field");
static_assert(kOffSignature + kFirmwareSignatureSize == kFirmwareHeaderSize, "header layout");

constexpr const char* kStagingPath = "/tmp/firmware.stage";
constexpr int kPayloadChunk = 256 * 1024;

struct StatusName {
  int status;
  const char* name;
};
const StatusName kStatusNames[] = {
    {FW_OK, "ok"},
    {FW_ERR_BAD_ARGUMENT, "bad argument"},
    {FW_ERR_NO_SOURCE, "no image source"},
    {FW_ERR_BAD_URL, "invalid image url"},
    {FW_ERR_OPEN, "cannot open image"},
    {FW_ERR_HEADER_SHORT, "header cut short"},
    {FW_ERR_BAD_MAGIC, "bad magic"},
    {FW_ERR_HEADER_VERSION, "unknown header version"},
    {FW_ERR_BAD_FIELD, "malformed header field"},
    {FW_ERR_WRONG_FAMILY, "image for another device family"},
    {FW_ERR_NO_KEY, "verifying key missing or unusable"},
    {FW_ERR_BAD_SIGNATURE, "bad signature"},
    {FW_ERR_PAYLOAD_SHORT, "payload cut short"},
    {FW_ERR_PAYLOAD_LONG, "payload longer than announced"},
    {FW_ERR_BAD_DIGEST, "payload digest mismatch"},
    {FW_ERR_WRITE, "cannot write firmware slot"},
};

struct PkeyFree {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using PkeyPtr = std::unique_ptr<EVP_PKEY, PkeyFree>;
struct MdCtxFree {
  void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};
using MdCtxPtr = std::unique_ptr<EVP_MD_CTX, MdCtxFree>;

uint64_t readBig(const uint8_t* p, size_t bytes) {
  uint64_t v = 0;
  for (size_t i = 0; i < bytes; ++i) v = (v << 8) | p[i];
  return v;
}

void writeBig(std::string& out, size_t offset, uint64_t v, size_t bytes) {
  for (size_t i = 0; i < bytes; ++i) out[offset + bytes - 1 - i] = static_cast<char>((v >> (8 * i)) & 0xff);
}

// A zero-terminated field of printable characters; false when it is anything else.
bool readText(const uint8_t* field, size_t size, std::string& out) {
  const void* end = memchr(field, 0, size);
  if (!end) return false;
  out.assign(reinterpret_cast<const char*>(field), static_cast<const uint8_t*>(end) - field);
  for (char c : out)
    if (c < 0x20 || c > 0x7e) return false;
  return true;
}

bool writeText(std::string& out, size_t offset, const std::string& text, size_t size) {
  if (text.size() >= size) return false;
  memcpy(&out[offset], text.data(), text.size());
  return true;
}

std::vector<std::string> splitModels(const std::string& text) {
  std::vector<std::string> models;
  size_t start = 0;
  while (start <= text.size() && !text.empty()) {
    size_t comma = text.find(',', start);
    if (comma == std::string::npos) comma = text.size();
    if (comma > start) models.push_back(text.substr(start, comma - start));
    start = comma + 1;
  }
  return models;
}

std::string joinModels(const std::vector<std::string>& models) {
  std::string text;
  for (const std::string& m : models) text += (text.empty() ? "" : ",") + m;
  return text;
}

PkeyPtr loadKey(const std::string& path, bool isPrivate) {
  FilePtr file(fopen(path.c_str(), "rb"));
  if (!file) return nullptr;
  EVP_PKEY* key = isPrivate ? PEM_read_PrivateKey(file.get(), nullptr, nullptr, nullptr)
                            : PEM_read_PUBKEY(file.get(), nullptr, nullptr, nullptr);
  if (key && EVP_PKEY_id(key) != EVP_PKEY_ED25519) {
    EVP_PKEY_free(key);
    return nullptr;
  }
  return PkeyPtr(key);
}

int verifySignature(const uint8_t* header, const std::string& keyPath) {
  PkeyPtr key = loadKey(keyPath, false);
  if (!key) return FW_ERR_NO_KEY;
  MdCtxPtr ctx(EVP_MD_CTX_new());
  if (!ctx || EVP_DigestVerifyInit(ctx.get(), nullptr, nullptr, nullptr, key.get()) != 1) return FW_ERR_NO_KEY;
  int ok = EVP_DigestVerify(ctx.get(), header + kOffSignature, kFirmwareSignatureSize, header, kFirmwareSignedSize);
  return ok == 1 ? FW_OK : FW_ERR_BAD_SIGNATURE;
}

// Fills the buffer from the source; the bytes actually read.
size_t readFull(firmwareImageSource& source, uint8_t* buffer, size_t size) {
  size_t got = 0;
  while (got < size) {
    int n = source.Read(buffer + got, static_cast<int>(size - got));
    if (n <= 0) break;
    got += static_cast<size_t>(n);
  }
  return got;
}

// Hashes the payload (and stages it when `stage` is open); checks its length and digest.
int readPayload(firmwareImageSource& source, const firmwareHeader& header, FILE* stage) {
  MdCtxPtr ctx(EVP_MD_CTX_new());
  if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_sha256(), nullptr) != 1) return FW_ERR_BAD_ARGUMENT;
  std::vector<uint8_t> chunk(kPayloadChunk);
  uint64_t left = header.payloadLength;
  while (left > 0) {
    size_t want = static_cast<size_t>(std::min<uint64_t>(left, chunk.size()));
    size_t got = readFull(source, chunk.data(), want);
    EVP_DigestUpdate(ctx.get(), chunk.data(), got);
    if (stage && fwrite(chunk.data(), 1, got, stage) != got) return FW_ERR_WRITE;
    left -= got;
    if (got < want) return FW_ERR_PAYLOAD_SHORT;
  }
  uint8_t extra = 0;
  if (readFull(source, &extra, 1) != 0) return FW_ERR_PAYLOAD_LONG;
  uint8_t digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_DigestFinal_ex(ctx.get(), digest, &length) != 1 || length != kFirmwareDigestSize) return FW_ERR_BAD_ARGUMENT;
  return memcmp(digest, header.digest, kFirmwareDigestSize) == 0 ? FW_OK : FW_ERR_BAD_DIGEST;
}

// mkdir -p of a host directory.
bool makeParents(const std::string& dir) {
  for (size_t slash = dir.find('/', 1);; slash = dir.find('/', slash + 1)) {
    std::string part = dir.substr(0, slash);
    if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) return false;
    if (slash == std::string::npos) return true;
  }
}

void syncDirectory(const std::string& dir) {
  int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY);
  if (fd < 0) return;
  fsync(fd);
  close(fd);
}

// Copies the staged payload beside the slot, syncs it and renames it over the slot.
bool installStaged(const std::string& stagedHost, const std::string& slotPath) {
  std::string slotHost = hostPath(slotPath);
  std::string dir = slotHost.substr(0, slotHost.rfind('/'));
  if (!makeParents(dir)) return false;
  std::string temp = slotHost + ".new";
  FilePtr in(fopen(stagedHost.c_str(), "rb"));
  FilePtr out(fopen(temp.c_str(), "wb"));
  if (!in || !out) return false;
  std::vector<char> chunk(kPayloadChunk);
  size_t n;
  bool ok = true;
  while (ok && (n = fread(chunk.data(), 1, chunk.size(), in.get())) > 0) ok = fwrite(chunk.data(), 1, n, out.get()) == n;
  ok = ok && !ferror(in.get()) && fflush(out.get()) == 0 && fsync(fileno(out.get())) == 0;
  out.reset();
  if (!ok || rename(temp.c_str(), slotHost.c_str()) != 0) {
    remove(temp.c_str());
    return false;
  }
  syncDirectory(dir);
  return true;
}

std::mutex& servicesMutex() {
  static std::mutex m;
  return m;
}
firmwareServices& servicesSlot() {
  static firmwareServices services;
  return services;
}

std::string deviceFamily() {
  const firmwareServices& services = firmwareGetServices();
  return services.deviceFamily ? services.deviceFamily() : "";
}

}  // namespace

const char* firmware_GetStatusName(int status) {
  for (const StatusName& s : kStatusNames)
    if (s.status == status) return s.name;
  return status < 0 ? "unknown failure" : "ok";
}

int firmwareParseHeader(const uint8_t* data, size_t size, firmwareHeader* out) {
  if (!data || !out) return FW_ERR_BAD_ARGUMENT;
  // Judge what arrived before complaining about what did not: a wrong file is told from a short one.
  if (size < sizeof kMagic) return memcmp(data, kMagic, size) == 0 ? FW_ERR_HEADER_SHORT : FW_ERR_BAD_MAGIC;
  if (memcmp(data, kMagic, sizeof kMagic) != 0) return FW_ERR_BAD_MAGIC;
  if (size < kOffSize) return FW_ERR_HEADER_SHORT;
  if (readBig(data + kOffVersion, 2) != kFirmwareHeaderVersion) return FW_ERR_HEADER_VERSION;
  if (size < kFirmwareHeaderSize) return FW_ERR_HEADER_SHORT;
  firmwareHeader h;
  h.headerVersion = static_cast<uint16_t>(readBig(data + kOffVersion, 2));
  std::string models;
  if (readBig(data + kOffSize, 2) != kFirmwareHeaderSize || !readText(data + kOffFamily, kFirmwareFamilyField, h.family) ||
      h.family.empty() || !readText(data + kOffModels, kFirmwareModelsField, models) ||
      !readText(data + kOffFirmwareVersion, kFirmwareVersionField, h.version))
    return FW_ERR_BAD_FIELD;
  h.models = splitModels(models);
  h.payloadLength = readBig(data + kOffLength, 8);
  if (h.payloadLength > kFirmwarePayloadMax) return FW_ERR_BAD_FIELD;
  memcpy(h.digest, data + kOffDigest, kFirmwareDigestSize);
  memcpy(h.signature, data + kOffSignature, kFirmwareSignatureSize);
  *out = h;
  return FW_OK;
}

std::string firmwareEncodeHeader(const firmwareHeader& h) {
  std::string out(kFirmwareHeaderSize, '\0');
  memcpy(&out[0], kMagic, sizeof kMagic);
  writeBig(out, kOffVersion, h.headerVersion, 2);
  writeBig(out, kOffSize, kFirmwareHeaderSize, 2);
  if (!writeText(out, kOffFamily, h.family, kFirmwareFamilyField) ||
      !writeText(out, kOffModels, joinModels(h.models), kFirmwareModelsField) ||
      !writeText(out, kOffFirmwareVersion, h.version, kFirmwareVersionField))
    return "";
  writeBig(out, kOffLength, h.payloadLength, 8);
  memcpy(&out[kOffDigest], h.digest, kFirmwareDigestSize);
  memcpy(&out[kOffSignature], h.signature, kFirmwareSignatureSize);
  return out;
}

int firmwareCheckHeader(const uint8_t* data, size_t size, const std::string& family, const std::string& keyPath,
                        firmwareHeader* out) {
  firmwareHeader header;
  int status = firmwareParseHeader(data, size, &header);
  if (status != FW_OK) return status;
  if (!family.empty() && header.family != family) return FW_ERR_WRONG_FAMILY;
  status = verifySignature(data, keyPath);
  if (status == FW_OK && out) *out = header;
  return status;
}

int firmwareSignHeader(std::string& headerBytes, const std::string& privateKeyPath) {
  if (headerBytes.size() != kFirmwareHeaderSize) return FW_ERR_BAD_ARGUMENT;
  PkeyPtr key = loadKey(privateKeyPath, true);
  if (!key) return FW_ERR_NO_KEY;
  MdCtxPtr ctx(EVP_MD_CTX_new());
  size_t length = kFirmwareSignatureSize;
  auto* bytes = reinterpret_cast<uint8_t*>(&headerBytes[0]);
  if (!ctx || EVP_DigestSignInit(ctx.get(), nullptr, nullptr, nullptr, key.get()) != 1 ||
      EVP_DigestSign(ctx.get(), bytes + kOffSignature, &length, bytes, kFirmwareSignedSize) != 1 ||
      length != kFirmwareSignatureSize)
    return FW_ERR_NO_KEY;
  return FW_OK;
}

void firmwareSetServices(const firmwareServices& services) {
  std::lock_guard<std::mutex> lock(servicesMutex());
  servicesSlot() = services;
}

const firmwareServices& firmwareGetServices() {
  std::lock_guard<std::mutex> lock(servicesMutex());
  return servicesSlot();
}

int firmwareVerifyImage(firmwareImageSource& source, const std::string& family, const std::string& keyPath,
                        const std::string& slotPath, firmwareHeader* out) {
  uint8_t headerBytes[kFirmwareHeaderSize];
  size_t got = readFull(source, headerBytes, sizeof headerBytes);
  firmwareHeader header;
  int status = firmwareCheckHeader(headerBytes, got, family, keyPath, &header);
  if (status != FW_OK) return status;
  std::string stagedHost;
  FilePtr stage;
  if (!slotPath.empty()) {
    stagedHost = hostPath(kStagingPath);
    makeParents(stagedHost.substr(0, stagedHost.rfind('/')));
    stage.reset(fopen(stagedHost.c_str(), "wb"));
    if (!stage) return FW_ERR_WRITE;
  }
  status = readPayload(source, header, stage.get());
  if (stage && fclose(stage.release()) != 0 && status == FW_OK) status = FW_ERR_WRITE;
  if (status == FW_OK && !slotPath.empty() && !installStaged(stagedHost, slotPath)) status = FW_ERR_WRITE;
  if (!stagedHost.empty()) remove(stagedHost.c_str());
  if (status == FW_OK && out) *out = header;
  return status;
}

int firmware_Upgrade(const char* url, int32_t timeoutMs, bool flash, bool headerOnly, bool resume) {
  if (!url) return FW_ERR_BAD_ARGUMENT;
  const firmwareServices services = firmwareGetServices();
  if (!services.open) return FW_ERR_NO_SOURCE;
  bool onlyHeader = headerOnly && !flash;
  int status = FW_ERR_OPEN;
  std::unique_ptr<firmwareImageSource> source = services.open(url, timeoutMs, onlyHeader, resume, &status);
  if (!source) return status < 0 ? status : FW_ERR_OPEN;
  std::string family = deviceFamily();
  std::string keyPath = hostPath(kFirmwareKeyPath);
  if (onlyHeader) {
    uint8_t headerBytes[kFirmwareHeaderSize];
    size_t got = readFull(*source, headerBytes, sizeof headerBytes);
    return firmwareCheckHeader(headerBytes, got, family, keyPath, nullptr);
  }
  return firmwareVerifyImage(*source, family, keyPath, flash ? kFirmwareSlotPath : "", nullptr);
}

int firmwareFlashFromSource(firmwareImageSource& source) {
  return firmwareVerifyImage(source, deviceFamily(), hostPath(kFirmwareKeyPath), kFirmwareSlotPath, nullptr);
}
