// Archives and packages: photo sets, contact sets, VPN packages and the factory and configuration
// packages. Each parser lives for one item, created by the parser factory and deleted by its owner.
//
// An archive (tar, plain or compressed with gzip, bzip2 or xz) is read with libarchive, never with a
// shell tar, and is checked whole before anything is written: entries with an absolute name or a
// ".." component, links pointing outside the destination or at other links, entries reached
// through a link, device nodes, FIFOs and sockets are refused, and the unpacked total must fit in
// the free space of the destination's partition. Hard links must name another entry of the archive.
// It is then unpacked into a staging directory inside the destination directory (same partition),
// with every file opened relative to the staging directory and without following links, and only
// when all of it is there does it move into place by renames. A refused or broken archive leaves
// the destination as it was. Permissions keep at most rwxr-xr-x; owners are not restored.
//
// The destination the upgrader hands over is the destination directory plus the archive's own name
// ("/config/data/photo/photos.tar"): the archive is unpacked into that directory and not kept (its
// ".MD5" companion still records what was installed).
//
// autoTarParser ("tar" kind), autoPhotoTarParser ("photo_tar"), autoContactTar ("contact_tar"):
//   unpacked over the directory: entries of the archive replace files of the same name, other files
//   stay. An entry that would put a file where a directory is (or the other way round) refuses the
//   archive before anything moves.
// autoOpenVpnParser ("openvpn"): a VPN package is a unit, so it replaces the whole directory: the
//   old directory is renamed aside, the staged one renamed into its place, and the old one removed
//   (put back if the second rename fails).
// autoFactoryBinParser ("custom_factory_config") and autoConfigBinParser ("custom_config"): either
//   an archive, checked and unpacked over the directory as above, or one configuration file, checked
//   as a downloaded configuration file is (not empty, at most 2097152 bytes, no zero byte, in one of
//   the two models: "#!version:" first line with at least one "key = value" line, or INI sections
//   with keys; the configuration layer stands above the parsers, so this small check is their own)
//   and installed with the atomic copy. Either way whole or not at all.
//   Space: the factory package must fit beside the package it replaces (the old files stay until
//   the new ones are complete), so its unpacked size must not exceed the free space. The
//   configuration package must in addition leave 128 KiB free on the configuration partition, which
//   every later setting is written to.
//   The factory package's post step runs the item's action text (if any), so a server can tell the
//   phone that new factory values are there.
#pragma once

#include <cstdint>
#include <string>

#include "autopSettings.h"
#include "binParser.h"

constexpr int64_t kConfigPackageMaxFileBytes = kMaxConfigFileBytes;
constexpr int64_t kConfigPartitionReserve = 128 * 1024;

// No resource package of the phone (contacts, photos, configuration or VPN packages) comes near
// this many entries; past it an archive is refused before anything is written, as a few hundred
// kilobytes of empty entries would otherwise cost the flash a million inodes.
constexpr int32_t kMaxArchiveEntries = 4096;
// What one entry costs the partition at least, whatever its size: one block.
constexpr int64_t kArchiveEntryBlockBytes = 4096;

// What the check of an archive found.
struct archiveSummary {
  int64_t unpackedBytes = 0;  // the regular files' sizes, each rounded up to whole blocks, plus a
                              // block for every other entry
  int32_t entries = 0;
};

// Reads an archive whole (logical path) and checks every entry. 1 when it may be unpacked.
int checkArchive(const std::string& archivePath, archiveSummary& summary);
// True when the file is an archive that libarchive can read (whatever its entries are).
bool isArchiveFile(const std::string& path);

enum class unpackMode { kOverlay, kReplace };
// Checks the archive, then unpacks it into `directory` (logical) whole or not at all; the unpacked
// total must not exceed `maxBytes`. 1 on success.
int unpackArchive(const std::string& archivePath, const std::string& directory, int64_t maxBytes,
                  unpackMode mode);

// True when a single file passes the check of a downloaded configuration file.
bool isConfigurationFile(const std::string& path);

class autoTarParser : public autoBinParser {
 public:
  int checkFile() override;
  int upgradeFile() override;

 protected:
  // The directory the archive is unpacked into.
  std::string unpackDirectory() const;
  virtual unpackMode mode() const { return unpackMode::kOverlay; }
  // Bytes the archive may unpack to: the free space of the destination's partition less a reserve.
  int64_t unpackBound(int64_t reserve) const;
  // Refuses (and deletes the source, as the base space check does) when `needed` exceeds `bound`.
  int refuseWhenTooLarge(int64_t needed, int64_t bound) const;
};

class autoPhotoTarParser : public autoTarParser {};

class autoContactTar : public autoTarParser {};

class autoOpenVpnParser : public autoTarParser {
 protected:
  unpackMode mode() const override { return unpackMode::kReplace; }
};

// A factory or configuration package: an archive or one configuration file.
class autoPackageParser : public autoTarParser {
 public:
  int checkFile() override;
  int upgradeFile() override;
  int checkSpace() override;

 protected:
  virtual int64_t spaceReserve() const = 0;
  bool m_isArchive = false;
  int64_t m_neededBytes = 0;
};

class autoFactoryBinParser : public autoPackageParser {
 public:
  int upgradePost() override;

 protected:
  int64_t spaceReserve() const override { return 0; }
};

class autoConfigBinParser : public autoPackageParser {
 protected:
  int64_t spaceReserve() const override { return kConfigPartitionReserve; }
};
