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
  const std::pair<const char*, const char*> cases[] = {  // what, the entries after a harmless first one
      {"a \"../\" entry", "add('../evil.txt', b'x')"},
      {"an absolute name", "add('/config/evil.txt', b'x')"},
      {"a symlink out and a file through it",
       "add('out', type=tarfile.SYMTYPE, linkname='../../..')\nadd('out/evil.txt', b'x')"},
      {"a file through a symlink that stays inside",
       "add('in', type=tarfile.SYMTYPE, linkname='.')\nadd('in/evil.txt', b'x')"},
      {"an absolute symlink", "add('out', type=tarfile.SYMTYPE, linkname='/config')"},
      {"a chain of links", "add('a', type=tarfile.SYMTYPE, linkname='.')\nadd('b', type=tarfile.SYMTYPE, linkname='a/..')"},
      {"a hard link out", "add('h', type=tarfile.LNKTYPE, linkname='../../../etc/passwd')"},
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
          "add('sub/x.jpg', b'x')\nadd('alias.jpg', type=tarfile.SYMTYPE, linkname='sub/x.jpg')\n"
             "add('twin.jpg', type=tarfile.LNKTYPE, linkname='new.jpg')"}});
  autoPhotoTarParser photos;
  ASSERT_EQ(install(photos, "photos.tar.gz", "/config/data/photo/photos.tar.gz"), 1);
  const std::map<std::string, std::string> photoDir = {
      {"/config/data/photo/old.jpg", "old"},      {"/config/data/photo/keep.jpg", "replaced"},
      {"/config/data/photo/new.jpg", "new"},      {"/config/data/photo/sub", "<dir>"},
      {"/config/data/photo/sub/x.jpg", "x"},      {"/config/data/photo/alias.jpg", "->link"},
      {"/config/data/photo/twin.jpg", "new"},     {"/config/data/photo", "<dir>"},
      {"/config/data", "<dir>"}};
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
  setPartitionStatfs(&fakeStatfs);
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
  setPartitionStatfs(nullptr);
}

}  // namespace
