// autoptool: the administrator's commands around the provisioning service. Each command is one row
// of the table in autoptool.cpp; its handler gets the arguments after the command name and returns
// the process exit status.
#pragma once

struct autoptoolCommand {
  const char* name;
  const char* usage;  // arguments, for the help text
  const char* summary;
  int (*handler)(int argc, char** argv);
};

// autoptool fetch URL FILE
int autoptoolFetch(int argc, char** argv);
// autoptool encrypt KEY IN OUT / decrypt KEY IN OUT (KEY "mac:<MAC>" is the key derived from a MAC)
int autoptoolEncrypt(int argc, char** argv);
int autoptoolDecrypt(int argc, char** argv);
// autoptool check [--table FILE] CONFIG
int autoptoolCheck(int argc, char** argv);
// autoptool provision URL
int autoptoolProvision(int argc, char** argv);
// autoptool image build ... / image verify ...: signed firmware images
int autoptoolImage(int argc, char** argv);
// autoptool safemode-install: the boot loader's install after a switch to safe mode
int autoptoolSafemodeInstall(int argc, char** argv);
// autoptool status [--json]: the record of the daemon's last run
int autoptoolStatus(int argc, char** argv);
