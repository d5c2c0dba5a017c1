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

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "autopSettings.h"
#include "paths.h"

class autopTranslator;

using RawPair = std::pair<std::string, std::string>;
using RawPairList = std::vector<RawPair>;

enum class ConfigModel { kUnreadable, kM7, kM1OrM2 };

// The largest configuration file accepted, in bytes (a file of exactly this size is accepted).
constexpr long kMaxConfigFileSize = kMaxConfigFileBytes;

// Looks at the first line; for M7 fills the version word. An M1/M2 file that begins with a
// byte-order mark is rewritten without it.
ConfigModel recogniseModel(const std::string& path, std::string& version);
// True when at least one pair was read.
bool loadM7Pairs(const std::string& path, RawPairList& pairs);

// The pairs of an M7 file one at a time, read from disk as they are asked for: a file of the largest
// size never needs to be held whole, nor all its pairs at once. A read error ends the pairs there.
class M7PairReader {
 public:
  M7PairReader() = default;
  ~M7PairReader();
  M7PairReader(const M7PairReader&) = delete;
  M7PairReader& operator=(const M7PairReader&) = delete;

  // False when the file can't be opened.
  bool open(const std::string& path);
  void close();
  // The next pair; false once the M7 part (or the file) has ended.
  bool next(RawPair& pair);
  // True when the pairs ended at a read error rather than at the end of the file.
  bool failed() const { return m_failed; }

 private:
  FilePtr m_file;
  char* m_line = nullptr;  // getline's buffer, reused for every line
  size_t m_capacity = 0;
  bool m_failed = false;
};
// True when the file could be read as INI.
bool loadM1OrM2Pairs(const std::string& path, const autopTranslator& table, RawPairList& pairs);
