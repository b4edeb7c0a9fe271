#include "KrTestSupport.h"

#include <krutils/KrObject.h>
#include <krutils/KrThread.h>

#include <QPointer>
#include <QSemaphore>
#include <QtTest>

#include <atomic>

class tst_KrThread : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void logsStartAndFinishUnderItsName();
    void preparesThreadBeforeQueuedWork();
    void objectWithoutThreadStaysPut();
    void objectWithThreadRunsThere();
    void quitThreadEndsAndDeletesThread();
    void destructionWaitsNoLongerThanWaitTime();
};

void tst_KrThread::logsStartAndFinishUnderItsName()
{
    MessageCapture capture;
    KrThread thread;
    thread.setObjectName(QStringLiteral("QuoteWorker"));
    thread.start();
    thread.quit();
    QVERIFY(thread.wait(5000));
    // the finish line is written on the thread object's own (this) thread
    QTRY_COMPARE(capture.matching(QtDebugMsg, QStringLiteral("thread finished")).size(), 1);

    const auto started = capture.matching(QtDebugMsg, QStringLiteral("thread started"));
    QCOMPARE(started.size(), 1);
    QCOMPARE(started.first().text,
             QStringLiteral("KrThread::slotInitThreadData QuoteWorker  thread started"));
    QCOMPARE(started.first().file, QStringLiteral("shell/krutils/KrThread"));
    QVERIFY(started.first().function.contains(QLatin1String("KrThread::slotInitThreadData")));
    QCOMPARE(started.first().category, QStringLiteral("krutils"));

    const CapturedMessage finished
            = capture.matching(QtDebugMsg, QStringLiteral("thread finished")).first();
    QVERIFY2(finished.text.startsWith(QLatin1String("KrThread::KrThread::<lambda")),
             qPrintable(finished.text));
    QVERIFY(finished.text.endsWith(QLatin1String(" QuoteWorker  thread finished")));
}

void tst_KrThread::preparesThreadBeforeQueuedWork()
{
    MessageCapture capture;
    KrThread thread;
    thread.setObjectName(QStringLiteral("Prepared"));
    QObject worker;
    worker.moveToThread(&thread);

    // queued before the thread exists, so it is the first thing its event loop runs
    std::atomic<bool> preparedFirst {false};
    QThread *ranOn = nullptr;
    QMetaObject::invokeMethod(&worker, [&] {
        preparedFirst
                = capture.matching(QtDebugMsg, QStringLiteral("Prepared  thread started")).size()
                == 1;
        ranOn = QThread::currentThread();
    });
    thread.start();
    runOnThreadOf(&worker, [] {});
    QVERIFY(preparedFirst);
    QCOMPARE(ranOn, &thread);
    thread.quit();
    QVERIFY(thread.wait(5000));
}

void tst_KrThread::objectWithoutThreadStaysPut()
{
    QObject parent;
    QPointer<KrObject> object = new KrObject(false, &parent);
    QCOMPARE(object->parent(), &parent);
    QCOMPARE(object->thread(), QThread::currentThread());

    object->setThreadName(QStringLiteral("ignored"));
    object->quitThread();
    QCOMPARE(object->thread(), QThread::currentThread());
    QCOMPARE(object->thread()->objectName(), QThread::currentThread()->objectName());

    delete object;
    QVERIFY(object.isNull());
}

void tst_KrThread::objectWithThreadRunsThere()
{
    QObject parent;
    KrObject object(true, &parent);
    QCOMPARE(object.parent(), nullptr);
    QVERIFY(parent.children().isEmpty());
    QVERIFY(object.thread() != QThread::currentThread());
    QVERIFY(qobject_cast<QThread *>(object.thread()));

    object.setThreadName(QStringLiteral("RiskWorker"));
    QCOMPARE(object.thread()->objectName(), QStringLiteral("RiskWorker"));

    QThread *ranOn = nullptr;
    runOnThreadOf(&object, [&] { ranOn = QThread::currentThread(); });
    QCOMPARE(ranOn, object.thread());
    QVERIFY(object.thread()->isRunning());
}

void tst_KrThread::quitThreadEndsAndDeletesThread()
{
    KrObject object(true);
    QPointer<QThread> thread = object.thread();
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
    QVERIFY(thread);
    QVERIFY(thread->isRunning()); // not terminated

    helper->deleteLater();
    release.release();
    QTRY_VERIFY(thread.isNull()); // finishes its event loop, then deletes itself
}

QTEST_GUILESS_MAIN(tst_KrThread)
#include "tst_krthread.moc"
