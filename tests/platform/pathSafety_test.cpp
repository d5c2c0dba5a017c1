// Paths never reach above $PROVISOR_ROOT, however many ".." a table or a server puts in them; and
// the temporaries a killed writer left beside a file go the next time that file is written, while
// another writer's temporary in flight and files of other names stay.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "paths.h"
#include "testRoot.h"

using namespace testing_support;

namespace {

class PathSafetyTest : public RootedTest {};

}  // namespace

TEST_F(PathSafetyTest, DotDotStopsAtTheRoot) {
  const std::string& r = root->path();
  struct Case {
    std::string logical;
    std::string host;
  } cases[] = {
      {"/../../x.ini", r + "/x.ini"},
      {"/config/../../../etc/passwd", r + "/etc/passwd"},
      {"/tmp/./a/../b", r + "/tmp/b"},
      {"/..", r + "/"},
      // An already resolved path that climbs out is taken as a logical one.
      {r + "/../outside", r + r.substr(0, r.rfind('/')) + "/outside"},
      {r + "/config/x", r + "/config/x"},
      {"relative/../x", "relative/../x"},
  };
  for (const Case& c : cases) EXPECT_EQ(hostPath(c.logical), c.host) << c.logical;

  // Writing and reading through such a path stay inside: "/../<name>" would be the root's sibling.
  const std::string name = r.substr(r.rfind('/') + 1) + "-outside.ini";
  const std::string sibling = r + "-outside.ini";
  ASSERT_TRUE(writeFileAtomic("/../" + name, "inside"));
  EXPECT_NE(access(sibling.c_str(), F_OK), 0);
  unlink(sibling.c_str());
  std::string text;
  EXPECT_TRUE(readTextFile("/config/../../../" + name, text));
  EXPECT_EQ(text, "inside");
  EXPECT_TRUE(root->exists("/" + name));
}

TEST_F(PathSafetyTest, StaleTemporariesGoWhenTheFileIsWrittenAgain) {
  const std::string file = "/config/system/system.ini";
  root->write(file, "[old]\n");
  root->write(file + ".tmp4242.7", std::string(4096, 'x'));  // a writer killed before its rename
  root->write(file + ".tmp4242.8.keep", "not one of ours");
  root->write(file + ".tmpl", "not one of ours");
  root->write(file + ".tmp99.1", "a writer still at work");
  int busy = open(root->host(file + ".tmp99.1").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(busy, 0);
  ASSERT_EQ(flock(busy, LOCK_EX), 0);

  ASSERT_TRUE(writeFileAtomic(file, "[new]\n"));
  EXPECT_EQ(root->read(file), "[new]\n");
  EXPECT_FALSE(root->exists(file + ".tmp4242.7"));
  EXPECT_TRUE(root->exists(file + ".tmp4242.8.keep"));
  EXPECT_TRUE(root->exists(file + ".tmpl"));
  EXPECT_TRUE(root->exists(file + ".tmp99.1")) << "its writer holds the lock";
  close(busy);
  ASSERT_TRUE(writeFileAtomic(file, "[newer]\n"));
  EXPECT_FALSE(root->exists(file + ".tmp99.1")) << "once its writer is gone it is stale too";
}
