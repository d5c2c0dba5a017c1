#define LOG_MODULE "./src/binParser"
#include "binParser.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <new>
#include <vector>

#include "archiveParser.h"
#include "baseMethod.h"
#include "callMethod.h"
#include "beneath.h"
#include "certParser.h"
#include "descriptor.h"
#include "dsskeyParser.h"
#include "log.h"
#include "mediaParser.h"
#include "paths.h"

namespace {

// One row of the keyword table: a 32-byte name and its id, ended by a row with an empty name.
struct binTypeRow {
  char name[32];
  int32_t id;
};

constexpr binTypeRow kBinTypeTable[] = {
    {"contact_list", kBinTypeContactList},
    {"contact_photo", kBinTypeContactPhoto},
    {"photo_tar", kBinTypePhotoTar},
    {"contact_tar", kBinTypeContactTar},
    {"wallpaper", kBinTypeWallpaper},
    {"ringtone", kBinTypeRingtone},
    {"trusted_cert", kBinTypeTrustedCert},
    {"server_cert", kBinTypeServerCert},
    {"dialnow", kBinTypeDialNow},
    {"dialplan", kBinTypeDialPlan},
    {"line_key", kBinTypeLineKey},
    {"memory_key", kBinTypeMemoryKey},
    {"custom_factory_config", kBinTypeFactoryConfig},
    {"custom_config", kBinTypeCustomConfig},
    {"logo", kBinTypeLogo},
    {"openvpn", kBinTypeOpenVpn},
    {"802_1X", kBinType8021X},
    {"", kBinTypeUnknown},
};

constexpr size_t kDeleteWordBuffer = 100;
constexpr size_t kCopyChunk = 64 * 1024;

// Copies the whole of `in` to `out`; false on any read or write error (a full partition).
bool copyDescriptor(int in, int out) {
  std::vector<char> chunk(kCopyChunk);
  for (;;) {
    ssize_t got = read(in, chunk.data(), chunk.size());
    if (got == 0) return true;
    if (got < 0 || !writeAll(out, chunk.data(), static_cast<size_t>(got))) return false;
  }
}

// A file name given by a server must stay a name inside its directory.
bool isPlainFileName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

}  // namespace

autoBinParser::~autoBinParser() = default;

int autoBinParser::modifyFile(const std::string& destination, autopItemList&) {
  LOG_WAR("Not supported to modify BIN file [%s]", destination.c_str());
  return 0;
}

int autoBinParser::checkFile() { return checkSpace(); }

int autoBinParser::upgradeFile() {
  LOG_DEB("---- autop copy file [%s] to %s", m_srcPath.c_str(), m_destPath.c_str());
  return installCopyAtomic(m_srcPath, m_destPath);
}

int autoBinParser::upgradePost() { return 1; }

int autoBinParser::checkSpace() {
  int64_t size = fileSize(m_srcPath.c_str());
  int64_t freeSize = partitionFreeSize(m_destPath.c_str());
  if (size >= 0 && freeSize >= size) return 1;
  LOG_WAR("[****Warning**] the file size [%dK] is larger than partion free size !", static_cast<int32_t>(size / 1024));
  remove(hostPath(m_srcPath).c_str());
  return 0;
}

int autoBinParser::installFile(const char* source, const std::string& destination) {
  if (!source) return 0;
  m_srcPath = source;
  m_destPath = destination;
  if (!checkFile()) {
    LOG_ERR("Error! Invalid Upgrade BIN File [%s]!", source);
    return 0;
  }
  if (!upgradeFile()) {
    LOG_ERR("Error! Upgrade Fialed !");
    return 0;
  }
  if (!upgradePost()) LOG_WAR("Warning! Exception occurred in UpgradePost func !");
  return 1;
}

int autoBinParser::deleteFile(const std::string& destinationIn, const char* command) {
  if (destinationIn.empty()) {
    LOG_NULL_POINTER();
    return 0;
  }
  if (!pathFileExist(destinationIn)) {
    LOG_WAR("The dest path [%s] is not exist !", destinationIn.c_str());
    return 0;
  }
  std::string destination = destinationIn;
  if (destination.size() > 1 && destination.back() == '/') destination.pop_back();
  if (!pathIsDirectory(destination)) {
    LOG_WAR("To remove the file [%s]!", destination.c_str());
    remove(hostPath(destination).c_str());
    return 1;
  }
  if (!command) {
    LOG_ERR("Not specify delete file !");
    return 0;
  }
  std::string fileName;
  int32_t type = parseDeleteCommand(command, &fileName);
  if (type == kDeleteInvalid) {
    LOG_ERR("Unknown delete type !");
    return 0;
  }
  if (type == kDeleteAll) {
    LOG_WAR("To remove all files in the %s floder !", destination.c_str());
    // The folder is resolved once; a link inside it is removed itself, never followed.
    UniqueFd folder(open(hostPath(destination).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder.get() < 0 || removeContentsAt(folder.get()) != 0) LOG_ERR("Fail to remove destination files !");
    return 1;
  }
  if (type == kDeleteDir) {
    LOG_WAR("To remove the floder %s !", destination.c_str());
    if (removeTree(destination.c_str()) != 0) LOG_ERR("Fail to remove destination directory !");
    // Such an item is never marked applied, even when the directory is gone.
    return 0;
  }
  std::string path = destination + "/" + fileName;
  LOG_WAR("To remove the file %s !", path.c_str());
  // The name comes from a server: it must not lead out of the destination directory.
  if (isPlainFileName(fileName) && pathFileExist(path) && !pathIsDirectory(path) &&
      remove(hostPath(path).c_str()) == 0) {
    remove(hostPath(path + ".MD5").c_str());
    return 1;
  }
  LOG_ERR("Fail to remove !!");
  return 0;
}

int autoBinParser::installCopyAtomic(const std::string& source, const std::string& destination) {
  std::string target = hostPath(destination);
  std::string parent;
  if (dirName(destination.c_str(), parent) == 0 && !parent.empty() && makeDirs(parent.c_str()) != 0) return 0;
  UniqueFd in(open(hostPath(source).c_str(), O_RDONLY | O_CLOEXEC));
  if (in.get() < 0) {
    LOG_IFO("Source file [%s] can't open! \n", source.c_str());
    return 0;
  }
  // The temporary is one writeFileAtomic knows: a copy cut short by a power loss is cleared away
  // by the next write of the destination, whichever way it is written.
  std::string temporary;
  UniqueFd out(createAtomicTemporary(target, temporary));
  if (out.get() < 0) {
    LOG_IFO("Target file [%s] can't open! \n", destination.c_str());
    return 0;
  }
  if (!copyDescriptor(in.get(), out.get()) || fsync(out.get()) != 0 || rename(temporary.c_str(), target.c_str()) != 0) {
    LOG_ERR("Can't write [%s] : %s", destination.c_str(), strerror(errno));
    unlink(temporary.c_str());
    return 0;
  }
  syncParentDirectory(target);
  return 1;
}

int autoBinParser::runActionMethods() const {
  int status = 1;
  for (const std::string& call : splitActionCalls(m_action)) {
    std::string result = callTextMethod(call);
    LOG_DEB("call text method [%s] return [%s]", call.c_str(), result.c_str());
    if (result.compare(0, 6, "ERROR:") == 0) status = 0;
  }
  return status;
}

int32_t binParserTypeOf(const char* keyword) {
  if (!keyword) return kBinTypeUnknown;
  for (const binTypeRow* row = kBinTypeTable; row->name[0] != '\0'; ++row)
    if (strcmp(row->name, keyword) == 0) return row->id;
  return kBinTypeUnknown;
}

std::string binParserKeywordOf(const std::string& operation) {
  size_t dot = operation.find('.');
  return dot == std::string::npos ? std::string() : operation.substr(dot + 1);
}

int32_t parseDeleteCommand(const char* command, std::string* fileName) {
  if (!command) return kDeleteInvalid;
  char word[kDeleteWordBuffer] = {};
  // Any scheme before "://localhost/" is accepted; the word is bounded by the buffer.
  if (sscanf(command, "%*[^:]://localhost/%99s", word) != 1) {
    LOG_ERR("Delete command [%s] is invalid ! (http://localhost/[all/dir/$filename])", command);
    return kDeleteInvalid;
  }
  if (strcmp(word, "all") == 0) return kDeleteAll;
  if (strcmp(word, "dir") == 0) return kDeleteDir;
  if (fileName) *fileName = word;
  return kDeleteFile;
}

namespace {

// The classes of the keyword table; nullptr for an id without a class.
autoBinParser* newParserByType(int32_t typeId) {
  switch (typeId) {
    case kBinTypeContactList:
      return new (std::nothrow) autoContactParser();
    case kBinTypeDialNow:
      return new (std::nothrow) autoDialNow();
    case kBinTypeDialPlan:
      return new (std::nothrow) autoDialPlan();
    case kBinTypeLineKey:
      return new (std::nothrow) autoLineKey();
    case kBinTypeMemoryKey:
      return new (std::nothrow) autoMemoryKey();
    case kBinTypeContactPhoto:
      return new (std::nothrow) autoContactPhoto();
    case kBinTypePhotoTar:
      return new (std::nothrow) autoPhotoTarParser();
    case kBinTypeContactTar:
      return new (std::nothrow) autoContactTar();
    case kBinTypeWallpaper:
      return new (std::nothrow) autoWallpaper();
    case kBinTypeRingOld:
    case kBinTypeRingtone:
      return new (std::nothrow) autoRingParser();
    case kBinTypeTrustedCert:
      return new (std::nothrow) autoCrtParser();
    case kBinTypeServerCert:
      return new (std::nothrow) autoPemParser();
    case kBinTypeFactoryConfig:
      return new (std::nothrow) autoFactoryBinParser();
    case kBinTypeCustomConfig:
      return new (std::nothrow) autoConfigBinParser();
    case kBinTypeLogo:
      return new (std::nothrow) autoLogoParser();
    case kBinTypeOpenVpn:
      return new (std::nothrow) autoOpenVpnParser();
    case kBinType8021X:
      return new (std::nothrow) auto802_1XCrtParser();
    default:
      return nullptr;
  }
}

// The fallback by resource kind; nullptr for a kind without a class.
autoBinParser* newParserByKind(int32_t kind) {
  switch (kind) {
    case kBinKindXml:
      return new (std::nothrow) autoXmlParser();
    case kBinKindImage:
      return new (std::nothrow) autoImageParser();
    case kBinKindCert:
      return new (std::nothrow) autoCertParser();
    case kBinKindTar:
      return new (std::nothrow) autoTarParser();
    case kBinKindWav:
      return new (std::nothrow) autoWavParser();
    default:
      return nullptr;
  }
}

}  // namespace

std::unique_ptr<autoBinParser> createBinParser(int32_t kind, int32_t typeId) {
  autoBinParser* parser = newParserByType(typeId);
  if (!parser) parser = newParserByKind(kind);
  return std::unique_ptr<autoBinParser>(parser);
}

std::unique_ptr<autoBinParser> createBinParserFor(const autopItem& item) {
  return createBinParser(resourceKindOf(item.fileType.c_str()),
                         binParserTypeOf(binParserKeywordOf(item.usage).c_str()));
}
