// System helpers shared by every module: file-system work on logical paths (resolved under the
// platform root), questions and notices to the phone's other applications about calls and reboots,
// and the restart of the phone. Every helper logs and returns a status; none throws.
#pragma once

#include <sys/vfs.h>

#include <cstdint>
#include <string>
#include <vector>

// 1 when every character is a decimal digit ("" counts as a number); 0 otherwise or for nullptr.
int isNumber(const char* text);
// Copies a file through a 512 KiB buffer, truncating the target. 0 or -1.
int copyFile(const char* source, const char* target);
// The text before the last "/" into `out` (unchanged when there is none). 0, or -1 for nullptr.
int dirName(const char* path, std::string& out);
// Deletes a directory with everything in it, depth first. 0 when all of it went, else -1.
int removeTree(const char* dir);
// Size in bytes, -1 when it cannot be read.
int64_t fileSize(const char* path);
// Creates a directory and its missing parents (mode 0774). 0 when it exists afterwards, else -1.
int makeDirs(const char* path);
// Every entry of a directory except "." and ".." as a full logical path. The number found, or -1
// when the directory cannot be read.
int listDir(const char* dir, std::vector<std::string>& list);

// Free bytes for a file about to be written at `filePath`: a fixed 60 MiB under /tmp (RAM), else
// what statfs reports for its directory, less 64 KiB on JFFS2 for the file system's own use.
constexpr int64_t kTmpPartitionFreeSize = 62914560;
int64_t partitionFreeSize(const char* filePath);
// Test seam: the statfs used by partitionFreeSize (nullptr restores the real one).
using StatfsFunction = int (*)(const char* hostPath, struct statfs* result);
void setPartitionStatfs(StatfsFunction function);

// Synchronous sends to the phone application and the TR-069 agent; the reply (-1 when the agent
// is not running).
int32_t sendToTalkLogic(uint32_t id, uint32_t wParam, uint32_t lParam);
int32_t sendToTr069(uint32_t id, uint32_t wParam, uint32_t lParam);
// Waits until the phone application allows a restart: 0 when it does, -1 when it keeps talking
// (242 answers in a row) or answers anything else.
int waitCallEnd();

// Kills the processes named in `names` (or, with keepListed, every process not named there),
// except this process, its parent and process 1. 0, -14 when /proc cannot be opened, -1 when reading it
// stopped part way (the processes listed before the error were handled).
constexpr int kKillNoProc = -14;
int killProcesses(const char* const* names, int count, bool keepListed);

// Tells the display about the coming restart and keeps its reboot notice on for five minutes.
// 0, or -1 when the display cannot be opened.
int showRebootOnScreen();

// Backs the log up, hands the phone to the hardware watchdog and restarts it by the system call.
// Returns only when even the system call failed (-1).
int reboot();

// "xml" 1, "image" 2, "cert" 3, "tar" 4, anything else 0.
int resourceKindOf(const char* word);
// The type number of a resource name ("x.ringtone" or "ringtone" -> 7); 0 when unknown.
int resourceTypeOf(const char* name);
