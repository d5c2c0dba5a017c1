// Ring tones, pictures and the logo: size limits, extensions, and pictures really scaled by the
// platform script (ImageMagick) on files made by Python and ImageMagick at test time.
#include <functional>
#include <tuple>

#include "mediaParser.h"
#include "parserFixture.h"

namespace {

using parser_test::ParserTest;
using testing_support::LogCapture;
using testing_support::runCommand;

class MediaTest : public ParserTest {
 protected:
  void SetUp() override {
    ParserTest::SetUp();
    run("mkdir -p '" + root->host("/phone/scripts") + "' '" + root->host("/tmp") + "' && cp '" PROVISOR_SOURCE_DIR
        "/platform/scripts/imageScale.sh' '" + root->host(kImageScaleScript) + "'");
  }
  std::string geometry(const std::string& logical) const {
    std::string out;
    runCommand("identify -format '%wx%h' '" + root->host(logical) + "'", &out);
    return out;
  }
};

TEST_F(MediaTest, RingTonesUpTo8MiBWithTheExtensionWavOrWAV) {
  const std::tuple<const char*, size_t, const char*> cases[] = {
      // name, size, the log line of its refusal (nullptr: installed)
      {"limit.wav", 8388608, nullptr},
      {"two.Wav", 2000000, "ringtone type isnot wav!"},
      {"over.WAV", 8388609, "The ringtone file is too large ! (Should be less than 100K)"},
      {"noextension", 2000000, "ringtone file type error"},
  };
  for (const auto& [name, bytes, refusal] : cases) {
    SCOPED_TRACE(name);
    // A mono 8-bit WAV file of exactly `bytes` bytes, written by Python's wave module.
    run("python3 -c 'import sys, wave; w = wave.open(sys.argv[1], \"wb\");"
        " w.setparams((1, 1, 8000, 0, \"NONE\", \"\")); w.writeframes(bytes(int(sys.argv[2]))); w.close()' '" +
        root->host("/tmp/" + std::string(name)) + "' " + std::to_string(bytes - 44));
    std::string destination = std::string("/config/resource/ring/") + name;
    LogCapture log;
    autoRingParser parser;
    EXPECT_EQ(install(parser, name, destination), refusal ? 0 : 1);
    if (refusal)
      EXPECT_TRUE(log.contains(refusal) && !root->exists(destination)) << log.text();
    else
      EXPECT_EQ(root->read(destination), root->read("/tmp/" + std::string(name)));
  }
}

TEST_F(MediaTest, PicturesAreCheckedAndScaledByTheScript) {
  auto wallpaper = [] { return new autoWallpaper; };
  auto photo = [] { return new autoContactPhoto; };
  auto image = [] { return new autoImageParser; };
  auto logo = [] { return new autoLogoParser; };
  // name, how ImageMagick makes the picture (then the output file; nullptr: text), parser, installed,
  // the installed picture's geometry or the log line of its refusal
  const std::tuple<const char*, const char*, std::function<autoBinParser*()>, bool, const char*> cases[] = {
      {"big.jpg", "-size 1600x1200 gradient:red-blue", wallpaper, true, "800x480"},
      {"face.PNG", "-size 300x200 plasma:", photo, true, "128x128"},
      {"plain.JPG", "-size 300x200 xc:orange", image, true, "300x200"},
      {"anim.gif", "-size 30x20 xc:orange", image, false, "Error! Invalid Upgrade BIN File"},
      {"text.png", nullptr, wallpaper, false, "Fail to adjust image scale !"},
      {"huge.bmp", "-size 1400x1300 gradient:red-blue -type TrueColor", wallpaper, false, "the picture is too large !"},
      {"logo.png", "-size 60x40 xc:black", logo, false, "The device can't upgrade LOGO file!"},
  };
  for (const auto& [name, convertArguments, makeParser, installed, expected] : cases) {
    SCOPED_TRACE(name);
    std::string source = std::string("/tmp/") + name;
    std::string destination = std::string("/config/resource/wallpaper/") + name;
    root->write(destination, "installed before");
    if (convertArguments) {
      std::string format = std::string(name).find('.') == std::string::npos ? "png:" : "";
      run(std::string("convert ") + convertArguments + " '" + format + root->host(source) + "'");
    } else {
      root->write(source, "this is not a picture\n");
    }
    LogCapture log;
    std::unique_ptr<autoBinParser> parser(makeParser());
    EXPECT_EQ(install(*parser, name, destination), installed ? 1 : 0);
    if (installed) {
      EXPECT_EQ(geometry(destination), expected);
    } else {
      EXPECT_EQ(root->read(destination), "installed before");
      EXPECT_TRUE(log.contains(expected)) << log.text();
    }
  }
}

}  // namespace
