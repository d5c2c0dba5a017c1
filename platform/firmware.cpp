#define LOG_MODULE "./platform/firmware"
#include "firmware.h"

#include <dirent.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <mutex>

#include "descriptor.h"
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
    {FW_ERR_EMPTY_PAYLOAD, "empty payload"},
    {FW_ERR_UNKNOWN_FAMILY, "device family unknown"},
    {FW_ERR_WRONG_MODEL, "image for another model"},
    {FW_ERR_DOWNGRADE, "older than the running firmware"},
    {FW_ALREADY_INSTALLED, "already installed"},
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

using Digest = std::array<uint8_t, kFirmwareDigestSize>;

bool finishDigest(EVP_MD_CTX* ctx, Digest& digest) {
  uint8_t out[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_DigestFinal_ex(ctx, out, &length) != 1 || length != kFirmwareDigestSize) return false;
  memcpy(digest.data(), out, kFirmwareDigestSize);
  return true;
}

// Moves exactly the announced payload from the source to `sink` one chunk at a time, so memory stays
// at one chunk whatever the image size; then makes sure nothing follows it.
template <class Sink>
int streamPayload(firmwareImageSource& source, uint64_t length, Sink sink) {
  std::vector<uint8_t> chunk(kPayloadChunk);
  uint64_t left = length;
  while (left > 0) {
    size_t want = static_cast<size_t>(std::min<uint64_t>(left, chunk.size()));
    size_t got = readFull(source, chunk.data(), want);
    if (!sink(chunk.data(), got)) return FW_ERR_WRITE;
    left -= got;
    if (got < want) return FW_ERR_PAYLOAD_SHORT;
  }
  uint8_t extra = 0;
  return readFull(source, &extra, 1) != 0 ? FW_ERR_PAYLOAD_LONG : FW_OK;
}

// The digest of the first `length` bytes behind a descriptor, read back from it.
bool digestOfDescriptor(int fd, uint64_t length, Digest& digest) {
  MdCtxPtr ctx(EVP_MD_CTX_new());
  if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_sha256(), nullptr) != 1) return false;
  std::vector<uint8_t> chunk(kPayloadChunk);
  uint64_t offset = 0;
  while (offset < length) {
    size_t want = static_cast<size_t>(std::min<uint64_t>(length - offset, chunk.size()));
    ssize_t got = pread(fd, chunk.data(), want, static_cast<off_t>(offset));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    EVP_DigestUpdate(ctx.get(), chunk.data(), static_cast<size_t>(got));
    offset += static_cast<uint64_t>(got);
  }
  return finishDigest(ctx.get(), digest);
}

int compareDigest(const Digest& digest, const firmwareHeader& header) {
  return memcmp(digest.data(), header.digest, kFirmwareDigestSize) == 0 ? FW_OK : FW_ERR_BAD_DIGEST;
}

// Only checks: hashes the payload as it streams past.
int verifyPayload(firmwareImageSource& source, const firmwareHeader& header) {
  MdCtxPtr ctx(EVP_MD_CTX_new());
  if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_sha256(), nullptr) != 1) return FW_ERR_BAD_ARGUMENT;
  int status = streamPayload(source, header.payloadLength, [&](const uint8_t* data, size_t size) {
    return EVP_DigestUpdate(ctx.get(), data, size) == 1;
  });
  if (status != FW_OK) return status;
  Digest digest;
  return finishDigest(ctx.get(), digest) ? compareDigest(digest, header) : FW_ERR_BAD_ARGUMENT;
}

// mkdir -p of a host directory.
bool makeParents(const std::string& dir) {
  for (size_t slash = dir.find('/', 1);; slash = dir.find('/', slash + 1)) {
    std::string part = dir.substr(0, slash);
    if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) return false;
    if (slash == std::string::npos) return true;
  }
}

// The payload's way into the slot: a file of our own in the slot's folder, created exclusively and
// never through a link, written, checked by reading it back from the same descriptor, and renamed
// over the slot only then. Nothing is reopened by name, so a file renamed or a link planted by
// another process never becomes the slot; and the payload never sits in /tmp (RAM on the phone).
// Unless committed, the file is unlinked when the writer goes.
class slotWriter {
 public:
  explicit slotWriter(const std::string& slotHost) : m_slot(slotHost) {}
  ~slotWriter() {
    if (!m_temporary.empty() && !m_committed) unlink(m_temporary.c_str());
  }
  slotWriter(const slotWriter&) = delete;
  slotWriter& operator=(const slotWriter&) = delete;

  bool create() {
    size_t slash = m_slot.rfind('/');
    if (slash == std::string::npos || !makeParents(m_slot.substr(0, slash))) return false;
    removeLeftovers(m_slot.substr(0, slash), m_slot.substr(slash + 1) + kTemporaryMark);
    for (int attempt = 0; attempt < 8 && !m_fd.valid(); ++attempt) {
      std::string name = m_slot + kTemporaryMark + randomHex();
      m_fd.reset(open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
      if (m_fd.valid())
        m_temporary = name;
      else if (errno != EEXIST)
        return false;
    }
    return m_fd.valid();
  }

  bool write(const uint8_t* data, size_t size) {
    m_written += size;
    return writeAll(m_fd.get(), data, size);
  }

  // The digest of what the file holds, checked against the header.
  int check(const firmwareHeader& header) {
    Digest digest;
    if (m_written != header.payloadLength || !digestOfDescriptor(m_fd.get(), m_written, digest)) return FW_ERR_WRITE;
    return compareDigest(digest, header);
  }

  // fsync, then rename over the slot while the name still holds our file; the folder is synced so
  // the rename survives a power loss.
  bool commit() {
    if (fsync(m_fd.get()) != 0 || !stillOurs()) return false;
    if (rename(m_temporary.c_str(), m_slot.c_str()) != 0) return false;
    m_committed = true;
    syncParentDirectory(m_slot);
    return true;
  }

 private:
  static constexpr const char* kTemporaryMark = ".new-";

  static std::string randomHex() {
    uint8_t bytes[8];
    if (RAND_bytes(bytes, sizeof bytes) != 1) return std::to_string(getpid());
    char text[2 * sizeof bytes + 1];
    for (size_t i = 0; i < sizeof bytes; ++i) snprintf(text + 2 * i, 3, "%02x", bytes[i]);
    return text;
  }

  // A power loss mid-write leaves a file of ours beside the slot: removed before the next install
  // (links and folders of that name are not ours and stay).
  static void removeLeftovers(const std::string& dir, const std::string& prefix) {
    DIR* listing = opendir(dir.c_str());
    if (!listing) return;
    while (dirent* entry = readdir(listing)) {
      std::string path = dir + "/" + entry->d_name;
      struct stat st;
      if (strncmp(entry->d_name, prefix.c_str(), prefix.size()) == 0 && lstat(path.c_str(), &st) == 0 &&
          S_ISREG(st.st_mode))
        unlink(path.c_str());
    }
    closedir(listing);
  }

  bool stillOurs() const {
    struct stat mine, named;
    return fstat(m_fd.get(), &mine) == 0 && lstat(m_temporary.c_str(), &named) == 0 && mine.st_dev == named.st_dev &&
           mine.st_ino == named.st_ino;
  }

  std::string m_slot;
  std::string m_temporary;
  UniqueFd m_fd;
  uint64_t m_written = 0;
  bool m_committed = false;
};

int flashPayload(firmwareImageSource& source, const firmwareHeader& header, const std::string& slotPath) {
  slotWriter slot(hostPath(slotPath));
  if (!slot.create()) return FW_ERR_WRITE;
  int status = streamPayload(source, header.payloadLength,
                             [&](const uint8_t* data, size_t size) { return slot.write(data, size); });
  if (status == FW_OK) status = slot.check(header);
  if (status == FW_OK && !slot.commit()) status = FW_ERR_WRITE;
  return status;
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
  if (readBig(data + kOffSize, 2) != kFirmwareHeaderSize ||
      !readText(data + kOffFamily, kFirmwareFamilyField, h.family) || h.family.empty() ||
      !readText(data + kOffModels, kFirmwareModelsField, models) ||
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

int firmwareCompareVersions(const std::string& a, const std::string& b) {
  size_t i = 0, j = 0;
  while (i < a.size() || j < b.size()) {
    size_t endA = std::min(a.find('.', i), a.size()), endB = std::min(b.find('.', j), b.size());
    std::string fieldA = i < a.size() ? a.substr(i, endA - i) : "", fieldB = j < b.size() ? b.substr(j, endB - j) : "";
    size_t digitsA = fieldA.find_first_not_of("0123456789"), digitsB = fieldB.find_first_not_of("0123456789");
    std::string numberA = fieldA.substr(0, digitsA), numberB = fieldB.substr(0, digitsB);
    // As numbers of any length: without leading zeros, the longer is the larger.
    numberA.erase(0, std::min(numberA.find_first_not_of('0'), numberA.size()));
    numberB.erase(0, std::min(numberB.find_first_not_of('0'), numberB.size()));
    if (numberA.size() != numberB.size()) return numberA.size() < numberB.size() ? -1 : 1;
    if (int c = numberA.compare(numberB)) return c < 0 ? -1 : 1;
    std::string restA = digitsA == std::string::npos ? "" : fieldA.substr(digitsA);
    std::string restB = digitsB == std::string::npos ? "" : fieldB.substr(digitsB);
    if (int c = restA.compare(restB)) return c < 0 ? -1 : 1;
    i = endA + 1;
    j = endB + 1;
  }
  return 0;
}

int firmwareJudgeHeader(const firmwareHeader& header, const firmwareDevice& device) {
  // Fail closed: an image for a guessed family could brick the phone.
  if (device.family.empty()) return FW_ERR_UNKNOWN_FAMILY;
  if (header.family != device.family) return FW_ERR_WRONG_FAMILY;
  if (std::find(header.models.begin(), header.models.end(), device.model) == header.models.end())
    return FW_ERR_WRONG_MODEL;
  if (device.runningVersion.empty()) return FW_OK;
  int order = firmwareCompareVersions(header.version, device.runningVersion);
  if (order == 0) return FW_ALREADY_INSTALLED;
  // A validly signed old release may be a known-vulnerable one replayed: only on the owner's word.
  if (order < 0 && !device.allowDowngrade) return FW_ERR_DOWNGRADE;
  return FW_OK;
}

int firmwareCheckHeader(const uint8_t* data, size_t size, const firmwareDevice* device, const std::string& keyPath,
                        firmwareHeader* out) {
  firmwareHeader header;
  int status = firmwareParseHeader(data, size, &header);
  if (status != FW_OK) return status;
  if (header.payloadLength == 0) return FW_ERR_EMPTY_PAYLOAD;
  // The device rules judge signed fields only.
  status = verifySignature(data, keyPath);
  if (status == FW_OK && device) status = firmwareJudgeHeader(header, *device);
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

int firmwareVerifyImage(firmwareImageSource& source, const firmwareDevice* device, const std::string& keyPath,
                        const std::string& slotPath, firmwareHeader* out) {
  uint8_t headerBytes[kFirmwareHeaderSize];
  size_t got = readFull(source, headerBytes, sizeof headerBytes);
  firmwareHeader header;
  int status = firmwareCheckHeader(headerBytes, got, device, keyPath, &header);
  if (status != FW_OK) return status;
  source.SetExpectedSize(kFirmwareHeaderSize + header.payloadLength);
  status = slotPath.empty() ? verifyPayload(source, header) : flashPayload(source, header, slotPath);
  if (status == FW_OK && out) *out = header;
  return status;
}

int firmware_Upgrade(const firmwareServices& services, const char* url, int32_t timeoutMs, bool flash, bool headerOnly,
                     bool resume) {
  if (!url) return FW_ERR_BAD_ARGUMENT;
  if (!services.open) return FW_ERR_NO_SOURCE;
  bool onlyHeader = headerOnly && !flash;
  int status = FW_ERR_OPEN;
  std::unique_ptr<firmwareImageSource> source = services.open(url, timeoutMs, onlyHeader, resume, &status);
  if (!source) return status < 0 ? status : FW_ERR_OPEN;
  const firmwareDevice device = services.device ? services.device() : firmwareDevice();
  std::string keyPath = hostPath(kFirmwareKeyPath);
  if (onlyHeader) {
    uint8_t headerBytes[kFirmwareHeaderSize];
    size_t got = readFull(*source, headerBytes, sizeof headerBytes);
    return firmwareCheckHeader(headerBytes, got, &device, keyPath, nullptr);
  }
  return firmwareVerifyImage(*source, &device, keyPath, flash ? kFirmwareSlotPath : "", nullptr);
}

int firmwareFlashFromSource(firmwareImageSource& source, const firmwareDevice& device) {
  return firmwareVerifyImage(source, &device, hostPath(kFirmwareKeyPath), kFirmwareSlotPath, nullptr);
}
