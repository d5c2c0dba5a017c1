#define LOG_MODULE "./src/romInstaller"
#include "deviceFamily.h"

#include <cstdio>

#include "autoDefine.h"
#include "device.h"

namespace {

struct FamilyRow {
  int deviceId;
  const char* family;
};
const FamilyRow kFamilies[] = {
    {0, "lyra"},  {1, "lyra"},  {2, "lyra"},  {3, "lyra"},  {4, "lyra"},  {5, "lyra"},  {8, "lyra"},
    {14, "lyra"}, {15, "lyra"}, {7, "orin"},  {13, "orin"}, {21, "orin"}, {22, "orin"}, {23, "duna"},
    {25, "duna"},
};

}  // namespace

std::string familyOfDeviceId(int deviceId) {
  for (const FamilyRow& row : kFamilies)
    if (row.deviceId == deviceId) return row.family;
  return "";
}

std::string deviceFamily() {
  std::string forced = deviceFamilyOverride();
  if (!forced.empty()) return forced;
  int deviceId = -1;
  if (sscanf(readHardwareVersion().c_str(), "%d", &deviceId) != 1) return "";
  return familyOfDeviceId(deviceId);
}
