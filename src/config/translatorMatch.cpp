// The forward match: a configuration key ("account.1.label") walked down the objects of the table to
// the item it names, with the indexes it gave each numbered object put into the item's texts.
#define LOG_MODULE "./src/autopTranslator"
#include "autopTranslator.h"

#include <algorithm>
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

void replaceAll(std::string& text, std::string_view from, const std::string& to) {
  if (from.empty()) return;
  for (size_t pos = text.find(from); pos != std::string::npos; pos = text.find(from, pos + to.size()))
    text.replace(pos, from.size(), to);
}

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

}  // namespace

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
