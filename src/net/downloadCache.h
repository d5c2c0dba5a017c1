// What the last downloads of a URL over HTTP or HTTPS answered: the validators (ETag,
// Last-Modified), and for configuration files the bytes as received (cipher text stays cipher
// text). The next download of the same URL sends the validators back; a server that answers 304
// "not modified" sends no body. A configuration file then takes its kept bytes through the whole
// path of a downloaded file (so its resource and firmware items are still checked); a resource
// counts as unchanged.
//
// One folder per kind under /config/provisor.d/cache (0700, the daemon's own). One entry per URL,
// named by the MD5 of the URL's text, so no credentials show in a name: "<key>.meta" (validators,
// and the size and MD5 of the body) and, where bytes are kept, "<key>.body". Each is written
// atomically, and only when the bytes or the validators changed. Bounds: the body size the kind
// gives; at most `maxEntries` entries, the least recently written go first. An entry that is
// missing, unreadable or does not match its own size and MD5 counts as absent: the download is an
// ordinary one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "httpfile.h"

constexpr const char* kDownloadCacheDir = "/config/provisor.d/cache";

class downloadCache {
 public:
  // `maxBodyBytes` 0 keeps validators only.
  downloadCache(const std::string& folder, size_t maxEntries, int64_t maxBodyBytes);

  // The configuration files (bytes kept, up to 2 MiB each, 8 of them) and the resources
  // (validators only, 64 of them).
  static downloadCache& configFiles();
  static downloadCache& resources();

  // The validators to send for `urlText`; false when there is no whole entry for it.
  bool lookup(const std::string& urlText, httpValidators& validators) const;
  // The kept bytes of `urlText`; false when the entry is gone or damaged.
  bool keptBytes(const std::string& urlText, std::string& bytes) const;
  // Keeps the answer's validators (and, for a kind with bytes, the file at `path`, a logical path)
  // for `urlText`. Nothing is written when both are what is kept already, nor without validators.
  void remember(const std::string& urlText, const httpValidators& validators, const std::string& path = "") const;
  // Forgets `urlText` (a resource whose install failed must be asked for whole next time).
  void forget(const std::string& urlText) const;
  const std::string& folder() const { return folder_; }

 private:
  struct Entry;
  bool readEntry(const std::string& urlText, Entry& entry) const;
  std::string entryPath(const std::string& urlText, const char* suffix) const;
  bool ensureFolder() const;
  void prune() const;

  std::string folder_;
  size_t maxEntries_;
  int64_t maxBodyBytes_;
};
