#include <krdefine/krdefine.h>

#include <QSet>
#include <QtTest>

class tst_KrDefine : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void constantsAreDistinctAndReadable();
};

// Filters and records use the constants as operators and keys; two equal values would make one
// silently stand for the other.
void tst_KrDefine::constantsAreDistinctAndReadable()
{
    using namespace Orvex_Values;
    using namespace Orvex_Fields;
    const QStringList all = {
            CompareOperator::less,
            CompareOperator::lessOrEqual,
            CompareOperator::equal,
            CompareOperator::noEqual,
            CompareOperator::greater,
            CompareOperator::greaterOrEqual,
            LogicOperator::andOperator,
            LogicOperator::orOperator,
            LogicOperator::notOperator,
            AlterType::create,
            AlterType::update,
            AlterType::remove,
            ClientMonitor::TagDump,
            ClientMonitor::TagDmpFlag,
            ClientMonitor::TagDmpErrorCode,
            ClientMonitor::TagDmpDesc,
            ClientMonitor::TagCallStack,
            ClientMonitor::TagThreadId,
            ClientMonitor::TagThreadName,
            Infomation::compareOperator,
            Infomation::logicOperator,
            System::filterValue,
    };
    QCOMPARE(QSet<QString>(all.begin(), all.end()).size(), all.size());
    for (const QString &value : all) {
        QVERIFY(!value.trimmed().isEmpty());
        QCOMPARE(value, value.trimmed());
    }
}

QTEST_GUILESS_MAIN(tst_KrDefine)
#include "tst_krdefine.moc"
