// Resource files provisioned by a configuration file, fetched from nginx on loopback: install, the
// MD5 companion and its skip, directory destinations, one resource per object, delete commands, and
// the unchanged configuration file that applies only covers.
#include <gtest/gtest.h>

#include "autoParser.h"
#include "autopTranslator.h"
#include "downloadCache.h"
#include "paths.h"
#include "privateTmp.h"
#include "servers.h"
#include "runContext.h"
#include "testRoot.h"

using namespace testing_support;

namespace {

const char* kTable = R"XML(<autopTranslator><bin>
  <object name="dialplan"><item name="url" fileType="xml" usage="cover.dialplan" path="/config/data/DialPlan.xml"/></object>
  <object name="xmldir">
    <item name="url" fileType="xml" usage="cover.xmlfile" path="/config/data/xml/"/>
    <item name="again" fileType="xml" usage="cover.xmlfile" path="/config/data/xml/"/>
    <item name="delete" fileType="xml" usage="delete.xmlfile" path="/config/data/xml/"/>
  </object>
  <object name="ringtone"><item name="url" fileType="wav" usage="cover.ringtone" path="/config/resource/ring/"/></object>
  <object name="plain"><item name="url" fileType="xml" usage="cover.xmlfile" path="/config/data/plain/"/></object>
</bin></autopTranslator>)XML";

class BinUpgraderTest : public RootedTest {
 protected:
  void SetUp() override {
    RootedTest::SetUp();
    root->write("/tmp/table.xml", kTable);
    ASSERT_TRUE(table.loadTransData("/tmp/table.xml"));
  }
  // Applies a configuration file of the given lines (the same lines twice make an unchanged file).
  void provision(const std::string& lines) {
    root->write("/srv/p.cfg", "#!version:1.0.0.1\n" + lines + "\n");
    autopContext context;
    context.translator = &table;
    autoParser parser(context);
    ns_net::autopUrl url;
    ASSERT_TRUE(url.Parse("/srv/p.cfg") && parser.OpenDownloadStream(url));
    EXPECT_EQ(parser.updateConfig(false), kUpdateDone);
  }
  std::string md5sum(const std::string& logical) {
    std::string out;
    runCommand("md5sum '" + root->host(logical) + "'", &out);
    return out.substr(0, 32);
  }
  autopTranslator table;
};

}  // namespace

TEST_F(BinUpgraderTest, InstallSkipByMd5DirectoriesOneResourcePerObjectAndDeletes) {
  HttpServer http;
  // Several blocks of the MD5's reads.
  const std::string plan = "<DialRule>" + std::string(5000, ' ') + "</DialRule>\n";
  http.put("files/dp.xml", plan);
  for (const char* name : {"bar.xml", "baz.xml", "qux.xml"}) http.put(name, std::string("<R n=\"") + name + "\"/>");
  START_PEER(http);
  const std::string server = "http://127.0.0.1:" + std::to_string(http.port()) + "/";
  const std::string dest = "/config/data/DialPlan.xml", dir = "/config/data/xml/";

  provision("dialplan.url = " + server + "files/dp.xml");
  EXPECT_EQ(root->read(dest), plan);
  EXPECT_EQ(root->read(dest + ".MD5"), md5sum(dest));
  // The same file again: the server answers 304 to the validators of the install, which stays.
  root->write(dest, "edited on the phone");
  LogCapture log;
  provision("dialplan.url = " + server + "files/dp.xml");
  EXPECT_TRUE(log.contains("files/dp.xml] not modified: the installed copy stays")) << log.text();
  EXPECT_EQ(root->read(dest), "edited on the phone");
  // Without kept validators it is downloaded and skipped by its MD5, until the companion goes.
  downloadCache::resources().forget(server + "files/dp.xml");
  provision("dialplan.url = " + server + "files/dp.xml");
  // The download was the daemon's own file in its private folder, removed afterwards.
  EXPECT_TRUE(log.contains("[" + std::string(kPrivateTmpDir) + "/dl-")) << log.text();
  EXPECT_TRUE(log.contains(".xml](MD5) is same as old!"));
  EXPECT_EQ(root->read(dest), "edited on the phone");
  EXPECT_FALSE(root->exists("/tmp/dp.xml"));
  std::vector<std::string> left;
  EXPECT_EQ(listDirectoryNames(kPrivateTmpDir, left), 0);
  EXPECT_TRUE(left.empty());
  ASSERT_EQ(remove(root->host(dest + ".MD5").c_str()), 0);
  provision("dialplan.url = " + server + "files/dp.xml");
  EXPECT_EQ(root->read(dest), plan);

  // A directory destination takes the file's own name.
  provision("xmldir.url = " + server + "bar.xml");
  provision("xmldir.url = " + server + "baz.xml");
  EXPECT_EQ(root->read(dir + "bar.xml"), "<R n=\"bar.xml\"/>");
  EXPECT_EQ(root->read(dir + "baz.xml.MD5"), md5sum(dir + "baz.xml"));
  provision("xmldir.url = " + server + "qux.xml\nxmldir.again = " + server + "qux.xml");
  EXPECT_TRUE(log.contains("Not supported more than one bin item !"));
  EXPECT_FALSE(root->exists(dir + "qux.xml"));
  // File names that are no file of their own are refused before anything is fetched.
  for (const char* url : {"http://127.0.0.1:1/", "http://127.0.0.1:1/..", "http://127.0.0.1:1/a%01\x01",
                          "http://127.0.0.1:1/x;id.xml", "http://127.0.0.1:1/-rf"}) {
    log.clear();
    provision(std::string("xmldir.url = ") + url);
    EXPECT_TRUE(log.contains("Refused the file name of the resource URL")) << url;
    EXPECT_EQ(log.text().find('\x01'), std::string::npos) << "the name is logged escaped";
  }

  provision("xmldir.delete = http://localhost/bar.xml");
  for (const char* gone : {"bar.xml", "bar.xml.MD5"}) EXPECT_FALSE(root->exists(dir + gone)) << gone;
  EXPECT_TRUE(root->exists(dir + "baz.xml"));
  // The same configuration file again: delete items are skipped.
  root->write(dir + "bar.xml", "back");
  provision("xmldir.delete = http://localhost/bar.xml");
  EXPECT_TRUE(log.contains("Autop config file is same as old! Skip not bin conver upgrade !"));
  EXPECT_TRUE(root->exists(dir + "bar.xml"));

  provision("xmldir.delete = tftp://localhost/all");
  for (const char* gone : {"baz.xml", "baz.xml.MD5", "bar.xml"}) EXPECT_FALSE(root->exists(dir + gone)) << gone;
  EXPECT_TRUE(root->exists(dir));
}

// Other applications share /tmp, and the server chooses the names: neither a link planted there nor
// a name of one of the daemon's own files in /tmp is ever written through.
TEST_F(BinUpgraderTest, ServerNamesNeverReachTheFilesOfTmp) {
  const std::string ini = "[AutoProvision]\nstrServerURL=http://keep\n";
  root->write("/config/system/system.ini", ini);
  root->write("/tmp/valdrun_dhcp_options", "option66=tftp://dhcp\n");
  root->write("/tmp/XML.cfg", "pushed=1\n");
  ASSERT_EQ(symlink("../config/system/system.ini", root->host("/tmp/ring.wav").c_str()), 0);
  const std::string wav = "RIFF" + std::string(2000, 'w');
  HttpServer http;
  http.put("ring.wav", wav);
  http.put("valdrun_dhcp_options", "<R/>");
  http.put("XML.cfg", "<R/>");
  START_PEER(http);
  const std::string server = "http://127.0.0.1:" + std::to_string(http.port()) + "/";

  provision("ringtone.url = " + server + "ring.wav");
  EXPECT_EQ(root->read("/config/resource/ring/ring.wav"), wav);
  // The run records its digests there; what was in it stays, and no byte of the download.
  EXPECT_EQ(root->read("/config/system/system.ini").rfind(ini, 0), 0u) << root->read("/config/system/system.ini");
  char target[256] = {};
  ASSERT_GT(readlink(root->host("/tmp/ring.wav").c_str(), target, sizeof target - 1), 0);
  EXPECT_STREQ(target, "../config/system/system.ini");

  for (const char* name : {"valdrun_dhcp_options", "XML.cfg"}) {
    provision(std::string("plain.url = ") + server + name);
    EXPECT_EQ(root->read(std::string("/config/data/plain/") + name), "<R/>") << name;
  }
  EXPECT_EQ(root->read("/tmp/valdrun_dhcp_options"), "option66=tftp://dhcp\n");
  EXPECT_EQ(root->read("/tmp/XML.cfg"), "pushed=1\n");
}
