// What the build's platform backend (platform/host/ or platform/phone/, picked by
// PROVISOR_PHONE_BUILD) gives the shared platform code besides the public calls it defines.
#pragma once

// The root a program starts with: $PROVISOR_ROOT on the host; nullptr ("/") on a phone, which is
// its own root and lets no variable of the environment move where it writes.
const char* startupRoot();
