// Shared between the registry cache and its change monitor (not part of the platform interface).
#pragma once

#include <functional>
#include <string>

class iniFile;

namespace registry_internal {

// Text of one section's keys ("key=value" lines in file order); "" when the section is missing.
std::string sectionText(const iniFile& ini, const std::string& section);

// Runs `write` (the atomic replacement of `hostFile` by this process) while the monitor cannot
// compare that file, then records `contents` as the file's known state, so this process's own
// flushes are not reported to its own monitors as changes by another process.
bool writeWithoutSelfNotice(const std::string& hostFile, const iniFile& contents, const std::function<bool()>& write);

// A forked child inherits both locks of the store; they are taken (cache first, then monitor) around
// fork so that no other thread holds them at that moment. The child starts without monitors.
void registerForkHandlers();
void monitorLockForFork();
void monitorUnlockInParent();
void monitorResetInChild();

}  // namespace registry_internal
