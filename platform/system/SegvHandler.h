// SegvHandler: the last gasp of a crashing process. Runs the user handler once on an alternate stack, then lets the
// previous handler, or the default action, end the process. A second fault inside the handler ends it at once.
// Owner: process-wide. Threads: Install and SetUserHandler at start-up. An alternate stack belongs to one thread: the
// one that calls Install has it, others may ask for one. Failure: none; what cannot be installed is left as it was.
#pragma once

#include <Export.h>

struct VELTPLATFORM_API SegvHandler {
    static void Install();                          // a second call changes nothing
    static void SetUserHandler(void (*handler)());  // null: none
    static void UseAlternateStack();                // for the calling thread, until it ends
};
