#define LOG_MODULE "./src/autoParser"
#include "autoParser.h"
#include "autopSettings.h"

#include <unistd.h>

#include <algorithm>
#include <string_view>

#include "autopTranslator.h"
#include "baseMethod.h"
#include "binParser.h"
#include "callMethod.h"
#include "downloadCache.h"
#include "device.h"
#include "fileUpgrader.h"
#include "log.h"
#include "mutex.h"
#include "paths.h"
#include "privateTmp.h"
#include "redact.h"
#include "registry.h"
#include "romInstaller.h"

namespace {

constexpr const char* kDigestSection = "OLD_VER";
constexpr const char* kCommonDigestKey = "MD5_CFG";
constexpr const char* kDeviceDigestKey = "MD5_MAC_CFG";
constexpr const char* kPushLockName = "LOCKXML";
constexpr int32_t kOpenTimeoutMs = 5000;
constexpr int kOpenAttempts = 6;
constexpr int32_t kRetryNetworkType = 2;
constexpr const char* kNullValue = "%NULL%";

// Where a batch must end: another upgrade type or target file; for resource items also another
// usage, or another value unless the items edit one file together.
bool startsNewBatch(const autopItem& previous, const autopItem& next) {
  if (previous.type != next.type || previous.path != next.path) return true;
  if (upgradeTypeOf(next.type) != kUpgradeTypeBin) return false;
  if (previous.usage != next.usage) return true;
  return operationOf(next.usage) != kOperationModify && previous.value != next.value;
}

// Every changed item names its calls again: each is queued once, in the order first named.
void queueActions(const std::string& action, std::vector<std::string>& queue) {
  for (std::string& call : splitActionCalls(action))
    if (std::find(queue.begin(), queue.end(), call) == queue.end()) queue.push_back(std::move(call));
}

}  // namespace

autoParser::autoParser(const autopContext& context, const AutopInfo* info) : m_context(context) {
  if (info) {
    LOG_DEB("Set AES var member from autop_info struct !");
    m_keys.infoCommonKey = autopInfoText(info->comAesKey);
    m_keys.infoMacKey = autopInfoText(info->macAesKey);
  }
}

bool autoParser::OpenDownloadStream(const ns_net::autopUrl& url) {
  LOG_IFO("autoParser::OpenDownloadStream ... ");
  m_url = url;
  for (int attempt = 1;; ++attempt) {
    // A file kept from an earlier answer of this URL is asked for only if it changed since.
    httpValidators kept;
    if ((url.scheme == "http" || url.scheme == "https") && downloadCache::configFiles().lookup(url.ToText(), kept))
      m_download.SetValidators(kept);
    if (m_download.OpenDownloadStream(url, kOpenTimeoutMs)) return true;
    LOG_IFO("Failed connect to server ! Try [%d] times ... ", attempt);
    // Only a wired network (type 2) is worth retrying: others give up at once, deliberately.
    if (netGetNetworkType() != kRetryNetworkType || attempt >= kOpenAttempts) break;
  }
  LOG_WAR("Can't connect server !! ");
  return false;
}

void autoParser::CloseDownloadStream() { m_download.Close(); }

// The server said the file did not change: the kept bytes stand in for it. A kept copy that went
// missing or bad since the question means asking again, for the whole file.
bool autoParser::takeKeptCopy() {
  const std::string url = m_url.ToText();
  std::string bytes;
  if (downloadCache::configFiles().keptBytes(url, bytes) && writePrivateFile(kDownloadedConfigPath, bytes)) {
    LOG_IFO("[%s] not modified: the kept copy is used", urlForLog(url).c_str());
    m_fromKeptCopy = true;
    return true;
  }
  LOG_WAR("[%s] not modified, but the kept copy is gone: downloading it whole", urlForLog(url).c_str());
  m_download.Close();
  return false;
}

int autoParser::fetchDownloaded() {
  ensurePrivateTmpDir();
  unlink(hostPath(kDownloadedConfigPath).c_str());
  if (m_download.NotModified()) {
    if (takeKeptCopy()) return checkDownloadedSize();
    if (!m_download.OpenDownloadStream(m_url, kOpenTimeoutMs)) return kUpdateNotDownloaded;
  }
  // The file may hold passwords in clear (before and after decryption): the owner's only.
  createPrivateFile(kDownloadedConfigPath);
  // /tmp lives in RAM: a server that sends without end is cut off just past the limit.
  int64_t written = m_download.DownloadToFile(kDownloadedConfigPath, false, kMaxConfigFileSize);
  // A transfer cut short is never taken for the whole file.
  if (written <= 0 || m_download.LastTransferBroken()) {
    LOG_ERR("Fail to download Autop Config Model !!");
    return kUpdateNotDownloaded;
  }
  int checked = checkDownloadedSize();
  // Kept as received (cipher text stays cipher text), for the next question to this URL.
  if (checked == kUpdateDone) downloadCache::configFiles().remember(m_url.ToText(), m_download.AnswerValidators(), kDownloadedConfigPath);
  return checked;
}

// A file whose size cannot be read is not loaded either: it may be any size.
int autoParser::checkDownloadedSize() {
  int64_t size = fileSize(kDownloadedConfigPath);
  if (size < 0) {
    LOG_ERR("Can't read the size of %s", kDownloadedConfigPath);
    return kUpdateNotLoadable;
  }
  if (size > kMaxConfigFileSize) {
    LOG_ERR("The Model Config File is larger than %d", static_cast<int>(kMaxConfigFileSize));
    return kUpdateNotLoadable;
  }
  return kUpdateDone;
}

int autoParser::fetchPushed() {
  LOG_DEB("PushXml:cp %s to %s", kPushedConfigPath, kDownloadedConfigPath);
  chMutex lock;
  lock.OpenMutex(kPushLockName);
  chMutexLock held(lock);
  ensurePrivateTmpDir();
  unlink(hostPath(kDownloadedConfigPath).c_str());
  // Another application writes the hand-over file in the shared /tmp: a link planted there is
  // neither followed nor read, and it is removed itself (unlink never follows).
  std::string pushed;
  bool taken = readSharedTmpFile(kPushedConfigPath, kMaxConfigFileSize, pushed);
  unlink(hostPath(kPushedConfigPath).c_str());
  if (!taken || !writePrivateFile(kDownloadedConfigPath, pushed)) return kUpdateNotDownloaded;
  return checkDownloadedSize();
}

bool autoParser::isPerDeviceFile() const {
  if (m_role != ConfigFileRole::kNamedByUrl) return m_role == ConfigFileRole::kPerDevice;
  std::string mac = netGetMACText();
  return !mac.empty() && m_download.UrlText().find(mac) != std::string::npos;
}

// Only the first pair is read here: the rest are read as the batches are built.
bool autoParser::LoadM7Model(const std::string& path) {
  dropPairs();
  m_olderModel = false;
  LOG_IFO("");
  LOG_IFO("autoParser::LoadM7Model");
  if (!m_m7Pairs.open(path)) return false;
  m_haveFirstM7Pair = m_m7Pairs.next(m_firstM7Pair);
  if (!m_haveFirstM7Pair) m_m7Pairs.close();
  return m_haveFirstM7Pair;
}

bool autoParser::LoadM1OrM2Model(const std::string& path) {
  dropPairs();
  m_olderModel = true;
  return m_context.translator && loadM1OrM2Pairs(path, *m_context.translator, m_pairs);
}

bool autoParser::nextPair(RawPair& pair) {
  if (m_haveFirstM7Pair) {
    m_haveFirstM7Pair = false;
    pair = std::move(m_firstM7Pair);
    return true;
  }
  if (m_m7Pairs.next(pair)) return true;
  if (m_nextPair >= m_pairs.size()) return false;
  pair = std::move(m_pairs[m_nextPair++]);
  return true;
}

void autoParser::dropPairs() {
  m_m7Pairs.close();
  m_haveFirstM7Pair = false;
  m_pairs.clear();
  m_nextPair = 0;
  m_nextBatchFirst.reset();
}

int autoParser::loadModel(const std::string& path) {
  std::string version;
  bool loaded = false;
  switch (recogniseModel(path, version)) {
    case ConfigModel::kM7:
      m_modelVersion = version;
      loaded = LoadM7Model(path);
      break;
    case ConfigModel::kM1OrM2:
      loaded = LoadM1OrM2Model(path);
      break;
    case ConfigModel::kUnreadable:
      break;
  }
  if (loaded) return kUpdateDone;
  LOG_ERR("Fail to load Update Model file [%s] !!", path.c_str());
  return kUpdateNotLoadable;
}

bool autoParser::isConfigChanged(const std::string& path, std::string& memoryKey, std::string& digest) {
  memoryKey = isPerDeviceFile() ? kDeviceDigestKey : kCommonDigestKey;
  std::string stored = brisaGetProfileString(kSystemIni, kDigestSection, memoryKey, "");
  if (fileMd5(path, &digest) && digest != stored) return true;
  LOG_WAR("[%s](MD5) is same as old file", urlForLog(m_download.UrlText()).c_str());
  digest.clear();
  return false;
}

// Stored only once the file has been applied: a run cut short by a power loss applies the file again
// instead of taking it for done.
void autoParser::rememberDigest(const std::string& memoryKey, const std::string& digest) {
  REGHANDLE section = registryOpen(kSystemIni, kDigestSection);
  registrySetString(section, memoryKey, digest);
  // Any change of the common file makes the per-device file apply again on top of it.
  if (memoryKey == kCommonDigestKey) registrySetString(section, kDeviceDigestKey, "");
  registryFlush(section);
  registryClose(section);
}

int autoParser::updateConfig(bool pushed) {
  // The downloaded file, decrypted, holds SIP passwords in clear: it goes as soon as it is applied.
  struct RemoveAfterUse {
    ~RemoveAfterUse() { unlink(hostPath(kDownloadedConfigPath).c_str()); }
  } removeAfterUse;
  const std::string fileUrl = pushed ? std::string(kPushedConfigPath) : m_url.ToText();
  m_fromKeptCopy = false;
  int fetched = pushed ? fetchPushed() : fetchDownloaded();
  if (fetched != kUpdateDone) return recordRefusal(fileUrl, fetched);
  LOG_IFO("");
  if (!decryptIfNeeded(kDownloadedConfigPath, !pushed && isPerDeviceFile(), m_keys)) {
    LOG_ERR("DecryptionFile error!");
    return recordRefusal(fileUrl, kUpdateDecryptFailed);
  }
  int loaded = loadModel(kDownloadedConfigPath);
  if (loaded != kUpdateDone) return recordRefusal(fileUrl, loaded);

  std::string memoryKey, digest;
  bool unchanged = !pushed && !isConfigChanged(kDownloadedConfigPath, memoryKey, digest);
  if (unchanged) LOG_IFO("MD5 is same as before! Just upgrade [bin|rom] file !");
  bool allWritten = applyBatches(unchanged);
  // A file some of whose settings could not be written must apply again next time.
  if (!digest.empty() && allWritten) rememberDigest(memoryKey, digest);
  if (m_context.status)
    m_context.status->addFile(fileUrl, !unchanged      ? fileOutcome::kApplied
                                       : m_fromKeptCopy ? fileOutcome::kNotModified
                                                        : fileOutcome::kUnchanged);
  LOG_IFO("Update Config Model Parse Finished !");
  return kUpdateDone;
}

std::unique_ptr<autopItem> autoParser::itemFor(RawPair& pair) const {
  if (pair.second.empty()) {
    LOG_DEB("---Skipped empty value item: %s", logEscaped(pair.first).c_str());
    return nullptr;
  }
  auto item = std::make_unique<autopItem>();
  if (!m_context.translator || !m_context.translator->findItem(pair.first, *item)) {
    LOG_WAR("Warning! Not found item %s", logEscaped(pair.first).c_str());
    return nullptr;
  }
  // C readers of the INI file would see the value cut at the byte, others the byte itself: the
  // value is refused whole rather than applied as something the server did not send.
  if (pair.second.find('\0') != std::string::npos) {
    LOG_WAR("Warning! Value of item %s holds a NUL byte, skipped", logEscaped(pair.first).c_str());
    return nullptr;
  }
  item->name = std::move(pair.first);
  if (pair.second == kNullValue)
    item->value.clear();
  else
    item->value = std::move(pair.second);
  item->changed = false;
  return item;
}

void autoParser::appendToBatch(autopItemList& batch, std::unique_ptr<autopItem> item) const {
  if (m_olderModel && item->valueType == "!boolean") {
    item->valueType = "boolean";
    LOG_IFO("Change item[%s] UN_BOOLEAN_VALUE_TYPE =>> BOOLEAN_VALUE_TYPE !", logEscaped(item->name).c_str());
  }
  batch.push_back(std::move(item));
}

bool autoParser::fillBatch(autopItemList& batch) {
  if (!batch.empty()) {
    LOG_WAR("The autopItem list is not empty before filling it !");
    batch.clear();
  }
  if (m_nextBatchFirst) appendToBatch(batch, std::move(m_nextBatchFirst));
  RawPair pair;
  while (nextPair(pair)) {
    std::unique_ptr<autopItem> item = itemFor(pair);
    if (!item) continue;
    if (!batch.empty() && startsNewBatch(*batch.back(), *item)) {
      m_nextBatchFirst = std::move(item);
      return true;
    }
    appendToBatch(batch, std::move(item));
  }
  return false;
}

bool autoParser::applyBatches(bool unchanged) {
  m_pendingMethods.clear();
  autopItemList deferredFirmware;
  // Keys of different INI files may take turns in a configuration file, cutting it into many small
  // batches: each INI file is written once, whole, when the file's batches are through, and before
  // the text methods tell the other applications to read the new values.
  RegistryDeferredFlush oneWritePerFile;
  // After the first batch every batch starts with the item that ended the one before, so only the
  // first can come out empty: when no pair of the file gives an item.
  for (bool morePairs = m_haveFirstM7Pair || m_nextPair < m_pairs.size(); morePairs;) {
    autopItemList batch;
    morePairs = fillBatch(batch);
    if (batch.empty()) {
      // The rest of the file gave no item (every key unknown or empty).
      LOG_WAR("Autop item list is empty !");
      continue;
    }
    const autopItem& first = *batch.front();
    int32_t type = upgradeTypeOf(first.type);
    if (first.section == "CUSTOM_MAC_CFG_PATH" && first.key == "server_address") m_customMacUrl = first.value;
    if (unchanged && type != kUpgradeTypeBin && type != kUpgradeTypeRom) continue;
    // Only the first firmware batch waits for the end of the file; a later one goes at its place.
    if (type == kUpgradeTypeRom && deferredFirmware.empty()) {
      deferredFirmware = std::move(batch);
      LOG_DEB("Delay to upgrade rom type item !");
      continue;
    }
    applyBatch(batch, unchanged);
  }
  // A file that could not be read to its end applies again next time, as one not wholly written.
  bool wholeFileRead = !m_m7Pairs.failed();
  dropPairs();
  bool allWritten = oneWritePerFile.end();
  if (!allWritten) LOG_WAR("Fail to flush all file !!");
  runPendingMethods();
  if (!deferredFirmware.empty()) {
    std::unique_ptr<autoFileUpgrader> upgrader = createFileUpgrader(kUpgradeTypeRom);
    int installed = upgrader ? upgrader->upgrade(deferredFirmware) : 0;
    // The running firmware named again (kRomAlreadyInstalled) is nothing to do: no reboot.
    if (installed == 1)
      requestReboot();
    else if (installed != kRomAlreadyInstalled)
      LOG_WAR("Fail to upgrade rom file !");
  }
  return allWritten && wholeFileRead;
}

void autoParser::applyBatch(autopItemList& batch, bool unchanged) {
  const autopItem& first = *batch.front();
  std::unique_ptr<autoFileUpgrader> upgrader = createFileUpgrader(upgradeTypeOf(first.type));
  if (!upgrader) {
    LOG_WAR("Failed to create file upgrader [%s]!", first.type.c_str());
    return;
  }
  upgrader->setUnchanged(unchanged);
  int changed = upgrader->upgrade(batch);
  LOG_IFO("*****  END [%s]  *****", changed ? "CHANGED" : "NO CHANGE");
  LOG_IFO("");
  collectChanges(batch);
}

void autoParser::collectChanges(const autopItemList& batch) {
  bool needsReboot = false;
  for (const auto& item : batch) {
    if (!item || !item->changed) continue;
    queueActions(item->action, m_pendingMethods);
    if (m_context.status) m_context.status->countApplied(item->type);
    needsReboot = needsReboot || item->reboot;
  }
  if (needsReboot) requestReboot();
}

int autoParser::recordRefusal(const std::string& fileUrl, int code) {
  if (!m_context.status) return code;
  const char* why = code == kUpdateNotDownloaded   ? "not downloaded"
                    : code == kUpdateDecryptFailed ? "decryption failed"
                                                   : "too large, or readable in no file model";
  m_context.status->addFile(fileUrl, fileOutcome::kRefused, why);
  return code;
}

void autoParser::runPendingMethods() {
  for (const std::string& call : m_pendingMethods) {
    LOG_DEB("call text method [%s]", call.c_str());
    std::string result = callTextMethod(call);
    LOG_IFO("return [%s]", result.c_str());
  }
  m_pendingMethods.clear();
}

void autoParser::requestReboot() {
  if (m_rebootRequested) return;
  m_rebootRequested = true;
  if (m_context.requestReboot) m_context.requestReboot();
}
