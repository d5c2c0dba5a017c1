// Model names from the hardware version. Only the device id (field 1), the variant bits of field 4
// and the board revision (field 7) of the video models matter.
#define LOG_MODULE "./src/autoDefine"
#include "autoDefine.h"

#include <fcntl.h>

#include <cstdio>
#include <cstring>

#include "actions.h"
#include "log.h"
#include "paths.h"

namespace {

constexpr const char* kHwVersionFile = "/proc/hwversion";
constexpr const char* kLcdDevice = "/dev/lcd0";
constexpr const char* kUnknownVersion = "0.0.0.0.0.0.0";
constexpr unsigned long kLcdVersionRequest = 0x16;
constexpr size_t kVersionWordMax = 255;

constexpr int kVideoDeviceId = 23;
constexpr int kVariantBits = 0x30;  // bits 4 and 5 of field 4

struct HardwareFields {
  int deviceId = 0;
  int field2 = 0;
  int field3 = 0;
  int variant = 0;
  int field5 = 0;
  int field6 = 0;
  int revision = 0;
};

HardwareFields parseHardwareVersion(const std::string& text) {
  HardwareFields f;
  sscanf(text.c_str(), "%d.%d.%d.%d.%d.%d.%d", &f.deviceId, &f.field2, &f.field3, &f.variant, &f.field5, &f.field6,
         &f.revision);
  return f;
}

std::string videoModelName(const HardwareFields& f) {
  std::string name;
  if (f.revision >= 9)
    name = "RM410";
  else if (f.revision == 7 || f.revision == 8)
    name = "RM420";
  else
    name = "RM4200";
  return name + ((f.variant & kVariantBits) == 0 ? "P" : "T");
}

// Asks the display driver for the version text; false when the device cannot be opened.
bool readVersionFromDisplay(char* text) {
  DeviceFile lcd;
  if (!lcd.Open(kLcdDevice, O_RDWR | O_SYNC)) return false;
  lcd.IoctlText(kLcdVersionRequest, text);
  return true;
}

}  // namespace

std::string readHardwareVersion() {
  char version[kVersionWordMax + 1];
  snprintf(version, sizeof(version), "%s", kUnknownVersion);
  if (FilePtr file = openFile(kHwVersionFile, "r")) {
    char word[kVersionWordMax + 1] = {0};
    // A non-empty word is the version; an empty file empties it.
    if (fscanf(file.get(), "%255s", word) != 1) word[0] = '\0';
    return word;
  }
  if (!readVersionFromDisplay(version)) LOG_ERR("Could not open device: %s", kLcdDevice);
  version[kVersionWordMax] = '\0';
  return version;
}

std::string modelNameOf(const std::string& hardwareVersion) {
  HardwareFields f = parseHardwareVersion(hardwareVersion);
  switch (f.deviceId) {
    case 0:
    case 1:
    case 15: return "QA5";
    case 2: return "QE5";
    case 3:
    case 8: return "QD5";
    case 4: return "QB5";
    case 5:
    case 14: return "QC5";
    case 7:
    case 13: return "QF5";
    case 21: return "QG5";
    case 22: return "QH5";
    case kVideoDeviceId: return videoModelName(f);
    case 25: return "KQ7D";
    default:
      LOG_WAR("Unknown Device ID [%d]!", f.deviceId);
      return "QA5";
  }
}

int getModelName(char* buffer) {
  if (!buffer) {
    LOG_NULL_POINTER();
    return -1;
  }
  std::string name = modelNameOf(readHardwareVersion());
  memcpy(buffer, name.c_str(), name.size() + 1);
  return 0;
}
