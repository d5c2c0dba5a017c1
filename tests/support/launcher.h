// The one way tests start this build's own programs (provisor, msgctl, autoptool). In a cross build
// the test binaries run under an emulator, and so must the programs they start: the emulator's
// command words go first. Nothing is registered with the machine for this.
#pragma once

#include <string>
#include <vector>

namespace testing_support {

// Program and arguments to exec: the emulator's words (cross build only), then the built binary.
std::vector<std::string> programArgv(const std::string& name, const std::vector<std::string>& args = {});
// The same words, each quoted for /bin/sh, to start the program from runCommand or popen.
std::string programCommand(const std::string& name);
// The running test binary itself, quoted for /bin/sh, for a test that runs itself again inside a
// namespace (under the emulator too in a cross build).
std::string selfCommand();

}  // namespace testing_support
