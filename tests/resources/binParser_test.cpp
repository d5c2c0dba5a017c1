// The parser framework: the factory's table and fallback, the delete command, the install sequence
// with its post step, and the free-space check against a really small partition.
#include <sys/mount.h>
#include <unistd.h>

#include <cstdlib>
#include <tuple>
#include <typeindex>
#include <vector>

#include "actions.h"
#include "archiveParser.h"
#include "baseMethod.h"
#include "certParser.h"
#include "dsskeyParser.h"
#include "mediaParser.h"
#include "ownNetwork.h"
#include "parserFixture.h"

namespace {

using parser_test::ParserTest;
using testing_support::LogCapture;
using testing_support::ScopedClock;
using testing_support::ScopedStatfs;

// The class a parser was made of; void for none.
std::type_index classOf(const std::unique_ptr<autoBinParser>& parser) {
  return parser ? std::type_index(typeid(*parser)) : std::type_index(typeid(void));
}

TEST(BinParserFactory, KeywordFirstThenKindWord) {
  const std::tuple<const char*, const char*, std::type_index> cases[] = {  // kind word, usage, class
      {"xml", "cover.dialplan", typeid(autoDialPlan)},     {"xml", "modify.dialnow", typeid(autoDialNow)},
      {"xml", "cover.contact_list", typeid(autoContactParser)}, {"", "cover.line_key", typeid(autoLineKey)},
      {"", "cover.memory_key", typeid(autoMemoryKey)},     {"xml", "cover.unknown", typeid(autoXmlParser)},
      {"xml", "cover.Dialplan", typeid(autoXmlParser)},    {"bogus", "cover.unknown", typeid(void)},
      {"wav", "cover.ringtone", typeid(autoRingParser)},   {"tar", "cover.openvpn", typeid(autoOpenVpnParser)},
      {"image", "cover", typeid(autoImageParser)},         {"cert", "delete.x", typeid(autoCertParser)},
      {"tar", "cover.", typeid(autoTarParser)},            {"cert", "cover.802_1X", typeid(auto802_1XCrtParser)},
  };
  for (const auto& [kind, usage, made] : cases) {
    autopItem item;
    item.fileType = kind;
    item.usage = usage;
    EXPECT_STREQ(classOf(createBinParserFor(item)).name(), made.name()) << kind << " " << usage;
  }
  EXPECT_EQ(classOf(createBinParser(0, 6)), typeid(autoRingParser));
  EXPECT_EQ(classOf(createBinParser(kBinKindWav, 0)), typeid(autoWavParser));
  EXPECT_EQ(classOf(createBinParser(kBinKindReserved, 0)), typeid(void));
}

using BinParserTest = ParserTest;

// The words "all" and "dir" and a file name after any scheme: binUpgrader_test, through an upgrade.
TEST_F(BinParserTest, DeleteStaysInsideTheDestination) {
  std::string name;
  for (const char* invalid : {"http://host/all", "://localhost/all"})
    EXPECT_EQ(parseDeleteCommand(invalid, &name), kDeleteInvalid) << invalid;

  root->write("/config/ring/a.wav", "a");
  root->write("/config/secret", "keep");
  autoBinParser parser;
  LogCapture log;
  EXPECT_EQ(parser.deleteFile("/config/ring/", "http://localhost/../secret"), 0);
  EXPECT_TRUE(log.contains("Fail to remove !!"));
  EXPECT_EQ(parser.deleteFile("/config/ring", "http://elsewhere/a.wav"), 0);
  EXPECT_EQ(parser.deleteFile("/config/none", "http://localhost/all"), 0);
  EXPECT_EQ(root->read("/config/secret"), "keep");
  EXPECT_TRUE(root->exists("/config/ring/a.wav"));
  // A destination that is a file goes whatever the command says.
  EXPECT_EQ(parser.deleteFile("/config/ring/a.wav", nullptr), 1);
  EXPECT_FALSE(root->exists("/config/ring/a.wav"));
}

TEST_F(BinParserTest, InstallChecksThenCopiesAndAFailedPostStillCounts) {
  LogCapture log;
  root->write("/tmp/c.xml", "<ContactData><Contact Name=\"A\"/></ContactData>");
  autoContactParser contacts;
  // The post step runs the text methods itself: the host build records the shell call.
  contacts.setAction(" system(\"reload contacts\") ; fail() ");
  EXPECT_EQ(contacts.installFile("/tmp/c.xml", "/config/data/contactData1.xml"), 1);
  EXPECT_EQ(root->read("/config/data/contactData1.xml"), root->read("/tmp/c.xml"));
  EXPECT_EQ(root->read(kHostActionsLog), "system reload contacts\n");
  EXPECT_TRUE(log.contains("call text method [fail()] return [ERROR:"));
  EXPECT_TRUE(log.contains("Warning! Exception occurred in UpgradePost func !"));

  // Wrong root, broken XML, no file: refused, the installed file unchanged, no post step.
  for (const char* body : {"<DialRule/>", "<ContactData><Contact></ContactData>", ""}) {
    root->write("/tmp/bad.xml", body);
    if (!*body) remove(root->host("/tmp/bad.xml").c_str());
    EXPECT_EQ(autoContactParser().installFile("/tmp/bad.xml", "/config/data/contactData1.xml"), 0) << body;
  }
  EXPECT_TRUE(log.contains("Error! Invalid Upgrade BIN File [/tmp/bad.xml]!"));
  EXPECT_EQ(root->read("/config/data/contactData1.xml"), root->read("/tmp/c.xml"));
  EXPECT_EQ(root->read(kHostActionsLog), "system reload contacts\n");
}

// A 64 KiB tmpfs holds the destination, mounted where the test re-executes itself in a private mount
// namespace.
TEST_F(BinParserTest, FileLargerThanASmallPartitionIsRefused) {
  if (!getenv("PROVISOR_SMALL_PARTITION")) {
    if (geteuid() != 0) GTEST_SKIP() << "mounting a small partition needs root";
    return testing_support::rerunSelfUnder("PROVISOR_SMALL_PARTITION=1 unshare -m --propagation private");
  }
  root->write("/config/small/keep", "");
  ASSERT_EQ(mount("tmpfs", root->host("/config/small").c_str(), "tmpfs", 0, "size=64k"), 0);
  root->write("/config/small/dp.xml", "<DialRule/>");
  root->write("/tmp/dp.xml", "<DialRule>" + std::string(200 * 1024, ' ') + "</DialRule>");
  LogCapture log;
  EXPECT_EQ(autoDialPlan().installFile("/tmp/dp.xml", "/config/small/dp.xml"), 0);
  EXPECT_TRUE(log.contains("is larger than partion free size !"));
  EXPECT_EQ(root->read("/config/small/dp.xml"), "<DialRule/>");
  EXPECT_FALSE(root->exists("/tmp/dp.xml"));
  // Past the space check (its answer faked), the full partition fails the copy and nothing changes.
  {
    ScopedStatfs plentyOfSpace([](const char*, struct statfs* s) {
      *s = {};
      s->f_bsize = 4096;
      s->f_bfree = 1 << 20;
      return 0;
    });
    root->write("/tmp/dp.xml", "<DialRule>" + std::string(200 * 1024, ' ') + "</DialRule>");
    EXPECT_EQ(autoDialPlan().installFile("/tmp/dp.xml", "/config/small/dp.xml"), 0);
  }
  // The old file as it was, and no temporary left behind.
  EXPECT_EQ(tree("/config/small"), (std::map<std::string, std::string>{{"/config/small/dp.xml", "<DialRule/>"}}));
  umount2(root->host("/config/small").c_str(), MNT_DETACH);
}

}  // namespace
