#define LOG_MODULE "./src/fileUpgrader"
#include "binUpgrader.h"

#include "downloadCache.h"

#include <cstdio>
#include <cstring>

#include "binParser.h"
#include "descriptor.h"
#include "log.h"
#include "redact.h"
#include "paths.h"
#include "privateTmp.h"

namespace {

constexpr size_t kMd5Digits = 32;
constexpr int kDownloadChunk = 16384;

std::string fileNamePart(const std::string& path) { return path.substr(pathGetFileNamePos(path)); }

}  // namespace

autoBinUpgrader::~autoBinUpgrader() = default;

bool autoBinUpgrader::isSafeDownloadName(const std::string& name) { return isSafeServerFileName(name); }

int autoBinUpgrader::upgrade(autopItemList& items) {
  LOG_IFO("");
  if (items.empty()) {
    LOG_ERR("The item list to upgrade is empty !!");
    return 0;
  }
  std::string destination = commonDestinationPath(items);
  if (destination.empty()) {
    LOG_IFO("Not same desination path in bin file list !");
    return 0;
  }
  autopItem* first = items.front().get();
  if (!first) return 0;
  LOG_IFO("***** Upgrade BIN File *****");
  LOG_IFO("NAME: [ %s ]", logEscaped(first->name).c_str());
  int32_t operation = operationOf(first->usage);
  if (operation != kOperationModify && items.size() != 1) {
    LOG_IFO("Not supported more than one bin item !");
    return 0;
  }
  if (operation != kOperationCover && isUnchanged()) {
    LOG_IFO("Autop config file is same as old! Skip not bin conver upgrade !");
    return 0;
  }
  std::unique_ptr<autoBinParser> parser = createBinParserFor(*first);
  if (!parser) {
    LOG_IFO("Failed to create bin parser !");
    return 0;
  }
  parser->setAction(first->action);
  m_destPath = destination;
  int result = 0;
  if (operation == kOperationModify)
    result = parser->modifyFile(destination, items);
  else if (operation == kOperationDelete)
    result = parser->deleteFile(destination, first->value.c_str());
  else if (operation == kOperationCover)
    result = coverItem(*first, *parser);
  if (result) first->changed = true;
  return result;
}

int autoBinUpgrader::coverItem(autopItem& item, autoBinParser& parser) {
  std::string name = fileNamePart(item.value);
  // Decided here: a name that is not a file of its own is refused before anything is fetched.
  if (!isSafeDownloadName(name)) {
    LOG_WAR("Refused the file name of the resource URL [%s]", logEscaped(name).c_str());
    LOG_WAR("Fail to download bin file");
    return 0;
  }
  UniqueFd file = createPrivateTemporary(safeExtensionOf(name), m_tmpPath);
  if (!file.valid()) {
    LOG_WAR("Fail to download bin file");
    return 0;
  }
  if (!m_destPath.empty() && m_destPath.back() == '/') m_destPath += name;
  int downloaded = downloadTo(item.value, file.get());
  file.reset();
  if (downloaded == kNotModified) {
    remove(hostPath(m_tmpPath).c_str());
    LOG_IFO("[%s] not modified: the installed copy stays", urlForLog(item.value).c_str());
    return 0;
  }
  if (downloaded < 1) {
    remove(hostPath(m_tmpPath).c_str());
    LOG_WAR("Fail to download bin file");
    return 0;
  }
  LOG_IFO("The bin file size : %dB", downloaded);
  parser.setKey(item.key);
  int result = 0;
  const bool fresh = isNewFile();
  if (!fresh) {
    LOG_IFO("[%s](MD5) is same as old!", m_tmpPath.c_str());
  } else if ((result = parser.installFile(m_tmpPath.c_str(), m_destPath)) != 0) {
    // Written after the install's rename: a crash in between only costs one more install.
    saveMd5();
  }
  // The next question for this file names the version now installed (or found the same).
  if (!fresh || result != 0) downloadCache::resources().remember(item.value, m_answerValidators);
  remove(hostPath(m_tmpPath).c_str());
  return result;
}

int autoBinUpgrader::downloadTo(const std::string& urlText, int file) {
  ns_net::autopUrl url;
  if (urlText.empty() || !url.Parse(urlText) || !url.IsValid()) return -1;
  // Asked conditionally only while the installed copy is the one its companion names: a companion
  // removed on the phone asks for the file whole.
  httpValidators kept;
  if ((url.scheme == "http" || url.scheme == "https") && pathFileExist(m_destPath + ".MD5") &&
      downloadCache::resources().lookup(urlText, kept))
    SetValidators(kept);
  if (!OpenDownloadStream(url, -1)) return 0;
  if (NotModified()) {
    Close();
    return kNotModified;
  }
  m_answerValidators = AnswerValidators();
  int64_t written = 0;
  char chunk[kDownloadChunk];
  for (int n; (n = Read(chunk, sizeof chunk)) > 0; written += n) {
    if (!writeAll(file, chunk, static_cast<size_t>(n))) {
      LOG_ERR("File [%s] write error !", m_tmpPath.c_str());
      Close();
      return 0;
    }
  }
  bool broken = LastTransferBroken() || CurrentStream()->IsBroken();
  Close();
  if (written <= 0) {
    LOG_IFO("No data to read !");
    return 0;
  }
  // A file cut short is no file: it must not be installed.
  return broken ? 0 : 1;
}

int autoBinUpgrader::isNewFile() {
  if (!pathFileExist(m_tmpPath)) {
    LOG_IFO("File: %s donot exit", m_tmpPath.c_str());
    return 1;
  }
  std::string digest;
  if (!fileMd5(m_tmpPath, &digest) || digest.size() != kMd5Digits) {
    LOG_IFO("Can't open tmp file: %s", m_tmpPath.c_str());
    return 0;
  }
  memcpy(m_md5, digest.c_str(), kMd5Digits + 1);
  std::string companion = m_destPath + ".MD5";
  if (!pathFileExist(companion)) return 1;
  FilePtr file = openFile(companion, "rb");
  if (!file) return 0;  // an unreadable companion counts as the same file
  char stored[kMd5Digits + 1] = {};
  size_t got = fread(stored, 1, kMd5Digits, file.get());
  stored[got] = '\0';
  return strcmp(stored, m_md5) == 0 ? 0 : 1;
}

void autoBinUpgrader::saveMd5() {
  if (!writeFileAtomic(m_destPath + ".MD5", std::string(m_md5, strnlen(m_md5, kMd5Digits))))
    LOG_WAR("Can't write [%s.MD5]", logEscaped(m_destPath).c_str());
}
