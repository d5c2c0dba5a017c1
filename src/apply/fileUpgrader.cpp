#define LOG_MODULE "./src/fileUpgrader"
#include "fileUpgrader.h"

#include <openssl/evp.h>

#include <cstdio>
#include <cstring>
#include <new>

#include "binUpgrader.h"
#include "cfgUpgrader.h"
#include "log.h"
#include "paths.h"
#include "pwdUpgrader.h"
#include "romUpgrader.h"

namespace {

// The operation word is compared from a 30-byte buffer: longer words never name an operation.
constexpr size_t kOperationWordMax = 29;
constexpr size_t kMd5ReadBlock = 1024;

struct EvpMdCtxFree {
  void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};
using EvpMdCtxPtr = std::unique_ptr<EVP_MD_CTX, EvpMdCtxFree>;

}  // namespace

autoFileUpgrader::~autoFileUpgrader() = default;

int autoFileUpgrader::upgradeItem(autopItem* item) { return item ? 1 : 0; }

int autoFileUpgrader::upgrade(autopItemList& items) {
  if (items.empty()) return 0;
  bool allApplied = true;
  for (auto& item : items) {
    if (!upgradeItem(item.get())) allApplied = false;
  }
  return allApplied ? 1 : 0;
}

std::unique_ptr<autoFileUpgrader> createFileUpgrader(int32_t type) {
  autoFileUpgrader* pUpgrader = nullptr;
  switch (type) {
    case kUpgradeTypeCfg:
      pUpgrader = new (std::nothrow) autoCfgUpgrader();
      break;
    case kUpgradeTypeBin:
      pUpgrader = new (std::nothrow) autoBinUpgrader();
      break;
    case kUpgradeTypePwd:
      pUpgrader = new (std::nothrow) autoPwdUpgader();
      break;
    case kUpgradeTypeRom:
      pUpgrader = new (std::nothrow) autoRomUpgrader();
      break;
    default:
      return nullptr;
  }
  LOG_CHECK(NULL != pUpgrader);
  return std::unique_ptr<autoFileUpgrader>(pUpgrader);
}

int32_t upgradeTypeOf(const char* text) {
  if (!text) return kUpgradeTypeNone;
  if (strcmp(text, "cfg") == 0) return kUpgradeTypeCfg;
  if (strcmp(text, "bin") == 0) return kUpgradeTypeBin;
  if (strcmp(text, "pwd") == 0) return kUpgradeTypePwd;
  if (strcmp(text, "rom") == 0) return kUpgradeTypeRom;
  return kUpgradeTypeNone;
}

int32_t operationOf(const char* text) {
  if (!text) return kOperationCover;
  const char* dot = strchr(text, '.');
  if (!dot) return kOperationCover;
  size_t length = static_cast<size_t>(dot - text);
  if (length > kOperationWordMax) return kOperationUnknown;
  std::string word(text, length);
  if (word == "cover") return kOperationCover;
  if (word == "modify") return kOperationModify;
  if (word == "delete") return kOperationDelete;
  return kOperationUnknown;
}

int fileMd5(const std::string& path, std::string* out) {
  if (!out) {
    LOG_IFO("MD5 error\n");
    return 0;
  }
  FilePtr file = openFile(path, "rb");
  if (!file) {
    LOG_IFO("%s can't be opened\n", path.c_str());
    return 0;
  }
  EvpMdCtxPtr ctx(EVP_MD_CTX_new());
  if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_md5(), nullptr) != 1) {
    LOG_IFO("MD5 error\n");
    return 0;
  }
  unsigned char block[kMd5ReadBlock];
  size_t count = 0;
  while ((count = fread(block, 1, sizeof block, file.get())) > 0) EVP_DigestUpdate(ctx.get(), block, count);
  if (ferror(file.get())) {
    LOG_IFO("%s can't be opened\n", path.c_str());
    return 0;
  }
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int digestLength = 0;
  if (EVP_DigestFinal_ex(ctx.get(), digest, &digestLength) != 1) {
    LOG_IFO("MD5 error\n");
    return 0;
  }
  char hex[2 * EVP_MAX_MD_SIZE + 1] = {};
  for (unsigned int i = 0; i < digestLength; ++i) snprintf(hex + 2 * i, 3, "%02x", digest[i]);
  out->assign(hex, 2 * digestLength);
  return 1;
}

std::string commonDestinationPath(const autopItemList& items) {
  std::string path;
  for (const auto& item : items) {
    if (!item || item->path.empty()) continue;
    if (path.empty())
      path = item->path;
    else if (item->path != path)
      return "";
  }
  return path;
}
