// The translation table: every configuration key the phone understands, read once from an XML file
// at service start (and again on the console's BACK key), read-only afterwards.
//
// Keys are dotted: object name, an index part after each numbered object, sub-object names, and the
// item name last ("account.1.codec.2.enable"). The table answers two questions:
//  - findItem: the item a key stands for, with its concrete target (path, section, key);
//  - findItemName: the key that stands for a (path, section, key) target of the older file models.
//
// First-match order: top-level objects are tried in table order, the first whose name matches and
// whose remainder matches wins; inside an object its items come before its sub-objects, and
// like-named sub-objects are tried in table order too. Name indexes only narrow the candidates;
// they never change which one wins.
//
// Completing a match (the template item copied into the caller's item):
//  - target path and section: those of the innermost object on the key's path that names one
//    (outer objects supply what inner ones leave empty); the item's own attribute serves only when
//    no object names one;
//  - action: the item's own calls followed by those of its objects, innermost first;
//  - for every numbered object on the way, its stored index ("%d") replaces each occurrence of its
//    indexMask text in the item's path, section, key and action. Nested numbered objects therefore
//    need distinct mask texts ("$i", "$j"); an inner mask equal to an outer one takes the inner index.
//
// Reverse lookup and indexes: templates keep their mask texts, so a target such as
// ("/config/user/voip/sipAccount3.cfg", "account", "Enable") is matched against
// "/config/user/voip/sipAccount$i.cfg": every mask must stand for one canonical non-negative decimal
// number (the same wherever that mask occurs) that lies in the object's range, and the key is
// written with the key index (stored - low + 1), so it leads back to the same target through
// findItem. A mask that occurs in none of path, section and key, or that an inner object's equal
// mask hides, leaves the index unknown and the item is not reachable backwards; so is an item
// nested deeper than any key can walk (16 objects). Items are asked in table order (depth first,
// children in file order); the first that matches gives the key. Where masks stand side by side
// ("x$i$j") one digit run can split in several ways: the split that gives the earlier masks the
// longer numbers and still meets every mask's rule wins. The match runs over the template's
// positions with every live split at once (splits that agree on what is still to come are merged),
// so its cost grows with the key's length, not with the number of splits; a template whose splits
// stay apart beyond 65,536 at one position is given up as not matching. The reverse index files
// each template under its fields without masks as they stand and its masked fields with their
// digits folded, so a target costs a few lookups whatever the size of the table.
//
// Memory: the loaded table keeps each distinct text once in one pool and its objects and items as
// small fixed records of text numbers that point at their parents, so nothing is copied per item
// however deep the nesting; the name and reverse indexes are sorted arrays. The XML document is
// held only while the table is built from it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "autopItem.h"

namespace tinyxml2 {
class XMLElement;
}

// Where the table is looked for: the first path that exists.
constexpr const char* kTranslatorConfigPath = "/config/autopTranslator.xml";
constexpr const char* kTranslatorPhonePath = "/phone/resource/autopTranslator.xml";
// Longest key (and key text out of a reverse lookup) that takes part in matching.
constexpr size_t kAutopKeyMax = 127;

class autopTranslator {
 public:
  autopTranslator();
  ~autopTranslator();
  autopTranslator(const autopTranslator&) = delete;
  autopTranslator& operator=(const autopTranslator&) = delete;

  // Picks /config/autopTranslator.xml when it exists, else /phone/resource/autopTranslator.xml,
  // logs the choice and the result and loads it. Used at start and by the BACK key.
  bool loadDefaultTable();
  // Replaces the table with the file's contents. False (and an empty table) when it can't be read.
  bool loadTransData(const std::string& path);
  // Reads one "object" element and its children into `object` (a tree of full records, for callers
  // that want one; the table itself keeps the compact form). False for a missing argument.
  bool parseObjectElem(autopObject* object, const tinyxml2::XMLElement* element);
  void clear();

  // The item a configuration key stands for; its value is left empty for the caller to fill.
  bool findItem(const std::string& key, autopItem& item) const;
  // The configuration key (at most 127 characters) for a target of the older file models.
  bool findItemName(const std::string& path, const std::string& section, const std::string& key,
                    std::string& name) const;

  bool isLoaded() const { return m_loaded; }
  // Top-level objects and all items of the table.
  size_t objectCount() const;
  size_t itemCount() const;
  // The group tag ("cfg", "bin", ...) of the top-level object at `index` (table order).
  std::string objectType(size_t index) const;

  // The loaded records, text pool and indexes; replaced as a whole by every load.
  struct Store;

 private:
  bool m_loaded = false;
  std::unique_ptr<Store> m_store;
};
