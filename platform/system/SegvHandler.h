// SegvHandler: the last gasp of a crashing process. Runs the user handler once on an alternate stack, then lets the
// previous handler, or the default action, end the process. A second fault inside the handler ends it at once.
#pragma once

#include <Export.h>

struct VELTPLATFORM_API SegvHandler {
    static void Install();
    static void SetUserHandler(void (*handler)());
};
