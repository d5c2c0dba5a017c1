// Where the service keeps its own settings: section "AutoProvision" of the system INI file.
#pragma once

constexpr const char* kSystemIni = "/config/system/system.ini";
constexpr const char* kAutoProvisionSection = "AutoProvision";
