// The daemon's own folder for downloads under /tmp. Other applications share /tmp, and a server
// chooses the names of the files it serves: a download written to "/tmp/" + that name would follow
// a link planted there beforehand, or overwrite a file of ours ("/tmp/XML.cfg", the DHCP option
// store). So downloads are made here instead, under names this process picks.
//
// The folder is a real directory owned by this process's user with mode 0700, so no other user
// can plant or swap anything in it. Anything else found at its place (a link, a file, a folder of
// another owner or with another mode) is removed, without following links, and the folder made
// anew. At daemon start it is also emptied of what an earlier run left behind.
#pragma once

#include <string>

#include "descriptor.h"

constexpr const char* kPrivateTmpDir = "/tmp/provisor.d";

// Makes the folder usable and empty. False when it cannot be made (logged).
bool preparePrivateTmpDir();
// Makes the folder usable without emptying it, for the fixed names of files only this process
// writes and reads there. False when it cannot be made (logged).
bool ensurePrivateTmpDir();

// Writes `contents` to a fixed name in the folder, readable by the owner only (it may hold
// passwords in clear). False when it cannot be written (logged).
bool writePrivateFile(const std::string& logicalPath, const std::string& contents);

// Opens for reading a file another application leaves at a fixed name in the shared /tmp: the
// name itself is never followed (a planted link fails to open) and only a regular file is taken
// (a planted FIFO cannot block us). Invalid when missing or refused (a refusal is logged).
UniqueFd openSharedTmpFile(const std::string& logicalPath);
// Reads such a file whole into `out`, at most `maxBytes` + 1 bytes, so a caller sees when it is
// past its bound. False when missing, refused or unreadable.
bool readSharedTmpFile(const std::string& logicalPath, size_t maxBytes, std::string& out);

// Creates a new empty file in the folder (creating or replacing the folder first when it is not
// usable, but never emptying it): a random name "dl-XXXXXXXX" followed by `extension` (which must
// be empty or "." and letters and digits), opened for writing with O_EXCL | O_NOFOLLOW, mode 0600.
// Its logical path goes to `logicalPath`; an invalid descriptor when it cannot be made (logged).
UniqueFd createPrivateTemporary(const std::string& extension, std::string& logicalPath);

// The extension of a server's file name ("Ring (1).wav" -> ".wav") when it is at most 16 letters
// and digits, which the installers that judge a file by its extension need; "" otherwise.
std::string safeExtensionOf(const std::string& fileName);
