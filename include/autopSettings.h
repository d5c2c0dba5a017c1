// Where the service keeps its own settings: section "AutoProvision" of the system INI file.
#pragma once

constexpr const char* kSystemIni = "/config/system/system.ini";
constexpr const char* kAutoProvisionSection = "AutoProvision";
// The plug-and-play group a SUBSCRIBE goes to, and the domain it names unless one is set.
constexpr const char* kDefaultPnpMulticast = "224.0.1.75";
