#ifndef KROBJECT_H
#define KROBJECT_H

#include <krutils/krutils_export.h>

#include <QObject>
#include <QPointer>

class KrThread;

/// A base for worker objects that live on a thread of their own.
///
/// Constructed with bThread = true, the object drops any parent, creates a KrThread, moves itself
/// into it and starts it: once the constructor returns, every queued slot and every timer of the
/// object runs on that thread. Constructed with false, it is an ordinary QObject of the creating
/// thread.
///
/// The owner (on the creating thread) destroys the object; destruction stops the thread's event
/// loop and waits for it up to waitTime milliseconds (1000 by default), never terminating it. The
/// thread object deletes itself once it has finished.
///
///     class QuoteCache : public KrObject
///     {
///         Q_OBJECT
///     public:
///         QuoteCache() : KrObject(true) { setThreadName(QStringLiteral("QuoteCache")); }
///     public Q_SLOTS:
///         void slotRefresh();          // runs on the "QuoteCache" thread when invoked queued
///     };
class KRUTILS_EXPORT KrObject : public QObject
{
    Q_OBJECT

public:
    /// With `bThread`, the object starts on a thread of its own and `parent` is dropped (a
    /// QObject with a parent cannot change threads).
    explicit KrObject(bool bThread, QObject *parent = nullptr);
    ~KrObject() override;

    /// Stops the thread's event loop and waits for it up to the wait time. Call it from the
    /// owner's thread, never from the object's own thread (it would wait for itself).
    void quitThread();
    /// Names the thread (the name it logs); does nothing for an object without a thread.
    void setThreadName(const QString &name);
    /// Milliseconds that quitThread() and the destructor wait; passed to QThread::wait() as given.
    void setWaitTime(int msec);

private:
    Q_DISABLE_COPY(KrObject)

    // Guarded: the thread deletes itself after finishing, so the pointer may outlive it.
    QPointer<KrThread> m_thread;
    int m_waitTime = 1000;
};

#endif // KROBJECT_H
