// What every program of the system hides in the lines it prints: passwords inside URLs, and the
// values of settings that are secret. One rule for each, so that a value hidden at one stage of a
// run is hidden at every other and in the tools as well.
#pragma once

#include <string>

struct autopItem;

// What a hidden password or secret value is replaced with.
constexpr const char* kMaskedSecret = "******";

// The phone's random key: the value of section "sn" in this file is secret whatever its key says.
constexpr const char* kRandomKeyFile = "/phone/config/ADVnumber.cfg";
constexpr const char* kRandomKeySection = "sn";

// `text` with the password of every URL in it replaced by "******". A URL begins after "://", or
// at the start of a text without "://" (the TFTP address form "user:password@host/file"). Its
// password runs from the first ":" of the authority to the last "@" before the first "/", "?" or
// "#" that follows an "@": exactly what the URL parser takes for the password, and more where the
// text is no well-formed URL (an unescaped "/" in a password is hidden with it; a URL with a port
// and an "@" in its path loses the text between them), never less.
std::string maskedUrl(const std::string& text);

// A URL or URL-valued text from outside for a log line: password masked, control characters
// escaped (logEscaped).
std::string urlForLog(const std::string& text);

// True when a setting's key or table name says its value is secret: it holds, in any case,
// "password", "passwd", "pswd", "pwd", "pin", "aes" or "secret".
bool isSecretName(const std::string& keyOrName);

// True when an item's value never reaches a log line: stored encrypted, a web login password, a
// secret key or name, or the phone's random key.
bool isSecretItem(const autopItem& item);

// A setting's value for a log line: "******" when secret, else urlForLog(value).
std::string settingValueForLog(bool secret, const std::string& value);
