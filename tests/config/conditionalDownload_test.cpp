// Conditional downloads against nginx: a configuration file the server still has unchanged is
// answered 304 and its kept bytes take the whole path of a download, so its resources are still
// checked; a damaged kept copy means an ordinary download; an unchanged resource is answered 304
// and stays as installed.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "autoUpgrade.h"
#include "downloadCache.h"
#include "paths.h"
#include "registry.h"
#include "runContext.h"
#include "servers.h"
#include "testRoot.h"

using namespace testing_support;

namespace {

const char* kTable = R"XML(<autopTranslator><cfg>
  <object name="marker" path="/config/user/marker.ini" section="Marker"><item name="source" key="From"/></object>
</cfg><bin>
  <object name="dialplan"><item name="url" fileType="xml" usage="cover.dialplan" path="/config/data/DialPlan.xml"/></object>
</bin></autopTranslator>)XML";

class ConditionalDownloadTest : public RootedTest {
 protected:
  void SetUp() override {
    RootedTest::SetUp();
    root->write("/tmp/table.xml", kTable);
    ASSERT_TRUE(run.table.loadTransData("/tmp/table.xml"));
    root->write("/host/device.ini", "[device]\nmac = 001565aabbcc\nip = 127.0.0.1\nnetwork_type = 0\n");
  }
  bool provision() { return autoUpgrade::UpgradeFromURL(run.context, server() + "prov/p.cfg"); }
  std::string server() const { return "http://127.0.0.1:" + std::to_string(http.port()) + "/"; }
  std::string marker() {
    registryResetCache();
    return brisaGetProfileString("/config/user/marker.ini", "Marker", "From", "<none>");
  }
  // Requests for the configuration file answered with `status`.
  int answered(int status) const { return occurrences(http.accessLog(), "/prov/p.cfg HTTP/1.1\" " + std::to_string(status)); }

  TestRunContext run;
  HttpServer http;
};

TEST_F(ConditionalDownloadTest, UnchangedFilesAreAnswered304AndChangedResourcesStillInstall) {
  http.put("files/dp.xml", "<DialRule n=\"1\"/>");
  START_PEER(http);
  http.put("prov/p.cfg", "#!version:1.0.0.1\nmarker.source = web\ndialplan.url = " + server() + "files/dp.xml\n");
  ASSERT_TRUE(provision());
  EXPECT_EQ(marker(), "web");
  EXPECT_EQ(root->read("/config/data/DialPlan.xml"), "<DialRule n=\"1\"/>");
  EXPECT_EQ(answered(200), 1);
  struct stat folder;
  ASSERT_EQ(lstat(root->host(kDownloadCacheDir).c_str(), &folder), 0);
  EXPECT_EQ(folder.st_mode & 0777, 0700u);

  // The server changes the resource, not the configuration file (its size too: nginx's validators
  // tell versions by time in seconds and size).
  http.put("files/dp.xml", "<DialRule n=\"22\"/>");
  LogCapture log;
  ASSERT_TRUE(provision());
  EXPECT_EQ(answered(304), 1) << http.accessLog();
  EXPECT_TRUE(log.contains("prov/p.cfg] not modified: the kept copy is used")) << log.text();
  EXPECT_TRUE(log.contains("MD5 is same as before! Just upgrade [bin|rom] file !"));
  EXPECT_EQ(marker(), "web");
  EXPECT_EQ(root->read("/config/data/DialPlan.xml"), "<DialRule n=\"22\"/>");

  // A kept copy damaged on the flash: no validators are sent, the file comes whole.
  std::vector<std::string> kept;
  ASSERT_EQ(listDirectoryNames(downloadCache::configFiles().folder(), kept), 0);
  for (const std::string& name : kept)
    if (name.find(".body") != std::string::npos) root->write(downloadCache::configFiles().folder() + "/" + name, "garbage");
  log.clear();
  ASSERT_TRUE(provision());
  EXPECT_EQ(answered(200), 2) << http.accessLog();
  EXPECT_EQ(answered(304), 1);
  EXPECT_FALSE(log.contains("p.cfg] not modified"));
  EXPECT_EQ(marker(), "web");
  // The resource did not change since its install: answered 304, the installed copy and its
  // companion stay.
  EXPECT_EQ(occurrences(http.accessLog(), "/files/dp.xml HTTP/1.1\" 304"), 1) << http.accessLog();
  EXPECT_TRUE(log.contains("files/dp.xml] not modified: the installed copy stays")) << log.text();
  EXPECT_EQ(root->read("/config/data/DialPlan.xml"), "<DialRule n=\"22\"/>");
  EXPECT_TRUE(root->exists("/config/data/DialPlan.xml.MD5"));

  // A companion removed on the phone asks for the resource whole again, and it is installed.
  unlink(root->host("/config/data/DialPlan.xml.MD5").c_str());
  root->write("/config/data/DialPlan.xml", "edited");
  ASSERT_TRUE(provision());
  EXPECT_EQ(occurrences(http.accessLog(), "/files/dp.xml HTTP/1.1\" 200"), 3) << http.accessLog();
  EXPECT_EQ(root->read("/config/data/DialPlan.xml"), "<DialRule n=\"22\"/>");
}

// What a hostile server puts in its validators never goes back into a request, and what it sends is
// bounded: only printable text up to the limit is kept.
TEST(ValidatorTest, OnlyPrintableBoundedValuesAreSafe) {
  const std::pair<std::string, bool> cases[] = {
      {"\"5f3a-1c\"", true},
      {"W/\"x\"", true},
      {"", true},
      {"\"a\"\r\nX-Injected: 1", false},
      {std::string("\"a\0b\"", 5), false},
      {"\x7f", false},
      {std::string(kMaxValidatorLength, 'a'), true},
      {std::string(kMaxValidatorLength + 1, 'a'), false},
  };
  for (const auto& [value, safe] : cases) EXPECT_EQ(isSafeValidator(value), safe) << value;
}

}  // namespace
