// ROM installers: bring a firmware image from its location onto the phone. The way differs per
// device family (deviceFamily.h), so romInstaller is a base with one variant per family:
//
//   variant             prepare                                 apply
//   lyra_romInstaller   keeps the location                      stops the other applications, opens
//                                                               the download and hands the phone to
//                                                               the flashing tool
//   orin_romInstaller   keeps the location, fetches nothing     nothing, succeeds
//   duna_romInstaller   checks the image header at the server   boot loader to safe mode with the URL
//
// The firmware upgrader creates the installer of the running device with createRomInstaller, calls
// install once and deletes it.
//
// On the host the flashing tool of the lyra hand-over is the upgrade library's
// firmwareFlashFromSource, run before the hand-over sleep: it verifies the whole image and writes
// the slot file. When it refuses the image, install fails (the real tool would keep the phone in
// its old firmware); the applications stopped before stay stopped, as on the phone.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "fileStream.h"

// Synchronous question to the phone application before a ROM upgrade; 0 means a call is going on.
constexpr uint32_t MSG_ROM_UPGRADE_REQUEST = 0x10009;
constexpr int kRomOpenAttempts = 5;
constexpr uint32_t kRomHandOverSleepMs = 216000u * 1000u;

class romInstaller {
 public:
  virtual ~romInstaller();
  romInstaller(const romInstaller&) = delete;
  romInstaller& operator=(const romInstaller&) = delete;

  // prepare, apply, finish; 1 on success, 0 when a step failed (nothing is rolled back).
  int install(const char* location);
  // Downloads from the location: opens the download stream (five attempts) and keeps it open.
  virtual int prepare(const char* location);
  virtual int apply() = 0;
  // Releases the download stream; 1.
  virtual int finish();

  const std::string& location() const { return m_location; }

 protected:
  romInstaller() = default;
  // Opens the download with up to five attempts, no pause between them. 1 or 0.
  int openDownload(const std::string& location);

  ns_net::fileDownload m_download;
  std::string m_location;
};

class lyra_romInstaller : public romInstaller {
 public:
  int prepare(const char* location) override;
  int apply() override;
  // Asks the phone application, then stops the other applications. 1, or 0 during a call.
  int quitOtherProcesses();

 private:
  int m_result = 0;
};

class orin_romInstaller : public romInstaller {
 public:
  int prepare(const char* location) override;
  int apply() override { return 1; }
};

class duna_romInstaller : public romInstaller {
 public:
  int prepare(const char* location) override;
  int apply() override;
};

// The installer of the running device's family; nullptr when the family has none.
std::unique_ptr<romInstaller> createRomInstaller();
// The installer of a named family; nullptr for an unknown one.
std::unique_ptr<romInstaller> createRomInstallerFor(const std::string& family);
