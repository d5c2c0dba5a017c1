// The translation table's own costs, one measurement per process so that resident sizes are the
// table's own (bench/translation_table.sh drives it):
//
//   bench_translation_table load LOGICAL_PATH   (under $PROVISOR_ROOT)
//     prints: milliseconds to load (wall, then CPU of the process), resident KiB before, after the load and at the peak, item count
//   bench_translation_table reverse MASKS LOGICAL_PATH
//     prints: microseconds of one reverse lookup that resolves and of one that cannot (every split
//     of the digits tried), best of 3, for a table whose path holds MASKS adjacent index masks
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <chrono>
#include <ctime>
#include <fstream>
#include <string>

#include "autopTranslator.h"

namespace {

long statusKiB(const char* field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  const size_t length = strlen(field);
  while (std::getline(status, line)) {
    if (line.compare(0, length, field) == 0) return atol(line.c_str() + length + 1);
  }
  return -1;
}

double millisecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

int load(const char* path) {
  const long before = statusKiB("VmRSS");
  autopTranslator table;
  auto start = std::chrono::steady_clock::now();
  const clock_t cpuStart = clock();
  if (!table.loadTransData(path)) {
    fprintf(stderr, "cannot load %s\n", path);
    return 1;
  }
  const double elapsed = millisecondsSince(start);
  const double cpu = double(clock() - cpuStart) * 1000.0 / CLOCKS_PER_SEC;
  printf("%.1f %.1f %ld %ld %ld %zu\n", elapsed, cpu, before, statusKiB("VmRSS"), statusKiB("VmHWM"), table.itemCount());
  return 0;
}

// Best of 3 of one reverse lookup, in microseconds; `found` tells whether it gave a key.
double timeReverse(const autopTranslator& table, const std::string& path, bool& found) {
  double best = 1e18;
  for (int run = 0; run < 3; ++run) {
    std::string name;
    auto start = std::chrono::steady_clock::now();
    found = table.findItemName(path, "s", "K", name);
    best = std::min(best, millisecondsSince(start) * 1000.0);
  }
  return best;
}

int reverse(int masks, const char* path) {
  autopTranslator table;
  if (!table.loadTransData(path)) return 1;
  std::string hit, miss;
  for (int i = 0; i < masks; ++i) hit += std::to_string(1 + i % 9) + "2";
  // One digit more than the masks can take together (ten digits each): no split fits.
  miss = std::string(static_cast<size_t>(masks) * 10 + 1, '1');
  bool hitFound = false, missFound = true;
  const double hitUs = timeReverse(table, "/config/x" + hit + ".cfg", hitFound);
  const double missUs = timeReverse(table, "/config/x" + miss + ".cfg", missFound);
  if (!hitFound || missFound) {
    fprintf(stderr, "unexpected reverse result for %d masks\n", masks);
    return 1;
  }
  printf("%.1f %.1f\n", hitUs, missUs);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::string(argv[1]) == "load") return load(argv[2]);
  if (argc == 4 && std::string(argv[1]) == "reverse") return reverse(atoi(argv[2]), argv[3]);
  fprintf(stderr, "usage: %s load PATH | reverse MASKS PATH\n", argv[0]);
  return 2;
}
