// SIGTERM and SIGINT: they record an exit status and end the loop.
#pragma once

namespace ryx {

// The handlers of the process. The first call makes the pipe by which the loop learns of a signal.
void installSignalHandlers();

// How many signals came.
unsigned signalsCaught();

// Ends the process with 128 and the number of the last signal, if one came.
void exitIfSignalled();

}  // namespace ryx
