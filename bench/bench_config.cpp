// Configuration processing costs: key lookups and reverse lookups in a translation table of 5,000
// items, and the configuration upgrader writing thousands of items into 20 INI files.
//
// Per-key and per-item CPU times are the counters "time_per_key" and "time_per_item" (seconds, with
// SI prefixes: "281n" is 281 ns). The upgrader runs at
// two sizes to show that its cost grows linearly with the item count. Its debug log lines are
// formatted and written as on the phone, but to /dev/null instead of the terminal.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <array>
#include <random>
#include <string>
#include <vector>

#include "autopTranslator.h"
#include "cfgUpgrader.h"
#include "benchRoot.h"
#include "paths.h"
#include "registry.h"

namespace {

constexpr int kObjects = 25;
constexpr int kItemsPerObject = 160;
constexpr int kItemsPerSubObject = 40;
constexpr int kLookups = 50000;
constexpr int kIniFiles = 20;
constexpr int kSectionsPerFile = 5;

bool numbered(int object) { return object % 2 == 0; }

// 25 objects of 160 items and a sub-object of 40: 5,000 items. Even objects are numbered (1..16);
// object 5 appears twice, the second time with the items the first one lacks.
std::string generatedTable() {
  std::string xml = "<autopTranslator><cfg>\n";
  auto object = [&xml](int o, int firstItem, int lastItem) {
    std::string name = "obj" + std::to_string(o);
    xml += "<object name=\"" + name + "\"";
    if (numbered(o))
      xml += " indexMask=\"$i\" range=\"0-15\" path=\"/config/gen/" + name + "_$i.cfg\"";
    else
      xml += " path=\"/config/gen/" + name + ".cfg\"";
    xml += " section=\"S" + std::to_string(o) + "\">\n";
    for (int i = firstItem; i < lastItem; ++i)
      xml += "<item name=\"item" + std::to_string(i) + "\" key=\"Key" + std::to_string(i) + "\"/>\n";
    if (firstItem == 0) {
      xml += "<object name=\"sub\" section=\"Sub\">\n";
      for (int i = 0; i < kItemsPerSubObject; ++i)
        xml += "<item name=\"leaf" + std::to_string(i) + "\" key=\"Leaf" + std::to_string(i) + "\"/>\n";
      xml += "</object>\n";
    }
    xml += "</object>\n";
  };
  for (int o = 0; o < kObjects; ++o) object(o, 0, o == 5 ? kItemsPerObject / 2 : kItemsPerObject);
  object(5, kItemsPerObject / 2, kItemsPerObject);
  return xml + "</cfg></autopTranslator>\n";
}

autopTranslator& table() {
  static autopTranslator* loaded = [] {
    benchRoot();
    writeFileAtomic("/config/bench/autopTranslator.xml", generatedTable());
    auto* t = new autopTranslator();
    if (!t->loadTransData("/config/bench/autopTranslator.xml") || t->itemCount() != 5000u) {
      fprintf(stderr, "bench table did not load (%zu items)\n", t->itemCount());
      exit(1);
    }
    return t;
  }();
  return *loaded;
}

// 50,000 keys over the whole table: plain and numbered items, sub-object leaves, the second
// object of a duplicated name, and one key in twenty unknown.
std::vector<std::string> lookupKeys() {
  std::mt19937 random(7);
  std::vector<std::string> keys;
  keys.reserve(kLookups);
  for (int n = 0; n < kLookups; ++n) {
    int o = static_cast<int>(random() % kObjects);
    std::string key = "obj" + std::to_string(o) + ".";
    if (numbered(o)) key += std::to_string(random() % 16 + 1) + ".";
    int pick = static_cast<int>(random() % 20);
    if (pick == 0)
      key += "unknown" + std::to_string(n);
    else if (pick < 4)
      key += "sub.leaf" + std::to_string(random() % kItemsPerSubObject);
    else
      key += "item" + std::to_string(random() % kItemsPerObject);
    keys.push_back(key);
  }
  return keys;
}

void BM_FindItem(benchmark::State& state) {
  autopTranslator& t = table();
  const std::vector<std::string> keys = lookupKeys();
  autopItem item;
  size_t found = 0;
  for (auto _ : state) {
    for (const std::string& key : keys) found += t.findItem(key, item) ? 1 : 0;
    benchmark::DoNotOptimize(found);
  }
  state.counters["found_share"] = static_cast<double>(found) / (static_cast<double>(state.iterations()) * kLookups);
  state.counters["time_per_key"] = benchmark::Counter(static_cast<double>(kLookups),
                                                    benchmark::Counter::kIsIterationInvariantRate |
                                                        benchmark::Counter::kInvert);
}
BENCHMARK(BM_FindItem)->Unit(benchmark::kMillisecond);

void BM_FindItemName(benchmark::State& state) {
  autopTranslator& t = table();
  std::vector<std::string> targets;
  for (const std::string& key : lookupKeys()) {
    autopItem item;
    if (t.findItem(key, item)) targets.push_back(item.path + "\n" + item.section + "\n" + item.key);
  }
  std::vector<std::array<std::string, 3>> triples;
  for (const std::string& text : targets) {
    size_t a = text.find('\n');
    size_t b = text.find('\n', a + 1);
    triples.push_back({text.substr(0, a), text.substr(a + 1, b - a - 1), text.substr(b + 1)});
  }
  std::string name;
  size_t found = 0;
  for (auto _ : state) {
    for (const auto& triple : triples) found += t.findItemName(triple[0], triple[1], triple[2], name) ? 1 : 0;
    benchmark::DoNotOptimize(found);
  }
  state.counters["found_share"] =
      static_cast<double>(found) / (static_cast<double>(state.iterations()) * static_cast<double>(triples.size()));
  state.counters["time_per_key"] = benchmark::Counter(static_cast<double>(triples.size()),
                                                    benchmark::Counter::kIsIterationInvariantRate |
                                                        benchmark::Counter::kInvert);
}
BENCHMARK(BM_FindItemName)->Unit(benchmark::kMillisecond);

// Items spread evenly over 20 files of 5 sections each, grouped by file and section as the
// translation table groups them.
autopItemList configurationItems(int count) {
  autopItemList items;
  const int perFile = count / kIniFiles;
  const int perSection = perFile / kSectionsPerFile;
  for (int n = 0; n < count; ++n) {
    auto item = std::make_unique<autopItem>();
    int file = n / perFile;
    int section = (n % perFile) / perSection;
    item->name = "bench." + std::to_string(n);
    item->type = "cfg";
    item->path = "/config/bench/file" + std::to_string(file) + ".ini";
    item->section = "Section" + std::to_string(section);
    item->key = "Key" + std::to_string(n);
    item->value = "value-" + std::to_string(n);
    items.push_back(std::move(item));
  }
  return items;
}

// Sends stdout (the log) to /dev/null while alive.
class QuietStdout {
 public:
  QuietStdout() {
    fflush(stdout);
    saved_ = dup(STDOUT_FILENO);
    int null = open("/dev/null", O_WRONLY);
    dup2(null, STDOUT_FILENO);
    close(null);
  }
  ~QuietStdout() {
    fflush(stdout);
    dup2(saved_, STDOUT_FILENO);
    close(saved_);
  }

 private:
  int saved_ = -1;
};

void BM_CfgUpgrade(benchmark::State& state) {
  benchRoot();
  registryResetCache();
  const int count = static_cast<int>(state.range(0));
  QuietStdout quiet;
  for (auto _ : state) {
    state.PauseTiming();
    autopItemList items = configurationItems(count);
    autoCfgUpgrader upgrader;
    state.ResumeTiming();
    benchmark::DoNotOptimize(upgrader.upgrade(items));
  }
  state.counters["time_per_item"] = benchmark::Counter(static_cast<double>(count),
                                                     benchmark::Counter::kIsIterationInvariantRate |
                                                         benchmark::Counter::kInvert);
}
BENCHMARK(BM_CfgUpgrade)->Arg(2500)->Arg(5000)->Arg(10000)->Unit(benchmark::kMillisecond)->MinTime(2.0);

}  // namespace

BENCHMARK_MAIN();
