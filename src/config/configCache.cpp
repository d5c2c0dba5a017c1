#define LOG_MODULE "./src/autoParser"
#include "configCache.h"

#include <dirent.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <utility>
#include <vector>

#include "autoParserModel.h"
#include "log.h"
#include "paths.h"
#include "privateTmp.h"

namespace configCache {
namespace {

struct Entry {
  httpValidators validators;
  std::string body;
};

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

std::string entryPath(const std::string& urlText, const char* suffix) {
  return std::string(kConfigCacheDir) + "/" + md5Hex(urlText) + suffix;
}

// The folder, made 0700 when missing; false when something else (a link, a file) holds its name.
bool ensureFolder() {
  const std::string host = hostPath(kConfigCacheDir);
  struct stat info;
  if (lstat(host.c_str(), &info) != 0) {
    mkdir(hostPath("/config/provisor.d").c_str(), 0700);
    if (mkdir(host.c_str(), 0700) != 0 || lstat(host.c_str(), &info) != 0) return false;
  }
  return S_ISDIR(info.st_mode) && info.st_uid == geteuid();
}

std::string metaText(const Entry& entry) {
  return "etag=" + entry.validators.etag + "\nlastModified=" + entry.validators.lastModified +
         "\nsize=" + std::to_string(entry.body.size()) + "\nmd5=" + md5Hex(entry.body) + "\n";
}

// Reads an entry whole; false when any part is missing or does not match the rest.
bool readEntry(const std::string& urlText, Entry& entry) {
  std::string meta;
  if (!readTextFile(entryPath(urlText, ".meta"), meta) || meta.size() > 4 * kMaxValidatorLength) return false;
  if (pathFileSize(entryPath(urlText, ".body")) > kMaxConfigFileSize ||
      !readTextFile(entryPath(urlText, ".body"), entry.body))
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

// Keeps the newest kMaxCachedConfigFiles entries (by the time their meta was written).
void prune() {
  std::vector<std::string> names;
  if (listDirectoryNames(kConfigCacheDir, names) < 0) return;
  std::vector<std::pair<time_t, std::string>> metas;
  for (const std::string& name : names) {
    if (name.size() < 5 || name.compare(name.size() - 5, 5, ".meta") != 0) continue;
    struct stat info;
    if (lstat(hostPath(std::string(kConfigCacheDir) + "/" + name).c_str(), &info) == 0)
      metas.emplace_back(info.st_mtime, name.substr(0, name.size() - 5));
  }
  if (metas.size() <= kMaxCachedConfigFiles) return;
  std::sort(metas.begin(), metas.end());
  for (size_t i = 0; i + kMaxCachedConfigFiles < metas.size(); ++i)
    for (const char* suffix : {".meta", ".body"})
      unlink(hostPath(std::string(kConfigCacheDir) + "/" + metas[i].second + suffix).c_str());
}

}  // namespace

bool lookup(const std::string& urlText, httpValidators& validators) {
  Entry entry;
  if (!readEntry(urlText, entry)) return false;
  validators = entry.validators;
  return true;
}

bool restore(const std::string& urlText, const std::string& path) {
  Entry entry;
  return readEntry(urlText, entry) && writePrivateFile(path, entry.body);
}

void remember(const std::string& urlText, const httpValidators& validators, const std::string& path) {
  if (validators.empty() || !isSafeValidator(validators.etag) || !isSafeValidator(validators.lastModified)) return;
  Entry kept, fresh;
  fresh.validators = validators;
  if (pathFileSize(path) > kMaxConfigFileSize || !readTextFile(path, fresh.body)) return;
  if (readEntry(urlText, kept) && kept.body == fresh.body && kept.validators.etag == validators.etag &&
      kept.validators.lastModified == validators.lastModified)
    return;
  if (!ensureFolder()) {
    LOG_WAR("Can't keep downloaded files in %s", kConfigCacheDir);
    return;
  }
  // The body first: a meta that names a body not yet written would only fail its own check.
  if (writeFileAtomic(entryPath(urlText, ".body"), fresh.body))
    writeFileAtomic(entryPath(urlText, ".meta"), metaText(fresh));
  prune();
}

}  // namespace configCache
