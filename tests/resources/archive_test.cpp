// Archives made with Python's tarfile at test time: hostile ones are refused with the whole tree as
// it was; good ones land over (or, for VPN packages, in place of) their directory; the unpacked
// total is bounded by the partition's free space; packages may be a single configuration file.
#include <sys/vfs.h>

#include <functional>
#include <map>
#include <tuple>

#include "archiveParser.h"
#include "baseMethod.h"
#include "parserFixture.h"

namespace {

using parser_test::ParserTest;
using testing_support::LogCapture;
using testing_support::ScopedClock;
using testing_support::ScopedStatfs;

// add() writes one entry to the archive open as `t`.
const char* const kTarHelper =
    "import io, sys, tarfile\n"
    "def add(name, data=b'', **fields):\n"
    "    info = tarfile.TarInfo(name)\n"
    "    info.size = len(data)\n"
    "    for key, value in fields.items(): setattr(info, key, value)\n"
    "    t.addfile(info, io.BytesIO(data) if info.isreg() else None)\n";

// A partition with 300 kB free.
int fakeStatfs(const char*, struct statfs* result) {
  *result = {};
  result->f_bsize = 1;
  result->f_bfree = 300000;
  return 0;
}

class ArchiveTest : public ParserTest {
 protected:
  // Archives from one run of python (its start-up is the slow part): /tmp/<name> for each body,
  // gzip-compressed when the name says so.
  void makeTars(const std::map<std::string, std::string>& bodies) const {
    std::string script = kTarHelper;
    for (const auto& [name, body] : bodies)
      script += "t = tarfile.open(sys.argv[1] + '/" + name + "', '" +
                (name.find("gz") != std::string::npos ? "w:gz" : "w") + "')\n" + body + "\nt.close()\n";
    run("mkdir -p '" + root->host("/tmp") + "'");
    root->write("/scratch/make.py", script);
    run("python3 '" + root->host("/scratch/make.py") + "' '" + root->host("/tmp") + "'");
  }
};

TEST_F(ArchiveTest, HostileArchivesChangeNothing) {
  const std::pair<const char*, const char*> cases[] = {
      // what, the entries after a harmless first one
      {"a \"../\" entry", "add('../evil.txt', b'x')"},
      {"an absolute name", "add('/config/evil.txt', b'x')"},
      {"a symlink out and a file through it",
       "add('out', type=tarfile.SYMTYPE, linkname='../../..')\nadd('out/evil.txt', b'x')"},
      {"a file through a symlink that stays inside",
       "add('in', type=tarfile.SYMTYPE, linkname='.')\nadd('in/evil.txt', b'x')"},
      {"an absolute symlink", "add('out', type=tarfile.SYMTYPE, linkname='/config')"},
      {"a chain of links",
       "add('a', type=tarfile.SYMTYPE, linkname='.')\nadd('b', type=tarfile.SYMTYPE, linkname='a/..')"},
      {"a hard link out", "add('h', type=tarfile.LNKTYPE, linkname='../../../etc/passwd')"},
      // Links that stay inside are refused too: the next archive or item could be written through them.
      {"a symlink that stays inside", "add('alias.jpg', type=tarfile.SYMTYPE, linkname='first.jpg')"},
      {"a hard link to an earlier file", "add('twin.jpg', type=tarfile.LNKTYPE, linkname='first.jpg')"},
      {"a shell command as a name", "add('$(id>pwnt).jpg', b'x')"},
      {"an option as a name", "add('sub/-rf', b'x')"},
      {"too many entries", "for n in range(4096): add('e%d.jpg' % n)"},
      {"a device node", "add('null', type=tarfile.CHRTYPE, devmajor=1, devminor=3)"},
      {"a FIFO", "add('pipe', type=tarfile.FIFOTYPE)"},
      {"a file over a directory", "add('album', b'x')"},
      {"a cut-off archive", "add('big.jpg', bytes(300000))\nt.close()\nopen(t.name, 'r+b').truncate(100000)"},
  };
  root->write("/config/data/photo/keep.jpg", "kept");
  root->write("/config/data/photo/album/a.jpg", "a");
  std::map<std::string, std::string> bodies;
  for (size_t n = 0; n < std::size(cases); ++n)
    bodies[std::to_string(n) + ".tar"] = std::string("add('first.jpg', b'harmless')\n") + cases[n].second;
  makeTars(bodies);
  for (size_t n = 0; n < std::size(cases); ++n) {
    SCOPED_TRACE(cases[n].first);
    auto before = tree();
    LogCapture log;
    autoPhotoTarParser parser;
    EXPECT_EQ(install(parser, std::to_string(n) + ".tar", "/config/data/photo/photos.tar"), 0);
    EXPECT_EQ(tree(), before);
    EXPECT_TRUE(log.contains("Error! Invalid Upgrade BIN File") || log.contains("Error! Upgrade Fialed !"));
  }
}

TEST_F(ArchiveTest, GoodArchivesLandOverOrInPlaceOfTheirDirectory) {
  root->write("/config/data/photo/old.jpg", "old");
  root->write("/config/data/photo/keep.jpg", "before");
  makeTars({{"photos.tar.gz",
             "add('new.jpg', b'new')\nadd('./keep.jpg', b'replaced')\n"
             "add('sub', type=tarfile.DIRTYPE, mode=0o755)\n"
             "add('sub/x.jpg', b'x')\nadd('Ring (1).jpg', b'spaces and brackets')"}});
  autoPhotoTarParser photos;
  ASSERT_EQ(install(photos, "photos.tar.gz", "/config/data/photo/photos.tar.gz"), 1);
  const std::map<std::string, std::string> photoDir = {
      {"/config/data/photo/old.jpg", "old"}, {"/config/data/photo/keep.jpg", "replaced"},
      {"/config/data/photo/new.jpg", "new"}, {"/config/data/photo/sub", "<dir>"},
      {"/config/data/photo/sub/x.jpg", "x"}, {"/config/data/photo/Ring (1).jpg", "spaces and brackets"},
      {"/config/data/photo", "<dir>"},       {"/config/data", "<dir>"}};
  EXPECT_EQ(tree("/config"), photoDir);
}

TEST_F(ArchiveTest, PackagesAreAnArchiveOrOneConfigurationFileWithinTheirSpace) {
  auto factory = [] { return new autoFactoryBinParser; };
  auto config = [] { return new autoConfigBinParser; };
  auto tar = [] { return new autoTarParser; };
  // name, parser, "tar:" + tarfile body or the file itself, the file that must appear (nullptr: refused)
  const std::tuple<const char*, std::function<autoBinParser*()>, std::string, const char*> cases[] = {
      {"f.cfg", factory, "\xEF\xBB\xBF#!version:1.0.0.1\naccount.1.enable = 1\n", "/phone/factory/f.cfg"},
      {"c.cfg", config, "[ AutoProvision ]\nstrServerURL = http://127.0.0.1/\n", "/config/c.cfg"},
      {"factory.tar", factory, "tar:add('system.ini', b'[AutoProvision]\\n')", "/phone/factory/system.ini"},
      {"zero.cfg", config, std::string("#!version:1\na = \0b\n", 18), nullptr},
      {"nothing.cfg", config, "#!version:1\n# no settings\n", nullptr},
      {"huge.cfg", factory, "#!version:1\n" + std::string(kConfigPackageMaxFileBytes, '#'), nullptr},
      // 200 kB unpacked with 300 kB free: fits beside the old factory package, but would leave the
      // configuration partition less than its reserve; a plain tar needs no reserve.
      {"f200.tar.gz", factory, "tar:add('big.ini', bytes(200000))", "/phone/factory/big.ini"},
      {"c200.tar.gz", config, "tar:add('big.ini', bytes(200000))", nullptr},
      {"p200.tar.gz", tar, "tar:add('big.jpg', bytes(200000))", "/config/big.jpg"},
      {"p400.tar.gz", tar, "tar:add('big.jpg', bytes(400000))", nullptr},
  };
  std::map<std::string, std::string> tars;
  for (const auto& [name, parser, contents, installed] : cases) {
    if (contents.compare(0, 4, "tar:") == 0)
      tars[name] = contents.substr(4);
    else
      root->write(std::string("/tmp/") + name, contents);
  }
  makeTars(tars);
  ScopedStatfs fakeSpace(&fakeStatfs);
  for (const auto& [name, makeParser, contents, installed] : cases) {
    SCOPED_TRACE(name);
    std::unique_ptr<autoBinParser> parser(makeParser());
    bool factoryPackage = dynamic_cast<autoFactoryBinParser*>(parser.get()) != nullptr;
    auto before = tree();
    EXPECT_EQ(install(*parser, name, (factoryPackage ? "/phone/factory/" : "/config/") + std::string(name)),
              installed ? 1 : 0);
    if (installed)
      EXPECT_TRUE(root->exists(installed));
    else
      EXPECT_EQ(tree(), before);
  }
}

}  // namespace

// What earlier archives, items, runs or other processes left on disk: a link inside a destination
// is never followed, neither by a later archive nor by a delete.
TEST_F(ArchiveTest, LinksLeftOnDiskAreNeverFollowed) {
  root->write("/phone/keys/firmware.pem", "the maker's key");
  root->write("/config/system/system.ini", "[AutoProvision]\nstrServerURL = http://127.0.0.1/\n");
  root->write("/config/data/photo/keep.jpg", "kept");
  ASSERT_EQ(symlink("../../../phone/keys", root->host("/config/data/photo/keys").c_str()), 0);
  ASSERT_EQ(symlink("../../system", root->host("/config/data/photo/album").c_str()), 0);
  makeTars({{"through.tar", "add('keys/firmware.pem', b'the attacker key')"}});
  autoPhotoTarParser photos;
  EXPECT_EQ(install(photos, "through.tar", "/config/data/photo/through.tar"), 0);
  EXPECT_EQ(root->read("/phone/keys/firmware.pem"), "the maker's key");

  // Delete all: the links go, what they point at stays.
  autoBinParser parser;
  EXPECT_EQ(parser.deleteFile("/config/data/photo", "http://localhost/all"), 1);
  EXPECT_EQ(tree("/config/data/photo"), (std::map<std::string, std::string>{}));
  EXPECT_EQ(root->read("/phone/keys/firmware.pem"), "the maker's key");
  EXPECT_EQ(root->read("/config/system/system.ini"), "[AutoProvision]\nstrServerURL = http://127.0.0.1/\n");
}

// A failed archive leaves no staging, however deep its paths; staging that a power loss left is
// removed before the next install of the same destination; names that would forge log lines are
// logged escaped.
TEST_F(ArchiveTest, NoStagingOutlivesAnInstall) {
  root->write("/config/data/photo/keep.jpg", "kept");
  root->write("/config/data/photo/.unpack-Ab12Cd/half.jpg", "left by a power loss");
  root->write("/config/data/vpn.old-Zz99Yy/old.conf", "left by a power loss");
  makeTars({{"deep.tar", "add('d/' * 2100 + 'f.jpg', b'x')\nadd('x.jpg', b'x')\nadd('x.jpg/y.jpg', b'y')"},
            {"forged.tar", "add('a\\n[./src/fake :1 ] ERR injected line\\n/../b', b'x')"},
            {"good.tar", "add('new.jpg', b'new')"}});
  autoPhotoTarParser photos;
  LogCapture log;
  EXPECT_EQ(install(photos, "deep.tar", "/config/data/photo/deep.tar"), 0);
  EXPECT_EQ(install(photos, "forged.tar", "/config/data/photo/forged.tar"), 0);
  EXPECT_FALSE(log.contains("\n[./src/fake"));
  EXPECT_TRUE(log.contains("a\\n[./src/fake :1 ] ERR injected line"));
  autoOpenVpnParser vpn;
  EXPECT_EQ(install(photos, "good.tar", "/config/data/photo/good.tar"), 1);
  EXPECT_EQ(tree("/config/data/photo"), (std::map<std::string, std::string>{{"/config/data/photo/keep.jpg", "kept"},
                                                                            {"/config/data/photo/new.jpg", "new"}}));
  makeTars({{"vpn.tar", "add('client.conf', b'conf')"}});
  EXPECT_EQ(install(vpn, "vpn.tar", "/config/data/vpn/vpn.tar"), 1);
  EXPECT_FALSE(root->exists("/config/data/vpn.old-Zz99Yy"));
}
