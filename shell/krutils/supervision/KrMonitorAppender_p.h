#ifndef KRMONITORAPPENDER_P_H
#define KRMONITORAPPENDER_P_H

#include <krutils/krutils_export.h>

class QThread;
class KrMonitorAppender;

// Internal: what the crash routine needs of the monitor log appender beyond its public interface.
class KRUTILS_EXPORT KrMonitorAppenderPrivate // exported for the tests
{
public:
    // Blocks the calling thread until every record sent asynchronously before the call, from any
    // thread, has been written to the file, or until msecs have passed (a negative msecs waits
    // without limit). Returns whether they were written. Returns false at once when called on the
    // appender's own thread, which would wait for itself. Callable from any thread, also from one
    // that Qt did not start.
    static bool waitForWritten(KrMonitorAppender *appender, int msecs);

    // The appender's worker thread ("KrMonitorAppenderThread").
    static QThread *thread(KrMonitorAppender *appender);
};

#endif // KRMONITORAPPENDER_P_H
