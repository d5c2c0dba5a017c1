// The device family of the phone, which picks its ROM installer and the images it accepts.
//
//   device id (first field of the hardware version)   family
//   0, 1, 2, 3, 4, 5, 8, 14, 15   (QA5 .. QE5 desk models)   "lyra"
//   7, 13, 21, 22                 (QF5, QG5, QH5)             "orin"
//   23, 25                        (RM4xx video models, KQ7D)  "duna"
//   any other                                                 "" (no installer: firmware refused)
//
// Unlike the model name, an unknown id does not fall back to a default: flashing the image of a
// guessed family could brick the phone. `family` in section "device" of $PROVISOR_ROOT/host/device.ini
// overrides the table on the host (tests and the demo pick a family without faking /proc).
#pragma once

#include <string>

std::string familyOfDeviceId(int deviceId);
std::string deviceFamily();
