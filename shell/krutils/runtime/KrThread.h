#ifndef KRTHREAD_H
#define KRTHREAD_H

#include <krutils/krutils_export.h>

#include <QThread>

/// The library's thread type.
///
/// A KrThread announces its start and its end in the debug log, under its object name, and
/// prepares the new thread (slotInitThreadData) inside that thread before the thread runs any
/// queued call of the objects moved into it: it installs the thread's crash handlers
/// (set_thread_exception_handlers(), which also gives the thread an alternate signal stack on
/// Linux, so that a stack overflow there is reported). Every long-lived service of the library
/// runs on one.
///
/// Create it without a parent, name it with setObjectName() and start it; objects moved into it
/// run their queued slots and timers there:
///
///     auto *thread = new KrThread;
///     thread->setObjectName(QStringLiteral("QuoteWorker"));
///     worker->moveToThread(thread);
///     QObject::connect(thread, &QThread::finished, thread, &QObject::deleteLater);
///     thread->start(QThread::InheritPriority);
///
/// KrThread adds no meta-object of its own; slotInitThreadData() is connected by member pointer.
class KRUTILS_EXPORT KrThread : public QThread
{
public:
    /// A thread that is not started yet; slotInitThreadData() is connected to its start.
    explicit KrThread(QObject *parent = nullptr);
    ~KrThread() override;

    /// Runs in the new thread, directly from QThread::started, before the event loop starts.
    void slotInitThreadData();

private:
    Q_DISABLE_COPY(KrThread)
};

#endif // KRTHREAD_H
