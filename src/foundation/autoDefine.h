// Device identity: the hardware version text kept by the kernel and the model name derived from it.
#pragma once

#include <cstddef>
#include <string>

// Room a caller gives getModelName: the longest name ("RM4200" + variant letter) and its zero.
constexpr size_t kModelNameSize = 8;

// "%d.%d.%d.%d.%d.%d.%d" from /proc/hwversion, else from the display driver; "0.0.0.0.0.0.0" when
// neither can be read, "" for an empty /proc/hwversion.
std::string readHardwareVersion();

// Writes the model name (with its terminating zero) into `buffer` (at least kModelNameSize bytes).
// 0 on success, -1 for a missing buffer.
int getModelName(char* buffer);
// The model name for a given hardware version text (what getModelName writes).
std::string modelNameOf(const std::string& hardwareVersion);
