// INI files in memory. The parser never fails: whatever is not a section header or a key line is
// kept verbatim, so reading and writing a file back changes only the values that were set.
#include "inifile.h"

#include "paths.h"

namespace {

constexpr const char* kBlanks = " \t\r\n";

std::string trim(const std::string& text) {
  size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string::npos) return "";
  size_t last = text.find_last_not_of(kBlanks);
  return text.substr(first, last - first + 1);
}

bool isCommentLine(const std::string& line) { return line.empty() || line[0] == '#' || line[0] == ';'; }

// "[name]" (blanks around the name trimmed); false for anything else.
bool parseSectionHeader(const std::string& line, std::string& name) {
  if (line.size() < 2 || line.front() != '[') return false;
  size_t close = line.find(']');
  if (close == std::string::npos) return false;
  name = trim(line.substr(1, close - 1));
  return true;
}

// A key or value that spans lines would write extra keys into the file: line breaks become blanks.
std::string singleLine(const std::string& text) {
  std::string out = text;
  for (char& c : out)
    if (c == '\n' || c == '\r') c = ' ';
  return out;
}

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// Already what trim(singleLine(text)) would make of it: the usual case, which needs no copy.
bool hasLineBreak(const std::string& text) {
  for (char c : text)
    if (c == '\r' || c == '\n') return true;
  return false;
}

bool isCleanText(const std::string& text) {
  return !hasLineBreak(text) && (text.empty() || (!isBlank(text.front()) && !isBlank(text.back())));
}

bool isWritableKey(const std::string& key) {
  return !key.empty() && isCleanText(key) && key.find('=') == std::string::npos && !isCommentLine(key) &&
         key[0] != '[';
}

}  // namespace

const iniKey* iniSection::find(const std::string& key) const {
  if (key.empty()) return nullptr;
  for (const iniKey& entry : keys)
    if (entry.key == key) return &entry;
  return nullptr;
}

iniKey* iniSection::find(const std::string& key) {
  return const_cast<iniKey*>(static_cast<const iniSection*>(this)->find(key));
}

bool iniFile::LoadFromFile(const std::string& logicalPath) {
  std::string text;
  if (!readTextFile(logicalPath, text)) {
    sections_.clear();
    return false;
  }
  LoadFromText(text);
  return true;
}

void iniFile::LoadFromText(const std::string& text) {
  sections_.clear();
  iniSection* current = nullptr;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string raw = text.substr(start, end - start);
    start = end + 1;
    // Any number of carriage returns ends a line: written back, the line must read the same.
    while (!raw.empty() && raw.back() == '\r') raw.pop_back();

    std::string line = trim(raw);
    std::string name;
    if (parseSectionHeader(line, name)) {
      current = &sectionFor(name);
      continue;
    }
    if (!current) current = &sectionFor("");
    size_t equals = line.find('=');
    if (isCommentLine(line) || equals == std::string::npos || trim(line.substr(0, equals)).empty()) {
      current->keys.push_back(iniKey{"", raw});
      continue;
    }
    current->keys.push_back(iniKey{trim(line.substr(0, equals)), trim(line.substr(equals + 1))});
  }
}

std::string iniFile::ExportToText() const {
  std::string text;
  for (const iniSection& section : sections_) {
    if (!section.name.empty()) text += "[" + section.name + "]\n";
    for (const iniKey& entry : section.keys) {
      if (entry.isComment())
        text += entry.value + "\n";
      else
        text += entry.key + "=" + entry.value + "\n";
    }
  }
  return text;
}

bool iniFile::SaveToFile(const std::string& logicalPath) const { return writeFileAtomic(logicalPath, ExportToText()); }

const iniSection* iniFile::findSection(const std::string& name) const {
  for (const iniSection& section : sections_)
    if (section.name == name) return &section;
  return nullptr;
}

std::string iniFile::GetTextValue(const std::string& section, const std::string& key, const std::string& def) const {
  const iniSection* found = findSection(section);
  const iniKey* entry = found ? found->find(key) : nullptr;
  return entry ? entry->value : def;
}

bool iniFile::HasKey(const std::string& section, const std::string& key) const {
  const iniSection* found = findSection(section);
  return found && found->find(key);
}

void iniFile::SetTextValue(const std::string& section, const std::string& key, const std::string& value) {
  if (!isWritableKey(key)) return;
  iniSection& target = isCleanText(section) ? sectionFor(section) : sectionFor(sectionNameOf(section));
  if (iniKey* entry = target.find(key)) {
    if (!hasLineBreak(value))
      entry->value = value;
    else
      entry->value = singleLine(value);
    return;
  }
  // New keys go after the last real key, so trailing blank lines stay between the sections.
  auto insertAt = target.keys.end();
  while (insertAt != target.keys.begin() && (insertAt - 1)->isComment() && trim((insertAt - 1)->value).empty())
    --insertAt;
  target.keys.insert(insertAt, iniKey{key, singleLine(value)});
}

std::string iniFile::sectionNameOf(const std::string& section) {
  return isCleanText(section) ? section : trim(singleLine(section));
}

bool iniFile::RemoveKey(const std::string& section, const std::string& key) {
  for (iniSection& candidate : sections_) {
    if (candidate.name != section) continue;
    for (auto it = candidate.keys.begin(); it != candidate.keys.end(); ++it) {
      if (!it->isComment() && it->key == key) {
        candidate.keys.erase(it);
        return true;
      }
    }
  }
  return false;
}

iniSection& iniFile::sectionFor(const std::string& name) {
  for (iniSection& section : sections_)
    if (section.name == name) return section;
  // Keys outside any section must come first in the file, or they would be read back as part of
  // the section above them.
  if (name.empty()) return *sections_.insert(sections_.begin(), iniSection{name, {}});
  sections_.push_back(iniSection{name, {}});
  return sections_.back();
}
