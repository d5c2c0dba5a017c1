// What the last provisioning run did, for the people who support a fleet: one small record the
// service writes at the end of every run and `autoptool status` prints.
//
// It lives in the daemon's private folder in /tmp (RAM): a run that finds nothing new must not
// change a file on the flash, and a record lost at a restart is written again by the power-on run
// that follows. Written atomically, as INI text: section [run] with the run's facts and one section
// [file.N] per configuration file. URLs are recorded with their passwords masked and every text
// with its control characters escaped.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

constexpr const char* kRunStatusPath = "/tmp/provisor.d/status.ini";
// At most this many files are recorded of one run (a run reads two per source it tries).
constexpr size_t kMaxRunStatusFiles = 16;

// What became of one configuration file.
enum class fileOutcome { kApplied, kUnchanged, kNotModified, kRefused };

struct runStatus {
  struct File {
    std::string url;  // masked
    fileOutcome outcome = fileOutcome::kRefused;
    std::string reason;  // for a refused file
  };

  void clear() { *this = runStatus(); }
  // A file's outcome (the first kMaxRunStatusFiles of a run).
  void addFile(const std::string& url, fileOutcome outcome, const std::string& reason = "");
  void countApplied(const std::string& upgraderType) { ++applied[upgraderType]; }

  int32_t startedAt = 0;  // calendar seconds
  std::string trigger;    // "power-on", "plug-and-play", "request", "network change", ...
  std::string source;     // "dhcp option 66", "configured server", "given URL", ...
  std::string url;        // masked
  bool finished = false;
  bool succeeded = false;
  bool rebootPending = false;
  std::string firmwareVersion;
  std::string nextRepeat;  // "YYYY-mm-dd HH:MM:SS", "" when off
  std::string nextWeekly;
  std::vector<File> files;
  std::map<std::string, int> applied;  // items applied per upgrader type ("cfg", "bin", ...)
};

const char* fileOutcomeWord(fileOutcome outcome);
// The record as its INI text, and written atomically to kRunStatusPath.
std::string runStatusText(const runStatus& status);
bool writeRunStatus(const runStatus& status);
