// autoptool image build|verify and autoptool safemode-install: the administrator's side of signed
// firmware images (format in platform/firmware.h) and the host's stand-in for the boot loader's
// safe-mode install.
#define LOG_MODULE "./tools/autoptool"
#include <openssl/evp.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "autoptool.h"
#include "device.h"
#include "firmware.h"
#include "firmwareSource.h"
#include "log.h"
#include "paths.h"
#include "redact.h"

namespace {

constexpr int32_t kSafeModeTimeoutMs = 10000;

int fail(const char* what, const std::string& reason) {
  fprintf(stderr, "%s failed: %s\n", what, maskedUrl(reason).c_str());
  return 1;
}

// "--name value" options before the positional arguments.
struct Options {
  std::string key, family, models, version;
  bool headerOnly = false;
  std::vector<std::string> positional;
};

bool parseOptions(int argc, char** argv, Options& o) {
  for (int i = 0; i < argc; ++i) {
    std::string a = argv[i];
    std::string* target = a == "--key"       ? &o.key
                          : a == "--family"  ? &o.family
                          : a == "--models"  ? &o.models
                          : a == "--version" ? &o.version
                                             : nullptr;
    if (a == "--header-only") {
      o.headerOnly = true;
    } else if (target) {
      if (++i >= argc) return false;
      *target = argv[i];
    } else if (a.size() > 1 && a[0] == '-' && a[1] == '-') {
      return false;
    } else {
      o.positional.push_back(a);
    }
  }
  return true;
}

std::vector<std::string> splitList(const std::string& text) {
  std::vector<std::string> parts;
  size_t start = 0;
  while (start < text.size()) {
    size_t comma = text.find(',', start);
    if (comma == std::string::npos) comma = text.size();
    if (comma > start) parts.push_back(text.substr(start, comma - start));
    start = comma + 1;
  }
  return parts;
}

bool readWhole(const std::string& path, std::string& out) {
  FilePtr f(fopen(path.c_str(), "rb"));
  if (!f) return false;
  out.clear();
  char chunk[65536];
  size_t n;
  while ((n = fread(chunk, 1, sizeof chunk, f.get())) > 0) out.append(chunk, n);
  return !ferror(f.get());
}

bool sha256(const std::string& bytes, uint8_t* digest) {
  unsigned int length = 0;
  return EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr) == 1 &&
         length == kFirmwareDigestSize;
}

int imageBuild(const Options& o) {
  if (o.positional.size() != 2 || o.key.empty() || o.family.empty() || o.version.empty()) {
    fprintf(stderr, "usage: autoptool image build --key KEY.pem --family F --models M1,M2 --version V PAYLOAD OUT\n");
    return 1;
  }
  std::string payload;
  if (!readWhole(o.positional[0], payload)) return fail("build", "cannot read " + o.positional[0]);
  // No phone takes an image without firmware in it.
  if (payload.empty()) return fail("build", "empty payload " + o.positional[0]);
  firmwareHeader header;
  header.family = o.family;
  header.models = splitList(o.models);
  header.version = o.version;
  header.payloadLength = payload.size();
  if (!sha256(payload, header.digest)) return fail("build", "digest");
  std::string bytes = firmwareEncodeHeader(header);
  if (bytes.empty()) return fail("build", "family, models or version too long");
  int status = firmwareSignHeader(bytes, o.key);
  if (status != FW_OK) return fail("build", firmware_GetStatusName(status));
  FilePtr out(fopen(o.positional[1].c_str(), "wb"));
  if (!out || fwrite(bytes.data(), 1, bytes.size(), out.get()) != bytes.size() ||
      fwrite(payload.data(), 1, payload.size(), out.get()) != payload.size() || fflush(out.get()) != 0)
    return fail("build", "cannot write " + o.positional[1]);
  return 0;
}

class fileImageSource : public firmwareImageSource {
 public:
  explicit fileImageSource(FILE* f) : m_file(f) {}
  int Read(void* buffer, int n) override { return static_cast<int>(fread(buffer, 1, static_cast<size_t>(n), m_file)); }

 private:
  FILE* m_file;
};

void printHeader(const firmwareHeader& h) {
  std::string models;
  for (const std::string& m : h.models) models += (models.empty() ? "" : ",") + m;
  char digest[2 * kFirmwareDigestSize + 1] = {};
  for (size_t i = 0; i < kFirmwareDigestSize; ++i) snprintf(digest + 2 * i, 3, "%02x", h.digest[i]);
  printf("header version: %u\nfamily: %s\nmodels: %s\nversion: %s\npayload length: %llu\npayload sha256: %s\n",
         h.headerVersion, h.family.c_str(), models.c_str(), h.version.c_str(),
         static_cast<unsigned long long>(h.payloadLength), digest);
}

// What this phone (under $PROVISOR_ROOT) would do with an image that passed its own checks.
void printVerdict(const firmwareHeader& header) {
  firmwareDevice device = currentFirmwareDevice();
  int judged = firmwareJudgeHeader(header, device);
  printf("running version: %s\non this phone: %s%s\n",
         device.runningVersion.empty() ? "unknown" : device.runningVersion.c_str(),
         judged == FW_OK ? "would be installed" : "refused, ", judged == FW_OK ? "" : firmware_GetStatusName(judged));
}

// A local image: every check, header fields printed. A URL: what the phone's library does with it,
// against the key under $PROVISOR_ROOT.
int imageVerify(const Options& o) {
  if (o.positional.size() != 1) {
    fprintf(stderr, "usage: autoptool image verify [--key PUB.pem] [--header-only] IMAGE|URL\n");
    return 1;
  }
  const std::string& image = o.positional[0];
  if (image.find("://") != std::string::npos) {
    int status = firmware_Upgrade(firmwareStreams(), image.c_str(), kSafeModeTimeoutMs, false, o.headerOnly, true);
    std::string running = currentFirmwareDevice().runningVersion;
    printf("running version: %s\n", running.empty() ? "unknown" : running.c_str());
    if (status < 0) return fail("verify", firmware_GetStatusName(status));
    printf("image ok\n");
    return 0;
  }
  FilePtr f(fopen(image.c_str(), "rb"));
  if (!f) return fail("verify", "cannot read " + image);
  std::string key = o.key.empty() ? hostPath(kFirmwareKeyPath) : o.key;
  fileImageSource source(f.get());
  firmwareHeader header;
  int status = firmwareVerifyImage(source, nullptr, key, "", &header);
  if (status < 0) return fail("verify", firmware_GetStatusName(status));
  printHeader(header);
  printVerdict(header);
  return 0;
}

}  // namespace

int autoptoolImage(int argc, char** argv) {
  Options o;
  if (argc < 1 || !parseOptions(argc - 1, argv + 1, o)) {
    fprintf(stderr, "usage: autoptool image build|verify ...\n");
    return 1;
  }
  if (strcmp(argv[0], "build") == 0) return imageBuild(o);
  if (strcmp(argv[0], "verify") == 0) return imageVerify(o);
  fprintf(stderr, "autoptool image: unknown command '%s'\n", argv[0]);
  return 1;
}

// The boot loader at the start after a safe-mode switch: fetch, verify, flash, and leave safe mode
// in every case so that a bad image never keeps the phone looping in it.
int autoptoolSafemodeInstall(int argc, char**) {
  if (argc != 0) {
    fprintf(stderr, "usage: autoptool safemode-install\n");
    return 1;
  }
  if (userenv_get("BOOTMODE") != "safemode") {
    printf("not in safe mode, nothing to install\n");
    return 0;
  }
  std::string url = userenv_get("strUpgradeURL");
  int status = firmware_Upgrade(firmwareStreams(), url.c_str(), kSafeModeTimeoutMs, true, false, true);
  // Cleared only now: a power loss during the install starts the install again.
  bool cleared = userenv_set("BOOTMODE", "") == 0;
  if (status == FW_ALREADY_INSTALLED) {
    LOG_IFO("Safe mode install: the image is the running firmware, nothing to do");
    printf("already installed, nothing to do\n");
    return cleared ? 0 : fail("safemode-install", "cannot clear BOOTMODE");
  }
  if (status < 0) {
    LOG_ERR("Safe mode install failed : %s", firmware_GetStatusName(status));
    return fail("safemode-install", firmware_GetStatusName(status));
  }
  if (!cleared) return fail("safemode-install", "cannot clear BOOTMODE");
  LOG_IFO("Safe mode install done");
  printf("firmware installed\n");
  return 0;
}
