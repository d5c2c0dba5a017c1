// autoParser: turns one configuration file into applied settings. It opens the download stream,
// fetches the file to /tmp/provisor.d/xxx.cfg (or takes the file another application pushed to /tmp/XML.cfg),
// decrypts it when it is cipher text, reads it in its model, translates every key into an item,
// cuts the items into batches one upgrader can take and hands each batch to the upgrader of its
// type; firmware waits for the end. An M7 file is read pair by pair as its batches are built, so
// neither the file nor its pairs are ever held whole. One parser serves every file of one provisioning URL, so the
// keys and the custom per-device file location the common file set stay in force for the
// per-device file.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "autoParserCrypt.h"
#include "autopContext.h"
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

constexpr const char* kDownloadedConfigPath = "/tmp/provisor.d/xxx.cfg";  // our private folder
constexpr const char* kPushedConfigPath = "/tmp/XML.cfg";

class autopTranslator;

// Which file of the pair a download is; it picks the digest memory and the AES key. A directory
// knows its common and its per-device file, whatever their URLs hold: "http://server/$mac/" puts
// the MAC in both, a custom per-device location in neither. A file named by its own URL has only
// its text to go by: it is the per-device one when that text holds the device's MAC.
enum class ConfigFileRole { kNamedByUrl, kCommon, kPerDevice };

class autoParser {
 public:
  // `context` brings the table and the reboot request of the run; `info`, when given, the AES keys
  // of the request.
  explicit autoParser(const autopContext& context, const AutopInfo* info = nullptr);
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
  // True once an applied item asked for a reboot (or firmware was applied) during this parser's life.
  bool rebootRequested() const { return m_rebootRequested; }
  void setFileRole(ConfigFileRole role) { m_role = role; }

 private:
  int fetchDownloaded();
  bool takeKeptCopy();
  // Records a refused file in the run's status; returns `code`.
  int recordRefusal(const std::string& fileUrl, int code);
  int fetchPushed();
  int checkDownloadedSize();
  int loadModel(const std::string& path);
  bool isPerDeviceFile() const;
  // The MD5 change test; fills the key and digest to store once the file has been applied.
  bool isConfigChanged(const std::string& path, std::string& memoryKey, std::string& digest);
  void rememberDigest(const std::string& memoryKey, const std::string& digest);
  // The loaded file's next pair: an M7 file is read from disk as its batches are built, the older
  // models come from their pair list.
  bool nextPair(RawPair& pair);
  void dropPairs();
  // The item a pair stands for, or nullptr (logged) when the pair gives none.
  std::unique_ptr<autopItem> itemFor(RawPair& pair) const;
  void appendToBatch(autopItemList& batch, std::unique_ptr<autopItem> item) const;
  // Fills `batch` with the items one upgrader takes; the item that starts the next batch is kept
  // for it. False once no pair is left.
  bool fillBatch(autopItemList& batch);
  // False when some INI file could not be written, or the file could not be read to its end.
  bool applyBatches(bool unchanged);
  void applyBatch(autopItemList& batch, bool unchanged);
  void collectChanges(const autopItemList& batch);
  void runPendingMethods();
  void requestReboot();

  const autopContext& m_context;
  ns_net::fileDownload m_download;
  ns_net::autopUrl m_url;  // of the open download
  bool m_fromKeptCopy = false;  // the file came from the kept copy of a 304 answer
  AesKeySources m_keys;
  std::string m_modelVersion;
  M7PairReader m_m7Pairs;
  RawPair m_firstM7Pair;  // read at load time to tell an M7 file without pairs
  bool m_haveFirstM7Pair = false;
  RawPairList m_pairs;  // older models
  size_t m_nextPair = 0;
  std::unique_ptr<autopItem> m_nextBatchFirst;
  bool m_olderModel = false;
  std::vector<std::string> m_pendingMethods;
  std::string m_customMacUrl;
  ConfigFileRole m_role = ConfigFileRole::kNamedByUrl;
  bool m_rebootRequested = false;
};
