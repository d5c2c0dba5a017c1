// Message ids exchanged between the provisioning service and the phone's other applications, and
// the names of the threads it talks to.
#pragma once

#include <cstdint>

// Received by the service thread.
constexpr uint32_t MSG_START_AUTO_PROVISION = 0xa0000;
constexpr uint32_t MSG_NETWORK_CHANGED = 0x2002;
constexpr uint32_t AP_MSG_UPDATE_CONFIG = 0xb0001;
constexpr uint32_t MSG_RESPOND_URL = 0xc0001;
constexpr uint32_t MSG_START_AUTO_PROVISION_URL = 0xa0002;
constexpr uint32_t AP_MSG_PASSED_ON = 0xb0003;  // never consumed by the service
constexpr uint32_t AP_MSG_AUTOP_CHECK_AUTOP_RESULT = 0xb0009;
constexpr uint32_t MSG_SET_HOST_NAME = 0xa0003;
constexpr uint32_t MSG_GET_AUTO_PROVISION = 0xa0001;
constexpr uint32_t AP_MSG_REPARSE_CONFIG = 0xa1003;
constexpr uint32_t AP_MSG_CWMP_DOWNLOAD_ROM = 0xb0005;
constexpr uint32_t MSG_WEEKLY_CHECK = 0x2007;

// Sent by the service.
constexpr uint32_t MSG_CHECK_TALK_STATUS = 0x30007;
constexpr uint32_t AP_MSG_PNP_REQUEST = 0xb0000;
constexpr uint32_t AP_MSG_PNP_DONE = 0xb0002;
constexpr uint32_t BROAD_MSG_AUTOP_RESULT = 0x10201;
constexpr uint32_t MSG_REBOOT_REQUEST = 0x10011;
constexpr uint32_t BROAD_MSG_SIP_UNREGISTER = 0x1000a;
constexpr uint32_t MSG_SCREEN_REBOOT = 0x90006;

// Thread names of the phone's applications.
constexpr const char* kThreadProvisor = "provisor";
constexpr const char* kThreadPhone = "app_vpPhone";
constexpr const char* kThreadScreen = "app_vpScreen";
constexpr const char* kThreadTr069 = "app_tr069";
constexpr const char* kThreadPnpManager = "app_PnpManger";

// Time-out of the synchronous talk-status query, in milliseconds.
constexpr int32_t kTalkStatusTimeoutMs = 10000;
