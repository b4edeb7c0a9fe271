#include "KrTestSupport.h"

#include <krutils/KrObject.h>
#include <krutils/KrThread.h>

#include <QPointer>
#include <QSemaphore>
#include <QtTest>

class tst_KrThread : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void logsStartBeforeQueuedWorkAndFinish();
    void objectWithoutThreadStaysPut();
    void objectWithThreadRunsThereUntilQuit();
    void destructionWaitsNoLongerThanWaitTime();
};

void tst_KrThread::logsStartBeforeQueuedWorkAndFinish()
{
    MessageCapture capture;
    KrThread thread;
    thread.setObjectName(QStringLiteral("QuoteWorker"));
    QObject worker;
    worker.moveToThread(&thread);
    // queued before the thread exists, so it is the first thing its event loop runs
    QVector<CapturedMessage> startedFirst;
    QThread *ranOn = nullptr;
    QMetaObject::invokeMethod(&worker, [&] {
        startedFirst = capture.matching(QtDebugMsg, QStringLiteral("thread started"));
        ranOn = QThread::currentThread();
    });
    thread.start();
    runOnThreadOf(&worker, [] {});
    QCOMPARE(ranOn, &thread);
    QCOMPARE(startedFirst.size(), 1);
    QCOMPARE(startedFirst.first().text,
             QStringLiteral("KrThread::slotInitThreadData QuoteWorker  thread started"));
    QCOMPARE(startedFirst.first().file, QStringLiteral("shell/krutils/KrThread"));

    thread.quit();
    QVERIFY(thread.wait(5000));
    // the finish line is written on the thread object's own (this) thread
    const QString finished = QStringLiteral(" QuoteWorker  thread finished");
    QTRY_COMPARE(capture.matching(QtDebugMsg, finished).size(), 1);
}

void tst_KrThread::objectWithoutThreadStaysPut()
{
    QObject parent;
    QPointer<KrObject> object = new KrObject(false, &parent);
    QCOMPARE(object->parent(), &parent);
    const QString threadName = QThread::currentThread()->objectName();
    object->setThreadName(QStringLiteral("ignored"));
    object->quitThread();
    QCOMPARE(object->thread(), QThread::currentThread());
    QCOMPARE(object->thread()->objectName(), threadName);
    delete object;
    QVERIFY(object.isNull());
}

void tst_KrThread::objectWithThreadRunsThereUntilQuit()
{
    QObject parent;
    KrObject object(true, &parent);
    QCOMPARE(object.parent(), nullptr); // an object with a parent could not move
    QVERIFY(parent.children().isEmpty());
    QPointer<QThread> thread = object.thread();
    QVERIFY(thread && thread != QThread::currentThread());
    object.setThreadName(QStringLiteral("RiskWorker"));
    QCOMPARE(thread->objectName(), QStringLiteral("RiskWorker"));
    QThread *ranOn = nullptr;
    runOnThreadOf(&object, [&] { ranOn = QThread::currentThread(); });
    QCOMPARE(ranOn, thread.data());

    object.quitThread();
    QVERIFY(thread->isFinished());
    QTRY_VERIFY(thread.isNull()); // deleted by its own deleteLater
    object.quitThread(); // nothing left to quit
}

void tst_KrThread::destructionWaitsNoLongerThanWaitTime()
{
    auto *object = new KrObject(true);
    object->setWaitTime(50);
    QPointer<QThread> thread = object->thread();
    // Keep the thread busy in a helper of its own, so the KrObject can be destroyed meanwhile.
    auto *helper = new QObject;
    helper->moveToThread(thread);
    QSemaphore busy;
    QSemaphore release;
    QMetaObject::invokeMethod(helper, [&] {
        busy.release();
        release.acquire();
    });
    busy.acquire();

    delete object; // quits and waits 50 ms for a thread that cannot finish yet
    QVERIFY(thread && thread->isRunning()); // not terminated
    helper->deleteLater();
    release.release();
    QTRY_VERIFY(thread.isNull()); // finishes its event loop, then deletes itself
}

QTEST_GUILESS_MAIN(tst_KrThread)
#include "tst_krthread.moc"
