#ifndef KRMONITORTHREAD_P_H
#define KRMONITORTHREAD_P_H

#include "KrMonitorEventDispatcher_p.h"
#include "KrThread.h"

#include <QAbstractEventDispatcher>
#include <QObject>

// Internal: how the two monitors (locks, function guards) run on a thread of their own and
// tick once a second there.
namespace KrMonitorThread {

// Moves the monitor into a new, started KrThread of the given name; Monitor::initManger runs
// first thing on that thread. The thread deletes itself once it has finished.
template<typename Monitor> KrThread *start(Monitor *monitor, const QString &name)
{
    auto *thread = new KrThread;
    thread->setObjectName(name);
    thread->setEventDispatcher(new KrMonitorEventDispatcher);
    monitor->moveToThread(thread);
    QObject::connect(thread, &QThread::started, monitor, &Monitor::initManger,
                     Qt::DirectConnection);
    QObject::connect(thread, &QThread::finished, thread, &QObject::deleteLater);
    thread->start(QThread::InheritPriority);
    return thread;
}

// Starts the monitor's one-second timer; call it on the monitor's thread. The monitor's timers
// are stopped on that thread as it finishes: the monitor itself is destroyed at exit on another
// thread, which may not stop them.
inline void startTicking(QObject *monitor)
{
    monitor->startTimer(1000, Qt::CoarseTimer);
    QObject::connect(
            monitor->thread(), &QThread::finished, monitor,
            [monitor] {
                const auto timers = QAbstractEventDispatcher::instance()->registeredTimers(monitor);
                for (const auto &timer : timers)
                    monitor->killTimer(timer.timerId);
            },
            Qt::DirectConnection);
}

// Stops the monitor's thread and waits for it without a time limit (at process exit).
inline void stop(QThread *thread)
{
    if (!thread)
        return;
    thread->quit();
    thread->wait();
}

} // namespace KrMonitorThread

#endif // KRMONITORTHREAD_P_H
