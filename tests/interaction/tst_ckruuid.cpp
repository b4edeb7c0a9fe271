#include <krutils/CKrUUID.h>

#include <QRegularExpression>
#include <QSet>
#include <QtTest>

#include <thread>

namespace {
// One network interface as the address rule sees it.
struct Interface
{
    bool isUp;
    bool isLoopBack;
    QString hardwareAddress;
};
using Interfaces = QList<Interface>;
} // namespace

Q_DECLARE_METATYPE(Interfaces)

// The id generator and its two private stamps (this class is its friend).
class tst_CKrUUID : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cleanup();

    void idCarriesTheLoginName_data();
    void idCarriesTheLoginName();
    void idsDifferAcrossThreads();
    void stampCountsWithinAMillisecond();
    void hardwareAddresses_data();
    void hardwareAddresses();
    void machineAddressHasNoSeparators();

private:
    static CKrUUID *generator() { return CKrUUID::GetInstance(); }
};

void tst_CKrUUID::cleanup()
{
    generator()->setLoginName(QString());
}

void tst_CKrUUID::idCarriesTheLoginName_data()
{
    QTest::addColumn<QString>("loginName");
    QTest::newRow("trader01") << QStringLiteral("trader01");
    QTest::newRow("no login name") << QString();
    QTest::newRow("Chinese name") << QStringLiteral("交易员");
    QTest::newRow("name with a hyphen") << QStringLiteral("desk-7");
}

void tst_CKrUUID::idCarriesTheLoginName()
{
    QFETCH(QString, loginName);
    generator()->setLoginName(loginName);
    QCOMPARE(generator()->getLoginName(), loginName);

    const QString id = generator()->GetUuid();
    QCOMPARE(id.size(), loginName.size() + 1 + 32);
    QVERIFY2(QRegularExpression(QStringLiteral("\\A") + QRegularExpression::escape(loginName)
                                + QStringLiteral("-[0-9a-f]{32}\\z"))
                     .match(id)
                     .hasMatch(),
             qPrintable(id));
}

void tst_CKrUUID::idsDifferAcrossThreads()
{
    generator()->setLoginName(QStringLiteral("trader01"));
    constexpr int perThread = 20000;
    QVector<QStringList> made(4);
    std::vector<std::thread> threads;
    for (QStringList &ids : made) {
        threads.emplace_back([&ids] {
            for (int i = 0; i < perThread; ++i)
                ids << CKrUUID::GetInstance()->GetUuid();
        });
    }
    for (std::thread &thread : threads)
        thread.join();

    QSet<QString> distinct;
    for (const QStringList &ids : made)
        distinct.unite(QSet<QString>(ids.cbegin(), ids.cend()));
    QCOMPARE(distinct.size(), 4 * perThread);
}

void tst_CKrUUID::stampCountsWithinAMillisecond()
{
    // Stamps are taken much faster than one per millisecond: runs within one millisecond
    // count 0, 1, 2...; a stamp in a later millisecond starts again at 0.
    const QRegularExpression form(QStringLiteral("\\A(\\d{17})(\\d+)\\z"));
    qint64 previous = -1;
    qint64 longestRun = 0;
    const QDateTime before = QDateTime::currentDateTime();
    for (int i = 0; i < 3000; ++i) {
        const QString stamp = generator()->GetDataTime();
        const QRegularExpressionMatch match = form.match(stamp);
        QVERIFY2(match.hasMatch(), qPrintable(stamp));
        const QDateTime time
                = QDateTime::fromString(match.captured(1), QStringLiteral("yyyyMMddhhmmsszzz"));
        QVERIFY2(time.isValid() && time >= before.addMSecs(-1)
                         && time <= QDateTime::currentDateTime(),
                 qPrintable(stamp));
        const qint64 sequence = match.captured(2).toLongLong();
        QVERIFY2(sequence == 0 || sequence == previous + 1, qPrintable(stamp));
        previous = sequence;
        longestRun = std::max(longestRun, sequence);
    }
    QVERIFY(longestRun >= 2);

    QThread::msleep(2);
    QCOMPARE(form.match(generator()->GetDataTime()).captured(2), QStringLiteral("0"));
}

void tst_CKrUUID::hardwareAddresses_data()
{
    QTest::addColumn<Interfaces>("interfaces");
    QTest::addColumn<QString>("joined");

    const QString ethernet = QStringLiteral("A1:B2:C3:D4:E5:F6");
    const QString wireless = QStringLiteral("0A:1B:2C:3D:4E:5F");
    const QString zero = QStringLiteral("00:00:00:00:00:00");

    QTest::newRow("none") << Interfaces() << QString();
    QTest::newRow("the only non-loop-back interface is down")
            << Interfaces {{true, true, zero}, {false, false, ethernet}} << QString();
    QTest::newRow("loop-back with an address") << Interfaces {{true, true, ethernet}} << QString();
    QTest::newRow("one up") << Interfaces {{true, true, zero}, {true, false, ethernet}}
                            << QStringLiteral("A1B2C3D4E5F6");
    QTest::newRow("every qualifying interface, in order")
            << Interfaces {{true, false, wireless}, {false, false, zero}, {true, false, ethernet}}
            << QStringLiteral("0A1B2C3D4E5FA1B2C3D4E5F6");
    QTest::newRow("all-zero address skipped") << Interfaces {{true, false, zero}} << QString();
    QTest::newRow("all zero but eight bytes")
            << Interfaces {{true, false, QStringLiteral("00:00:00:00:00:00:00:E0")}}
            << QStringLiteral("00000000000000E0");
    QTest::newRow("zero written with single digits is not skipped")
            << Interfaces {{true, false, QStringLiteral("0:0:0:0:0:0")}}
            << QStringLiteral("000000");
    QTest::newRow("lower case kept")
            << Interfaces {{true, false, QStringLiteral("ab:cd:ef:01:23:45")}}
            << QStringLiteral("abcdef012345");
    QTest::newRow("no hardware address (tunnel)")
            << Interfaces {{true, false, QString()}} << QString();
}

void tst_CKrUUID::hardwareAddresses()
{
    QFETCH(Interfaces, interfaces);
    QFETCH(QString, joined);
    QList<CKrUUID::InterfaceFacts> facts;
    for (const Interface &interface : interfaces)
        facts.append({interface.isUp, interface.isLoopBack, interface.hardwareAddress});
    QCOMPARE(CKrUUID::joinHardwareAddresses(facts), joined);
}

void tst_CKrUUID::machineAddressHasNoSeparators()
{
    // This machine's interfaces vary; whatever they are, the result is bare hexadecimal.
    const QString mac = generator()->GetMac();
    QVERIFY2(QRegularExpression(QStringLiteral("\\A[0-9A-Fa-f]*\\z")).match(mac).hasMatch(),
             qPrintable(mac));
    QCOMPARE(mac.size() % 2, 0);
}

QTEST_GUILESS_MAIN(tst_CKrUUID)
#include "tst_ckruuid.moc"
