// Fuzz targets of the resource side: the web password file reader, the XML element-path editor and
// the archive check that decides what is unpacked.
#define LOG_MODULE "./fuzz"
#include <dirent.h>
#include <sys/stat.h>
#include <tinyxml2.h>

#include <cstdlib>
#include <string>

#include "archiveParser.h"
#include "baseMethod.h"
#include "fuzzTargets.h"
#include "paths.h"
#include "pwdUpgrader.h"
#include "xmlParser.h"

namespace {

void require(bool condition) {
  if (!condition) abort();
}

std::string nextLine(std::string& rest) {
  size_t end = rest.find('\n');
  std::string line = rest.substr(0, end);
  rest = end == std::string::npos ? std::string() : rest.substr(end + 1);
  return line;
}

// True when everything below `hostDir` is a plain file or folder: no link, device or FIFO.
bool holdsOnlyFilesAndFolders(const std::string& hostDir, int depthLeft) {
  DIR* listing = opendir(hostDir.c_str());
  if (!listing) return false;
  bool plain = depthLeft >= 0;
  while (dirent* entry = plain ? readdir(listing) : nullptr) {
    std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    struct stat st;
    std::string path = hostDir + "/" + name;
    plain = lstat(path.c_str(), &st) == 0 &&
            (S_ISDIR(st.st_mode) ? holdsOnlyFilesAndFolders(path, depthLeft - 1) : S_ISREG(st.st_mode));
  }
  closedir(listing);
  return plain;
}

}  // namespace

// Any bytes as an archive: what the check accepts unpacks inside the destination as plain files and
// folders only, and the destination's neighbour is never touched.
void fuzzArchiveEntries(const uint8_t* data, size_t size) {
  fuzzScratchRoot();
  if (!writeFileAtomic("/tmp/fuzz.tar", std::string(reinterpret_cast<const char*>(data), size))) return;
  writeFileAtomic("/config/neighbour", "kept");
  archiveSummary summary;
  if (checkArchive("/tmp/fuzz.tar", summary) == 1) {
    require(summary.entries <= kMaxArchiveEntries);
    if (unpackArchive("/tmp/fuzz.tar", "/config/data/fuzz", 64 << 20, unpackMode::kOverlay) == 1)
      require(holdsOnlyFilesAndFolders(hostPath("/config/data/fuzz"), 64));
  }
  std::string kept;
  require(readTextFile("/config/neighbour", kept) && kept == "kept");
  removeTree("/config/data/fuzz");
}

// Any text reads into entries that write out and read back unchanged.
void fuzzPasswordFile(const uint8_t* data, size_t size) {
  autoPwdEntryList entries;
  autoPwdUpgader::parsePasswordText(std::string(reinterpret_cast<const char*>(data), size), entries);
  std::string written;
  for (const auto& entry : entries) {
    require(entry.name.find(':') == std::string::npos && entry.hash.find('\n') == std::string::npos);
    written += entry.name + ":" + entry.hash + "\n";
  }
  autoPwdEntryList again;
  autoPwdUpgader::parsePasswordText(written, again);
  require(again.size() == entries.size());
  for (size_t i = 0; i < again.size(); ++i)
    require(again[i].name == entries[i].name && again[i].hash == entries[i].hash);
}

// Input: a section line, a key line, then an XML document. An edit of a well-formed document
// leaves it well-formed, and an applied item's attribute holds its value.
void fuzzXmlElementPath(const uint8_t* data, size_t size) {
  std::string rest(reinterpret_cast<const char*>(data), size);
  autopItemList items;
  items.push_back(std::make_unique<autopItem>());
  items.back()->section = nextLine(rest);
  items.back()->key = nextLine(rest);
  items.back()->value = "v<&\"'>";
  tinyxml2::XMLDocument document;
  bool wellFormed = xmlParseDocument(document, rest);
  if (!wellFormed) document.Clear();
  int applied = xmlApplyItems(document, items);
  require(applied == (items.back()->changed ? 1 : 0));
  tinyxml2::XMLPrinter printer;
  document.Print(&printer);
  tinyxml2::XMLDocument reread;
  require(!wellFormed || reread.Parse(printer.CStr()) == tinyxml2::XML_SUCCESS);
}
