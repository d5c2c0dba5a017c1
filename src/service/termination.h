// How SIGTERM and SIGINT end the service. The signal asks the service thread to quit: between
// messages the loop ends at once, and the waits inside a run (the talk wait, the restart's pauses,
// the answer waits) end as soon as they see the request. What cannot notice it, a download inside a
// run, is cut short: the process ends a grace period after the signal. That is safe at any moment
// because every setting and installed file is replaced by rename, so each file on disk is wholly
// old or wholly new; a run cut short is repeated by the next start.
#pragma once

#include "msgqueue.h"

// The longest time from the signal to the end of the process, in real time: a promise to whoever
// sends the signal (a system going down gives a process a few seconds), not a wait of the service.
constexpr int kTerminationGraceMs = 1500;

// Installs the handlers of SIGTERM and SIGINT for `service` and starts the thread that ends the
// process when the service has not ended within the grace. The thread sleeps in a blocking read
// until a signal comes. False when it could not be started (the signals still end the loop).
bool installTerminationHandlers(chThreadLocal& service);
// The loop has ended: a signal from now on only ends the loop (already ended) as before.
void releaseTerminationHandlers();
