// Shared by the media, certificate and archive parser tests: a fresh root per test, files made by
// outside tools (python3, openssl, ImageMagick) under it, and a listing of the whole tree to prove
// that a refused file changed nothing.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <map>
#include <memory>
#include <string>

#include "binParser.h"
#include "paths.h"
#include "testRoot.h"

namespace parser_test {

class ParserTest : public testing_support::RootedTest {
 protected:
  // Runs a shell command of the test (never with server data), expecting success.
  void run(const std::string& command) const {
    std::string output;
    ASSERT_EQ(testing_support::runCommand(command, &output), 0) << command << "\n" << output;
  }
  // Runs a python3 script whose first argument is the host path of `logical` (parents created).
  void python(const std::string& logical, const std::string& script) const {
    root->write("/scratch/make.py", script);
    std::string target = root->host(logical);
    run("mkdir -p \"$(dirname '" + target + "')\" && python3 '" + root->host("/scratch/make.py") + "' '" + target + "'");
  }
  // Installs /tmp/<name> at `destination` with the parser; what installFile returned.
  int install(autoBinParser& parser, const std::string& name, const std::string& destination) const {
    return parser.installFile(("/tmp/" + name).c_str(), destination);
  }
  // Every path under the root except /tmp and /scratch, with its contents ("->target" for links).
  std::map<std::string, std::string> tree() const {
    std::map<std::string, std::string> found;
    std::string listing;
    testing_support::runCommand("cd '" + root->path() + "' && find . -path ./tmp -prune -o -path ./scratch -prune -o -print",
                                &listing);
    size_t start = 0;
    while (start < listing.size()) {
      size_t end = listing.find('\n', start);
      std::string path = listing.substr(start + 1, end - start - 1);
      start = end == std::string::npos ? listing.size() : end + 1;
      if (path.empty() || path == "/tmp" || path == "/scratch") continue;
      struct stat st;
      if (lstat(root->host(path).c_str(), &st) != 0) continue;
      found[path] = S_ISREG(st.st_mode) ? root->read(path) : S_ISLNK(st.st_mode) ? "->link" : "<dir>";
    }
    return found;
  }
};

}  // namespace parser_test
