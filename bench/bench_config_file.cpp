// One configuration file processed end to end (local file URL, the sample translation table, the
// configuration store on disk): a generated M7 file of about 2 MiB (50,000 keys over 20 INI files,
// keys of different files interleaved) and one of about 200 KiB, to show how the cost grows.
//
// Counters: items_per_s, and peak_rss_MiB (the process's peak resident size after the run; run one
// size per process with --benchmark_filter for a clean figure). The log goes to /dev/null.
// bench/config_file.sh measures the same path as a user meets it: `autoptool provision` in its own
// process, beside the floor its log sets.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "autoUpgrade.h"
#include "autopTranslator.h"
#include "benchRoot.h"
#include "paths.h"
#include "registry.h"

namespace {

// Key templates of the sample table, one group per target INI file ("#" is the index).
struct FileKeys {
  std::string prefix;
  std::vector<std::string> items;
};

std::vector<FileKeys> targetFiles() {
  std::vector<FileKeys> files;
  const std::vector<std::string> account = {"enable",       "label",           "display_name", "auth_name",
                                            "user_name",    "sip_server_host", "sip_server_port", "expires",
                                            "transport",    "outbound_host",   "outbound_port", "bla_number",
                                            "auto_answer",  "missed_calllog",  "anonymous_call", "shared_line"};
  for (int line = 1; line <= 16; ++line) files.push_back({"account." + std::to_string(line) + ".", account});
  files.push_back({"local_time.", {"time_zone", "time_zone_name", "ntp_server1", "ntp_server2", "interval",
                                   "summer_time", "time_format", "date_format"}});
  files.push_back({"phone_setting.", {"backlight_time", "active_backlight_level", "inactive_backlight_level",
                                      "contrast", "inter_digit_time", "predial_autodial", "auto_answer_delay"}});
  std::vector<std::string> linekeys, programable;
  for (int k = 1; k <= 30; ++k)
    for (const char* item : {"type", "line", "value", "label"}) linekeys.push_back(std::to_string(k) + "." + item);
  for (int k = 1; k <= 14; ++k)
    for (const char* item : {"type", "line", "value", "label"}) programable.push_back(std::to_string(k) + "." + item);
  files.push_back({"linekey.", linekeys});
  files.push_back({"programablekey.", programable});
  return files;
}

// Runs of a few keys per file, the files taking turns, until `bytes` are written.
std::string generatedConfig(size_t bytes) {
  const std::vector<FileKeys> files = targetFiles();
  const size_t kRun = 8;
  std::string text = "#!version:1.0.0.1\n";
  std::vector<size_t> cursor(files.size(), 0);
  for (size_t turn = 0; text.size() < bytes; ++turn) {
    size_t f = turn % files.size();
    for (size_t i = 0; i < kRun && text.size() < bytes; ++i) {
      const FileKeys& keys = files[f];
      const std::string& item = keys.items[cursor[f]++ % keys.items.size()];
      text += keys.prefix + item + " = value-" + std::to_string(turn) + "-" + std::to_string(i) + "\n";
    }
  }
  return text;
}

void BM_ConfigFile(benchmark::State& state) {
  std::string tableXml;
  platformSetRoot("");
  readTextFile(std::string(PROVISOR_SOURCE_DIR) + "/data/autopTranslator.xml", tableXml);
  const std::string root = benchRoot();
  platformSetRoot(root);
  writeFileAtomic("/phone/resource/autopTranslator.xml", tableXml);
  const std::string config = generatedConfig(static_cast<size_t>(state.range(0)));
  size_t keys = 0;
  for (char c : config) keys += c == '\n';
  writeFileAtomic("/srv/bench/big.cfg", config);
  autopTranslator table;
  if (!table.loadTransData("/phone/resource/autopTranslator.xml")) {
    state.SkipWithError("sample table missing");
    return;
  }
  autopContext context;
  context.translator = &table;
  // The log is formatted and written as on the phone, into /dev/null.
  int saved = dup(STDOUT_FILENO);
  int null = open("/dev/null", O_WRONLY);
  for (auto _ : state) {
    state.PauseTiming();
    (void)!system(("rm -rf '" + root + "/config'").c_str());
    registryResetCache();
    fflush(stdout);
    dup2(null, STDOUT_FILENO);
    state.ResumeTiming();
    benchmark::DoNotOptimize(autoUpgrade::UpgradeFromURL(context, "/srv/bench/big.cfg"));
    state.PauseTiming();
    fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    state.ResumeTiming();
  }
  close(null);
  close(saved);
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  state.counters["keys"] = static_cast<double>(keys);
  state.counters["items_per_s"] = benchmark::Counter(static_cast<double>(keys) * state.iterations(),
                                                     benchmark::Counter::kIsRate);
  state.counters["peak_rss_MiB"] = static_cast<double>(usage.ru_maxrss) / 1024.0;
}

}  // namespace

BENCHMARK(BM_ConfigFile)->Arg(200 * 1024)->Arg(2 * 1024 * 1024 - 64)->Unit(benchmark::kMillisecond)->Iterations(3);

BENCHMARK_MAIN();
