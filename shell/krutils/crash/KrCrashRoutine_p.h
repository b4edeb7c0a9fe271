#ifndef KRCRASHROUTINE_P_H
#define KRCRASHROUTINE_P_H

// Internal: the crash routine, the Qt half of crash interception (CompleteExceptionHandler.cpp).
// The platform layer calls it for every fatal event; it logs the handler's warning, sends the
// crash records to the monitor log, has the dump written and pruned, and walks the stack.
// Exported for the tests, which run it on events the Linux runtime never raises.

#include "CompleteExceptionHandler_p.h"

#include <krutils/krutils_export.h>

#include <QString>

namespace KrCrashRoutine {

// The text a handler logs after "EXCEPTION" ("catch seh exception", ...).
KRUTILS_EXPORT QString handlerText(KrCrash::Handler handler);

// The description sent in the records: the handler's text, or for SIGFPE
// "catch signal float-point exception:<signal>, <sub-code>", or for an invalid parameter the text
// followed by each given expression, function and file with one space after it, then the line
// when it is not 0.
KRUTILS_EXPORT QString description(const KrCrash::CrashEvent &event);

// Handles one event as the handlers do: the warning, then the records, the dump when the kind
// wants one, and the stack. Returns false when the event carries no exception record.
KRUTILS_EXPORT bool handleEvent(const KrCrash::CrashEvent &event);

} // namespace KrCrashRoutine

#endif // KRCRASHROUTINE_P_H
