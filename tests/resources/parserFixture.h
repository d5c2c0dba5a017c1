// Shared by the media, certificate and archive parser tests: a fresh root per test, files made by
// outside tools (python3, openssl, ImageMagick) under it, and a listing of the whole tree to prove
// that a refused file changed nothing.
#pragma once

#include <gtest/gtest.h>
#include <dirent.h>
#include <sys/stat.h>

#include <map>
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
  // Installs /tmp/<name> at `destination` with the parser; what installFile returned.
  int install(autoBinParser& parser, const std::string& name, const std::string& destination) const {
    return parser.installFile(("/tmp/" + name).c_str(), destination);
  }
  // Every path under `top` (logical) with its contents ("->link", "<dir>"); /tmp and /scratch skipped.
  std::map<std::string, std::string> tree(const std::string& top = "") const {
    std::map<std::string, std::string> found;
    DIR* listing = opendir(root->host(top.empty() ? "/" : top).c_str());
    while (dirent* entry = listing ? readdir(listing) : nullptr) {
      std::string name = entry->d_name, path = top + "/" + name;
      if (name == "." || name == ".." || path == "/tmp" || path == "/scratch") continue;
      struct stat st;
      if (lstat(root->host(path).c_str(), &st) != 0) continue;
      found[path] = S_ISREG(st.st_mode) ? root->read(path) : S_ISLNK(st.st_mode) ? "->link" : "<dir>";
      if (S_ISDIR(st.st_mode)) {
        auto below = tree(path);
        found.insert(below.begin(), below.end());
      }
    }
    if (listing) closedir(listing);
    return found;
  }
};

}  // namespace parser_test
