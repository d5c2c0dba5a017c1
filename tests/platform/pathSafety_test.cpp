// Paths never reach above $PROVISOR_ROOT, however many ".." a table or a server puts in them; and
// the temporaries a killed writer left beside a file go the next time that file is written, while
// another writer's temporary in flight and files of other names stay.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "paths.h"
#include "testRoot.h"

using PathSafetyTest = testing_support::RootedTest;

TEST_F(PathSafetyTest, DotDotStopsAtTheRoot) {
  const std::string& r = root->path();
  const std::string parent = r.substr(0, r.rfind('/'));
  const std::pair<std::string, std::string> cases[] = {
      {"/../../x.ini", r + "/x.ini"},
      {"/config/../../../etc/passwd", r + "/etc/passwd"},
      {"/tmp/./a/../b", r + "/tmp/b"},
      {"/..", r + "/"},
      // An already resolved path that climbs out is taken as a logical one.
      {r + "/../outside", r + parent + "/outside"},
      {r + "/config/x", r + "/config/x"},
      {"relative/../x", "relative/../x"},
  };
  for (const auto& c : cases) EXPECT_EQ(hostPath(c.first), c.second) << c.first;

  // Writing and reading through such a path stay inside: "/../<name>" would be the root's sibling.
  const std::string name = r.substr(parent.size() + 1) + "-outside.ini";
  ASSERT_TRUE(writeFileAtomic("/../" + name, "inside"));
  EXPECT_NE(unlink((r + "-outside.ini").c_str()), 0);
  std::string text;
  EXPECT_TRUE(readTextFile("/config/../../../" + name, text));
  EXPECT_EQ(text, "inside");
}

TEST_F(PathSafetyTest, StaleTemporariesGoWhenTheFileIsWrittenAgain) {
  const std::string file = "/config/system/system.ini";
  const std::string stale = file + ".tmp4242.7", busy = file + ".tmp99.1";  // writers killed / still at work
  for (const std::string& name : {stale, busy, file + ".tmp4242.8.keep", file + ".tmpl"}) root->write(name, "x");
  int lock = open(root->host(busy).c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(flock(lock, LOCK_EX), 0);
  ASSERT_TRUE(writeFileAtomic(file, "[new]\n"));
  EXPECT_EQ(root->read(file), "[new]\n");
  EXPECT_FALSE(root->exists(stale));
  for (const std::string& kept : {busy, file + ".tmp4242.8.keep", file + ".tmpl"})
    EXPECT_TRUE(root->exists(kept)) << kept;
  close(lock);
  ASSERT_TRUE(writeFileAtomic(file, "[newer]\n"));
  EXPECT_FALSE(root->exists(busy)) << "once its writer is gone it is stale too";
}
