// autoParser: turns one configuration file into applied settings. It opens the download stream,
// fetches the file to /tmp/xxx.cfg (or takes the file another application pushed to /tmp/XML.cfg),
// decrypts it when it is cipher text, reads it in its model, translates every key into an item,
// cuts the items into batches one upgrader can take and hands each batch to the upgrader of its
// type; firmware waits for the end. One parser serves every file of one provisioning URL, so the
// keys and the custom per-device file location the common file set stay in force for the
// per-device file.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "autoParserCrypt.h"
#include "autoParserModel.h"
#include "autopInfo.h"
#include "autopItem.h"
#include "fileStream.h"

// Results of one configuration update.
enum autopUpdateResult : int32_t {
  kUpdateDone = 0,
  kUpdateNotLoadable = -1,  // too large, or not readable in either model
  kUpdateDecryptFailed = -2,
  kUpdateNotDownloaded = -3,
};

constexpr const char* kDownloadedConfigPath = "/tmp/xxx.cfg";
constexpr const char* kPushedConfigPath = "/tmp/XML.cfg";

class autopTranslator;

class autoParser {
 public:
  // `info`, when given, brings the AES keys of the request.
  explicit autoParser(const AutopInfo* info = nullptr);
  autoParser(const autoParser&) = delete;
  autoParser& operator=(const autoParser&) = delete;

  // Opens the stream, retrying up to 6 times while the network type is 2.
  bool OpenDownloadStream(const ns_net::autopUrl& url);
  void CloseDownloadStream();
  // Fetches, decrypts, loads and applies one file; an autopUpdateResult.
  int updateConfig(bool pushed);

  bool LoadM7Model(const std::string& path);
  bool LoadM1OrM2Model(const std::string& path);

  // Set by the common file ([CUSTOM_MAC_CFG_PATH] server_address); read for the per-device file.
  const std::string& customMacUrl() const { return m_customMacUrl; }
  const std::string& modelVersion() const { return m_modelVersion; }
  const RawPairList& rawPairs() const { return m_pairs; }
  // True once an applied item asked for a reboot (or firmware was applied) during this parser's life.
  bool rebootRequested() const { return m_rebootRequested; }
  // Called (once per parser) when an applied item needs a reboot; the service arranges it.
  void setRebootHandler(std::function<void()> handler) { m_onReboot = std::move(handler); }
  // The table used for lookups (the process's single table unless a test gives another).
  void setTranslator(const autopTranslator* table) { m_table = table; }

 private:
  int fetchDownloaded();
  int fetchPushed();
  int checkDownloadedSize();
  int loadModel(const std::string& path);
  bool isPerDeviceFile() const;
  // The MD5 change test; fills the key and digest to store once the file has been applied.
  bool isConfigChanged(const std::string& path, std::string& memoryKey, std::string& digest);
  void rememberDigest(const std::string& memoryKey, const std::string& digest);
  // Fills `batch` from the pairs starting at `next`; advances `next` past what it took.
  void fillBatch(size_t& next, autopItemList& batch);
  // False when some INI file could not be written.
  bool applyBatches(bool unchanged);
  void applyBatch(autopItemList& batch, bool unchanged);
  void collectChanges(const autopItemList& batch);
  void runPendingMethods();
  void requestReboot();

  const autopTranslator* m_table;
  ns_net::fileDownload m_download;
  AesKeySources m_keys;
  std::string m_modelVersion;
  RawPairList m_pairs;
  bool m_olderModel = false;
  std::vector<std::string> m_pendingMethods;
  std::string m_customMacUrl;
  bool m_rebootRequested = false;
  std::function<void()> m_onReboot;
};
