#include "KrTestSupport.h"

#include <krutils/KrFunctionGuard.h>
#include <krutils/KrFunctionGuardManager.h>

#include <QRegularExpression>
#include <QSignalSpy>
#include <QtTest>

namespace {
const QString overText = QStringLiteral("fuctionGuard is over");
}

// Function guards and their started monitor. The monitor's own one-second timer is stopped; the
// tests deliver the ticks.
class tst_KrFunctionGuard : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void runsOnItsOwnThread();
    void logsEntryAndExit();
    void elapsedTimeStartsAfterTheEntryLine();
    void reportsOnceAfterTheBudget_data();
    void reportsOnceAfterTheBudget();
    void secondAddKeepsTheFirstRecord();
    void finishedGuardIsNotReported();

private:
    KrFunctionGuardManager *monitor() const { return KrFunctionGuardManager::getInstance(); }
    QVector<CapturedMessage> overWarnings() const
    {
        return m_capture->matching(QtWarningMsg, overText);
    }

    std::unique_ptr<MessageCapture> m_capture;
};

void tst_KrFunctionGuard::initTestCase()
{
    monitor()->start();
    QTRY_VERIFY(monitor()->thread() != QThread::currentThread());
    stopOwnTimers(monitor());
}

void tst_KrFunctionGuard::init()
{
    m_capture.reset(new MessageCapture);
}

void tst_KrFunctionGuard::cleanup()
{
    m_capture.reset();
}

void tst_KrFunctionGuard::runsOnItsOwnThread()
{
    QCOMPARE(monitor()->thread()->objectName(), QStringLiteral("KrFuctionGuardManager"));
}

void tst_KrFunctionGuard::logsEntryAndExit()
{
    QSignalSpy addReports(monitor(), &KrFunctionGuardManager::signalFuctionGuardAdd);
    QSignalSpy deleteReports(monitor(), &KrFunctionGuardManager::signalFuctionGuardDelete);
    QString address;
    {
        KrFunctionGuard guard(QStringLiteral("OrderBook"), QStringLiteral("rebuild"), true, 5);
        QVERIFY(guard.flag());
        address = QStringLiteral("KrFunctionGuard(0x%1)").arg(quintptr(&guard), 0, 16);
    }
    const auto entry = m_capture->matching(QtDebugMsg, QStringLiteral("KrFuctionGuard enter"));
    QCOMPARE(entry.size(), 1);
    QCOMPARE(entry.first().text,
             QStringLiteral(
                     "KrFunctionGuard::KrFunctionGuard KrFuctionGuard enter OrderBook rebuild ")
                     + address);
    QCOMPARE(entry.first().file, QStringLiteral("shell/krutils/KrFunctionGuard"));

    const auto exit = m_capture->matching(QtDebugMsg, QStringLiteral("~KrFuctionGuard exit"));
    QCOMPARE(exit.size(), 1);
    const QRegularExpression exitLine(
            QStringLiteral("^KrFunctionGuard::~KrFunctionGuard ~KrFuctionGuard exit , time elapsed "
                           " (\\d+) OrderBook rebuild (.*)$"));
    const auto match = exitLine.match(exit.first().text);
    QVERIFY2(match.hasMatch(), qPrintable(exit.first().text));
    QCOMPARE(match.captured(2), address);

    // whoever connects to the report signals still gets every report
    QCOMPARE(addReports.size(), 1);
    QCOMPARE(addReports.first().at(1).toString(),
             QStringLiteral("OrderBook                rebuild"));
    QCOMPARE(addReports.first().at(2).toInt(), 5);
    QCOMPARE(deleteReports.size(), 1);
}

void tst_KrFunctionGuard::elapsedTimeStartsAfterTheEntryLine()
{
    // A slow log sink delays the entry line; the guard's clock starts after it. Both ends are
    // read on the guard's own clock (whole milliseconds of wall time): the guard's start comes
    // after afterEntry and its end before afterExit, so whatever the machine's load, its elapsed
    // time cannot exceed theirs, while a clock started before the entry line would add the delay.
    const int sinkDelayMs = 400;
    qint64 afterEntry = 0;
    m_capture->onMessage = [&](const CapturedMessage &message) {
        if (message.text.contains(QLatin1String("KrFuctionGuard enter"))) {
            QThread::msleep(sinkDelayMs);
            afterEntry = QDateTime::currentMSecsSinceEpoch();
        }
    };
    {
        KrFunctionGuard guard(QStringLiteral("Sink"), QStringLiteral("slow"), false, 5);
    }
    const qint64 afterExit = QDateTime::currentMSecsSinceEpoch();
    m_capture->onMessage = nullptr;

    const auto exit = m_capture->matching(QtDebugMsg, QStringLiteral("~KrFuctionGuard exit"));
    QCOMPARE(exit.size(), 1);
    const qint64 elapsed = exit.first().text.section(QLatin1Char(' '), 7, 7).toLongLong();
    QVERIFY(afterEntry > 0);
    QVERIFY2(elapsed <= afterExit - afterEntry, qPrintable(exit.first().text));
}

void tst_KrFunctionGuard::reportsOnceAfterTheBudget_data()
{
    QTest::addColumn<int>("timeout");
    QTest::addColumn<int>("quietTicks"); // ticks that pass without a report

    QTest::newRow("5 seconds") << 5 << 5;
    QTest::newRow("1 second") << 1 << 1;
    QTest::newRow("0 means 60") << 0 << 60;
    QTest::newRow("negative means 60") << -3 << 60;
}

void tst_KrFunctionGuard::reportsOnceAfterTheBudget()
{
    QFETCH(int, timeout);
    QFETCH(int, quietTicks);

    KrFunctionGuard guard(QStringLiteral("Risk"), QStringLiteral("recalculate"), false, timeout);
    sendTicks(monitor(), quietTicks);
    QVERIFY(overWarnings().isEmpty());

    sendTicks(monitor(), 1);
    const auto warnings = overWarnings();
    QCOMPARE(warnings.size(), 1);
    // the default time-out is stated, whatever the guard's own budget
    QCOMPARE(warnings.first().text,
             QStringLiteral("KrFunctionGuardManager::timerEvent 0x%1 fuctionGuard is over 60 "
                            "seconds, please check it "
                            "Risk                recalculate")
                     .arg(quintptr(&guard), 0, 16));
    QCOMPARE(warnings.first().file, QStringLiteral("shell/krutils/KrFunctionGuardManager"));

    sendTicks(monitor(), 100);
    QCOMPARE(overWarnings().size(), 1);
}

void tst_KrFunctionGuard::secondAddKeepsTheFirstRecord()
{
    KrFunctionGuard guard(QStringLiteral("First"), QStringLiteral("text"), false, 2);
    monitor()->FuctionGuardAdd(&guard, QStringLiteral("Second text"), 100);
    sendTicks(monitor(), 3);
    const auto warnings = overWarnings();
    QCOMPARE(warnings.size(), 1);
    QVERIFY(warnings.first().text.endsWith(QLatin1String("First                text")));
}

void tst_KrFunctionGuard::finishedGuardIsNotReported()
{
    {
        KrFunctionGuard guard(QStringLiteral("Quick"), QStringLiteral("done"), false, 1);
        sendTicks(monitor(), 1);
    }
    sendTicks(monitor(), 5);
    QVERIFY(overWarnings().isEmpty());
}

QTEST_GUILESS_MAIN(tst_KrFunctionGuard)
#include "tst_krfunctionguard.moc"
