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
