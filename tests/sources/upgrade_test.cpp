// A provisioning URL in, changed INI values out, with the shipped translation table: directory and
// file URLs over local paths, HTTP and HTTPS (a real server on loopback; every stream has its own
// tests), "$mac", the custom per-device file location, the MD5 memory, both file models, the size
// limit, and no password of any URL in the log.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <map>

#include "autoLaunch.h"
#include "autoParser.h"
#include "autoUpgrade.h"
#include "autopTranslator.h"
#include "firmwareUrl.h"
#define LOG_MODULE "./src/upgradeTest"
#include "log.h"
#include "registry.h"
#include "servers.h"
#include "runContext.h"
#include "testRoot.h"

using namespace testing_support;

namespace {

const char* kMac = "001565aabbcc";

std::string m7(const std::string& body) { return "#!version:1.0.0.1\n" + body; }

class UpgradeTest : public RootedTest {
 protected:
  void SetUp() override {
    RootedTest::SetUp();
    ASSERT_TRUE(run.loadShippedTable());
    root->write("/host/device.ini", std::string("[device]\nmac = ") + kMac + "\nip = 127.0.0.1\nnetwork_type = 0\n");
    root->write("/config/system/system.ini", "[AutoProvision]\nstrCommName = common.cfg\n");
  }
  std::string ini(const std::string& file, const std::string& section, const std::string& key) {
    registryResetCache();
    return brisaGetProfileString(file, section, key, "<none>");
  }
  std::string account(int index, const std::string& key = "Label") {
    return ini("/config/user/voip/sipAccount" + std::to_string(index) + ".cfg", "account", key);
  }
  // features.dnd.on_code: a plain setting whose object has a call.
  std::string dnd() { return ini("/config/user/user.ini", "Features", "DND_OnCode"); }

  TestRunContext run;
};

}  // namespace

TEST_F(UpgradeTest, LocalDirectoryAppliesCommonThenPerDeviceFile) {
  root->write("/srv/prov/common.cfg",
              m7("account.1.label = Common\naccount.2.label = Shared\nfeatures.dnd.on_code = 12\n"));
  root->write(std::string("/srv/prov/") + kMac + ".cfg",
              m7("account.1.label = Mine\nnetwork.internet_port.mtu = 1400\n"));
  LogCapture log;
  EXPECT_TRUE(autoUpgrade::UpgradeFromURL(run.context, "/srv/prov"));
  EXPECT_EQ(account(0), "Mine");  // the per-device file came second and wins
  EXPECT_EQ(account(1), "Shared");
  EXPECT_EQ(dnd(), "12");
  EXPECT_EQ(ini("/config/system/system.ini", "WAN", "MTU"), "1400");
  EXPECT_EQ(run.reboots, 1);
  // Each changed object's calls run once at the end of its file.
  EXPECT_TRUE(log.contains("call text method [msgPostMessage(\"app_vpPhone\",0x60003,0,0)]"));

  // Only the per-device file present: still reached.
  root->write("/srv/only/" + std::string(kMac) + ".cfg", m7("account.3.label = Alone\n"));
  EXPECT_TRUE(autoUpgrade::UpgradeFromURL(run.context, "/srv/only/"));
  EXPECT_EQ(account(2), "Alone");
  // Nothing there at all: not reached.
  EXPECT_FALSE(autoUpgrade::UpgradeFromURL(run.context, "/srv/none/"));

  // A custom per-device location that names the file itself is used as it stands, and collected
  // where the phone reads it.
  root->write("/srv/devs/mine.cfg", m7("account.4.label = Named\n"));
  root->write("/srv/c/common.cfg", m7("custom_mac_cfg.url = /srv/devs/mine.cfg\n"));
  EXPECT_TRUE(autoUpgrade::UpgradeFromURL(run.context, "/srv/c/"));
  EXPECT_EQ(account(3), "Named");
  EXPECT_EQ(ini("/tmp/provisor.d/autop_tmp_config.cfg", "CUSTOM_MAC_CFG_PATH", "server_address"), "/srv/devs/mine.cfg");
}

TEST_F(UpgradeTest, InvalidUrlsAndFileNames) {
  LogCapture log;
  EXPECT_FALSE(autoUpgrade::UpgradeFromURL(run.context, "http:///x.cfg"));
  EXPECT_TRUE(log.contains("Invalid URL !"));
  EXPECT_FALSE(autoUpgrade::UpgradeFromURL(run.context, "tftp://10.0.0.1:0/x"));
  for (const char* name : {"/p/boot.PHP", "a.Xml"}) EXPECT_TRUE(isConfigFileName(name)) << name;
  for (const char* name : {"/dir/file.txt", "/dir/file", static_cast<const char*>(nullptr)})
    EXPECT_FALSE(isConfigFileName(name));
  EXPECT_EQ(replaceMacMarks("http://s/a$macb$mac", kMac), std::string("http://s/a") + kMac + "b" + kMac);
  EXPECT_EQ(replaceMacMarks("x$mac", ""), "x");
  EXPECT_EQ(replaceMacMarks("$ma$mac$", "$mac"), "$ma$mac$");  // inserted text is not scanned again
}

TEST_F(UpgradeTest, HttpAndHttpsUrlsWithNoPasswordInTheLog) {
  TestCa ca("prov-ca");
  ASSERT_TRUE(ca.create() && ca.issueServerCertificate("server"));
  HttpServer http;
  START_PEER(http, &ca);
  root->write("/config/certs/trusted/prov-ca.pem", readHostFile(ca.caCertificate()));
  const std::string server = "127.0.0.1:" + std::to_string(http.port());
  const std::string tlsServer = "127.0.0.1:" + std::to_string(http.tlsPort());
  http.put(std::string("files/") + kMac + ".cfg", m7("account.1.label = ViaMac\n"));
  // The server takes user:secret for /auth/; every URL there carries a password: the provisioning
  // URL, the custom per-device location and a URL-valued setting.
  http.put("auth/common.cfg", m7("custom_mac_cfg.url = https://user:secret@" + tlsServer +
                                 "/auth/devices/\n"
                                 "auto_provision.server.url = ftp://admin:secret@" +
                                 server + "/prov/\n"));
  http.put(std::string("auth/devices/") + kMac + ".cfg", m7("account.2.label = Reached\n"));

  LogCapture log;
  EXPECT_TRUE(autoUpgrade::UpgradeFromURL(run.context, "http://" + server + "/files/$mac.cfg"));
  EXPECT_EQ(account(0), "ViaMac");
  // Twice: the second run also logs the unchanged files by their URLs.
  for (int round = 0; round < 2; ++round)
    EXPECT_TRUE(autoUpgrade::UpgradeFromURL(run.context, "https://user:secret@" + tlsServer + "/auth"));
  EXPECT_EQ(account(1), "Reached");
  EXPECT_EQ(ini("/config/system/system.ini", "AutoProvision", "strServerURL"),
            "ftp://admin:secret@" + server + "/prov/");
  for (const char* line :
       {"psw = ******", "(MD5) is same as old file", "Get Custom MAC.CFG's URL: https://user:******@",
        "--- Set [AutoProvision::strServerURL] Value [ftp://admin:******@"})
    EXPECT_TRUE(log.contains(line)) << line;
  const std::string text = log.text();
  size_t leak = text.find("secret");
  EXPECT_EQ(leak, std::string::npos) << text.substr(leak > 200 ? leak - 200 : 0, 400);

  // A missing file is not reached (the trust of HTTPS servers is the stream's own test).
  EXPECT_FALSE(autoUpgrade::UpgradeFromURL(run.context, "http://" + server + "/files/absent.cfg?x=1"));
}

TEST_F(UpgradeTest, UnchangedFilesApplyOnlyResourceAndFirmwareItems) {
  const std::string common =
      m7("features.dnd.on_code = 5\n"
         "dialplan.replace_rule.url = http://127.0.0.1:9/dialplan.xml\n"
         "security.user_password = admin:pw\n"
         "firmware.url = http://127.0.0.1:9/fw.rom\n");
  root->write("/srv/p/common.cfg", common);
  root->write(std::string("/srv/p/") + kMac + ".cfg", m7("account.1.label = Dev\n"));
  ASSERT_TRUE(autoUpgrade::UpgradeFromURL(run.context, "/srv/p"));
  const std::string commonDigest = ini("/config/system/system.ini", "OLD_VER", "MD5_CFG");

  // Somebody changes the values on the phone; the same files again do not overwrite them.
  brisaSetProfileString("/config/user/user.ini", "Features", "DND_OnCode", "99");
  brisaSetProfileString("/config/user/voip/sipAccount0.cfg", "account", "Label", "Local");
  LogCapture log;
  ASSERT_TRUE(autoUpgrade::UpgradeFromURL(run.context, "/srv/p"));
  EXPECT_EQ(dnd(), "99");
  EXPECT_EQ(account(0), "Local");
  // Resources and firmware are still dispatched, firmware last; passwords are not.
  EXPECT_LT(log.text().find("***** Upgrade BIN File *****"), log.text().find("***** Upgrade ROM File ***** "));
  EXPECT_TRUE(log.contains("***** Upgrade ROM File ***** "));
  EXPECT_FALSE(log.contains("***** Upgrade PWD File *****"));

  // A changed common file applies again and makes the per-device file apply again too.
  root->write("/srv/p/common.cfg", common + "features.dnd.off_code = 6\n");
  ASSERT_TRUE(autoUpgrade::UpgradeFromURL(run.context, "/srv/p"));
  EXPECT_EQ(dnd(), "5");
  EXPECT_EQ(account(0), "Dev");
  EXPECT_NE(ini("/config/system/system.ini", "OLD_VER", "MD5_CFG"), commonDigest);
}

TEST_F(UpgradeTest, FileModelsValuesAndTheSizeLimit) {
  // The older model with a byte-order mark; "!boolean" is taken as plain boolean there.
  root->write("/srv/m2.cfg",
              "\xEF\xBB\xBF[cfg:/config/user/voip/sipAccount1.cfg]\naccount.Label = Old Model\naccount.HideLine = 1\n");
  ASSERT_TRUE(autoUpgrade::UpgradeFromURL(run.context, "/srv/m2.cfg"));
  EXPECT_EQ(account(1), "Old Model");
  EXPECT_EQ(account(1, "HideLine"), "1");

  // M7: "%NULL%" empties, an empty value is skipped, unknown keys are reported and passed over,
  // "!boolean" inverts.
  brisaSetProfileString("/config/user/voip/sipAccount0.cfg", "account", "Label", "keep me");
  brisaSetProfileString("/config/user/user.ini", "Features", "DND_OnCode", "7");
  root->write("/srv/m7.cfg", m7("features.dnd.on_code = %NULL%\naccount.1.label =\nno.such.key = 1\n"
                                "account.1.hide_unregister_line = 1\n"));
  LogCapture log;
  ASSERT_TRUE(autoUpgrade::UpgradeFromURL(run.context, "/srv/m7.cfg"));
  EXPECT_EQ(dnd(), "");
  EXPECT_EQ(account(0), "keep me");
  EXPECT_EQ(account(0, "HideLine"), "0");
  EXPECT_TRUE(log.contains("Warning! Not found item no.such.key"));

  // Exactly 2 MiB is accepted, one byte more is not.
  for (const char* value : {"Big", "Bigger"}) {
    std::string body = m7(std::string("account.4.label = ") + value + "\n");
    std::string padded = body + std::string(kMaxConfigFileSize - body.size() - 1, '#') + "\n";
    root->write("/srv/big.cfg", value == std::string("Big") ? padded : padded + "#");
    autoUpgrade::UpgradeFromURL(run.context, "/srv/big.cfg");
    EXPECT_EQ(account(3), "Big");
  }
  EXPECT_TRUE(log.contains("The Model Config File is larger than 2097152"));
}

TEST_F(UpgradeTest, OpeningIsRetriedOnlyOnAWiredNetwork) {
  for (const auto& [type, tries] : {std::pair<int, int>{0, 1}, {2, 6}}) {
    root->write("/host/device.ini", "[device]\nnetwork_type = " + std::to_string(type) + "\n");
    registryResetCache();
    LogCapture log;
    EXPECT_FALSE(autoUpgrade::UpgradeFromURL(run.context, "/srv/absent.cfg"));
    EXPECT_TRUE(log.contains("Failed connect to server ! Try [" + std::to_string(tries) + "] times ... ")) << type;
    EXPECT_FALSE(log.contains("Try [" + std::to_string(tries + 1) + "] times")) << type;
  }
}

// Power-on after power-on with the same files: each file keeps its own digest, so only the first
// run applies anything and asks for the reboot. In "$mac" directories both URLs hold the MAC, with
// a custom per-device location neither does; the pair is told apart by its place in the directory.
TEST_F(UpgradeTest, SameFilesRebootOnlyOnceWhereverTheMacIs) {
  const std::string device = std::string(kMac) + ".cfg";
  const std::string rebootItem = "network.internet_port.mtu = 1400\n";
  struct Layout {
    const char* name;
    std::map<std::string, std::string> files;
    std::string url;
  };
  const Layout layouts[] = {
      {"$mac directory",
       {{std::string("/srv/") + kMac + "/common.cfg", m7(rebootItem)},
        {std::string("/srv/") + kMac + "/" + device, m7("account.1.label = Mine\n")}},
       "/srv/$mac/"},
      {"custom per-device file",
       {{"/srv/c/common.cfg", m7(rebootItem + "custom_mac_cfg.url = /srv/devs/mine.cfg\n")},
        {"/srv/devs/mine.cfg", m7("account.1.label = Mine\n")}},
       "/srv/c/"},
  };
  for (const Layout& layout : layouts) {
    root->write("/config/system/system.ini", "[AutoProvision]\nstrCommName = common.cfg\n");
    for (const auto& [path, contents] : layout.files) root->write(path, contents);
    run.reboots = 0;
    for (int boot = 0; boot < 3; ++boot) ASSERT_TRUE(autoUpgrade::UpgradeFromURL(run.context, layout.url)) << layout.name;
    EXPECT_EQ(run.reboots, 1) << layout.name;
    EXPECT_EQ(account(0), "Mine") << layout.name;
  }
}

// An encrypted common and per-device file in a "$mac" directory, each made by openssl with its own
// key: each is opened with the key of its role.
TEST_F(UpgradeTest, EachFileOfAMacDirectoryIsDecryptedWithTheKeyOfItsRole) {
  root->write("/config/system/system.ini",
              "[AutoProvision]\nstrCommName = common.cfg\nstrKeyAES16 = commonKey0123456\n"
              "strKeyAES16MAC = deviceKey012345\n");
  const std::string directory = std::string("/srv/") + kMac + "/";
  const std::pair<std::string, std::pair<std::string, std::string>> files[] = {
      {"common.cfg", {"636f6d6d6f6e4b657930313233343536", m7("account.2.label = Shared\n")}},
      {std::string(kMac) + ".cfg",
       {"6465766963654b6579303132333435"
        "00",
        m7("account.1.label = Mine\n")}},
  };
  for (const auto& [name, keyAndPlain] : files) {
    std::string plain = keyAndPlain.second + std::string((16 - keyAndPlain.second.size() % 16) % 16, ' ');
    root->write("/tmp/plain.in", plain);
    root->write(directory + name, "");
    ASSERT_EQ(runCommand("openssl enc -aes-128-ecb -nopad -K " + keyAndPlain.first + " -in '" +
                         root->host("/tmp/plain.in") + "' -out '" + root->host(directory + name) + "'"),
              0);
  }
  EXPECT_TRUE(autoUpgrade::UpgradeFromURL(run.context, "/srv/$mac/"));
  EXPECT_EQ(account(1), "Shared");
  EXPECT_EQ(account(0), "Mine");
}

// Another local process plants a link at each fixed name the daemon uses in the shared /tmp, aimed
// at a file of the phone whose contents would be taken for ours. Nothing is written through the
// link, nothing is read through it, and a run that does not need the name still works.
TEST_F(UpgradeTest, LinksPlantedAtFixedNamesInTmpAreNeverFollowed) {
  root->write("/srv/devs/mine.cfg", m7("account.4.label = Named\n"));
  root->write("/srv/c/common.cfg", m7("custom_mac_cfg.url = /srv/devs/mine.cfg\n"));
  auto upgrade = [this] { return autoUpgrade::UpgradeFromURL(run.context, "/srv/c/"); };
  auto pushed = [this] { return autoParser(run.context).updateConfig(true) == kUpdateDone; };
  auto dhcp = [this] { return autoLaunch::launchDhcpUpgrade(run.context, false); };
  auto tr069 = [] { return tr069DownloadRom() != 0; };
  auto backup = [this] { return backupLog() == 0 && !root->exists("/config/autop_log/log.0"); };
  const std::string request = "[firmware]\nhttp_url = http://127.0.0.1:1/fw.rom\nfirmware_name = fw.rom\n";
  const std::string collected = "/tmp/provisor.d/autop_tmp_config.cfg";
  struct Case {
    std::string name, target;
    std::function<bool()> run;
    bool works;
    std::string unseen;  // a log text that only a read through the link would give
  } cases[] = {
      {"/tmp/xxx.cfg", m7("account.5.label = Planted\n"), upgrade, true, ""},
      {"/tmp/xxx.cfgdecrypt", m7("account.5.label = Planted\n"), upgrade, true, ""},
      {"/tmp/autop_tmp_config.cfg", "[Planted]\nkey = 1\n", upgrade, true, ""},
      {"/tmp/XML.cfg", m7("account.5.label = Planted\n"), pushed, false, ""},
      {"/tmp/valdrun_dhcp_options", "[DHCP]\n66 = /srv/c/\n", dhcp, false, ""},
      {"/tmp/tr069_" + std::string(kMac) + ".cfg", request, tr069, false, "strURL=http://127.0.0.1:1/fw.rom"},
      {"/tmp/autop.log", "[ ERR ] planted\n", backup, true, ""},
  };
  const std::string target = "/config/system/keep.ini";
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    root->write(target, c.target);
    remove(root->host(c.name).c_str());
    ASSERT_EQ(symlink(root->host(target).c_str(), root->host(c.name).c_str()), 0);
    LogCapture log;
    EXPECT_EQ(c.run(), c.works);
    if (!c.unseen.empty()) {
      EXPECT_FALSE(log.contains(c.unseen));
    }
    // Wherever the custom values were collected, the planted file's keys were not read into them.
    for (const std::string& file : {collected, std::string("/tmp/autop_tmp_config.cfg")}) {
      struct stat st;
      if (lstat(root->host(file).c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
        EXPECT_EQ(ini(file, "Planted", "key"), "<none>");
      }
    }
    EXPECT_EQ(root->read(target), c.target);
    EXPECT_EQ(account(4), "<none>");  // the planted configuration was never applied
    remove(root->host(c.name).c_str());
  }
}
