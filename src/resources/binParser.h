// Resource file parsers: a resource file that the resource upgrader downloaded is installed, edited
// or deleted by a parser of its type. Every parser derives from autoBinParser, which fixes the
// install sequence (check, upgrade, post), the default copy, the free-space check and the delete
// command. createBinParser picks the class from the type keyword of the item's operation text
// ("cover.contact_list"), falling back on the item's resource kind word:
//
//   keyword                 id  class                  keyword                 id  class
//   "contact_list"          1   autoContactParser      "dialplan"              11  autoDialPlan
//   "contact_photo"         2   autoContactPhoto       "line_key"              12  autoLineKey
//   "photo_tar"             3   autoPhotoTarParser     "memory_key"            13  autoMemoryKey
//   "contact_tar"           4   autoContactTar         "custom_factory_config" 14  autoFactoryBinParser
//   "wallpaper"             5   autoWallpaper          "custom_config"         15  autoConfigBinParser
//   (none)                  6   autoRingParser         "logo"                  16  autoLogoParser
//   "ringtone"              7   autoRingParser         "openvpn"               17  autoOpenVpnParser
//   "trusted_cert"          8   autoCrtParser          "802_1X"                18  auto802_1XCrtParser
//   "server_cert"           9   autoPemParser
//   "dialnow"               10  autoDialNow
//
//   kind word  number  class (when the id is 0 or has no class)
//   "xml"      1       autoXmlParser
//   "image"    2       autoImageParser
//   "cert"     3       autoCertParser
//   "tar"      4       autoTarParser
//   (none)     5       autoWavParser
//   other      0       none
//
// A parser lives for one item: created by the upgrader, used once, deleted by its owner.
//
// Every path here is logical (resolved under the platform root where a file is touched). Content
// from a server never reaches a shell: files are copied, moved and removed by the service itself.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "autopItem.h"

// Resource type ids of the keyword table (0: unknown keyword).
enum binParserType : int32_t {
  kBinTypeUnknown = 0,
  kBinTypeContactList = 1,
  kBinTypeContactPhoto = 2,
  kBinTypePhotoTar = 3,
  kBinTypeContactTar = 4,
  kBinTypeWallpaper = 5,
  kBinTypeRingOld = 6,  // no keyword names it; kept for the factory as a second ring-tone id
  kBinTypeRingtone = 7,
  kBinTypeTrustedCert = 8,
  kBinTypeServerCert = 9,
  kBinTypeDialNow = 10,
  kBinTypeDialPlan = 11,
  kBinTypeLineKey = 12,
  kBinTypeMemoryKey = 13,
  kBinTypeFactoryConfig = 14,
  kBinTypeCustomConfig = 15,
  kBinTypeLogo = 16,
  kBinTypeOpenVpn = 17,
  kBinType8021X = 18,
};

// Resource kind numbers of the fallback (resourceKindOf gives 1 to 4 from the kind word).
enum binParserKind : int32_t {
  kBinKindNone = 0,
  kBinKindXml = 1,
  kBinKindImage = 2,
  kBinKindCert = 3,
  kBinKindTar = 4,
  kBinKindWav = 5,
  kBinKindReserved = 6,  // known to the factory, no class
};

// Delete command types parsed from "<scheme>://localhost/<word>".
enum binDeleteType : int32_t {
  kDeleteInvalid = -1,
  kDeleteAll = 0,   // every entry of the destination directory, sub-directories with their contents
  kDeleteDir = 1,   // the destination directory itself
  kDeleteFile = 2,  // one named file of the destination directory
};

class autoBinParser {
 public:
  autoBinParser() = default;
  virtual ~autoBinParser();
  autoBinParser(const autoBinParser&) = delete;
  autoBinParser& operator=(const autoBinParser&) = delete;

  // Edits the destination in place from the items; nonzero on success. The base refuses.
  virtual int modifyFile(const std::string& destination, autopItemList& items);
  // Removes the destination, or files of it as the command says; nonzero on success.
  virtual int deleteFile(const std::string& destination, const char* command);
  // Nonzero when the downloaded file (m_srcPath) may be installed. The base checks the space only.
  virtual int checkFile();
  // Installs m_srcPath at m_destPath; nonzero on success. The base copies it atomically.
  virtual int upgradeFile();
  // Runs after a successful install (for example: tell an application to reload); nonzero on
  // success. A failure is logged and never fails the install. The base does nothing.
  virtual int upgradePost();
  // Nonzero when the destination's partition has room for the source file; the base deletes the
  // source file when it has not.
  virtual int checkSpace();

  // check, upgrade, post. 1 when installed, 0 when refused or failed.
  int installFile(const char* source, const std::string& destination);

  // The item's key (some parsers pick a sub-target by it) and its action text (the text-method
  // calls its post step may run), set by the upgrader before installFile.
  void setKey(const std::string& key) { m_key = key; }
  void setAction(const std::string& action) { m_action = action; }
  const std::string& destinationPath() const { return m_destPath; }
  const std::string& sourcePath() const { return m_srcPath; }

 protected:
  // Copies `source` to `destination` through a temporary file beside the destination, synced and
  // renamed over it, so a crash or a full partition leaves either the old file or the new one.
  // Missing parent directories are created. 1 on success; on failure the destination is untouched.
  static int installCopyAtomic(const std::string& source, const std::string& destination);
  // Runs every ";"-separated call of the action text at once, so the application reloads the new
  // file before later items of the same configuration file run (the end-of-file queue may send the
  // same call once more, which a reload takes in its stride). 1 when all ran (or there were none),
  // 0 when a call failed.
  int runActionMethods() const;

  std::string m_destPath;  // a file or a directory
  std::string m_srcPath;   // the download in /tmp
  std::string m_text1;     // free for subclasses
  std::string m_text2;     // free for subclasses
  std::string m_key;
  std::string m_action;
};

// The type id of a keyword (exact, case-sensitive); 0 when unknown or missing.
int32_t binParserTypeOf(const char* keyword);
// The keyword part of an operation text: the text after its first "." ("" when there is none).
std::string binParserKeywordOf(const std::string& operation);
// Creates by type id first (1..18 with a class), else by kind number; nullptr when neither names a
// class. The caller owns the result.
std::unique_ptr<autoBinParser> createBinParser(int32_t kind, int32_t typeId);
// The parser for an item: its operation keyword and its resource kind word.
std::unique_ptr<autoBinParser> createBinParserFor(const autopItem& item);

// Parses "<scheme>://localhost/<word>": the delete type, with the file name for kDeleteFile.
int32_t parseDeleteCommand(const char* command, std::string* fileName);

