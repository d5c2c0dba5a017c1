// A parsed INI file in memory, in file order: sections, keys, values and comment lines. Used for the
// configuration store's files and for configuration files of the older key model.
#pragma once

#include <string>
#include <vector>

// Comment, blank and unparsable lines are kept in place as entries with an empty key (the whole line
// in `value`), so a file written back keeps them; readers that iterate keys skip isComment() ones.
struct iniKey {
  std::string key;
  std::string value;
  const std::string& GetValue() const { return value; }
  bool isComment() const { return key.empty(); }
};

struct iniSection {
  std::string name;
  std::vector<iniKey> keys;
  const iniKey* find(const std::string& key) const;
  iniKey* find(const std::string& key);
};

class iniFile {
 public:
  // Parses a file (logical path). False when it cannot be read.
  bool LoadFromFile(const std::string& logicalPath);
  // Parses text: "[section]" lines, "key=value" lines (blanks around both trimmed), lines starting
  // with "#" or ";" are comments. Keys before any section belong to the section "".
  void LoadFromText(const std::string& text);
  std::string ExportToText() const;
  // Atomic save (temporary file, fsync, rename).
  bool SaveToFile(const std::string& logicalPath) const;

  std::string GetTextValue(const std::string& section, const std::string& key, const std::string& def) const;
  bool HasKey(const std::string& section, const std::string& key) const;
  void SetTextValue(const std::string& section, const std::string& key, const std::string& value);
  // The section name SetTextValue files a key under (blanks trimmed, line breaks made blanks): two
  // texts with the same name here address the same section.
  static std::string sectionNameOf(const std::string& section);
  bool RemoveKey(const std::string& section, const std::string& key);

  const std::vector<iniSection>& sections() const { return sections_; }
  const iniSection* findSection(const std::string& name) const;

 private:
  iniSection& sectionFor(const std::string& name);
  std::vector<iniSection> sections_;
};
