// The item model: one setting to apply (autopItem) and the table's groups of settings (autopObject).
//
// The translation table owns its objects and their template items for the life of the process. A
// lookup copies a template into a fresh item that belongs to the caller's item list; the upgraders
// consume the items of one list and the list is freed after each batch.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

// One setting: where it goes, how it is checked and applied, and what must happen after a change.
struct autopItem {
  std::string name;       // table name; after a lookup the configuration key itself
  std::string type;       // "cfg", "bin", "pwd" or "rom": which upgrader takes it
  std::string fileType;   // resource kind of bin items ("xml", "image", "cert", "tar")
  std::string optType;    // how the value is applied
  std::string usage;      // operation word "." qualifier, e.g. "cover.contact_list"
  std::string valueType;  // e.g. "boolean", "!boolean"
  std::string indexMask;  // index form of the item
  std::string range;      // allowed values
  std::string action;     // text-method calls to run after a change, ";"-separated
  std::string path;       // target file
  std::string section;    // target section
  std::string key;        // target key
  std::string value;      // value to apply ("" for "%NULL%")
  bool encrypt = false;   // value is stored encrypted
  bool changed = false;   // set by the upgrader once it applied the item
  bool reboot = false;    // a change needs a reboot
};

// The items handed to one upgrader, in configuration-file order. Empty slots are allowed and
// skipped by every upgrader.
using autopItemList = std::vector<std::unique_ptr<autopItem>>;

// Index of an object that is not numbered.
constexpr int32_t kAutopNoIndex = -9999;

struct autopObject;

// A child of an object, in file order: either a sub-object or an item.
struct autopObjectChild {
  std::unique_ptr<autopObject> object;
  std::unique_ptr<autopItem> item;
};

// One "object" element of the table: the key part that selects it and the target its items share.
struct autopObject {
  std::string type;       // upgrade type text of the enclosing group, inherited by sub-objects
  std::vector<autopObjectChild> children;
  std::string name;       // key part that selects this object
  std::string action;     // text-method calls, ";"-separated
  std::string indexMask;  // non-empty when numbered: the key carries an index part after the name
  std::string range;      // "low-high" bounds of the index
  std::string path;       // target file
  std::string section;    // target section
  std::string note;       // free comment
  bool reboot = false;    // changes need a reboot
  // The table itself is read-only once loaded, so its objects always hold kAutopNoIndex here; a
  // lookup keeps the index of the key in hand on its own stack and writes it into the item.
  int32_t currentIndex = kAutopNoIndex;
};
