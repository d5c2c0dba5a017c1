// Web login users: the password file after each kind of item and the TR-069 hand-over of the
// administrator's password.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <tuple>

#include "cfgUpgrader.h"
#include "pwdUpgrader.h"
#include "registry.h"
#include "testRoot.h"

using namespace testing_support;

namespace {

constexpr const char* kFile = "/valdrun/config/.htpasswd";

class PwdUpgraderTest : public RootedTest {
 protected:
  int apply(const std::string& usage, const std::string& value) {
    autopItemList items;
    autopItem& item = *items.emplace_back(std::make_unique<autopItem>());
    item.usage = usage;
    item.path = kFile;
    item.value = value;
    registryResetCache();
    return autoPwdUpgader().upgrade(items);
  }
  // True when `password` is the stored password of `user`; nullptr asks that there is no such user.
  bool holds(const std::string& user, const char* password) {
    autoPwdEntryList entries;
    autoPwdUpgader::loadPasswordFile(kFile, entries);
    for (const auto& e : entries)
      if (e.name == user) return password && cryptPassword(password, e.hash.c_str()) == e.hash;
    return !password;
  }
  // The file's identity and time stamp: any write (atomic or not) changes it.
  std::string stamp() {
    struct stat st {};
    stat(root->host(kFile).c_str(), &st);
    return std::to_string(st.st_ino) + ":" + std::to_string(st.st_mtim.tv_sec) + "." +
           std::to_string(st.st_mtim.tv_nsec);
  }
};

TEST_F(PwdUpgraderTest, AddChangeKeepDeleteAndTheAdministratorsHandOver) {
  // Lines without a colon are dropped; a hash may hold one.
  root->write(kFile, "a:xy\nno colon\n\nb:c:d\nlast:z");
  // usage, value, result; a user and its password afterwards (nullptr: no such user); the
  // administrator's password handed over to TR-069
  const std::tuple<const char*, const char*, int, const char*, const char*, const char*> steps[] = {
      {"cover.user", "admin:abc", 1, "admin", "abc", "abc"},
      {"cover.user", "guest:%NULL%", 1, "guest", "", "abc"},
      {"cover.user", "nopw:", 0, "nopw", nullptr, "abc"},  // an empty password adds no user
      {"cover.user", "admin:abc", 0, "admin", "abc", "abc"},
      {"modify.user", "nobody:x", 0, "nobody", nullptr, "abc"},
      {"modify.user", "guest:abcdefghijklmnopqrstuvwxyz", 1, "guest", "abcdefghijklmnopqrst", "abc"},
      {"cover.user", "admin:new", 1, "admin", "new", "new"},
      {"delete.user", "guest:x", 1, "guest", nullptr, "new"},
  };
  for (const auto& [usage, value, result, user, password, tr069] : steps) {
    SCOPED_TRACE(std::string(usage) + " " + value);
    const std::string before = stamp();
    EXPECT_EQ(apply(usage, value), result);
    EXPECT_TRUE(holds(user, password));
    EXPECT_TRUE(result != 0 || stamp() == before) << "nothing changed: the file is not written";
    registryResetCache();
    EXPECT_EQ(brisaGetProfileString("/config/TR069/tr069.ini", "WebPassword", "WebPassword", "<none>"), tr069);
  }
  EXPECT_EQ(root->read(kFile).substr(0, 24), "a:xy\nb:c:d\nlast:z\nadmin:");
}

}  // namespace

namespace {

// A web login name is a name of the password file: one holding ":" or a control character is
// refused when the login is renamed and when a user is added, and the administrator keeps its
// login and password.
TEST_F(PwdUpgraderTest, LoginNamesWithColonsOrControlCharactersAreRefused) {
  const std::string renameFile = "/config/data/htpasswd";
  const std::string adminLine = "admin:" + cryptPassword("pw", nullptr) + "\n";
  // the new login name; whether it is taken
  const std::pair<const char*, bool> names[] = {
      {"root:AAxxxxxxxxxxx", false}, {"ro\not", false}, {"ro\x7fot", false}, {"\x1b[2Jroot", false}, {"root", true},
  };
  for (const auto& [name, taken] : names) {
    SCOPED_TRACE(name);
    root->write(renameFile, adminLine);
    root->write("/config/user/user.ini", "[UserName]\nadmin = admin\n");
    registryResetCache();
    autopItemList items;
    autopItem& item = *items.emplace_back(std::make_unique<autopItem>());
    item.path = "/config/user/user.ini";
    item.section = "UserName";
    item.key = "admin";
    item.value = name;
    EXPECT_EQ(autoCfgUpgrader().upgrade(items), taken ? 1 : 0);
    registryResetCache();
    const std::string login = brisaGetProfileString("/config/user/user.ini", "UserName", "admin", "<none>");
    EXPECT_EQ(login, taken ? name : "admin");
    // The login the phone now names still opens with the old password.
    autoPwdEntryList entries;
    ASSERT_TRUE(autoPwdUpgader::loadPasswordFile(renameFile, entries));
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].name, login);
    EXPECT_EQ(cryptPassword("pw", entries[0].hash.c_str()), entries[0].hash);
    if (!taken) {
      EXPECT_EQ(root->read(renameFile), adminLine);
    }
    // Added directly as a user of the web server's file: refused the same way.
    root->write(kFile, adminLine);
    std::string user = name;
    EXPECT_EQ(apply("cover.user", user.substr(0, user.find(':')) + "x\x01:pw"), 0);
    EXPECT_EQ(root->read(kFile), adminLine);
  }
}

}  // namespace
