#include "KrFilterReference.h"

#include <krdefine/krdefine.h>
#include <krutils/KrCommonUtils.h>

#include <QDateTime>
#include <QRandomGenerator>
#include <QtTest>

#include <cmath>

namespace {

using namespace Orvex_Values;

QVariantMap condition(const QString &compare, const QVariant &operand,
                      const QString &logic = QString())
{
    QVariantMap c {{Orvex_Fields::Infomation::compareOperator, compare},
                   {Orvex_Fields::System::filterValue, operand}};
    if (!logic.isNull())
        c.insert(Orvex_Fields::Infomation::logicOperator, logic);
    return c;
}

// A condition on the value 1 that holds or not, joined to the next by `logic`.
QVariantMap truth(bool holds, const QString &logic = QString())
{
    return condition(CompareOperator::equal, holds ? 1 : 2, logic);
}

QMap<int, QVariantMap> row(const QMap<int, QVariantMap> &cells)
{
    return cells;
}

QVariantMap cell(const QString &key, const QVariant &value)
{
    return {{key, value}};
}

} // namespace

class tst_KrCommonUtilsFilter : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void singleCondition_data();
    void singleCondition();
    void foldsLeftToRight_data();
    void foldsLeftToRight();
    void emptyFiltersAndInvalidValues();
    void rowLooksAtFilteredColumnsOnly();
    void rowPicksTheFilteredRole_data();
    void rowPicksTheFilteredRole();
    void matchesThePlainRulesOnRandomTables();
};

void tst_KrCommonUtilsFilter::singleCondition_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("compare");
    QTest::addColumn<QVariant>("operand");
    QTest::addColumn<bool>("holds");

    QTest::newRow("5 > 3") << QVariant(5) << CompareOperator::greater << QVariant(3) << true;
    QTest::newRow("3 > 3") << QVariant(3) << CompareOperator::greater << QVariant(3) << false;
    QTest::newRow("3 >= 3") << QVariant(3) << CompareOperator::greaterOrEqual << QVariant(3)
                            << true;
    QTest::newRow("2.5 < 3") << QVariant(2.5) << CompareOperator::less << QVariant(3) << true;
    QTest::newRow("3 <= 2.5") << QVariant(3) << CompareOperator::lessOrEqual << QVariant(2.5)
                              << false;
    QTest::newRow("int == double")
            << QVariant(3) << CompareOperator::equal << QVariant(3.0) << true;
    QTest::newRow("\"abc\" != \"abd\"")
            << QVariant(QStringLiteral("abc")) << CompareOperator::noEqual
            << QVariant(QStringLiteral("abd")) << true;
    // QVariant orders texts without case; of two that differ in case only, each is "greater"
    QTest::newRow("\"a\" > \"B\"") << QVariant(QStringLiteral("a")) << CompareOperator::greater
                                   << QVariant(QStringLiteral("B")) << false;
    QTest::newRow("\"b\" > \"B\"") << QVariant(QStringLiteral("b")) << CompareOperator::greater
                                   << QVariant(QStringLiteral("B")) << true;
    QTest::newRow("\"B\" > \"b\" as well")
            << QVariant(QStringLiteral("B")) << CompareOperator::greater
            << QVariant(QStringLiteral("b")) << true;
    QTest::newRow("fuzzily equal doubles")
            << QVariant(1.0) << CompareOperator::equal << QVariant(1.0 + 1e-13) << true;
    QTest::newRow("NaN after numbers")
            << QVariant(std::nan("")) << CompareOperator::greater << QVariant(1e308) << true;
    QTest::newRow("one instant, two offsets")
            << QVariant(QDateTime(QDate(2024, 3, 1), QTime(9, 30), Qt::UTC))
            << CompareOperator::equal
            << QVariant(QDateTime(QDate(2024, 3, 1), QTime(17, 30), Qt::OffsetFromUTC, 8 * 3600))
            << true;
    QTest::newRow("3 < text \"10\"")
            << QVariant(3) << CompareOperator::less << QVariant(QStringLiteral("10")) << true;
    QTest::newRow("text \"10\" == 10")
            << QVariant(QStringLiteral("10")) << CompareOperator::equal << QVariant(10) << true;
    QTest::newRow("dates") << QVariant(QDate(2024, 3, 1)) << CompareOperator::less
                           << QVariant(QDate(2024, 3, 2)) << true;
    QTest::newRow("missing operand, noEqual")
            << QVariant(1) << CompareOperator::noEqual << QVariant() << true;
    QTest::newRow("unknown operator")
            << QVariant(5) << QStringLiteral("bigger") << QVariant(3) << false;
    QTest::newRow("empty operator") << QVariant(5) << QString() << QVariant(3) << false;
    QTest::newRow("operator case matters")
            << QVariant(QStringLiteral("x")) << CompareOperator::equal.toUpper()
            << QVariant(QStringLiteral("x"))
            << (CompareOperator::equal == CompareOperator::equal.toUpper());
}

void tst_KrCommonUtilsFilter::singleCondition()
{
    QFETCH(QVariant, value);
    QFETCH(QString, compare);
    QFETCH(QVariant, operand);
    QFETCH(bool, holds);
    QCOMPARE(KrCommonUtils::isMatchFilterList(7, value, {{condition(compare, operand)}}), holds);
}

void tst_KrCommonUtilsFilter::foldsLeftToRight_data()
{
    QTest::addColumn<QList<QVariantMap>>("group");
    QTest::addColumn<bool>("passes");

    using namespace LogicOperator;
    // [A or, B and, C] is (A or B) and C, without precedence
    for (int bits = 0; bits < 8; ++bits) {
        const bool a = bits & 4, b = bits & 2, c = bits & 1;
        QTest::addRow("%d or %d and %d", a, b, c)
                << QList<QVariantMap> {truth(a, orOperator), truth(b, andOperator), truth(c)}
                << ((a || b) && c);
    }
    // not means "and not"
    for (int bits = 0; bits < 4; ++bits) {
        const bool a = bits & 2, b = bits & 1;
        QTest::addRow("%d not %d", a, b)
                << QList<QVariantMap> {truth(a, notOperator), truth(b)} << (a && !b);
    }
    QTest::newRow("unknown join ignores the next")
            << QList<QVariantMap> {truth(true, QStringLiteral("xor")), truth(false)} << true;
    QTest::newRow("missing join ignores the next")
            << QList<QVariantMap> {truth(false), truth(true)} << false;
    QTest::newRow("ignored one, then and")
            << QList<QVariantMap> {truth(true, QString()), truth(false, andOperator), truth(true)}
            << true;
    QTest::newRow("single condition's join is not read")
            << QList<QVariantMap> {truth(true, notOperator)} << true;
}

void tst_KrCommonUtilsFilter::foldsLeftToRight()
{
    QFETCH(QList<QVariantMap>, group);
    QFETCH(bool, passes);
    QCOMPARE(KrCommonUtils::isMatchFilterList(0, 1, {group}), passes);
}

void tst_KrCommonUtilsFilter::emptyFiltersAndInvalidValues()
{
    const QList<QList<QVariantMap>> alwaysTrue {{condition(CompareOperator::noEqual, 12345)}};
    QVERIFY(KrCommonUtils::isMatchFilterList(0, 1, alwaysTrue));
    QVERIFY(!KrCommonUtils::isMatchFilterList(0, QVariant(), alwaysTrue));
    QVERIFY(!KrCommonUtils::isMatchFilterList(0, QVariant(), {}));
    QVERIFY(!KrCommonUtils::isMatchFilterList(0, 1, {}));
    QVERIFY(!KrCommonUtils::isMatchFilterList(0, 1, {{}, {}}));
    QVERIFY(KrCommonUtils::isMatchFilterList(0, 1,
                                             {{}, {truth(false)}, {truth(true)}})); // any group
}

void tst_KrCommonUtilsFilter::rowLooksAtFilteredColumnsOnly()
{
    const QList<QList<QVariantMap>> aboveTen {{condition(CompareOperator::greater, 10)}};
    const QList<QMap<int, QVariantMap>> rows {
            row({{1, cell(QStringLiteral("0"), 20)}}),
            row({{1, cell(QStringLiteral("0"), 5)}}),
            row({{2, cell(QStringLiteral("0"), 20)}}), // no cell in the filtered column
            row({{1, cell(QStringLiteral("0"), 11)}, {2, cell(QStringLiteral("0"), QVariant())}}),
    };
    // column 2's filter is empty: column 2 is not looked at, even where it is missing
    const QMap<int, QList<QList<QVariantMap>>> filters {{1, aboveTen}, {2, {}}};
    const QList<QMap<int, QVariantMap>> expected {rows.at(0), rows.at(3)};
    QCOMPARE(KrCommonUtils::getMatchRecordListByFilterList(rows, filters, {{1, 99}}), expected);
    QVERIFY(!KrCommonUtils::isRecordMatchFilterList(rows.at(2), filters, {}));

    // no filter at all: every row, in order
    QCOMPARE(KrCommonUtils::getMatchRecordListByFilterList(rows, {}, {}), rows);
    QCOMPARE(KrCommonUtils::getMatchRecordListByFilterList(rows, {{1, {}}, {2, {}}}, {}), rows);
    QVERIFY(KrCommonUtils::isRecordMatchFilterList({}, {}, {}));
}

void tst_KrCommonUtilsFilter::rowPicksTheFilteredRole_data()
{
    QTest::addColumn<QVariantMap>("cellRecord");
    QTest::addColumn<bool>("passes"); // filter: value == 1

    const QString display = QStringLiteral("0"), user = QStringLiteral("256"),
                  user1 = QStringLiteral("257");
    QTest::newRow("256 over 0") << QVariantMap {{user, 1}, {display, 2}} << true;
    QTest::newRow("256 over 257") << QVariantMap {{user, 2}, {user1, 1}} << false;
    QTest::newRow("257 over 0") << QVariantMap {{user1, 1}, {display, 2}} << true;
    QTest::newRow("0 alone") << QVariantMap {{display, 1}} << true;
    QTest::newRow("present but invalid 256 wins")
            << QVariantMap {{user, QVariant()}, {display, 1}} << false;
    QTest::newRow("no role key") << QVariantMap {{QStringLiteral("263"), 1}} << false;
}

void tst_KrCommonUtilsFilter::rowPicksTheFilteredRole()
{
    QFETCH(QVariantMap, cellRecord);
    QFETCH(bool, passes);
    QCOMPARE(KrCommonUtils::isRecordMatchFilterList({{3, cellRecord}}, {{3, {{truth(true)}}}}, {}),
             passes);
}

// The fast engine against a plain reading of the rules, on random tables of mixed types with
// invalid values, equal values, malformed and missing operators. Each column holds mostly values
// of one type, as a table's columns do, and the filters mostly operands of that type: ints,
// doubles (with fuzzily equal ones and NaN), texts (differing in case only, accented, empty,
// numbers as text) and date-times (one instant at different offsets, local, invalid).
void tst_KrCommonUtilsFilter::matchesThePlainRulesOnRandomTables()
{
    QRandomGenerator random(20261122);
    const QDateTime epoch(QDate(2024, 1, 1), QTime(9, 30), Qt::UTC);
    const QStringList texts {QStringLiteral("IF"), QStringLiteral("if"),     QStringLiteral("IC"),
                             QStringLiteral("ih"), QStringLiteral("IF2412"), QString(),
                             QStringLiteral("Ä"),  QStringLiteral("ä"),      QStringLiteral("3")};
    // rows are told apart by their numbers: a NaN cell makes a row unequal to itself
    const int rowNumberColumn = 9;
    const auto rowNumbers = [&](const QList<QMap<int, QVariantMap>> &rows) {
        QList<int> numbers;
        for (const auto &record : rows)
            numbers.append(record.value(rowNumberColumn).value(QStringLiteral("0")).toInt());
        return numbers;
    };
    auto valueOfType = [&](int type) -> QVariant {
        const int k = random.bounded(4);
        switch (type) {
        case 0:
            return k - 1;
        case 1:
            return QList<double> {k + 0.5, double(k), k + 1e-13, std::nan(""), -0.0}.at(
                    random.bounded(5));
        case 2:
            return texts.at(random.bounded(texts.size()));
        case 3: {
            const QDateTime utc = epoch.addSecs(k * 60);
            return QList<QDateTime> {utc,
                                     utc,
                                     utc.toOffsetFromUtc(8 * 3600),
                                     utc.toLocalTime(),
                                     QDateTime(),
                                     QDateTime(QDate(), QTime(9, 30), Qt::UTC)}
                    .at(random.bounded(6));
        }
        case 4:
            return bool(k % 2);
        case 5:
            return qlonglong(k);
        default:
            return QVariant();
        }
    };
    // a column's own type most of the time, any other now and then
    auto valueFor = [&](int columnType) {
        return valueOfType(random.bounded(4) ? columnType : random.bounded(7));
    };
    const QStringList compares {CompareOperator::greater, CompareOperator::greaterOrEqual,
                                CompareOperator::equal,   CompareOperator::noEqual,
                                CompareOperator::less,    CompareOperator::lessOrEqual,
                                QStringLiteral("~"),      QString()};
    const QStringList logics {LogicOperator::andOperator, LogicOperator::orOperator,
                              LogicOperator::notOperator, QStringLiteral("nand"), QString()};
    const QStringList roles {QStringLiteral("0"), QStringLiteral("256"), QStringLiteral("257"),
                             QStringLiteral("263")};

    for (int round = 0; round < 40; ++round) {
        const QList<int> columnTypes {random.bounded(4), random.bounded(4), random.bounded(4),
                                      random.bounded(7)};
        QList<QMap<int, QVariantMap>> rows;
        const int rowCount
                = round % 8 == 0 ? 5000 : 200; // long lists let the engine reorder columns
        for (int r = 0; r < rowCount; ++r) {
            QMap<int, QVariantMap> record {{rowNumberColumn, cell(QStringLiteral("0"), r)}};
            for (int column = 0; column < 4; ++column) {
                if (random.bounded(10) == 0)
                    continue; // a missing cell
                QVariantMap cellRecord;
                for (const QString &role : roles) {
                    if (random.bounded(2))
                        cellRecord.insert(role, valueFor(columnTypes.at(column)));
                }
                record.insert(column, cellRecord);
            }
            rows.append(record);
        }
        QMap<int, QList<QList<QVariantMap>>> filters;
        for (int column = 0; column < 4; ++column) {
            if (random.bounded(3) == 0)
                continue;
            QList<QList<QVariantMap>> filterList;
            for (int g = random.bounded(3); g > 0; --g) {
                QList<QVariantMap> group;
                for (int c = random.bounded(4); c > 0; --c) {
                    QVariantMap cond = condition(compares.at(random.bounded(compares.size())),
                                                 valueFor(columnTypes.at(column)),
                                                 logics.at(random.bounded(logics.size())));
                    if (random.bounded(8) == 0)
                        cond.remove(Orvex_Fields::System::filterValue);
                    group.append(cond);
                }
                filterList.append(group);
            }
            filters.insert(column, filterList);
        }

        QCOMPARE(rowNumbers(KrCommonUtils::getMatchRecordListByFilterList(rows, filters, {})),
                 rowNumbers(KrFilterReference::matchRecords(rows, filters)));
        for (const auto &record : qAsConst(rows))
            QCOMPARE(KrCommonUtils::isRecordMatchFilterList(record, filters, {}),
                     KrFilterReference::matchRecord(record, filters));
    }
}

QTEST_GUILESS_MAIN(tst_KrCommonUtilsFilter)
#include "tst_krcommonutils_filter.moc"
