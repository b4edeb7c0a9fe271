#include <krutils/CKrUUID.h>

#include <QRegularExpression>
#include <QtTest>

// The id generator and its two private stamps (this class is its friend).
class tst_CKrUUID : public QObject
{
    Q_OBJECT

    static CKrUUID *generator() { return CKrUUID::GetInstance(); }

private Q_SLOTS:
    void cleanup() { generator()->setLoginName(QString()); }

    void idCarriesTheLoginName_data()
    {
        QTest::addColumn<QString>("loginName");
        QTest::newRow("trader01") << QStringLiteral("trader01");
        QTest::newRow("no login name") << QString();
        QTest::newRow("Chinese name with a hyphen") << QStringLiteral("交易员-7");
    }

    void idCarriesTheLoginName()
    {
        QFETCH(QString, loginName);
        generator()->setLoginName(loginName);
        QCOMPARE(generator()->getLoginName(), loginName);
        const QString id = generator()->GetUuid();
        QVERIFY2(QRegularExpression(QStringLiteral("\\A") + QRegularExpression::escape(loginName)
                                    + QStringLiteral("-[0-9a-f]{32}\\z"))
                         .match(id)
                         .hasMatch(),
                 qPrintable(id));
        QVERIFY(generator()->GetUuid() != id);
    }

    void stampCountsWithinAMillisecond()
    {
        // Stamps are taken much faster than one per millisecond: runs within one millisecond
        // count 0, 1, 2...; a stamp in a later millisecond starts again at 0.
        const QRegularExpression form(QStringLiteral("\\A(\\d{17})(\\d+)\\z"));
        qint64 previous = -1, longestRun = 0;
        const QDateTime before = QDateTime::currentDateTime().addMSecs(-1);
        for (int i = 0; i < 3000; ++i) {
            const QString stamp = generator()->GetDataTime();
            const QRegularExpressionMatch match = form.match(stamp);
            const QDateTime time
                    = QDateTime::fromString(match.captured(1), QStringLiteral("yyyyMMddhhmmsszzz"));
            const qint64 sequence = match.captured(2).toLongLong();
            QVERIFY2(time >= before && time <= QDateTime::currentDateTime()
                             && (i == 0 || sequence == 0 || sequence == previous + 1),
                     qPrintable(stamp));
            previous = sequence;
            longestRun = std::max(longestRun, sequence);
        }
        QVERIFY(longestRun >= 2);
        QThread::msleep(2);
        QCOMPARE(form.match(generator()->GetDataTime()).captured(2), QStringLiteral("0"));
    }

    void hardwareAddresses_data()
    {
        // Each interface as '+' up, '-' down or 'L' up loop-back, then its hardware address.
        QTest::addColumn<QStringList>("interfaces");
        QTest::addColumn<QString>("joined");

        QTest::newRow("those up, not loop-back, with an address not all zero, in order, as written")
                << QStringList {"LA1:B2:C3:D4:E5:F6",
                                "+0A:1B:2C:3D:4E:5F",
                                "-A1:B2:C3:D4:E5:F6",
                                "+00:00:00:00:00:00",
                                "+",
                                "+ab:cd:ef:01:23:45"}
                << "0A1B2C3D4E5Fabcdef012345";
        QTest::newRow("only six zero bytes are skipped")
                << QStringList {"+00:00:00:00:00:00:00:00"} << "0000000000000000";
        QTest::newRow("zero written with single digits is not skipped")
                << QStringList {"+0:0:0:0:0:0"} << "000000";
    }

    void hardwareAddresses()
    {
        QFETCH(QStringList, interfaces);
        QFETCH(QString, joined);
        QList<CKrUUID::InterfaceFacts> facts;
        for (const QString &interface : interfaces)
            facts.append({interface.at(0) != QLatin1Char('-'), interface.at(0) == QLatin1Char('L'),
                          interface.mid(1)});
        QCOMPARE(CKrUUID::joinHardwareAddresses(facts), joined);

        // This machine's interfaces vary; whatever they are, its address is bare hexadecimal.
        const QString mac = generator()->GetMac();
        QVERIFY2(
                QRegularExpression(QStringLiteral("\\A([0-9A-Fa-f]{2})*\\z")).match(mac).hasMatch(),
                qPrintable(mac));
    }
};

QTEST_GUILESS_MAIN(tst_CKrUUID)
#include "tst_ckruuid.moc"
