#define LOG_MODULE "./src/provisor"
#include "runStatus.h"

#include "inifile.h"
#include "log.h"
#include "paths.h"
#include "redact.h"

const char* fileOutcomeWord(fileOutcome outcome) {
  switch (outcome) {
    case fileOutcome::kApplied:
      return "applied";
    case fileOutcome::kUnchanged:
      return "unchanged";
    case fileOutcome::kNotModified:
      return "not modified";
    case fileOutcome::kRefused:
      return "refused";
  }
  return "refused";
}

void runStatus::addFile(const std::string& fileUrl, fileOutcome outcome, const std::string& reason) {
  if (files.size() >= kMaxRunStatusFiles) return;
  files.push_back(File{urlForLog(fileUrl), outcome, reason});
}

std::string runStatusText(const runStatus& status) {
  iniFile record;
  auto set = [&record](const std::string& section, const std::string& key, const std::string& value) {
    record.SetTextValue(section, key, logEscaped(value));
  };
  set("run", "started", std::to_string(status.startedAt));
  set("run", "trigger", status.trigger);
  set("run", "source", status.source);
  set("run", "url", urlForLog(status.url));
  set("run", "result", !status.finished ? "running" : status.succeeded ? "ok" : "failed");
  set("run", "reboot_pending", status.rebootPending ? "1" : "0");
  set("run", "firmware", status.firmwareVersion);
  set("run", "next_repeat", status.nextRepeat);
  set("run", "next_weekly", status.nextWeekly);
  for (const auto& [type, count] : status.applied) set("run", "applied_" + type, std::to_string(count));
  set("run", "files", std::to_string(status.files.size()));
  for (size_t i = 0; i < status.files.size(); ++i) {
    const std::string section = "file." + std::to_string(i + 1);
    set(section, "url", status.files[i].url);
    set(section, "outcome", fileOutcomeWord(status.files[i].outcome));
    if (!status.files[i].reason.empty()) set(section, "reason", status.files[i].reason);
  }
  return record.ExportToText();
}

bool writeRunStatus(const runStatus& status) { return writeFileAtomic(kRunStatusPath, runStatusText(status)); }
