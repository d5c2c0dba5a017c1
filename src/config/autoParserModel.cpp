#define LOG_MODULE "./src/autoParser"
#include "autoParserModel.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>

#include "autopTranslator.h"
#include "autopUrl.h"
#include "inifile.h"
#include "log.h"
#include "paths.h"
#include "redact.h"

namespace {

constexpr size_t kFirstLineMax = 30;
constexpr size_t kVersionWordMax = 31;
constexpr const char* kBom = "\xEF\xBB\xBF";
constexpr const char* kPasswordFile = "/valdrun/config/.htpasswd";
constexpr const char* kUserIni = "/config/user/user.ini";

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f'; }

std::string trim(const std::string& text) {
  size_t begin = 0, end = text.size();
  while (begin < end && isBlank(text[begin])) ++begin;
  while (end > begin && isBlank(text[end - 1])) --end;
  return text.substr(begin, end - begin);
}

bool startsWith(const std::string& text, const char* prefix) { return text.compare(0, strlen(prefix), prefix) == 0; }

enum class M7Line { kSkipped, kPair, kEnd };

// One M7 line (without its line feed): a pair, a line that gives none, or the end of the M7 part.
M7Line takeM7Line(const char* line, size_t length, RawPair& pair) {
  size_t first = 0;
  while (first < length && isBlank(line[first])) ++first;
  if (first == length || line[first] == '#') return M7Line::kSkipped;
  const char* end = line + length;
  if (line[first] == '[' && std::find(line + first, end, ']') != end) return M7Line::kEnd;
  const char* equals = std::find(line + first, end, '=');
  if (equals == end) return M7Line::kSkipped;
  size_t equalsAt = static_cast<size_t>(equals - line);
  size_t keyEnd = equalsAt;
  while (keyEnd > first && isBlank(line[keyEnd - 1])) --keyEnd;
  if (keyEnd == first) return M7Line::kSkipped;
  size_t valueBegin = equalsAt + 1;
  while (valueBegin < length && isBlank(line[valueBegin])) ++valueBegin;
  size_t valueEnd = length;
  while (valueEnd > valueBegin && isBlank(line[valueEnd - 1])) --valueEnd;
  pair.first.assign(line + first, keyEnd - first);
  pair.second.assign(line + valueBegin, valueEnd - valueBegin);
  return M7Line::kPair;
}

// The target of one M2 key inside a section of the given file type.
struct Target {
  std::string section;
  std::string key;
  std::string value;
};

Target m2Target(const std::string& fileType, const std::string& key, const std::string& value) {
  if (startsWith(key, "802.1X.")) return {"802.1X", key.substr(7), value};
  if (fileType == "psw") {
    bool remove = !key.empty() && key[0] == '-';
    std::string user = remove ? key.substr(1) : key;
    return {remove ? "del_user" : "user", "", user + ":" + value};
  }
  size_t dot = key.find('.');
  if (dot == std::string::npos) return {"", key, value};
  return {key.substr(0, dot), key.substr(dot + 1), value};
}

void appendLookedUp(const autopTranslator& table, const std::string& path, const Target& target, RawPairList& pairs) {
  std::string name;
  if (table.findItemName(path, target.section, target.key, name)) {
    pairs.emplace_back(name, trim(target.value));
  } else {
    LOG_DEB("Warning: Not found %s::%s:%s ", logEscaped(path).c_str(), logEscaped(target.section).c_str(),
            logEscaped(target.key).c_str());
  }
}

// "cfg:", "bin:", "rom:", "ini:" or "psw:" sections are M2; the text up to "," is the target.
bool m2Section(const std::string& rawName, std::string& fileType, std::string& path) {
  size_t first = rawName.find_first_not_of(" \t");
  std::string name = first == std::string::npos ? "" : rawName.substr(first);
  for (const char* prefix : {"cfg:", "bin:", "rom:", "ini:", "psw:"}) {
    if (!startsWith(name, prefix)) continue;
    fileType = name.substr(0, 3);
    std::string rest = name.substr(4);
    path = trim(rest.substr(0, rest.find(',')));
    return true;
  }
  return false;
}

const char* legacyLoginFor(const std::string& key) {
  if (key == "AdminPassword") return "admin";
  if (key == "UserPassword") return "user";
  if (key == "VarPassword") return "var";
  return nullptr;
}

// Reads one M1 section; false when it had to stop early.
bool takeM1Section(const iniFile& file, const iniSection& section, const autopTranslator& table,
                   RawPairList& pairs) {
  std::string target;
  for (const iniKey& entry : section.keys)
    if (!entry.isComment() && (entry.key == "path" || entry.key == "Path")) target = trim(entry.value);
  for (const iniKey& entry : section.keys) {
    if (entry.isComment() || entry.key.empty() || entry.key[0] == '#') continue;
    if (entry.key == "path" || entry.key == "Path") continue;
    if (const char* login = legacyLoginFor(entry.key)) {
      std::string user = file.GetTextValue("UserName", login, "");
      if (user.empty()) {
        iniFile phoneUsers;
        if (phoneUsers.LoadFromFile(kUserIni)) user = phoneUsers.GetTextValue("UserName", login, "");
      }
      if (user.empty()) {
        LOG_WAR("Fail to get [%s] name for WEB Login !", login);
        return false;
      }
      appendLookedUp(table, kPasswordFile, Target{"user", "", user + ":" + entry.value}, pairs);
      continue;
    }
    if (target == kPasswordFile) {
      appendLookedUp(table, target, m2Target("psw", entry.key, entry.value), pairs);
      continue;
    }
    // An older-model setting outside the password file is named after its section alone.
    std::string name = "security." + section.name;
    LOG_DEB("%s = %s", logEscaped(name).c_str(),
            settingValueForLog(isSecretName(entry.key) || isSecretName(name), entry.value).c_str());
    pairs.emplace_back(name, trim(entry.value));
  }
  return true;
}

}  // namespace

ConfigModel recogniseModel(const std::string& path, std::string& version) {
  FilePtr file = openFile(path, "rb");
  if (!file) {
    LOG_ERR("Failed to open file [%s]!", path.c_str());
    return ConfigModel::kUnreadable;
  }
  char line[kFirstLineMax + 1] = {0};
  if (!fgets(line, sizeof(line), file.get())) {
    LOG_ERR("Can't get model version flag !!");
    return ConfigModel::kUnreadable;
  }
  bool hasBom = strncmp(line, kBom, 3) == 0;
  const char* text = hasBom ? line + 3 : line;
  char word[kVersionWordMax + 1] = {0};
  if (sscanf(text, "#!version:%31s", word) == 1) {
    version = word;
    return ConfigModel::kM7;
  }
  if (hasBom) {
    std::string contents;
    file.reset();
    if (readTextFile(path, contents)) writeFileAtomic(path, contents.substr(3));
  }
  return ConfigModel::kM1OrM2;
}

M7PairReader::~M7PairReader() { free(m_line); }

bool M7PairReader::open(const std::string& path) {
  m_failed = false;
  m_file = openFile(path, "rb");
  return m_file != nullptr;
}

void M7PairReader::close() { m_file.reset(); }

bool M7PairReader::next(RawPair& pair) {
  if (!m_file) return false;
  ssize_t length;
  while ((length = getline(&m_line, &m_capacity, m_file.get())) > 0) {
    size_t size = static_cast<size_t>(length);
    if (m_line[size - 1] == '\n') --size;
    switch (takeM7Line(m_line, size, pair)) {
      case M7Line::kPair:
        return true;
      case M7Line::kSkipped:
        continue;
      case M7Line::kEnd:
        close();
        return false;
    }
  }
  m_failed = ferror(m_file.get()) != 0;
  close();
  return false;
}

bool loadM7Pairs(const std::string& path, RawPairList& pairs) {
  LOG_IFO("");
  LOG_IFO("autoParser::LoadM7Model");
  pairs.clear();
  M7PairReader reader;
  if (!reader.open(path)) return false;
  RawPair pair;
  while (reader.next(pair)) pairs.push_back(std::move(pair));
  // A file that could not be read to its end is not taken for a whole one.
  return !pairs.empty() && !reader.failed();
}

bool loadM1OrM2Pairs(const std::string& path, const autopTranslator& table, RawPairList& pairs) {
  LOG_IFO("autoParser::LoadM1OrM2Model");
  pairs.clear();
  iniFile file;
  if (!file.LoadFromFile(path)) {
    LOG_IFO("failed to load [%s] ", path.c_str());
    return false;
  }
  for (const iniSection& section : file.sections()) {
    std::string fileType, target;
    if (!m2Section(section.name, fileType, target)) {
      if (!section.name.empty()) takeM1Section(file, section, table, pairs);
      continue;
    }
    LOG_IFO("Load m2 mode!!!");
    for (const iniKey& entry : section.keys) {
      if (entry.isComment() || entry.key.empty() || entry.key[0] == '#') continue;
      appendLookedUp(table, target, m2Target(fileType, entry.key, entry.value), pairs);
    }
  }
  return true;
}
