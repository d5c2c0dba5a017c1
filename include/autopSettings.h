// Where the service keeps its own settings: section "AutoProvision" of the system INI file.
#pragma once

constexpr const char* kSystemIni = "/config/system/system.ini";
constexpr const char* kAutoProvisionSection = "AutoProvision";
// The largest configuration file the phone takes, downloaded or inside a configuration package.
constexpr long kMaxConfigFileBytes = 2097152;
// The plug-and-play group a SUBSCRIBE goes to, and the domain it names unless one is set.
constexpr const char* kDefaultPnpMulticast = "224.0.1.75";

// Every key of section "AutoProvision" this program reads, named once. The shipped translation
// table must store provisioned values under exactly these names (keys are case-sensitive: a table
// that writes "strUser" leaves "strUserName" empty for ever); a test walks the table against them.
namespace autop_key {
inline constexpr const char* kServerUrl = "strServerURL";
inline constexpr const char* kUserName = "strUserName";
inline constexpr const char* kPassword = "strPassword";
inline constexpr const char* kEnablePowerOn = "bEnablePoweron";
inline constexpr const char* kPowerOnRandomDelay = "nPowerOnRandomDelay";
inline constexpr const char* kEnablePnp = "bEnablePNP";
inline constexpr const char* kPnpMulticastIp = "strPNPMulticastIP";
inline constexpr const char* kPnpOutDialogMessages = "PNPOutDialogMSGEnable";
inline constexpr const char* kEnableDhcpOption = "bEnableDHCPOption";
inline constexpr const char* kUserDhcpOptions = "listUserOptions";
inline constexpr const char* kSystemDhcpOptions = "listSystemOptions";
inline constexpr const char* kUrlPriority = "url_priority";
inline constexpr const char* kEnableRepeat = "bEnableRepeat";
inline constexpr const char* kRepeatMinutes = "nRepeatMinutes";
inline constexpr const char* kEnableWeekly = "bEnableWeekly";
inline constexpr const char* kWeeklyMask = "strWeeklyMask";
inline constexpr const char* kWeeklyBeginTime = "strWeeklyBeginTime";
inline constexpr const char* kWeeklyEndTime = "strWeeklyEndTime";
inline constexpr const char* kCommonAesKey = "strKeyAES16";
inline constexpr const char* kDeviceAesKey = "strKeyAES16MAC";
inline constexpr const char* kBuiltInDeviceKey = "use_build_in_aes_key_16_mac";
inline constexpr const char* kUpdateFileMode = "UpdateFileMode";
inline constexpr const char* kCommonFileName = "strCommName";
inline constexpr const char* kAllowFirmwareDowngrade = "bAllowFirmwareDowngrade";
}  // namespace autop_key

inline constexpr const char* kAutoProvisionKeysRead[] = {
    autop_key::kServerUrl,
    autop_key::kUserName,
    autop_key::kPassword,
    autop_key::kEnablePowerOn,
    autop_key::kPowerOnRandomDelay,
    autop_key::kEnablePnp,
    autop_key::kPnpMulticastIp,
    autop_key::kPnpOutDialogMessages,
    autop_key::kEnableDhcpOption,
    autop_key::kUserDhcpOptions,
    autop_key::kSystemDhcpOptions,
    autop_key::kUrlPriority,
    autop_key::kEnableRepeat,
    autop_key::kRepeatMinutes,
    autop_key::kEnableWeekly,
    autop_key::kWeeklyMask,
    autop_key::kWeeklyBeginTime,
    autop_key::kWeeklyEndTime,
    autop_key::kCommonAesKey,
    autop_key::kDeviceAesKey,
    autop_key::kBuiltInDeviceKey,
    autop_key::kUpdateFileMode,
    autop_key::kCommonFileName,
    autop_key::kAllowFirmwareDowngrade,
};
