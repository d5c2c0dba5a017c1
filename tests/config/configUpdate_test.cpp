// One configuration file through the parser as a run takes it: the key that decrypts it, what is
// left in /tmp, files that give no item, values the INI files cannot hold, writes that fail, the
// size limit against a server that never stops, reboots asked for by a table object, and the older
// model's key names. Cipher files are made by openssl.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/stat.h>

#include <atomic>
#include <thread>

#include "autoParser.h"
#include "autoParserCrypt.h"
#include "autopTranslator.h"
#include "netPeers.h"
#include "registry.h"
#include "testRoot.h"

using namespace testing_support;

namespace {

const char* kTable = R"XML(<?xml version="1.0"?>
<autopTranslator>
  <cfg>
    <object name="network" path="/config/system/system.ini" section="Network" reboot="1">
      <item name="vlan" key="VlanID"/>
    </object>
    <object name="account" path="/config/user/voip/sipAccount0.cfg" section="account">
      <item name="label" key="Label"/>
      <item name="mtu" key="MTU" reboot="1"/>
    </object>
    <object name="blocked" path="/config/blocked/x.ini" section="X">
      <item name="value" key="Value"/>
    </object>
  </cfg>
</autopTranslator>
)XML";

class ConfigUpdateTest : public RootedTest {
 protected:
  void SetUp() override {
    RootedTest::SetUp();
    root->write("/tmp/table.xml", kTable);
    ASSERT_TRUE(table.loadTransData("/tmp/table.xml"));
    root->write("/host/device.ini", "[device]\nmac = 001565aabbcc\nip = 127.0.0.1\nnetwork_type = 0\n");
    registryResetCache();
  }
  void TearDown() override {
    registryResetCache();
    RootedTest::TearDown();
  }
  // Applies one URL through a fresh parser; the update's code (-3 when it could not be opened).
  int update(const std::string& urlText, bool* reboot = nullptr) {
    autoParser parser;
    parser.setTranslator(&table);
    ns_net::autopUrl url;
    if (!url.Parse(urlText) || !parser.OpenDownloadStream(url)) return kUpdateNotDownloaded;
    int code = parser.updateConfig(false);
    parser.CloseDownloadStream();
    if (reboot) *reboot = parser.rebootRequested();
    return code;
  }
  std::string ini(const std::string& file, const std::string& section, const std::string& key) {
    registryResetCache();
    return brisaGetProfileString(file, section, key, "<none>");
  }
  // `plain` (whole 16-byte blocks) encrypted with a key text, zero padded to 16 bytes.
  void encrypt(const std::string& logical, const std::string& plain, const std::string& keyText) {
    std::string hex;
    char digits[3];
    for (size_t i = 0; i < 16; ++i) {
      snprintf(digits, sizeof(digits), "%02x", i < keyText.size() ? static_cast<unsigned char>(keyText[i]) : 0);
      hex += digits;
    }
    root->write("/tmp/plain.in", plain);
    std::string out;
    ASSERT_EQ(runCommand("openssl enc -aes-128-ecb -nopad -K " + hex + " -in '" + root->host("/tmp/plain.in") +
                             "' -out '" + root->host(logical) + "'",
                         &out),
              0)
        << out;
  }
  autopTranslator table;
};

std::string m7(const std::string& body) { return "#!version:1.0.0.1\n" + body; }

}  // namespace

TEST_F(ConfigUpdateTest, BuiltInKeyTextIsNoCustomKeyAndTheDefaultWhenNoneIsSet) {
  const std::string builtIn = kBuiltInAesKeyText;
  struct Case {
    std::string keys;  // [AutoProvision] lines
    bool perDevice;
    std::string encryptedWith;
  } cases[] = {
      {"strKeyAES16MAC = " + builtIn + "\nstrKeyAES16 = commonKey\n", true, "commonKey"},
      {"", true, builtIn},
      {"", false, builtIn},
  };
  const std::string plain = m7("account.label = x\n") + std::string(12, ' ');
  for (const Case& c : cases) {
    root->write("/config/system/system.ini", "[AutoProvision]\n" + c.keys);
    registryResetCache();
    encrypt("/tmp/xxx.cfg", plain, c.encryptedWith);
    EXPECT_TRUE(decryptIfNeeded("/tmp/xxx.cfg", c.perDevice, AesKeySources{})) << c.keys << c.perDevice;
    EXPECT_EQ(root->read("/tmp/xxx.cfg"), plain) << c.keys << c.perDevice;
  }
}

TEST_F(ConfigUpdateTest, DecryptedFileIsGoneAfterUse) {
  root->write("/config/system/system.ini", "[AutoProvision]\nstrKeyAES16 = 0123456789abcdef\n");
  encrypt("/tmp/enc.cfg", m7("account.label = secret-holder\n") + std::string(16, ' '), "0123456789abcdef");
  ASSERT_EQ(update("/tmp/enc.cfg"), kUpdateDone);
  EXPECT_EQ(ini("/config/user/voip/sipAccount0.cfg", "account", "Label"), "secret-holder");
  EXPECT_FALSE(root->exists("/tmp/xxx.cfg"));
  EXPECT_FALSE(root->exists("/tmp/xxx.cfgdecrypt"));
}

TEST_F(ConfigUpdateTest, ItemsThatMustNotBeApplied) {
  using namespace std::string_literals;
  struct Case {
    std::string file;
    const char* logged;
  } cases[] = {
      {"#!version:1\nnobody.knows = 1\nnor.this = 2\n"s, "WAR Autop item list is empty !"},
      // A value with a NUL byte in it is refused whole, not cut.
      {"#!version:1\naccount.label = abc\0def\n"s, "holds a NUL byte"},
  };
  for (const Case& c : cases) {
    root->write("/srv/x.cfg", c.file);
    LogCapture log;
    EXPECT_EQ(update("/srv/x.cfg"), kUpdateDone) << c.logged;
    EXPECT_TRUE(log.contains(c.logged)) << log.text();
    EXPECT_EQ(ini("/config/user/voip/sipAccount0.cfg", "account", "Label"), "<none>") << c.logged;
  }
}

TEST_F(ConfigUpdateTest, FailedWriteLeavesTheFileToApplyAgain) {
  root->write("/srv/x.cfg", m7("blocked.value = 5\n"));
  root->write("/config/blocked", "a file where a directory must go");
  LogCapture log;
  EXPECT_EQ(update("/srv/x.cfg"), kUpdateDone);
  EXPECT_TRUE(log.contains("Fail to flush all file !!"));
  EXPECT_EQ(ini("/config/system/system.ini", "OLD_VER", "MD5_CFG"), "<none>");

  ASSERT_EQ(unlink(root->host("/config/blocked").c_str()), 0);
  registryResetCache();
  EXPECT_EQ(update("/srv/x.cfg"), kUpdateDone);
  EXPECT_EQ(ini("/config/blocked/x.ini", "X", "Value"), "5");
  EXPECT_EQ(ini("/config/system/system.ini", "OLD_VER", "MD5_CFG").size(), 32u);
}

TEST_F(ConfigUpdateTest, RebootFlagOfTheObjectOrTheItem) {
  struct Case {
    const char* line;
    bool reboot;
  } cases[] = {{"network.vlan = 7\n", true}, {"account.mtu = 1400\n", true}, {"account.label = x\n", false}};
  for (const Case& c : cases) {
    root->write("/srv/x.cfg", m7(c.line));
    bool reboot = !c.reboot;
    EXPECT_EQ(update("/srv/x.cfg", &reboot), kUpdateDone);
    EXPECT_EQ(reboot, c.reboot) << c.line;
  }
}

TEST_F(ConfigUpdateTest, OlderModelKeysNameTheirSection) {
  root->write("/tmp/m1.cfg", "[network]\npath = /config/system/system.ini\nvlan = 7\nmtu = 1400\n");
  autoParser parser;
  parser.setTranslator(&table);
  ASSERT_TRUE(parser.LoadM1OrM2Model("/tmp/m1.cfg"));
  RawPairList expected = {{"security.network", "7"}, {"security.network", "1400"}};
  EXPECT_EQ(parser.rawPairs(), expected);
}

// A server that sends without end (up to 64 MiB here) is cut off just past the 2 MiB limit.
TEST_F(ConfigUpdateTest, EndlessServerIsCutOffAtTheLimit) {
  constexpr size_t kOffered = 64u << 20;
  net_test::TcpPeer server;
  std::atomic<size_t> sent{0};
  std::thread script([&] {
    int fd = server.accept();
    ASSERT_GE(fd, 0);
    while (!net_test::readLine(fd).empty()) {
    }
    net_test::sendText(fd, "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nConnection: close\r\n\r\n#!version:1\n");
    const std::string block(64 * 1024, '#');
    while (sent < kOffered) {
      ssize_t n = send(fd, block.data(), block.size(), MSG_NOSIGNAL);
      if (n <= 0) break;
      sent += static_cast<size_t>(n);
    }
    close(fd);
  });
  LogCapture log;
  EXPECT_EQ(update("http://127.0.0.1:" + std::to_string(server.port()) + "/endless.cfg"), kUpdateNotLoadable);
  script.join();
  EXPECT_TRUE(log.contains("ERR The Model Config File is larger than 2097152"));
  EXPECT_LT(sent.load(), kOffered / 2) << "the rest was never read";
}
