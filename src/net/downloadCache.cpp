#define LOG_MODULE "./src/fileStream"
#include "downloadCache.h"

#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <utility>
#include <vector>

#include "autopSettings.h"
#include "log.h"
#include "paths.h"

namespace {

constexpr int64_t kMaxKeptConfigBytes = kMaxConfigFileBytes;
constexpr size_t kMaxKeptConfigFiles = 8;
constexpr size_t kMaxKeptResources = 64;

std::string md5Hex(const std::string& bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_md5(), nullptr) != 1) return "";
  std::string hex;
  char pair[3];
  for (unsigned int i = 0; i < length; ++i) {
    snprintf(pair, sizeof(pair), "%02x", digest[i]);
    hex += pair;
  }
  return hex;
}

bool endsWith(const std::string& text, const std::string& tail) {
  return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

}  // namespace

struct downloadCache::Entry {
  httpValidators validators;
  std::string body;
};

downloadCache::downloadCache(const std::string& folder, size_t maxEntries, int64_t maxBodyBytes)
    : folder_(folder), maxEntries_(maxEntries), maxBodyBytes_(maxBodyBytes) {}

downloadCache& downloadCache::configFiles() {
  static downloadCache cache(std::string(kDownloadCacheDir) + "/files", kMaxKeptConfigFiles, kMaxKeptConfigBytes);
  return cache;
}

downloadCache& downloadCache::resources() {
  static downloadCache cache(std::string(kDownloadCacheDir) + "/resources", kMaxKeptResources, 0);
  return cache;
}

std::string downloadCache::entryPath(const std::string& urlText, const char* suffix) const {
  return folder_ + "/" + md5Hex(urlText) + suffix;
}

// The folders, made 0700 when missing; false when something else (a link, a file) holds a name.
bool downloadCache::ensureFolder() const {
  for (const std::string& logical : {std::string("/config/provisor.d"), std::string(kDownloadCacheDir), folder_}) {
    const std::string host = hostPath(logical);
    struct stat info;
    if (lstat(host.c_str(), &info) != 0 && (mkdir(host.c_str(), 0700) != 0 || lstat(host.c_str(), &info) != 0))
      return false;
    if (!S_ISDIR(info.st_mode) || info.st_uid != geteuid()) return false;
  }
  return true;
}

bool downloadCache::readEntry(const std::string& urlText, Entry& entry) const {
  std::string meta;
  if (pathFileSize(entryPath(urlText, ".meta")) > static_cast<int64_t>(4 * kMaxValidatorLength) ||
      !readTextFile(entryPath(urlText, ".meta"), meta))
    return false;
  if (maxBodyBytes_ > 0 && (pathFileSize(entryPath(urlText, ".body")) > maxBodyBytes_ ||
                            !readTextFile(entryPath(urlText, ".body"), entry.body)))
    return false;
  std::string size, md5;
  size_t start = 0;
  for (size_t end; (end = meta.find('\n', start)) != std::string::npos; start = end + 1) {
    const std::string line = meta.substr(start, end - start);
    const size_t equals = line.find('=');
    if (equals == std::string::npos) return false;
    const std::string key = line.substr(0, equals), value = line.substr(equals + 1);
    if (key == "etag") entry.validators.etag = value;
    if (key == "lastModified") entry.validators.lastModified = value;
    if (key == "size") size = value;
    if (key == "md5") md5 = value;
  }
  return !entry.validators.empty() && isSafeValidator(entry.validators.etag) &&
         isSafeValidator(entry.validators.lastModified) && size == std::to_string(entry.body.size()) &&
         md5 == md5Hex(entry.body);
}

bool downloadCache::lookup(const std::string& urlText, httpValidators& validators) const {
  Entry entry;
  if (!readEntry(urlText, entry)) return false;
  validators = entry.validators;
  return true;
}

bool downloadCache::keptBytes(const std::string& urlText, std::string& bytes) const {
  Entry entry;
  if (maxBodyBytes_ <= 0 || !readEntry(urlText, entry)) return false;
  bytes.swap(entry.body);
  return true;
}

void downloadCache::remember(const std::string& urlText, const httpValidators& validators,
                             const std::string& path) const {
  if (validators.empty() || !isSafeValidator(validators.etag) || !isSafeValidator(validators.lastModified)) return;
  Entry kept, fresh;
  fresh.validators = validators;
  if (maxBodyBytes_ > 0 && (pathFileSize(path) > maxBodyBytes_ || !readTextFile(path, fresh.body))) return;
  if (readEntry(urlText, kept) && kept.body == fresh.body && kept.validators.etag == validators.etag &&
      kept.validators.lastModified == validators.lastModified)
    return;
  if (!ensureFolder()) {
    LOG_WAR("Can't keep what the server answered in %s", folder_.c_str());
    return;
  }
  const std::string meta = "etag=" + validators.etag + "\nlastModified=" + validators.lastModified +
                           "\nsize=" + std::to_string(fresh.body.size()) + "\nmd5=" + md5Hex(fresh.body) + "\n";
  // The body first: a meta that names a body not yet written only fails its own check.
  if (maxBodyBytes_ > 0 && !writeFileAtomic(entryPath(urlText, ".body"), fresh.body)) return;
  writeFileAtomic(entryPath(urlText, ".meta"), meta);
  prune();
}

void downloadCache::forget(const std::string& urlText) const {
  for (const char* suffix : {".meta", ".body"}) unlink(hostPath(entryPath(urlText, suffix)).c_str());
}

// Keeps the newest maxEntries_ entries (by the time their meta was written).
void downloadCache::prune() const {
  std::vector<std::string> names;
  if (listDirectoryNames(folder_, names) < 0) return;
  std::vector<std::pair<time_t, std::string>> metas;
  for (const std::string& name : names) {
    struct stat info;
    if (endsWith(name, ".meta") && lstat(hostPath(folder_ + "/" + name).c_str(), &info) == 0)
      metas.emplace_back(info.st_mtime, name.substr(0, name.size() - 5));
  }
  if (metas.size() <= maxEntries_) return;
  std::sort(metas.begin(), metas.end());
  for (size_t i = 0; i + maxEntries_ < metas.size(); ++i)
    for (const char* suffix : {".meta", ".body"}) unlink(hostPath(folder_ + "/" + metas[i].second + suffix).c_str());
}
