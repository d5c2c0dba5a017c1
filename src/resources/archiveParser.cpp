#define LOG_MODULE "./src/archiveParser"
#include "archiveParser.h"

#include <cstring>
#include <string>

#include "baseMethod.h"
#include "log.h"
#include "paths.h"

namespace {

bool startsWith(const std::string& text, const char* prefix) { return text.compare(0, strlen(prefix), prefix) == 0; }

std::string trimmed(const std::string& text) {
  size_t first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos) return std::string();
  return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

// A "key = value" line with a key.
bool isAssignment(const std::string& line) {
  size_t equals = line.find('=');
  return equals != std::string::npos && !trimmed(line.substr(0, equals)).empty();
}

// Counts the assignments of the text's lines (comments skipped) and, for the INI model, whether an
// assignment follows a section line.
bool textHoldsSettings(const std::string& text, bool m7) {
  bool inSection = m7;
  size_t start = text.find('\n') == std::string::npos ? text.size() : text.find('\n') + 1;
  if (!m7) start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = trimmed(text.substr(start, end - start));
    start = end + 1;
    if (line.empty() || line[0] == '#' || line[0] == ';') continue;
    if (line[0] == '[') {
      if (m7) break;  // the first section ends the main model's part
      inSection = line.back() == ']';
      continue;
    }
    if (inSection && isAssignment(line)) return true;
  }
  return false;
}

}  // namespace

bool isConfigurationFile(const std::string& path) {
  int64_t size = fileSize(path.c_str());
  std::string text;
  if (size <= 0 || size > kConfigPackageMaxFileBytes || !readTextFile(path, text)) return false;
  if (text.find('\0') != std::string::npos) return false;
  if (startsWith(text, "\xEF\xBB\xBF")) text.erase(0, 3);
  if (startsWith(text, "#!version:")) {
    std::string version =
        trimmed(text.substr(10, text.find('\n') == std::string::npos ? std::string::npos : text.find('\n') - 10));
    return !version.empty() && textHoldsSettings(text, true);
  }
  return textHoldsSettings(text, false);
}

std::string autoTarParser::unpackDirectory() const {
  std::string dir = m_destPath;
  if (!dir.empty() && dir.back() != '/' && !pathIsDirectory(dir)) dirName(m_destPath.c_str(), dir);
  while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  return dir;
}

int64_t autoTarParser::unpackBound(int64_t reserve) const {
  int64_t bound = partitionFreeSize(pathAppend(unpackDirectory(), "x").c_str()) - reserve;
  return bound > 0 ? bound : 0;
}

int autoTarParser::refuseWhenTooLarge(int64_t needed, int64_t bound) const {
  if (needed <= bound) return 1;
  LOG_WAR("[****Warning**] the file size [%dK] is larger than partion free size !",
          static_cast<int32_t>(needed / 1024));
  remove(hostPath(m_srcPath).c_str());
  return 0;
}

int autoTarParser::checkFile() {
  archiveSummary summary;
  if (!checkArchive(m_srcPath, summary)) return 0;
  return refuseWhenTooLarge(summary.unpackedBytes, unpackBound(0));
}

int autoTarParser::upgradeFile() {
  LOG_DEB("---- autop unpack [%s] into %s", m_srcPath.c_str(), unpackDirectory().c_str());
  return unpackArchive(m_srcPath, unpackDirectory(), unpackBound(0), mode());
}

int autoPackageParser::checkFile() {
  m_isArchive = isArchiveFile(m_srcPath);
  if (m_isArchive) {
    archiveSummary summary;
    if (!checkArchive(m_srcPath, summary)) return 0;
    m_neededBytes = summary.unpackedBytes;
  } else {
    if (!isConfigurationFile(m_srcPath)) {
      LOG_ERR("[%s] is neither a package archive nor a configuration file !", m_srcPath.c_str());
      return 0;
    }
    m_neededBytes = fileSize(m_srcPath.c_str());
  }
  return checkSpace();
}

int autoPackageParser::checkSpace() { return refuseWhenTooLarge(m_neededBytes, unpackBound(spaceReserve())); }

int autoPackageParser::upgradeFile() {
  if (!m_isArchive) {
    LOG_DEB("---- autop copy file [%s] to %s", m_srcPath.c_str(), m_destPath.c_str());
    return installCopyAtomic(m_srcPath, m_destPath);
  }
  LOG_DEB("---- autop unpack [%s] into %s", m_srcPath.c_str(), unpackDirectory().c_str());
  return unpackArchive(m_srcPath, unpackDirectory(), unpackBound(spaceReserve()), unpackMode::kOverlay);
}

int autoFactoryBinParser::upgradePost() { return m_action.empty() ? 1 : runActionMethods(); }
