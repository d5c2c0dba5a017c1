// Reading a configuration file into raw key/value pairs, in either of its two models:
//  - M7, the main format: a first line "#!version:<word>", then "object.item = value" lines;
//    comments start with "#"; the first "[...]" line ends the M7 part.
//  - M1/M2, the older INI formats. M2 sections name a file type and a target file
//    ("[cfg:/config/system/system.ini]") and their keys are "section.key"; each target triple is
//    turned back into a configuration key through the translation table. M1 sections name an
//    object; a "path" key gives its target file, and its other keys become "<section>.<key>" pairs.
//    The legacy web-login keys (AdminPassword, UserPassword, VarPassword) become password-file
//    entries "<login name>:<password>".
#pragma once

#include <string>
#include <utility>
#include <vector>

class autopTranslator;

using RawPair = std::pair<std::string, std::string>;
using RawPairList = std::vector<RawPair>;

enum class ConfigModel { kUnreadable, kM7, kM1OrM2 };

// The largest configuration file accepted, in bytes (a file of exactly this size is accepted).
constexpr long kMaxConfigFileSize = 2097152;

// Looks at the first line; for M7 fills the version word. An M1/M2 file that begins with a
// byte-order mark is rewritten without it.
ConfigModel recogniseModel(const std::string& path, std::string& version);
// True when at least one pair was read.
bool loadM7Pairs(const std::string& path, RawPairList& pairs);
// True when the file could be read as INI.
bool loadM1OrM2Pairs(const std::string& path, const autopTranslator& table, RawPairList& pairs);
