// The table's text pool and its builder: reads the XML table once into the compact store and its
// indexes, then lets the document go.
#define LOG_MODULE "./src/autopTranslator"
#include "autopTranslator.h"

#include <sys/stat.h>
#include <tinyxml2.h>

#ifdef __GLIBC__
#include <malloc.h>
#endif

#include <iterator>
#include <new>
#include <unordered_set>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "log.h"
#include "translatorStore.h"
#include "paths.h"

namespace translator_store {

using Store = autopTranslator::Store;

bool parseInt32(std::string_view text, int64_t& out) {
  if (text.empty() || text.size() > 11) return false;
  std::string copy(text);
  char* end = nullptr;
  errno = 0;
  long long value = strtoll(copy.c_str(), &end, 10);
  if (errno != 0 || end != copy.c_str() + copy.size() || !isDigit(copy.back())) return false;
  if (value < INT32_MIN || value > INT32_MAX) return false;
  out = value;
  return true;
}

std::vector<ChainMask> masksOf(const Store& store, const uint32_t* chain, size_t depth) {
  std::vector<ChainMask> masks;
  for (size_t i = 0; i < depth; ++i) {
    const ObjectRecord& object = store.objects[chain[i]];
    if (object.numbered()) masks.push_back({store.text(object.indexMask), i});
  }
  std::stable_sort(masks.begin(), masks.end(),
                   [](const ChainMask& a, const ChainMask& b) { return a.text.size() > b.text.size(); });
  return masks;
}

// The mask that starts `text`, or nullptr.
const ChainMask* maskAt(std::string_view text, const std::vector<ChainMask>& masks) {
  for (const ChainMask& mask : masks) {
    if (text.substr(0, mask.text.size()) == mask.text) return &mask;
  }
  return nullptr;
}

// Appends `field` with every digit run (and every mask) folded into one kDigitRun.
void appendFolded(std::string& out, std::string_view field, const std::vector<ChainMask>& masks) {
  while (!field.empty()) {
    size_t taken = 1;
    bool digits = isDigit(field.front());
    if (const ChainMask* mask = maskAt(field, masks)) {
      taken = mask->text.size();
      digits = true;
    }
    if (!digits)
      out.push_back(field.front());
    else if (out.empty() || out.back() != kDigitRun)
      out.push_back(kDigitRun);
    field.remove_prefix(taken);
  }
}

uint32_t bucketOf(TargetShape shape, const std::string_view (&fields)[3], const std::vector<ChainMask>& masks,
                  std::string& scratch) {
  scratch.assign(1, static_cast<char>('0' + shape));
  for (unsigned f = 0; f < 3; ++f) {
    scratch.push_back(kFieldSeparator);
    if (shape & (1u << f))
      appendFolded(scratch, fields[f], masks);
    else
      scratch.append(fields[f]);
  }
  return static_cast<uint32_t>(std::hash<std::string>()(scratch));
}

TargetShape shapeOf(const std::string_view (&fields)[3], const std::vector<ChainMask>& masks) {
  TargetShape shape = 0;
  for (unsigned f = 0; f < 3; ++f) {
    for (const ChainMask& mask : masks) {
      if (fields[f].find(mask.text) != std::string_view::npos) shape |= 1u << f;
    }
  }
  return shape;
}

}  // namespace translator_store

using namespace translator_store;

namespace {

std::string_view attributeOf(const tinyxml2::XMLElement* element, const char* name) {
  const char* value = element->Attribute(name);
  return value ? value : "";
}

bool flagOf(const tinyxml2::XMLElement* element, const char* name) { return attributeOf(element, name) == "1"; }

bool parseRange(std::string_view text, int64_t& low, int64_t& high) {
  size_t dash = text.find('-', 1);  // a leading "-" is the low bound's sign
  return dash != std::string_view::npos && parseInt32(text.substr(0, dash), low) &&
         parseInt32(text.substr(dash + 1), high);
}

template <typename Entry>
void sortAndTrim(std::vector<Entry>& entries) {
  std::sort(entries.begin(), entries.end());
  entries.shrink_to_fit();
}

class TableBuilder {
 public:
  explicit TableBuilder(Store& store) : m_store(store) {}

  void readObject(const tinyxml2::XMLElement* element, TextId type, uint32_t parent) {
    const uint32_t index = static_cast<uint32_t>(m_store.objects.size());
    ObjectRecord object;
    object.type = type;
    object.name = intern(element, "name");
    object.action = intern(element, "action");
    object.indexMask = intern(element, "indexMask");
    object.path = intern(element, "path");
    object.section = intern(element, "section");
    object.parent = parent;
    object.reboot = flagOf(element, "reboot");
    int64_t low = 0, high = 0;
    object.rangeValid = parseRange(attributeOf(element, "range"), low, high);
    object.low = static_cast<int32_t>(low);
    object.high = static_cast<int32_t>(high);
    m_store.objects.push_back(object);
    if (parent == kNone) m_store.topLevel.push_back(index);
    m_store.objectNames.push_back({parent, object.name, index});
    m_chain.push_back(index);
    enterScope();
    for (const tinyxml2::XMLElement* child = element->FirstChildElement(); child; child = child->NextSiblingElement()) {
      std::string_view tag = child->Name();
      if (tag == "object")
        readObject(child, type, index);
      else if (tag == "item")
        readItem(child, index);
    }
    m_scopes.pop_back();
    m_chain.pop_back();
  }

 private:
  TextId intern(const tinyxml2::XMLElement* element, const char* name) {
    return m_store.texts.intern(attributeOf(element, name));
  }

  void readItem(const tinyxml2::XMLElement* element, uint32_t object) {
    const uint32_t index = static_cast<uint32_t>(m_store.items.size());
    ItemRecord item;
    item.name = intern(element, "name");
    item.key = intern(element, "key");
    item.path = intern(element, "path");
    item.section = intern(element, "section");
    item.action = intern(element, "action");
    m_details.clear();
    bool anyDetail = false;
    for (const char* attribute : kItemDetailAttributes) {
      std::string_view value = attributeOf(element, attribute);
      anyDetail = anyDetail || !value.empty();
      m_details.append(value).push_back(kDetailSeparator);
    }
    item.details = anyDetail ? m_store.texts.intern(m_details) : 0;
    item.object = object;
    item.encrypt = flagOf(element, "encrypt");
    item.reboot = flagOf(element, "reboot");
    m_store.items.push_back(item);
    m_store.itemNames.push_back({object, item.name, index});
    fileForReverse(item, index);
  }

  // Files the item under the bucket its target falls in; items no key can reach are left out.
  void fileForReverse(const ItemRecord& item, uint32_t index) {
    if (m_chain.size() > kMaxDepth) return;
    const Scope& scope = m_scopes.back();
    // Views into the pool are taken afresh: interning moves its buffer.
    m_masks.clear();
    for (const auto& [mask, object] : scope.masks) m_masks.push_back({m_store.text(mask), object});
    const std::string_view fields[3] = {m_store.text(scope.path ? scope.path : item.path),
                                        m_store.text(scope.section ? scope.section : item.section),
                                        m_store.text(item.key)};
    const TargetShape shape = shapeOf(fields, m_masks);
    m_store.shapeInUse[shape] = true;
    m_store.reverse.push_back({bucketOf(shape, fields, m_masks, m_scratch), index});
  }

  // What the items of the object being read share: its chain's masks (longest first, with their
  // place in the chain) and innermost target, as pool text numbers.
  struct Scope {
    std::vector<std::pair<TextId, size_t>> masks;
    TextId path = 0;
    TextId section = 0;
  };
  void enterScope() {
    Scope scope;
    if (m_chain.size() <= kMaxDepth) {
      for (const ChainMask& mask : masksOf(m_store, m_chain.data(), m_chain.size()))
        scope.masks.emplace_back(m_store.objects[m_chain[mask.object]].indexMask, mask.object);
      for (size_t i = m_chain.size(); i-- > 0 && !(scope.path && scope.section);) {
        const ObjectRecord& object = m_store.objects[m_chain[i]];
        if (!scope.path) scope.path = object.path;
        if (!scope.section) scope.section = object.section;
      }
    }
    m_scopes.push_back(std::move(scope));
  }

  Store& m_store;
  std::vector<uint32_t> m_chain;
  std::vector<Scope> m_scopes;
  std::vector<ChainMask> m_masks;
  std::string m_details;
  std::string m_scratch;
};

void finishTable(Store& store) {
  store.objects.shrink_to_fit();
  store.items.shrink_to_fit();
  store.topLevel.shrink_to_fit();
  sortAndTrim(store.objectNames);
  sortAndTrim(store.itemNames);
  sortAndTrim(store.reverse);
  store.texts.compact();
}

}  // namespace

autopTranslator::autopTranslator() : m_store(std::make_unique<Store>()) {}
autopTranslator::~autopTranslator() = default;

void autopTranslator::clear() {
  m_loaded = false;
  m_store = std::make_unique<Store>();
}

size_t autopTranslator::objectCount() const { return m_store->topLevel.size(); }
size_t autopTranslator::itemCount() const { return m_store->items.size(); }

std::string autopTranslator::objectType(size_t index) const {
  if (index >= m_store->topLevel.size()) return "";
  return std::string(m_store->text(m_store->objects[m_store->topLevel[index]].type));
}

bool autopTranslator::loadDefaultTable() {
  m_loaded = false;
  const char* path = pathFileExist(kTranslatorConfigPath) ? kTranslatorConfigPath : kTranslatorPhonePath;
  LOG_IFO("Load trans data from %s", path);
  bool loaded = loadTransData(path);
  LOG_IFO("Load return %d", loaded ? 1 : 0);
  return loaded;
}

bool autopTranslator::loadTransData(const std::string& path) {
  clear();
  auto document = std::make_unique<tinyxml2::XMLDocument>();
  if (document->LoadFile(hostPath(path).c_str()) != tinyxml2::XML_SUCCESS) {
    LOG_ERR("failed to load file [%s]! \n", path.c_str());
    return false;
  }
  const tinyxml2::XMLElement* root = document->FirstChildElement("autopTranslator");
  if (!root) {
    LOG_ERR("no root elem [%s]! \n", path.c_str());
    return false;
  }
  TableBuilder builder(*m_store);
  // About one distinct text per 32 bytes of a typical table: spares most regrowth of the hash slots.
  struct stat info;
  if (stat(hostPath(path).c_str(), &info) == 0) m_store->texts.reserve(static_cast<size_t>(info.st_size) / 32);
  for (const tinyxml2::XMLElement* group = root->FirstChildElement(); group; group = group->NextSiblingElement()) {
    const char* tag = group->Name();
    if (!tag || !*tag) continue;
    const TextId type = m_store->texts.intern(tag);
    for (const tinyxml2::XMLElement* element = group->FirstChildElement("object"); element;
         element = element->NextSiblingElement("object"))
      builder.readObject(element, type, kNone);
  }
  // The document goes before the indexes are sorted and trimmed, so the two never peak together.
  document.reset();
  finishTable(*m_store);
#ifdef __GLIBC__
  // The document's many small blocks lie between the table's; hand their pages back so the
  // process does not keep the document's size for its whole life.
  malloc_trim(0);
#endif
  m_loaded = true;
  return true;
}

bool autopTranslator::parseObjectElem(autopObject* object, const tinyxml2::XMLElement* element) {
  if (!object || !element) {
    LOG_NULL_POINTER();
    return false;
  }
  object->name = attributeOf(element, "name");
  object->action = attributeOf(element, "action");
  object->indexMask = attributeOf(element, "indexMask");
  object->range = attributeOf(element, "range");
  object->path = attributeOf(element, "path");
  object->section = attributeOf(element, "section");
  object->note = attributeOf(element, "note");
  object->reboot = flagOf(element, "reboot");
  object->currentIndex = kAutopNoIndex;
  for (const tinyxml2::XMLElement* child = element->FirstChildElement(); child; child = child->NextSiblingElement()) {
    std::string_view tag = child->Name();
    autopObjectChild entry;
    if (tag == "object") {
      entry.object = std::make_unique<autopObject>();
      entry.object->type = object->type;
      if (!parseObjectElem(entry.object.get(), child)) continue;
    } else if (tag == "item") {
      entry.item = std::make_unique<autopItem>();
      autopItem& item = *entry.item;
      item.type = object->type;
      item.name = attributeOf(child, "name");
      for (size_t d = 0; d < std::size(kItemDetails); ++d)
        item.*kItemDetails[d] = attributeOf(child, kItemDetailAttributes[d]);
      item.action = attributeOf(child, "action");
      item.path = attributeOf(child, "path");
      item.section = attributeOf(child, "section");
      item.key = attributeOf(child, "key");
      item.encrypt = flagOf(child, "encrypt");
      item.reboot = flagOf(child, "reboot");
    } else {
      continue;
    }
    object->children.push_back(std::move(entry));
  }
  return true;
}
