// Web login users: the password file after each kind of item, the TR-069 hand-over of the
// administrator's password, renames, and nginx checking the provisioned file.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "cfgUpgrader.h"
#include "paths.h"
#include "pwdUpgrader.h"
#include "registry.h"
#include "servers.h"
#include "testRoot.h"

using namespace testing_support;

namespace {

constexpr const char* kFile = "/valdrun/config/.htpasswd";
constexpr const char* kTr069 = "/config/TR069/tr069.ini";

class PwdUpgraderTest : public RootedTest {
 protected:
  void SetUp() override {
    RootedTest::SetUp();
    registryResetCache();
    root->write(kFile, "");
  }
  void TearDown() override {
    registryResetCache();
    RootedTest::TearDown();
  }
  int apply(const std::string& usage, const std::string& value) {
    autopItemList items;
    items.push_back(std::make_unique<autopItem>());
    items.back()->type = "pwd";
    items.back()->usage = usage;
    items.back()->path = kFile;
    items.back()->value = value;
    registryResetCache();
    return autoPwdUpgader().upgrade(items);
  }
  std::string hashOf(const std::string& user, const std::string& file = kFile) {
    autoPwdEntryList entries;
    autoPwdUpgader::loadPasswordFile(file, entries);
    for (const auto& e : entries)
      if (e.name == user) return e.hash;
    return "<absent>";
  }
  // True when `password` is the stored password of `user`.
  bool accepts(const std::string& user, const std::string& password) {
    std::string hash = hashOf(user);
    return cryptPassword(password.c_str(), hash.c_str()) == hash;
  }
  std::string tr069() {
    registryResetCache();
    return brisaGetProfileString(kTr069, "WebPassword", "WebPassword", "<none>");
  }
};

TEST_F(PwdUpgraderTest, AddChangeKeepDeleteAndTheAdministratorsHandOver) {
  LogCapture log;
  EXPECT_EQ(apply("cover.user", "admin:abc"), 1);
  EXPECT_TRUE(accepts("admin", "abc"));
  EXPECT_EQ(tr069(), "abc");
  EXPECT_EQ(apply("cover.user", "guest:%NULL%"), 1);
  EXPECT_EQ(hashOf("guest").size(), 13u);
  EXPECT_TRUE(accepts("guest", ""));
  EXPECT_EQ(apply("cover.user", "guest:"), 0);
  EXPECT_TRUE(log.contains("---Skipped empty password user : guest"));

  // The same password again: the file is not written at all.
  struct stat before {}, after {};
  ASSERT_EQ(stat(root->host(kFile).c_str(), &before), 0);
  EXPECT_EQ(apply("cover.user", "admin:abc"), 0);
  ASSERT_EQ(stat(root->host(kFile).c_str(), &after), 0);
  EXPECT_EQ(before.st_ino, after.st_ino);
  EXPECT_EQ(before.st_mtim.tv_nsec, after.st_mtim.tv_nsec);
  EXPECT_EQ(before.st_mtim.tv_sec, after.st_mtim.tv_sec);

  EXPECT_EQ(apply("modify.user", "nobody:x"), 0);
  EXPECT_TRUE(log.contains("Can not find username,update password failed!!"));
  EXPECT_EQ(hashOf("nobody"), "<absent>");

  // Only the first 20 characters count; another user's password stays out of the TR-069 file.
  EXPECT_EQ(apply("modify.user", "guest:abcdefghijklmnopqrstuvwxyz"), 1);
  EXPECT_EQ(hashOf("guest").size(), 39u);
  EXPECT_TRUE(accepts("guest", "abcdefghijklmnopqrstXXXX"));
  EXPECT_FALSE(accepts("guest", "abcdefghijklmnopqrsXXXXX"));
  EXPECT_EQ(tr069(), "abc");
  EXPECT_EQ(apply("cover.user", "admin:new"), 1);
  EXPECT_EQ(tr069(), "new");

  EXPECT_EQ(apply("delete.user", "guest:x"), 1);
  EXPECT_EQ(hashOf("guest"), "<absent>");
  EXPECT_EQ(apply("delete.user", "guest:x"), 0);
  EXPECT_EQ(apply("bogus.user", "admin:zzz"), 0);
  EXPECT_TRUE(accepts("admin", "new"));
}

TEST_F(PwdUpgraderTest, FilesReadBackAsWrittenAndRenamesKeepTheHash) {
  autoPwdEntryList entries;
  autoPwdUpgader::parsePasswordText("a:xy\nno colon\n\nb:c:d\nlast:z", entries);
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_EQ(entries[1].hash, "c:d");
  ASSERT_TRUE(autoPwdUpgader::savePasswordFile("/config/data/htpasswd", entries));
  EXPECT_EQ(root->read("/config/data/htpasswd"), "a:xy\nb:c:d\nlast:z\n");

  LogCapture log;
  EXPECT_EQ(autoPwdUpgader().renameUser("ghost", "x"), 0);
  EXPECT_TRUE(log.contains("Can't find old user [ghost]"));
  EXPECT_EQ(autoPwdUpgader().renameUser("b", "bee"), 1);
  EXPECT_EQ(root->read("/config/data/htpasswd"), "a:xy\nbee:c:d\nlast:z\n");
  EXPECT_EQ(autoPwdUpgader::loadPasswordFile("/config/absent", entries), 0);
  EXPECT_TRUE(entries.empty());
}

TEST_F(PwdUpgraderTest, NginxChecksTheProvisionedPasswordFile) {
  HttpServer server;
  server.put("auth/index.html", "inside\n");
  server.setPasswordFile(root->host(kFile));
  ASSERT_TRUE(server.start());
  auto status = [&](const std::string& credentials) {
    std::string out;
    runCommand("curl -s -o /dev/null -w '%{http_code}' -u '" + credentials + "' http://127.0.0.1:" +
                   std::to_string(server.port()) + "/auth/index.html",
               &out);
    return out;
  };
  ASSERT_EQ(apply("cover.user", "admin:old12"), 1);
  EXPECT_EQ(status("admin:old12"), "200");
  ASSERT_EQ(apply("cover.user", "admin:New#pw8"), 1);
  EXPECT_EQ(status("admin:New#pw8"), "200");
  EXPECT_EQ(status("admin:old12"), "401");
}

}  // namespace
