// Everything that would change the machine itself: restarting, killing processes, device ioctls.
// The host build only appends one line per action to $PROVISOR_ROOT/host/actions.log; after a
// recorded reboot the process ends with status 0, as the phone would have restarted. The phone build
// (PROVISOR_PHONE_BUILD) calls the real system.
#pragma once

#include <cstdint>
#include <string>

constexpr const char* kHostActionsLog = "/host/actions.log";

// Appends one line to the actions log (host build).
void recordAction(const std::string& line);

// The kernel's reboot system call (restart). Does not return on success.
int deviceRebootSyscall();
// Sends a signal to a process; `name` is recorded beside the pid on the host.
int deviceKill(int pid, int signal, const std::string& name);

// A device node ("/dev/input/keypad0", "/dev/lcd0"). On the host a plain file under the root stands
// in for it: opening fails when the file is missing; requests are recorded as
// "ioctl <path> 0x<request> <argument>" and succeed.
class DeviceFile {
 public:
  DeviceFile() = default;
  ~DeviceFile() { Close(); }
  DeviceFile(const DeviceFile&) = delete;
  DeviceFile& operator=(const DeviceFile&) = delete;

  bool Open(const std::string& path, int flags);
  int Ioctl(unsigned long request, unsigned long argument);
  // A request that fills a text buffer (the display's version query); the host leaves it as it is.
  int IoctlText(unsigned long request, char* text);
  void Close();
  bool IsOpen() const { return fd_ >= 0; }

 private:
  std::string path_;
  int fd_ = -1;
};

// Runs a shell command through /bin/sh -c; the wait status as system() gives it (-1 when no shell
// could be started). Callers quote every value they put in it.
int platformSystem(const std::string& command);
// A command of the phone's own (its scripts, as a text method names them): run by platformSystem on
// the phone; on the host, which has none of those scripts, recorded as "system <command>" and taken
// as succeeded (status 0).
int phoneCommand(const std::string& command);
