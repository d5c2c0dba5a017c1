#define LOG_MODULE "./src/autopTranslator"
#include "autopTranslator.h"

#include <sys/stat.h>
#include <tinyxml2.h>

#ifdef __GLIBC__
#include <malloc.h>
#endif

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <functional>
#include <iterator>
#include <new>
#include <string_view>
#include <tuple>
#include <unordered_set>
#include <vector>

#include "log.h"
#include "paths.h"

namespace {

// Separates path, section and key in a target text.
constexpr char kFieldSeparator = '\x02';
// Stands for a run of digits (or an index mask) in the reverse index's bucket texts.
constexpr char kDigitRun = '\x01';
// Deepest object nesting a key may walk through.
constexpr size_t kMaxDepth = 16;
// Most partial reverse matches followed at one template position.
constexpr size_t kMaxPartialMatches = 65536;
// An index needs at most ten digits (32 bits).
constexpr size_t kMaxIndexDigits = 10;
constexpr uint32_t kNone = UINT32_MAX;

bool isDigit(char c) { return c >= '0' && c <= '9'; }

std::string_view attributeOf(const tinyxml2::XMLElement* element, const char* name) {
  const char* value = element->Attribute(name);
  return value ? value : "";
}

bool flagOf(const tinyxml2::XMLElement* element, const char* name) { return attributeOf(element, name) == "1"; }

void replaceAll(std::string& text, std::string_view from, const std::string& to) {
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
  if (errno != 0 || end != copy.c_str() + copy.size() || !isDigit(copy.back())) return false;
  if (value < INT32_MIN || value > INT32_MAX) return false;
  out = value;
  return true;
}

bool parseRange(std::string_view text, int64_t& low, int64_t& high) {
  size_t dash = text.find('-', 1);  // a leading "-" is the low bound's sign
  return dash != std::string_view::npos && parseInt32(text.substr(0, dash), low) &&
         parseInt32(text.substr(dash + 1), high);
}

// The item texts that lookups only carry along, kept together as one pooled text.
constexpr std::string autopItem::*kItemDetails[] = {&autopItem::fileType, &autopItem::optType, &autopItem::usage,
                                                     &autopItem::valueType, &autopItem::indexMask, &autopItem::range};
constexpr const char* kItemDetailAttributes[] = {"fileType", "optType", "usage", "valueType", "indexMask", "range"};
// Attribute texts never hold a NUL, so it can join them.
constexpr char kDetailSeparator = '\0';

using TextId = uint32_t;  // 0 is the empty text

// Every distinct text of the table, once, back to back in one buffer.
class TextPool {
 public:
  TextPool() : m_spans(1, Span{0, 0}), m_slots(64, 0) {}

  TextId intern(std::string_view text) {
    if (text.empty()) return 0;
    size_t slot = slotOf(text);
    if (m_slots[slot] != 0) return m_slots[slot];
    const TextId id = static_cast<TextId>(m_spans.size());
    m_spans.push_back(Span{static_cast<uint32_t>(m_chars.size()), static_cast<uint32_t>(text.size())});
    m_chars.append(text);
    m_slots[slot] = id;
    if (m_spans.size() * 2 > m_slots.size()) rehash(m_slots.size() * 2);
    return id;
  }
  // Room for about `texts` texts without growing the hash slots on the way.
  void reserve(size_t texts) {
    size_t slots = 64;
    while (slots < texts * 2) slots *= 2;
    if (slots > m_slots.size()) rehash(slots);
  }
  // The id of a text already in the pool, or kNone.
  TextId find(std::string_view text) const {
    if (text.empty()) return 0;
    const TextId id = m_slots[slotOf(text)];
    return id == 0 ? kNone : id;
  }
  std::string_view text(TextId id) const {
    const Span& span = m_spans[id];
    return std::string_view(m_chars).substr(span.offset, span.length);
  }
  // Gives back what growing left unused once the table is complete.
  void compact() {
    m_chars.shrink_to_fit();
    m_spans.shrink_to_fit();
    size_t slots = 64;
    while (slots < m_spans.size() * 3 / 2) slots *= 2;
    rehash(slots);
  }

 private:
  struct Span {
    uint32_t offset;
    uint32_t length;
  };
  // The slot holding `text`, or the empty slot where it would go (open addressing, linear probing).
  size_t slotOf(std::string_view text) const {
    const size_t mask = m_slots.size() - 1;
    for (size_t slot = std::hash<std::string_view>()(text) & mask;; slot = (slot + 1) & mask) {
      const TextId id = m_slots[slot];
      if (id == 0 || this->text(id) == text) return slot;
    }
  }
  void rehash(size_t slots) {
    std::vector<TextId>().swap(m_slots);
    m_slots.assign(slots, 0);
    for (TextId id = 1; id < m_spans.size(); ++id) m_slots[slotOf(text(id))] = id;
  }

  std::string m_chars;
  std::vector<Span> m_spans;
  std::vector<TextId> m_slots;
};

struct ObjectRecord {
  TextId type = 0;  // tag of the enclosing group
  TextId name = 0;
  TextId action = 0;
  TextId indexMask = 0;
  TextId path = 0;
  TextId section = 0;
  uint32_t parent = kNone;
  int32_t low = 0;
  int32_t high = 0;
  bool rangeValid = false;
  bool reboot = false;

  bool numbered() const { return indexMask != 0; }
  // Index text of a key -> stored index. False when the key can't address this object.
  bool storedIndexOf(std::string_view text, int64_t& stored) const {
    int64_t index = 0;
    if (!parseInt32(text, index) || index < 0) return false;
    if (!rangeValid) {
      stored = index;
      return true;
    }
    // Keys count from 1 whatever the range's low bound.
    if (index < 1 || index > int64_t(high) - low + 1) return false;
    stored = low + index - 1;
    return true;
  }
  // Stored index -> index of a key (the inverse of storedIndexOf). False when out of range.
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

struct ItemRecord {
  TextId name = 0;
  TextId key = 0;
  TextId path = 0;
  TextId section = 0;
  TextId action = 0;
  TextId details = 0;  // kItemDetails joined by kDetailSeparator; 0 when all are empty
  uint32_t object = 0;
  bool encrypt = false;
  bool reboot = false;
};

// (parent, name) -> child, sorted so that like-named children of one parent follow in file order.
struct NameEntry {
  uint32_t parent;
  TextId name;
  uint32_t child;
  bool operator<(const NameEntry& other) const {
    return std::tie(parent, name, child) < std::tie(other.parent, other.name, other.child);
  }
};

// Bucket hash -> item, sorted so that a bucket's items follow in table order.
struct ReverseEntry {
  uint32_t bucket;
  uint32_t item;
  bool operator<(const ReverseEntry& other) const {
    return std::tie(bucket, item) < std::tie(other.bucket, other.item);
  }
};

// Which fields of a target hold an index mask: bit 0 the path, bit 1 the section, bit 2 the key.
using TargetShape = unsigned;
constexpr TargetShape kTargetShapes = 8;

template <typename Entry>
void sortAndTrim(std::vector<Entry>& entries) {
  std::sort(entries.begin(), entries.end());
  entries.shrink_to_fit();
}

}  // namespace

struct autopTranslator::Store {
  TextPool texts;
  std::vector<ObjectRecord> objects;  // depth first, file order
  std::vector<ItemRecord> items;      // depth first, file order: the reverse lookup's table order
  std::vector<uint32_t> topLevel;     // top-level objects in table order
  std::vector<NameEntry> objectNames;  // top-level objects under parent kNone
  std::vector<NameEntry> itemNames;
  std::vector<ReverseEntry> reverse;
  bool shapeInUse[kTargetShapes] = {};

  std::string_view text(TextId id) const { return texts.text(id); }

  // Children of `parent` named `name`, in file order; empty when the name is not in the table.
  std::pair<const NameEntry*, const NameEntry*> named(const std::vector<NameEntry>& entries, uint32_t parent,
                                                      std::string_view name) const {
    const TextId id = texts.find(name);
    if (id == kNone) return {nullptr, nullptr};
    auto range = std::equal_range(entries.begin(), entries.end(), NameEntry{parent, id, 0},
                                  [](const NameEntry& a, const NameEntry& b) {
                                    return std::tie(a.parent, a.name) < std::tie(b.parent, b.name);
                                  });
    return {entries.data() + (range.first - entries.begin()), entries.data() + (range.second - entries.begin())};
  }

  // The objects above an item, outermost first.
  size_t chainOf(const ItemRecord& item, std::vector<uint32_t>& chain) const {
    chain.clear();
    for (uint32_t object = item.object; object != kNone; object = objects[object].parent) chain.push_back(object);
    std::reverse(chain.begin(), chain.end());
    return chain.size();
  }
  // The innermost non-empty text among the objects of a chain, else the item's own.
  template <typename Chain>
  std::string_view innermost(const Chain& chain, size_t depth, TextId ObjectRecord::*field, TextId own) const {
    for (size_t i = depth; i-- > 0;) {
      const TextId id = objects[chain[i]].*field;
      if (id != 0) return text(id);
    }
    return text(own);
  }
};

namespace {

using Store = autopTranslator::Store;

// --- bucket texts of the reverse index ----------------------------------------------------------

// The masks of a chain's numbered objects, longest first so that "$id" wins over "$i" (table order
// among equal lengths).
struct ChainMask {
  std::string_view text;
  size_t object;  // place in the chain
};

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

// --- loading ------------------------------------------------------------------------------------

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

// --- forward lookup -----------------------------------------------------------------------------

// The objects a key walked through, outermost first, with the index it gave each.
struct MatchChain {
  std::array<uint32_t, kMaxDepth> objects{};
  std::array<int64_t, kMaxDepth> stored{};
  size_t depth = 0;
};

const ItemRecord* matchObject(const Store& store, uint32_t index, std::string_view rest, MatchChain& chain);

const ItemRecord* matchSubObjects(const Store& store, uint32_t index, std::string_view rest, MatchChain& chain) {
  size_t dot = rest.find('.');
  std::string_view subRest = dot == std::string_view::npos ? std::string_view() : rest.substr(dot + 1);
  auto subs = store.named(store.objectNames, index, rest.substr(0, dot));
  for (const NameEntry* sub = subs.first; sub != subs.second; ++sub) {
    if (const ItemRecord* item = matchObject(store, sub->child, subRest, chain)) return item;
  }
  return nullptr;
}

const ItemRecord* matchObject(const Store& store, uint32_t index, std::string_view rest, MatchChain& chain) {
  if (chain.depth >= kMaxDepth) return nullptr;
  const ObjectRecord& object = store.objects[index];
  int64_t stored = kAutopNoIndex;
  if (object.numbered()) {
    size_t dot = rest.find('.');
    if (dot == std::string_view::npos || !object.storedIndexOf(rest.substr(0, dot), stored)) return nullptr;
    rest.remove_prefix(dot + 1);
  }
  chain.objects[chain.depth] = index;
  chain.stored[chain.depth] = stored;
  ++chain.depth;
  auto items = store.named(store.itemNames, index, rest);
  if (items.first != items.second) return &store.items[items.first->child];  // the first of that name
  if (const ItemRecord* found = matchSubObjects(store, index, rest, chain)) return found;
  --chain.depth;
  return nullptr;
}

void completeItem(const Store& store, const ItemRecord& tmpl, const MatchChain& chain, autopItem& item) {
  item = autopItem();
  item.type = store.text(store.objects[chain.objects[0]].type);
  std::string_view details = store.text(tmpl.details);
  for (std::string autopItem::*field : kItemDetails) {
    if (details.empty()) break;
    size_t end = details.find(kDetailSeparator);
    item.*field = details.substr(0, end);
    details.remove_prefix(end + 1);
  }
  item.path = store.innermost(chain.objects, chain.depth, &ObjectRecord::path, tmpl.path);
  item.section = store.innermost(chain.objects, chain.depth, &ObjectRecord::section, tmpl.section);
  item.key = store.text(tmpl.key);
  // The item's own calls first, then its objects', innermost first.
  item.action = store.text(tmpl.action);
  for (size_t i = chain.depth; i-- > 0;) {
    std::string_view more = store.text(store.objects[chain.objects[i]].action);
    if (more.empty()) continue;
    if (!item.action.empty()) item.action.push_back(';');
    item.action += more;
  }
  item.encrypt = tmpl.encrypt;
  // An object marked reboot="1" means every change of its items needs one.
  item.reboot = tmpl.reboot;
  for (size_t i = 0; i < chain.depth; ++i) item.reboot = item.reboot || store.objects[chain.objects[i]].reboot;
  for (size_t i = chain.depth; i-- > 0;) {
    const ObjectRecord& object = store.objects[chain.objects[i]];
    if (!object.numbered()) continue;
    const std::string index = std::to_string(chain.stored[i]);
    const std::string_view mask = store.text(object.indexMask);
    for (std::string* text : {&item.path, &item.section, &item.key, &item.action}) replaceAll(*text, mask, index);
  }
}

// --- reverse lookup -----------------------------------------------------------------------------

// One step of a template: a literal character, or a mask (its place among the chain's masks).
struct TemplateStep {
  char literal;
  int mask;  // -1 for a literal
};

// A partial match: how far into the target it got and the stored index each mask took (-1: none).
struct PartialMatch {
  size_t position = 0;
  std::array<int64_t, kMaxDepth> stored;
};

// Runs the template over the target with every way of splitting digit runs among masks at once,
// in preference order (earlier masks longer first). Matches that stand at the same place with the
// same indexes for every mask still to come have the same future: only the preferred one is kept,
// so the number of live matches stays bounded by the digit runs, not by their splits.
class MaskedMatcher {
 public:
  MaskedMatcher(const Store& store, const std::vector<ChainMask>& masks, const uint32_t* chain)
      : m_store(store), m_masks(masks), m_chain(chain) {}

  // The stored index of every mask, or false when the target is not this template's.
  bool match(std::string_view tmpl, std::string_view target, std::array<int64_t, kMaxDepth>& stored) {
    steps(tmpl);
    std::vector<PartialMatch> live(1);
    live[0].stored.fill(-1);
    std::vector<PartialMatch> next;
    for (size_t s = 0; s < m_steps.size() && !live.empty(); ++s) {
      next.clear();
      m_seen.clear();
      for (const PartialMatch& partial : live) {
        if (!advance(m_steps[s], partial, target, s, next)) return false;
      }
      live.swap(next);
    }
    for (const PartialMatch& partial : live) {
      if (partial.position != target.size()) continue;
      stored = partial.stored;
      return true;
    }
    return false;
  }

 private:
  void steps(std::string_view tmpl) {
    m_steps.clear();
    m_lastStep.assign(m_masks.size(), 0);
    while (!tmpl.empty()) {
      if (const ChainMask* mask = maskAt(tmpl, m_masks)) {
        const int place = static_cast<int>(mask - m_masks.data());
        m_lastStep[place] = m_steps.size();
        m_steps.push_back({0, place});
        tmpl.remove_prefix(mask->text.size());
      } else {
        m_steps.push_back({tmpl.front(), -1});
        tmpl.remove_prefix(1);
      }
    }
  }

  // Adds the successors of `partial` over one step to `next`. False when there are too many.
  bool advance(const TemplateStep& step, const PartialMatch& partial, std::string_view target, size_t s,
               std::vector<PartialMatch>& next) {
    const size_t at = partial.position;
    if (step.mask < 0) {
      if (at < target.size() && target[at] == step.literal) return keep(partial, at + 1, s, next);
      return true;
    }
    const int64_t bound = partial.stored[step.mask];
    if (bound >= 0) {
      const std::string digits = std::to_string(bound);
      if (target.substr(at, digits.size()) == digits) return keep(partial, at + digits.size(), s, next);
      return true;
    }
    size_t digits = 0;
    while (at + digits < target.size() && digits < kMaxIndexDigits && isDigit(target[at + digits])) ++digits;
    const ObjectRecord& object = m_store.objects[m_chain[m_masks[step.mask].object]];
    for (size_t length = digits; length >= 1; --length) {
      std::string_view number = target.substr(at, length);
      int64_t stored = 0, keyIndex = 0;
      if (length > 1 && number.front() == '0') continue;  // only canonical numbers
      if (!parseInt32(number, stored) || !object.keyIndexOf(stored, keyIndex)) continue;
      PartialMatch taken = partial;
      taken.stored[step.mask] = stored;
      if (!keep(taken, at + length, s, next)) return false;
    }
    return true;
  }

  // Appends the match unless a preferred one with the same future is already there.
  bool keep(const PartialMatch& partial, size_t position, size_t s, std::vector<PartialMatch>& next) {
    std::string future(reinterpret_cast<const char*>(&position), sizeof position);
    for (size_t m = 0; m < m_masks.size(); ++m) {
      if (m_lastStep[m] > s) future.append(reinterpret_cast<const char*>(&partial.stored[m]), sizeof(int64_t));
    }
    if (!m_seen.insert(std::move(future)).second) return true;
    if (next.size() >= kMaxPartialMatches) return false;
    next.push_back(partial);
    next.back().position = position;
    return true;
  }

  const Store& m_store;
  const std::vector<ChainMask>& m_masks;
  const uint32_t* m_chain;
  std::vector<TemplateStep> m_steps;
  std::vector<size_t> m_lastStep;  // per mask: the last step it occurs at
  std::unordered_set<std::string> m_seen;
};

std::string targetText(std::string_view path, std::string_view section, std::string_view key) {
  std::string text;
  text.reserve(path.size() + section.size() + key.size() + 2);
  text.append(path).push_back(kFieldSeparator);
  text.append(section).push_back(kFieldSeparator);
  text.append(key);
  return text;
}

// The key of an item whose target equals `target`, or false.
bool reverseKeyOf(const Store& store, const ItemRecord& item, const std::string& target, std::string& key) {
  std::vector<uint32_t> chain;
  const size_t depth = store.chainOf(item, chain);
  const std::vector<ChainMask> masks = masksOf(store, chain.data(), depth);
  const std::string tmpl = targetText(store.innermost(chain, depth, &ObjectRecord::path, item.path),
                                      store.innermost(chain, depth, &ObjectRecord::section, item.section),
                                      store.text(item.key));
  std::array<int64_t, kMaxDepth> stored;
  stored.fill(-1);
  if (masks.empty()) {
    if (tmpl != target) return false;
  } else if (!MaskedMatcher(store, masks, chain.data()).match(tmpl, target, stored)) {
    return false;
  }
  key.clear();
  for (size_t i = 0; i < depth; ++i) {
    const ObjectRecord& object = store.objects[chain[i]];
    if (!key.empty()) key.push_back('.');
    key += store.text(object.name);
    if (!object.numbered()) continue;
    // Its mask's place among the masks; a mask hidden by an equal inner one was never bound.
    auto mask = std::find_if(masks.begin(), masks.end(), [i](const ChainMask& m) { return m.object == i; });
    int64_t keyIndex = 0;
    const int64_t index = stored[mask - masks.begin()];
    if (index < 0 || !object.keyIndexOf(index, keyIndex)) return false;
    key += "." + std::to_string(keyIndex);
  }
  key += ".";
  key += store.text(item.name);
  if (key.size() > kAutopKeyMax) key.resize(kAutopKeyMax);
  return true;
}

}  // namespace

// --- the table ---------------------------------------------------------------------------------

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

bool autopTranslator::findItem(const std::string& key, autopItem& item) const {
  std::string_view text(key);
  if (text.size() > kAutopKeyMax) text = text.substr(0, kAutopKeyMax);
  size_t dot = text.find('.');
  std::string_view rest = dot == std::string_view::npos ? std::string_view() : text.substr(dot + 1);
  auto objects = m_store->named(m_store->objectNames, kNone, text.substr(0, dot));
  for (const NameEntry* top = objects.first; top != objects.second; ++top) {
    MatchChain chain;
    if (const ItemRecord* tmpl = matchObject(*m_store, top->child, rest, chain)) {
      completeItem(*m_store, *tmpl, chain, item);
      item.name.assign(text);
      return true;
    }
  }
  return false;
}

bool autopTranslator::findItemName(const std::string& path, const std::string& section, const std::string& key,
                                   std::string& name) const {
  const std::string target = targetText(path, section, key);
  const std::string_view fields[3] = {path, section, key};
  const std::vector<ChainMask> noMasks;
  std::string scratch;
  // The first matching item in table order may sit in the bucket of any shape: take each bucket's
  // first match and keep the earliest.
  uint32_t best = kNone;
  std::string candidateName;
  for (TargetShape shape = 0; shape < kTargetShapes; ++shape) {
    if (!m_store->shapeInUse[shape]) continue;
    const uint32_t bucket = bucketOf(shape, fields, noMasks, scratch);
    auto entry = std::lower_bound(m_store->reverse.begin(), m_store->reverse.end(), ReverseEntry{bucket, 0});
    for (; entry != m_store->reverse.end() && entry->bucket == bucket && entry->item < best; ++entry) {
      if (reverseKeyOf(*m_store, m_store->items[entry->item], target, candidateName)) {
        best = entry->item;
        name = candidateName;
        break;
      }
    }
  }
  return best != kNone;
}
