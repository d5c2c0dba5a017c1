#include "launcher.h"

#include <unistd.h>

#include "emulator.h"  // generated: PROVISOR_EMULATOR_WORDS, empty for a native build

namespace testing_support {

namespace {

std::string shellQuoted(const std::string& word) {
  std::string quoted = "'";
  for (char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

std::string commandOf(const std::vector<std::string>& argv) {
  std::string command;
  for (const std::string& word : argv) command += (command.empty() ? "" : " ") + shellQuoted(word);
  return command;
}

}  // namespace

std::vector<std::string> programArgv(const std::string& name, const std::vector<std::string>& args) {
  std::vector<std::string> argv{PROVISOR_EMULATOR_WORDS};
  argv.push_back(std::string(PROVISOR_BUILD_DIR) + "/" + name);
  argv.insert(argv.end(), args.begin(), args.end());
  return argv;
}

std::string programCommand(const std::string& name) { return commandOf(programArgv(name)); }

std::string selfCommand() {
  // The emulator answers /proc/self/exe with the emulated binary, as the kernel does natively.
  char self[4096] = {};
  if (readlink("/proc/self/exe", self, sizeof self - 1) <= 0) return "";
  std::vector<std::string> argv{PROVISOR_EMULATOR_WORDS};
  argv.push_back(self);
  return commandOf(argv);
}

}  // namespace testing_support
