// The masked reverse match: a target of the older file models (path, section, key) back to the
// configuration key that names it, through the bucket index and the items' masked templates.
#define LOG_MODULE "./src/autopTranslator"
#include "autopTranslator.h"

#include <algorithm>
#include <unordered_set>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "log.h"
#include "translatorStore.h"

using namespace translator_store;

namespace {

using Store = autopTranslator::Store;

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
