// Exports with fixed results. Each family is one body; the export list gives
// it all of the family's names.
#include <zendra/platform.h>

#include "platform/status.h"

using namespace zendra;

// Kernel-only notions (bug checks, spin-lock levels, page priority) have no
// meaning in a user-mode process.
extern "C" PLT_STATUS ZendraNoOp(void) { return kOk; }

// Logging (no message is written anywhere), the log level and the ATA
// pass-through commands.
extern "C" PLT_STATUS ZendraNotImplemented(void) { return kNotImplemented; }

extern "C" uint32_t Dummy(uint32_t x) { return x * 100u; }

extern "C" PLT_STATUS PltGetSMARTAttribsWrites(void) { return kNotSupported; }
