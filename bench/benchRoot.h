// The benchmarks' throw-away $PROVISOR_ROOT under $TMPDIR (default /tmp), made on first use and
// removed at exit. Kept on the heap: it must outlive static destruction for the exit handler.
#pragma once

#include <cstdlib>
#include <string>
#include <vector>

#include "paths.h"

inline const std::string& benchRoot() {
  static const std::string* root = [] {
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/provisor-bench-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    auto* dir = new std::string(mkdtemp(buffer.data()) ? buffer.data() : "");
    setenv("PROVISOR_ROOT", dir->c_str(), 1);
    platformSetRoot(*dir);
    return dir;
  }();
  static bool cleanup = atexit([] {
    if (!benchRoot().empty()) (void)!system(("rm -rf '" + benchRoot() + "'").c_str());
  }) == 0;
  (void)cleanup;
  return *root;
}
