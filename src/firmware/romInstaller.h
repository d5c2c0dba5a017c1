// ROM installers: bring a firmware image from its location onto the phone. The way differs per
// device family (deviceFamily.h), so romInstaller is a base with one variant per family:
//
//   variant             prepare                                 apply
//   lyra_romInstaller   checks the location and the header      stops the other applications, opens
//                                                               the download and hands the phone to
//                                                               the flashing tool; a failure after
//                                                               the stop restarts the phone
//   orin_romInstaller   checks the header                       nothing, succeeds
//   duna_romInstaller   checks the header                       boot loader to safe mode with the URL
//
// The header check refuses another family, an unknown family, another model, an empty payload and
// an older version (unless downgrades are allowed); an image of the running version is nothing to
// do: install returns kRomAlreadyInstalled without apply.
//
// The firmware upgrader creates the installer of the running device with createRomInstaller, calls
// install once and deletes it.
//
// On the host the flashing tool of the lyra hand-over is the upgrade library's
// firmwareFlashFromSource, run before the hand-over sleep: it verifies the whole image and writes
// the slot file. When it refuses the image, install fails (the real tool would keep the phone in
// its old firmware) and the phone is restarted, as it is once its applications are stopped.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "fileStream.h"

// Synchronous question to the phone application before a ROM upgrade; 0 means a call is going on.
constexpr uint32_t MSG_ROM_UPGRADE_REQUEST = 0x10009;
constexpr int kRomOpenAttempts = 5;
constexpr uint32_t kRomHandOverSleepMs = 216000u * 1000u;
// install's result when the image is the running firmware: done, nothing changed, no reboot due.
constexpr int kRomAlreadyInstalled = 2;

class romInstaller {
 public:
  virtual ~romInstaller();
  romInstaller(const romInstaller&) = delete;
  romInstaller& operator=(const romInstaller&) = delete;

  // prepare, apply, finish; 1 on success, 0 when a step failed (nothing is rolled back), and
  // kRomAlreadyInstalled, without apply, when prepare found the running firmware.
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
  // The upgrade library's header check at the location (family, model, version, signature), with
  // its log lines; 1 when the image may be installed or is the running one (then
  // m_alreadyInstalled is set), else 0. A server that cannot be reached is tried `attempts` times,
  // as openDownload does.
  int checkHeader(const char* location, int attempts = 1);

  ns_net::fileDownload m_download;
  std::string m_location;
  bool m_alreadyInstalled = false;
};

class lyra_romInstaller : public romInstaller {
 public:
  int prepare(const char* location) override;
  int apply() override;
  // Asks the phone application, then stops the other applications. 1, or 0 during a call.
  int quitOtherProcesses();

 private:
  // A failure once the applications are stopped: restarts the phone. 0 where a restart returns.
  int rebootAfterFailure();
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
