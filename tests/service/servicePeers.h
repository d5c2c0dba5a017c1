// What the daemon tests share: msgctl driven as the other applications of the phone would, a
// one-setting translation table, and small text helpers for the logs those processes leave.
#pragma once

#include <unistd.h>

#include <string>

#include "launcher.h"
#include "msgqueue.h"
#include "servers.h"
#include "testRoot.h"

namespace service_test {

// msgctl's output for the given arguments.
inline std::string msgctl(const std::string& args) {
  std::string out;
  testing_support::runCommand(testing_support::programCommand("msgctl") + " " + args, &out);
  return out;
}

// Starts (or restarts) `listener` as the application `name`, logging what it receives to `logFile`
// and answering synchronous messages with `reply` (none when negative); waits until it is reachable.
inline bool listen(testing_support::ServerProcess& listener, const std::string& name, const std::string& logFile,
                   int reply = -1) {
  std::vector<std::string> args = {"listen", name};
  if (reply >= 0) args.insert(args.end(), {"--reply", std::to_string(reply)});
  if (!listener.start(testing_support::programArgv("msgctl", args), logFile)) return false;
  for (int i = 0; i < 500 && msgGetThreadByName(name).empty(); ++i) usleep(10000);
  return !msgGetThreadByName(name).empty();
}

// A translation table of one setting, and a file that sets it: which source was applied shows in
// /config/user/marker.ini.
inline const char* kTable = R"XML(<?xml version="1.0"?>
<autopTranslator><cfg>
  <object name="marker" path="/config/user/marker.ini" section="Marker"><item name="source" key="From"/></object>
</cfg></autopTranslator>
)XML";

inline std::string markerFile(const std::string& source) {
  return "#!version:1.0.0.1\nmarker.source = " + source + "\n";
}

inline int occurrences(const std::string& text, const std::string& needle) {
  int n = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
  return n;
}

inline bool contains(const std::string& text, const std::string& needle) {
  return text.find(needle) != std::string::npos;
}

}  // namespace service_test
