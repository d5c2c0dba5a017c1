// Media files: ring tones, pictures (generic images, wallpapers, contact photos) and the boot logo.
// All of them are installed with the base class's atomic copy; what sets them apart is the check run
// on the download before the copy and, for wallpapers and contact photos, the scaling of the picture
// by the platform script "/phone/scripts/imageScale.sh".
//
//   autoRingParser    at most 8 MiB, extension exactly "wav" or "WAV" (also for type id 6)
//   autoWavParser     the base check (free space)
//   autoLogoParser    refuses every file: this device cannot take a boot logo
//   autoImageParser   free space, extension "png", "bmp" or "jpg" in any case
//   autoWallpaper     the image check, then scaled to 800x480 (the colour screen)
//   autoContactPhoto  the image check, then scaled to 128x128 (the contact card's picture)
//
// Scaling: the script gets the source, the width, the height, the output and the size bound
// 5000000; it scales in place (the output is the source in /tmp, which the copy then installs) and
// leaves its verdict, "1" for done, in /tmp/imageScale.out. The script is started by fork and exec
// with an argument vector, never through a shell, because the file name comes from a server, and is
// stopped with everything it started when it outlasts kPictureScaleTimeoutMs. On the host every path
// it gets is the real one under the platform root.
//
// Each parser lives for one item, created by the parser factory and deleted by its owner.
#pragma once

#include <cstdint>

#include "binParser.h"

constexpr int64_t kRingtoneMaxBytes = 8388608;
constexpr int64_t kPictureMaxBytes = 5242880;
constexpr int32_t kScaledPictureMaxBytes = 5000000;
constexpr const char* kImageScaleScript = "/phone/scripts/imageScale.sh";
constexpr const char* kImageScaleResult = "/tmp/imageScale.out";
// Wall-clock bound of one scaling run (the script and what it starts), on the service clock; past it
// the run is stopped and the picture refused. The script itself refuses pictures wider or higher
// than 4096 pixels before decoding them and runs ImageMagick within memory, disk and time limits.
constexpr int32_t kPictureScaleTimeoutMs = 20000;
constexpr int32_t kPictureScaleStepMs = 20;

class autoRingParser : public autoBinParser {
 public:
  int checkFile() override;
};

class autoWavParser : public autoBinParser {};

class autoLogoParser : public autoBinParser {
 public:
  int checkFile() override;
};

class autoImageParser : public autoBinParser {
 public:
  int checkFile() override;
};

// A picture shown at a fixed size: checked as an image, then scaled to that size.
class autoScaledPicture : public autoImageParser {
 public:
  int checkFile() override;
  int32_t width() const { return m_width; }
  int32_t height() const { return m_height; }

 protected:
  autoScaledPicture(int32_t width, int32_t height) : m_width(width), m_height(height) {}
  // Runs the scaling script on the source in place; nonzero when it reported success.
  int scalePicture();

  int32_t m_width;
  int32_t m_height;
};

class autoWallpaper : public autoScaledPicture {
 public:
  autoWallpaper() : autoScaledPicture(800, 480) {}
};

class autoContactPhoto : public autoScaledPicture {
 public:
  autoContactPhoto() : autoScaledPicture(128, 128) {}
};
