// Ring tones, pictures and the logo: size limits, extensions, and pictures really scaled by the
// platform script (ImageMagick) on files made by Python and ImageMagick at test time.
#include <signal.h>

#include <cstdlib>
#include <functional>
#include <tuple>

#include "mediaParser.h"
#include "parserFixture.h"
#include "servers.h"

namespace {

using parser_test::ParserTest;
using testing_support::LogCapture;
using testing_support::runCommand;

class MediaTest : public ParserTest {
 protected:
  void SetUp() override {
    ParserTest::SetUp();
    run("mkdir -p '" + root->host("/phone/scripts") + "' '" + root->host("/tmp") +
        "' && cp '" PROVISOR_SOURCE_DIR "/platform/scripts/imageScale.sh' '" + root->host(kImageScaleScript) + "'");
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
      // Pixel bombs: a few KB on disk, refused from their header before any pixel is decoded.
      {"bomb.png", "-size 4100x4100 xc:red", wallpaper, false,
       "the picture has too many pixels ! (4100x4100, at most 4096x4096)"},
      {"tall.jpg", "-size 16x4097 xc:red", photo, false,
       "the picture has too many pixels ! (16x4097, at most 4096x4096)"},
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

// A scaling run that never ends (the script and a child it started) is stopped at the wall-clock
// bound, on the service clock, and its late verdict does not count.
TEST_F(MediaTest, AScalingRunPastItsTimeBoundIsStoppedWithItsChildrenAndThePictureRefused) {
  root->write(kImageScaleScript,
              "#!/bin/sh\n: > \"$(dirname \"$4\")/.imageScale.Ab12Cd\"\n"
              "sleep 600 &\necho $! > \"$PROVISOR_ROOT/tmp/sleeper.pid\"\n"
              "printf '1\\n' > \"$PROVISOR_ROOT/tmp/imageScale.out\"\nwait\n");
  run("chmod 755 '" + root->host(kImageScaleScript) + "' && convert -size 30x20 xc:orange '" +
      root->host("/tmp/slow.png") + "'");
  root->write("/config/resource/wallpaper/slow.png", "installed before");
  LogCapture log;
  autoWallpaper parser;
  EXPECT_EQ(install(parser, "slow.png", "/config/resource/wallpaper/slow.png"), 0);
  EXPECT_TRUE(log.contains("Picture scaling stopped after 20000 ms")) << log.text();
  EXPECT_GE(fakeClock.elapsedMs(), 20000u);
  EXPECT_EQ(root->read("/config/resource/wallpaper/slow.png"), "installed before");
  int sleeper = atoi(root->read("/tmp/sleeper.pid").c_str());
  ASSERT_GT(sleeper, 1);
  EXPECT_TRUE(testing_support::pollFor([&] { return kill(sleeper, 0) != 0; }, 5000)) << "the script's child lives on";
  // The scratch file of the stopped script goes with it.
  EXPECT_EQ(runCommand("find '" + root->host("/tmp") + "' -name '.imageScale.*' | grep -q ."), 1);
}

}  // namespace
