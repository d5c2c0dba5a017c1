// The configuration store: INI files under /config and /phone read and written by file, section and
// key through a per-process cache. Writes stay in the cache until flushed; a flush replaces the file
// atomically. A cached file is read again when another process changed it on disk and this process
// holds no unflushed change to it.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

std::string brisaGetProfileString(const std::string& file, const std::string& section, const std::string& key,
                                  const std::string& defaultValue);
int32_t brisaGetProfileInt(const std::string& file, const std::string& section, const std::string& key,
                           int32_t defaultValue);
// Writes through at once (set and flush of that file). True on success.
bool brisaSetProfileInt(const std::string& file, const std::string& section, const std::string& key, int32_t value);
bool brisaSetProfileString(const std::string& file, const std::string& section, const std::string& key,
                           const std::string& value);
// Writes through at once even inside a deferred-flush scope (below): for a value that must be on
// disk before a file kept outside the store is replaced.
bool brisaSetProfileStringNow(const std::string& file, const std::string& section, const std::string& key,
                              const std::string& value);

// The same through the shared cache; writes wait for a flush.
std::string brisaGetRegistryString(const std::string& file, const std::string& section, const std::string& key,
                                   const std::string& defaultValue);
int32_t brisaGetRegistryInt(const std::string& file, const std::string& section, const std::string& key,
                            int32_t defaultValue);
bool brisaSetRegistryString(const std::string& file, const std::string& section, const std::string& key,
                            const std::string& value);

// A handle to one section of one file. Closing does not flush.
struct RegistrySection;
using REGHANDLE = std::shared_ptr<RegistrySection>;

REGHANDLE registryOpen(const std::string& file, const std::string& section);
void registryClose(REGHANDLE& handle);
int32_t registryGetInt(const REGHANDLE& handle, const std::string& key, int32_t defaultValue);
std::string registryGetString(const REGHANDLE& handle, const std::string& key, const std::string& defaultValue);
// The section's keys as this process sees them (its unflushed writes included), "key=value" lines
// in file order; "" when the section is missing. Two texts differ exactly when some key changed.
std::string registrySectionText(const REGHANDLE& handle);
bool registrySetString(const REGHANDLE& handle, const std::string& key, const std::string& value);
// Writes the handle's file back atomically. True on success (or when nothing changed).
bool registryFlush(const REGHANDLE& handle);
const std::string& registryFileOf(const REGHANDLE& handle);
const std::string& registrySectionOf(const REGHANDLE& handle);

// Writes every changed cached file back. True when all flushes succeeded.
bool regFlushAllFile();
// Flushes of single files asked for between begin and end are carried out once, at the end (nested
// scopes end with the outermost). A configuration file that writes one INI file in many small
// batches then replaces each file once instead of once per batch; until the end, the files on disk
// keep their old contents whole. End: true when every deferred flush succeeded.
void registryBeginDeferredFlush();
bool registryEndDeferredFlush();
class RegistryDeferredFlush {
 public:
  RegistryDeferredFlush() { registryBeginDeferredFlush(); }
  ~RegistryDeferredFlush() { end(); }
  RegistryDeferredFlush(const RegistryDeferredFlush&) = delete;
  RegistryDeferredFlush& operator=(const RegistryDeferredFlush&) = delete;
  bool end() {
    if (ended_) return true;
    ended_ = true;
    return registryEndDeferredFlush();
  }

 private:
  bool ended_ = false;
};

// Forgets the whole cache without writing (tests, and a process that starts over).
void registryResetCache();

// Calls `onChange` on the calling thread (it must be a message-queue thread) with a handle to the
// section whenever another process changes a key of that section. Returns a monitor id (>0) or 0.
using RegistryChangeCallback = std::function<void(const REGHANDLE&)>;
uint32_t registryMonitorSection(const std::string& file, const std::string& section, RegistryChangeCallback onChange);
void registryStopMonitor(uint32_t monitorId);
