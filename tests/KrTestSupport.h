#ifndef KRTESTSUPPORT_H
#define KRTESTSUPPORT_H

// Helpers shared by the library's tests: a capture of Qt's log messages, and ways to run code
// on a monitor's own thread (as a barrier, to drive its timer).

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QMutex>
#include <QThread>
#include <QTimerEvent>
#include <QVector>

#include <functional>

struct CapturedMessage
{
    QtMsgType type;
    QString text;
    QString file;
    int line;
    QString function;
    QString category;
};

// Captures every message of the process while it exists (from any thread) and silences them.
class MessageCapture
{
public:
    MessageCapture()
    {
        s_active = this;
        m_previous = qInstallMessageHandler(&MessageCapture::handle);
    }
    ~MessageCapture()
    {
        qInstallMessageHandler(m_previous);
        s_active = nullptr;
    }

    QVector<CapturedMessage> messages() const
    {
        QMutexLocker locker(&m_mutex);
        return m_messages;
    }

    // The messages of the given type whose text contains the fragment.
    QVector<CapturedMessage> matching(QtMsgType type, const QString &fragment) const
    {
        QVector<CapturedMessage> found;
        for (const CapturedMessage &message : messages()) {
            if (message.type == type && message.text.contains(fragment))
                found.append(message);
        }
        return found;
    }

    void clear()
    {
        QMutexLocker locker(&m_mutex);
        m_messages.clear();
    }

    // Called inside the message handler, on the logging thread, before the message is stored.
    std::function<void(const CapturedMessage &)> onMessage;

private:
    static void handle(QtMsgType type, const QMessageLogContext &context, const QString &text)
    {
        MessageCapture *self = s_active;
        if (!self)
            return;
        CapturedMessage message {type,
                                 text,
                                 QString::fromUtf8(context.file),
                                 context.line,
                                 QString::fromUtf8(context.function),
                                 QString::fromUtf8(context.category)};
        if (self->onMessage)
            self->onMessage(message);
        QMutexLocker locker(&self->m_mutex);
        self->m_messages.append(message);
    }

    static inline MessageCapture *s_active = nullptr;
    QtMessageHandler m_previous = nullptr;
    mutable QMutex m_mutex;
    QVector<CapturedMessage> m_messages;
};

// Runs fn on the object's thread and waits for it. Events are delivered in the order they were
// posted, so this also waits until every signal queued to the object before has been handled.
inline void runOnThreadOf(QObject *object, const std::function<void()> &fn)
{
    if (object->thread() == QThread::currentThread())
        fn();
    else
        QMetaObject::invokeMethod(object, fn, Qt::BlockingQueuedConnection);
}

inline void waitForQueuedReports(QObject *monitor)
{
    runOnThreadOf(monitor, [] {});
}

// Stops the object's own timers, so that a test drives its timer events alone.
inline void stopOwnTimers(QObject *object)
{
    runOnThreadOf(object, [object] {
        const auto timers = QAbstractEventDispatcher::instance()->registeredTimers(object);
        for (const auto &timer : timers)
            object->killTimer(timer.timerId);
    });
}

// Delivers `count` events of the given timer to the object on its own thread, as its event
// loop would.
inline void sendTimerEvents(QObject *object, int timerId, int count = 1)
{
    runOnThreadOf(object, [object, timerId, count] {
        for (int i = 0; i < count; ++i) {
            QTimerEvent tick(timerId);
            QCoreApplication::sendEvent(object, &tick);
        }
    });
}

// Delivers `count` ticks to a monitor, whose timer events do not look at the timer id.
inline void sendTicks(QObject *object, int count)
{
    sendTimerEvents(object, 0, count);
}

#endif // KRTESTSUPPORT_H
