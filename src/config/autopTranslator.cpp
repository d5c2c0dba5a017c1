#define LOG_MODULE "./src/autopTranslator"
#include "autopTranslator.h"

#include <tinyxml2.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <new>
#include <string_view>
#include <unordered_map>

#include "log.h"
#include "paths.h"

namespace {

// Separates path, section and key in the reverse index's target texts.
constexpr char kFieldSeparator = '\x02';
// Stands for a run of digits (or an index mask) in the reverse index's bucket keys.
constexpr char kDigitRun = '\x01';
// Deepest object nesting a key may walk through.
constexpr size_t kMaxDepth = 16;

std::string attributeOf(const tinyxml2::XMLElement* element, const char* name) {
  const char* value = element->Attribute(name);
  return value ? value : "";
}

bool flagOf(const tinyxml2::XMLElement* element, const char* name) {
  const char* value = element->Attribute(name);
  return value && std::string_view(value) == "1";
}

void replaceAll(std::string& text, const std::string& from, const std::string& to) {
  if (from.empty()) return;
  for (size_t pos = text.find(from); pos != std::string::npos; pos = text.find(from, pos + to.size()))
    text.replace(pos, from.size(), to);
}

// A whole decimal integer of 32 bits, optional sign; nothing else around it.
bool parseInt32(std::string_view text, int64_t& out) {
  if (text.empty() || text.size() > 11) return false;
  std::string copy(text);
  char* end = nullptr;
  errno = 0;
  long long value = strtoll(copy.c_str(), &end, 10);
  if (errno != 0 || end != copy.c_str() + copy.size() || !isdigit(static_cast<unsigned char>(copy.back())))
    return false;
  if (value < INT32_MIN || value > INT32_MAX) return false;
  out = value;
  return true;
}

std::string collapseDigitRuns(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (isdigit(static_cast<unsigned char>(text[i]))) {
      if (out.empty() || out.back() != kDigitRun) out.push_back(kDigitRun);
      // A run continues only over digits; the marker is not repeated.
      while (i + 1 < text.size() && isdigit(static_cast<unsigned char>(text[i + 1]))) ++i;
    } else {
      out.push_back(text[i]);
    }
  }
  return out;
}

std::string targetText(const std::string& path, const std::string& section, const std::string& key) {
  std::string text;
  text.reserve(path.size() + section.size() + key.size() + 2);
  text.append(path).push_back(kFieldSeparator);
  text.append(section).push_back(kFieldSeparator);
  text.append(key);
  return text;
}

// One object of the table with the name indexes of its children.
struct ObjectNode {
  const autopObject* object = nullptr;
  bool numbered = false;
  bool rangeValid = false;
  int64_t low = 0;
  int64_t high = 0;
  // First item of each name, in file order.
  std::unordered_map<std::string_view, const autopItem*> itemsByName;
  // Sub-objects of each name, in file order.
  std::unordered_map<std::string_view, std::vector<const ObjectNode*>> subsByName;

  // Index text of a key -> stored index. False when the key can't address this object.
  bool storedIndexOf(std::string_view text, int64_t& stored) const {
    int64_t index = 0;
    if (!parseInt32(text, index) || index < 0) return false;
    if (!rangeValid) {
      stored = index;
      return true;
    }
    // Keys count from 1 whatever the range's low bound.
    if (index < 1 || index > high - low + 1) return false;
    stored = low + index - 1;
    return true;
  }
  // Stored index -> index text of a key (the inverse of storedIndexOf). False when out of range.
  bool keyIndexOf(int64_t stored, int64_t& keyIndex) const {
    if (stored < 0) return false;
    if (!rangeValid) {
      keyIndex = stored;
      return true;
    }
    if (stored < low || stored > high) return false;
    keyIndex = stored - low + 1;
    return true;
  }
};

// Which fields of a target hold an index mask: bit 0 the path, bit 1 the section, bit 2 the key.
using TargetShape = unsigned;
constexpr TargetShape kTargetShapes = 8;

// A template item as seen from the reverse index: its objects, outermost first, its target (masks
// in place) and its place in table order.
struct ReverseCandidate {
  const autopItem* item = nullptr;
  std::vector<const ObjectNode*> chain;
  std::string target;
  size_t order = 0;
};

}  // namespace

struct autopTranslator::Index {
  std::vector<std::unique_ptr<ObjectNode>> nodes;
  std::unordered_map<std::string_view, std::vector<const ObjectNode*>> topByName;
  // Bucket key -> candidates in table order. A bucket key holds the shape, then each field: as it
  // stands when it has no mask, else with its masks and digit runs folded (bucketKeyOf).
  std::unordered_map<std::string, std::vector<ReverseCandidate>> reverse;
  bool shapeInUse[kTargetShapes] = {};
  size_t candidateCount = 0;
};

namespace {

// The objects a key walked through, outermost first, with the index it gave each.
struct MatchChain {
  std::array<const ObjectNode*, kMaxDepth> nodes{};
  std::array<int64_t, kMaxDepth> stored{};
  size_t depth = 0;
};

bool parseRange(const std::string& text, int64_t& low, int64_t& high) {
  size_t dash = text.find('-', 1);  // a leading "-" is the low bound's sign
  return dash != std::string::npos && parseInt32(std::string_view(text).substr(0, dash), low) &&
         parseInt32(std::string_view(text).substr(dash + 1), high);
}

const autopItem* matchObject(const ObjectNode& node, std::string_view rest, MatchChain& chain);

const autopItem* matchSubObjects(const ObjectNode& node, std::string_view rest, MatchChain& chain) {
  size_t dot = rest.find('.');
  std::string_view name = rest.substr(0, dot);
  std::string_view subRest = dot == std::string_view::npos ? std::string_view() : rest.substr(dot + 1);
  auto subs = node.subsByName.find(name);
  if (subs == node.subsByName.end()) return nullptr;
  for (const ObjectNode* sub : subs->second) {
    if (const autopItem* item = matchObject(*sub, subRest, chain)) return item;
  }
  return nullptr;
}

const autopItem* matchObject(const ObjectNode& node, std::string_view rest, MatchChain& chain) {
  if (chain.depth >= kMaxDepth) return nullptr;
  int64_t stored = kAutopNoIndex;
  if (node.numbered) {
    size_t dot = rest.find('.');
    if (dot == std::string_view::npos || !node.storedIndexOf(rest.substr(0, dot), stored)) return nullptr;
    rest.remove_prefix(dot + 1);
  }
  chain.nodes[chain.depth] = &node;
  chain.stored[chain.depth] = stored;
  ++chain.depth;
  auto item = node.itemsByName.find(rest);
  if (item != node.itemsByName.end()) return item->second;
  if (const autopItem* found = matchSubObjects(node, rest, chain)) return found;
  --chain.depth;
  return nullptr;
}

// The innermost non-empty text among the objects of a chain, else the item's own.
template <typename NodeAt>
std::string innermostText(size_t depth, NodeAt nodeAt, std::string autopObject::*field, const std::string& own) {
  for (size_t i = depth; i-- > 0;) {
    const std::string& text = nodeAt(i)->object->*field;
    if (!text.empty()) return text;
  }
  return own;
}

template <typename NodeAt>
std::string chainedAction(size_t depth, NodeAt nodeAt, const std::string& own) {
  std::string action = own;
  for (size_t i = depth; i-- > 0;) {
    const std::string& more = nodeAt(i)->object->action;
    if (more.empty()) continue;
    if (!action.empty()) action.push_back(';');
    action += more;
  }
  return action;
}

void completeItem(const autopItem& tmpl, const MatchChain& chain, autopItem& item) {
  item = tmpl;
  auto nodeAt = [&chain](size_t i) { return chain.nodes[i]; };
  item.path = innermostText(chain.depth, nodeAt, &autopObject::path, tmpl.path);
  item.section = innermostText(chain.depth, nodeAt, &autopObject::section, tmpl.section);
  item.action = chainedAction(chain.depth, nodeAt, tmpl.action);
  // An object marked reboot="1" means every change of its items needs one.
  for (size_t i = 0; i < chain.depth; ++i) item.reboot = item.reboot || chain.nodes[i]->object->reboot;
  for (size_t i = chain.depth; i-- > 0;) {
    const ObjectNode* node = chain.nodes[i];
    if (!node->numbered) continue;
    const std::string index = std::to_string(chain.stored[i]);
    const std::string& mask = node->object->indexMask;
    replaceAll(item.path, mask, index);
    replaceAll(item.section, mask, index);
    replaceAll(item.key, mask, index);
    replaceAll(item.action, mask, index);
  }
  item.value.clear();
  item.changed = false;
}

// --- reverse lookup ----------------------------------------------------------------------------

struct MaskBinding {
  const ObjectNode* node = nullptr;
  std::string_view mask;
  std::string_view value;
  bool bound = false;
};

// Whether `text` equals `tmpl` with every mask replaced by one digit string, the same for each
// occurrence of that mask. `masks` are ordered longest first so that "$id" wins over "$i".
bool matchMasked(std::string_view tmpl, std::string_view text, std::vector<MaskBinding>& masks) {
  while (!tmpl.empty()) {
    MaskBinding* hit = nullptr;
    for (MaskBinding& m : masks) {
      if (tmpl.substr(0, m.mask.size()) == m.mask) {
        hit = &m;
        break;
      }
    }
    if (!hit) {
      if (text.empty() || text.front() != tmpl.front()) return false;
      tmpl.remove_prefix(1);
      text.remove_prefix(1);
      continue;
    }
    tmpl.remove_prefix(hit->mask.size());
    if (hit->bound) {
      if (text.substr(0, hit->value.size()) != hit->value) return false;
      text.remove_prefix(hit->value.size());
      continue;
    }
    size_t digits = 0;
    while (digits < text.size() && digits < 10 && isdigit(static_cast<unsigned char>(text[digits]))) ++digits;
    for (size_t len = digits; len >= 1; --len) {
      hit->bound = true;
      hit->value = text.substr(0, len);
      if (matchMasked(tmpl, text.substr(len), masks)) return true;
    }
    hit->bound = false;
    return false;
  }
  return text.empty();
}

bool canonicalIndex(std::string_view digits, int64_t& value) {
  if (digits.size() > 1 && digits.front() == '0') return false;
  return parseInt32(digits, value);
}

// The key of a candidate whose target equals `query`, or false.
bool reverseKeyOf(const ReverseCandidate& candidate, const std::string& query, std::string& key) {
  std::vector<MaskBinding> masks;
  for (const ObjectNode* node : candidate.chain) {
    if (node->numbered) masks.push_back({node, node->object->indexMask, {}, false});
  }
  if (masks.empty()) {
    if (candidate.target != query) return false;
  } else {
    std::stable_sort(masks.begin(), masks.end(),
                     [](const MaskBinding& a, const MaskBinding& b) { return a.mask.size() > b.mask.size(); });
    if (!matchMasked(candidate.target, query, masks)) return false;
  }
  key.clear();
  for (const ObjectNode* node : candidate.chain) {
    if (!key.empty()) key.push_back('.');
    key += node->object->name;
    if (!node->numbered) continue;
    auto binding = std::find_if(masks.begin(), masks.end(), [node](const MaskBinding& m) { return m.node == node; });
    int64_t stored = 0;
    int64_t keyIndex = 0;
    if (!binding->bound || !canonicalIndex(binding->value, stored) || !node->keyIndexOf(stored, keyIndex))
      return false;
    key += "." + std::to_string(keyIndex);
  }
  key += "." + candidate.item->name;
  if (key.size() > kAutopKeyMax) key.resize(kAutopKeyMax);
  return true;
}

// The bucket of a target under a shape: masked fields (masks read as "0") with every digit run
// folded into one marker, the others as they stand. A template and every target it matches share
// their bucket, whatever the indexes.
std::string bucketKeyOf(TargetShape shape, const std::string (&fields)[3]) {
  std::string key(1, static_cast<char>('0' + shape));
  for (unsigned f = 0; f < 3; ++f) {
    if (f > 0) key.push_back(kFieldSeparator);
    key += (shape & (1u << f)) ? collapseDigitRuns(fields[f]) : fields[f];
  }
  return key;
}

void addReverseCandidate(autopTranslator::Index& index, ReverseCandidate candidate, const std::string& path,
                         const std::string& section) {
  std::string fields[3] = {path, section, candidate.item->key};
  TargetShape shape = 0;
  for (const ObjectNode* node : candidate.chain) {
    if (!node->numbered) continue;
    for (unsigned f = 0; f < 3; ++f) {
      if (fields[f].find(node->object->indexMask) != std::string::npos) shape |= 1u << f;
    }
  }
  for (const ObjectNode* node : candidate.chain) {
    if (!node->numbered) continue;
    for (std::string& field : fields) replaceAll(field, node->object->indexMask, "0");
  }
  candidate.order = index.candidateCount++;
  index.shapeInUse[shape] = true;
  index.reverse[bucketKeyOf(shape, fields)].push_back(std::move(candidate));
}

// --- index building ----------------------------------------------------------------------------

ObjectNode* buildNode(const autopObject& object, autopTranslator::Index& index,
                      std::vector<const ObjectNode*>& chain, size_t& itemCount) {
  index.nodes.push_back(std::make_unique<ObjectNode>());
  ObjectNode* node = index.nodes.back().get();
  node->object = &object;
  node->numbered = !object.indexMask.empty();
  node->rangeValid = parseRange(object.range, node->low, node->high);
  chain.push_back(node);
  auto nodeAt = [&chain](size_t i) { return chain[i]; };
  for (const autopObjectChild& child : object.children) {
    if (child.item) {
      const autopItem& item = *child.item;
      ++itemCount;
      node->itemsByName.emplace(item.name, &item);  // keeps the first of a name
      ReverseCandidate candidate;
      candidate.item = &item;
      candidate.chain = chain;
      std::string path = innermostText(chain.size(), nodeAt, &autopObject::path, item.path);
      std::string section = innermostText(chain.size(), nodeAt, &autopObject::section, item.section);
      candidate.target = targetText(path, section, item.key);
      addReverseCandidate(index, std::move(candidate), path, section);
    } else if (child.object) {
      ObjectNode* sub = buildNode(*child.object, index, chain, itemCount);
      node->subsByName[sub->object->name].push_back(sub);
    }
  }
  chain.pop_back();
  return node;
}

}  // namespace

// --- the table ---------------------------------------------------------------------------------

autopTranslator* autopTranslator::m_pInst = nullptr;

autopTranslator* autopTranslator::getInstance() {
  if (!m_pInst) m_pInst = new (std::nothrow) autopTranslator();
  LOG_CHECK(m_pInst != __null);
  return m_pInst;
}

void autopTranslator::releaseInstance() {
  delete m_pInst;
  m_pInst = nullptr;
}

autopTranslator::autopTranslator() : m_index(std::make_unique<Index>()) {}
autopTranslator::~autopTranslator() = default;

void autopTranslator::clear() {
  m_loaded = false;
  m_itemCount = 0;
  m_index = std::make_unique<Index>();
  m_objects.clear();
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
  tinyxml2::XMLDocument document;
  if (document.LoadFile(hostPath(path).c_str()) != tinyxml2::XML_SUCCESS) {
    LOG_ERR("failed to load file [%s]! \n", path.c_str());
    return false;
  }
  const tinyxml2::XMLElement* root = document.FirstChildElement("autopTranslator");
  if (!root) {
    LOG_ERR("no root elem [%s]! \n", path.c_str());
    return false;
  }
  for (const tinyxml2::XMLElement* group = root->FirstChildElement(); group; group = group->NextSiblingElement()) {
    const char* tag = group->Name();
    if (!tag || !*tag) continue;
    for (const tinyxml2::XMLElement* element = group->FirstChildElement("object"); element;
         element = element->NextSiblingElement("object")) {
      auto object = std::make_unique<autopObject>();
      object->type = tag;
      if (parseObjectElem(object.get(), element)) m_objects.push_back(std::move(object));
    }
  }
  std::vector<const ObjectNode*> chain;
  for (const auto& object : m_objects) {
    const ObjectNode* node = buildNode(*object, *m_index, chain, m_itemCount);
    m_index->topByName[node->object->name].push_back(node);
  }
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
      item.fileType = attributeOf(child, "fileType");
      item.optType = attributeOf(child, "optType");
      item.usage = attributeOf(child, "usage");
      item.valueType = attributeOf(child, "valueType");
      item.indexMask = attributeOf(child, "indexMask");
      item.range = attributeOf(child, "range");
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

bool autopTranslator::findItem(const std::string& key, autopItem& item) const {
  std::string_view text(key);
  if (text.size() > kAutopKeyMax) text = text.substr(0, kAutopKeyMax);
  size_t dot = text.find('.');
  std::string_view objectName = text.substr(0, dot);
  std::string_view rest = dot == std::string_view::npos ? std::string_view() : text.substr(dot + 1);
  auto objects = m_index->topByName.find(objectName);
  if (objects == m_index->topByName.end()) return false;
  for (const ObjectNode* node : objects->second) {
    MatchChain chain;
    if (const autopItem* tmpl = matchObject(*node, rest, chain)) {
      completeItem(*tmpl, chain, item);
      item.name.assign(text);
      return true;
    }
  }
  return false;
}

bool autopTranslator::findItemName(const std::string& path, const std::string& section, const std::string& key,
                                   std::string& name) const {
  const std::string query = targetText(path, section, key);
  const std::string fields[3] = {path, section, key};
  // The first matching item in table order may sit in the bucket of any shape: take each bucket's
  // first match and keep the earliest.
  size_t bestOrder = SIZE_MAX;
  std::string candidateName;
  for (TargetShape shape = 0; shape < kTargetShapes; ++shape) {
    if (!m_index->shapeInUse[shape]) continue;
    auto bucket = m_index->reverse.find(bucketKeyOf(shape, fields));
    if (bucket == m_index->reverse.end()) continue;
    for (const ReverseCandidate& candidate : bucket->second) {
      if (candidate.order >= bestOrder) break;
      if (reverseKeyOf(candidate, query, candidateName)) {
        bestOrder = candidate.order;
        name = candidateName;
        break;
      }
    }
  }
  return bestOrder != SIZE_MAX;
}
