// The configuration files of the last runs as they were received (cipher text stays cipher text),
// with the validators (ETag, Last-Modified) of the HTTP answers they came in. The next download of
// the same URL sends the validators back; a server that answers 304 "not modified" sends no body,
// and the kept bytes go through the whole path of a downloaded file instead, so the resource and
// firmware items of an unchanged file are still checked.
//
// Folder /config/provisor.d/cache (0700, the daemon's own). One entry per URL, named by the MD5 of
// the URL's text, so no credentials show in a name: "<key>.meta" (validators, size and MD5 of the
// body) and "<key>.body". Each is written atomically, and only when the file or its validators
// changed. Bounds: a body of at most kMaxConfigFileSize bytes; at most kMaxCachedConfigFiles
// entries, the least recently written go first. An entry that is missing, unreadable or does not
// match its own size and MD5 counts as absent: the download is an ordinary one.
#pragma once

#include <cstddef>
#include <string>

#include "httpfile.h"

constexpr const char* kConfigCacheDir = "/config/provisor.d/cache";
constexpr size_t kMaxCachedConfigFiles = 8;

namespace configCache {

// The validators to send for `urlText`; false when there is no whole entry for it.
bool lookup(const std::string& urlText, httpValidators& validators);
// Writes the kept body of `urlText` to the private file `path` (logical); false when the entry is
// gone or damaged.
bool restore(const std::string& urlText, const std::string& path);
// Keeps the file at `path` as the body of `urlText` with the answer's validators. Nothing is
// written when both are what is kept already, and nothing is kept without validators.
void remember(const std::string& urlText, const httpValidators& validators, const std::string& path);

}  // namespace configCache
