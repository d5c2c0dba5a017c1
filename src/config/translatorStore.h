// The translation table's compact store, shared by the files that build it (translatorStore.cpp),
// match keys forward (translatorMatch.cpp) and match targets back to keys (translatorReverse.cpp):
// one pool of distinct texts, flat object and item records, and sorted indexes by name and by the
// bucket of a target's text with its digit runs folded.
#pragma once

#include <cstdint>
#include <algorithm>
#include <functional>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "autopItem.h"
#include "autopTranslator.h"

namespace translator_store {

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

inline bool isDigit(char c) { return c >= '0' && c <= '9'; }

// A whole decimal integer of 32 bits, optional sign; nothing else around it.
bool parseInt32(std::string_view text, int64_t& out);

// The item texts that lookups only carry along, kept together as one pooled text.
inline constexpr std::string autopItem::*kItemDetails[] = {&autopItem::fileType, &autopItem::optType, &autopItem::usage,
                                                     &autopItem::valueType, &autopItem::indexMask, &autopItem::range};
inline constexpr const char* kItemDetailAttributes[] = {"fileType", "optType", "usage", "valueType", "indexMask", "range"};
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


// The masks of a chain's numbered objects, longest first so that "$id" wins over "$i" (table order
// among equal lengths).
struct ChainMask {
  std::string_view text;
  size_t object;  // place in the chain
};

std::vector<ChainMask> masksOf(const autopTranslator::Store& store, const uint32_t* chain, size_t depth);
// The mask that starts `text`, or nullptr.
const ChainMask* maskAt(std::string_view text, const std::vector<ChainMask>& masks);
// The hash of a target's text with the fields of `shape` folded (digit runs and masks as one mark).
uint32_t bucketOf(TargetShape shape, const std::string_view (&fields)[3], const std::vector<ChainMask>& masks,
                  std::string& scratch);
TargetShape shapeOf(const std::string_view (&fields)[3], const std::vector<ChainMask>& masks);

}  // namespace translator_store

struct autopTranslator::Store {
  using TextPool = translator_store::TextPool;
  using ObjectRecord = translator_store::ObjectRecord;
  using ItemRecord = translator_store::ItemRecord;
  using NameEntry = translator_store::NameEntry;
  using ReverseEntry = translator_store::ReverseEntry;
  using TextId = translator_store::TextId;

  TextPool texts;
  std::vector<ObjectRecord> objects;  // depth first, file order
  std::vector<ItemRecord> items;      // depth first, file order: the reverse lookup's table order
  std::vector<uint32_t> topLevel;     // top-level objects in table order
  std::vector<NameEntry> objectNames;  // top-level objects under parent translator_store::kNone
  std::vector<NameEntry> itemNames;
  std::vector<ReverseEntry> reverse;
  bool shapeInUse[translator_store::kTargetShapes] = {};

  std::string_view text(TextId id) const { return texts.text(id); }

  // Children of `parent` named `name`, in file order; empty when the name is not in the table.
  std::pair<const NameEntry*, const NameEntry*> named(const std::vector<NameEntry>& entries, uint32_t parent,
                                                      std::string_view name) const {
    const TextId id = texts.find(name);
    if (id == translator_store::kNone) return {nullptr, nullptr};
    auto range = std::equal_range(entries.begin(), entries.end(), NameEntry{parent, id, 0},
                                  [](const NameEntry& a, const NameEntry& b) {
                                    return std::tie(a.parent, a.name) < std::tie(b.parent, b.name);
                                  });
    return {entries.data() + (range.first - entries.begin()), entries.data() + (range.second - entries.begin())};
  }

  // The objects above an item, outermost first.
  size_t chainOf(const ItemRecord& item, std::vector<uint32_t>& chain) const {
    chain.clear();
    for (uint32_t object = item.object; object != translator_store::kNone; object = objects[object].parent) chain.push_back(object);
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
