#include "launcher.h"

#include "emulator.h"  // generated: PROVISOR_EMULATOR_WORDS, empty for a native build

namespace testing_support {

namespace {

std::string shellQuoted(const std::string& word) {
  std::string quoted = "'";
  for (char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

}  // namespace

std::vector<std::string> programArgv(const std::string& name) {
  std::vector<std::string> argv{PROVISOR_EMULATOR_WORDS};
  argv.push_back(std::string(PROVISOR_BUILD_DIR) + "/" + name);
  return argv;
}

std::string programCommand(const std::string& name) {
  std::string command;
  for (const std::string& word : programArgv(name)) command += (command.empty() ? "" : " ") + shellQuoted(word);
  return command;
}

}  // namespace testing_support
