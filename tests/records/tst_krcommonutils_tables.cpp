#include "KrFilterReference.h"

#include <krdefine/krdefine.h>
#include <krutils/KrCommonUtils.h>

#include <QDateTime>
#include <QRandomGenerator>
#include <QtTest>

#include <cmath>
#include <limits>

using Cells = QList<QVariantMap>; // one column's cell records, one per row
using FilterList = QList<QList<QVariantMap>>;
using Rows = QList<QMap<int, QVariantMap>>;
using namespace Orvex_Values;

static QVariantMap condition(const QString &compare, const QVariant &operand,
                             const QString &logic = QString())
{
    QVariantMap c {{Orvex_Fields::Infomation::compareOperator, compare},
                   {Orvex_Fields::System::filterValue, operand}};
    if (!logic.isNull()) // else no entry at all
        c.insert(Orvex_Fields::Infomation::logicOperator, logic);
    return c;
}

QT_WARNING_PUSH
QT_WARNING_DISABLE_DEPRECATED
// The multi-key sort as its rule reads: buckets in a QMap keyed by QVariant, key after key.
static QList<int> plainBucketSort(const QList<QVariantList> &values, const QList<bool> &descending,
                                  const QList<int> &indices, int key = 0)
{
    if (key == values.size() || indices.size() < 2)
        return indices;
    QMap<QVariant, QList<int>> buckets;
    for (int index : indices)
        buckets[values.at(key).at(index)].append(index);
    QList<int> result;
    for (const QList<int> &bucket : qAsConst(buckets)) {
        const QList<int> sorted = plainBucketSort(values, descending, bucket, key + 1);
        result = descending.at(key) ? sorted + result : result + sorted;
    }
    return result;
}
QT_WARNING_POP

class tst_KrCommonUtilsTables : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // The filter and both sorts against the plain readings of their rules, on random tables of
    // few distinct values: ints, doubles (fuzzily equal, NaN, -0), texts (differing in case
    // only, accented, numbers), date-times (one instant at different offsets, local, invalid),
    // bools, long longs, dates, invalid values; cells holding any role keys or none, or
    // missing; malformed operators (also in the wrong case), missing operands, empty groups
    // and lists. Long tables let the filter reorder its columns.
    void matchesThePlainRulesOnRandomTables()
    {
        QRandomGenerator random(20261122);
        const QDateTime utc(QDate(2024, 1, 1), QTime(9, 30), Qt::UTC);
        QVariantList ints, doubles, dateTimes;
        for (int k = 0; k < 4; ++k) {
            ints << k - 1;
            doubles << k + 0.5 << double(k) << k + 1e-13;
            dateTimes << utc.addSecs(k * 60) << utc.addSecs(k * 60).toOffsetFromUtc(8 * 3600)
                      << utc.addSecs(k * 60).toLocalTime();
        }
        doubles << std::nan("") << -0.0;
        dateTimes << QDateTime() << QDateTime(QDate(), QTime(9, 30), Qt::UTC);
        const QList<QVariantList> valuesOfType {
                ints,
                doubles,
                {"IF", "if", "IC", "ih", "IF2412", QString(), "Ä", "ä", "3"},
                dateTimes,
                {true, false},
                {0ll, 1ll, 2ll, 3ll},
                {QDate(2024, 1, 1), QDate(2024, 1, 2)},
                {QVariant()}};
        // a column's own type most of the time, any other now and then
        auto valueFor = [&](int columnType) {
            const QVariantList &values
                    = valuesOfType.at(random.bounded(4) ? columnType : random.bounded(8));
            return values.at(random.bounded(values.size()));
        };
        using namespace CompareOperator;
        const QStringList compares {greater, greaterOrEqual, equal, noEqual,
                                    less,    lessOrEqual,    "~",   ""};
        const QStringList logics {LogicOperator::andOperator, LogicOperator::orOperator,
                                  LogicOperator::notOperator, LogicOperator::andOperator.toUpper(),
                                  QString()};
        // up to two groups of up to three conditions, some of them empty
        auto filterListFor = [&](int columnType) {
            FilterList filterList;
            for (int g = random.bounded(3); g > 0; --g) {
                filterList.append(QList<QVariantMap>());
                for (int c = random.bounded(4); c > 0; --c) {
                    filterList.last().append(condition(compares.at(random.bounded(compares.size())),
                                                       valueFor(columnType),
                                                       logics.at(random.bounded(logics.size()))));
                    if (random.bounded(8) == 0)
                        filterList.last().last().remove(Orvex_Fields::System::filterValue);
                }
            }
            return filterList;
        };
        // rows are told apart by their numbers: a NaN cell makes a row unequal to itself
        const auto rowNumbers = [](const Rows &rows) {
            QList<int> numbers;
            for (const auto &row : rows)
                numbers.append(row.value(9).value("0").toInt());
            return numbers;
        };

        for (int round = 0; round < 40; ++round) {
            const QList<int> columnTypes {random.bounded(4), random.bounded(4), random.bounded(4),
                                          random.bounded(8)};
            Rows rows;
            for (int r = 0, rowCount = round % 8 == 0 ? 5000 : 200; r < rowCount; ++r) {
                rows.append({{9, {{"0", r}}}});
                for (int column = 0; column < 4; ++column) {
                    if (random.bounded(10) == 0)
                        continue;
                    QVariantMap &cell = rows.last()[column];
                    for (const char *role : {"0", "256", "257", "263"}) {
                        if (random.bounded(2))
                            cell.insert(role, valueFor(columnTypes.at(column)));
                    }
                }
            }
            QMap<int, FilterList> filters;
            for (int column = 0; column < 4; ++column) {
                if (random.bounded(3))
                    filters.insert(column, filterListFor(columnTypes.at(column)));
            }
            QCOMPARE(rowNumbers(KrCommonUtils::getMatchRecordListByFilterList(rows, filters, {})),
                     rowNumbers(KrFilterReference::matchRecords(rows, filters)));
            for (const auto &row : qAsConst(rows)) {
                QCOMPARE(KrCommonUtils::isRecordMatchFilterList(row, filters, {{1, 9}}),
                         KrFilterReference::matchRecord(row, filters));
                for (int column = 0; column < 4; ++column) { // and a filter for each cell
                    const FilterList filterList = filterListFor(columnTypes.at(column));
                    const QVariant value = row.value(column).value("256");
                    QCOMPARE(KrCommonUtils::isMatchFilterList(column, value, filterList),
                             KrFilterReference::matchFilterList(value, filterList));
                }
            }

            // The sorts, of the rows and of records holding the values the rows are sorted by:
            // "263", else "256", else "0", else "257".
            QList<int> indices;
            QList<QVariantMap> records;
            for (int i = 0; i < rows.size(); ++i) {
                indices.append(i);
                records.append({{"9", i}});
                for (int column = 0; column < 4; ++column) {
                    for (const char *role : {"257", "0", "256", "263"}) { // the last one present
                        if (rows.at(i).value(column).contains(role))
                            records.last()[QString::number(column)]
                                    = rows.at(i).value(column).value(role);
                    }
                }
            }
            QList<QPair<int, Qt::SortOrder>> columnKeys;
            QList<QPair<QString, Qt::SortOrder>> fieldKeys;
            QList<QVariantList> values;
            QList<bool> descending;
            for (int k = 1 + random.bounded(3); k > 0; --k) {
                const int column = random.bounded(4);
                const auto order = random.bounded(2) ? Qt::AscendingOrder : Qt::DescendingOrder;
                columnKeys.append({column, order});
                fieldKeys.append({QString::number(column), order});
                descending.append(order == Qt::DescendingOrder);
                values.append(QVariantList());
                for (const QVariantMap &record : qAsConst(records))
                    values.last().append(record.value(QString::number(column)));
            }
            const QList<int> sorted = plainBucketSort(values, descending, indices);
            QCOMPARE(KrCommonUtils::sortTableViewRecordListByKeys(rows, columnKeys), 0);
            QCOMPARE(rowNumbers(rows), sorted);
            QCOMPARE(KrCommonUtils::sortDataListByKeys(records, fieldKeys), 0);
            for (int i = 0; i < records.size(); ++i)
                QCOMPARE(records.at(i).value("9").toInt(), sorted.at(i));
            // no keys: nothing sorted
            QCOMPARE(KrCommonUtils::sortTableViewRecordListByKeys(rows, {}), -2);
            QCOMPARE(KrCommonUtils::sortDataListByKeys(records, {}), -2);
            QCOMPARE(rowNumbers(rows), sorted);
        }
        const Rows rows {{{1, {{"0", 1}}}}, {}};
        QCOMPARE(KrCommonUtils::getMatchRecordListByFilterList(rows, {}, {}), rows);
        QList<QVariantMap> records;
        Rows noRows;
        QCOMPARE(KrCommonUtils::sortDataListByKeys(records, {}), -1);
        QCOMPARE(KrCommonUtils::sortTableViewRecordListByKeys(noRows, {}), -1);
    }

    void sumRecord_data()
    {
        QTest::addColumn<Cells>("cells");
        QTest::addColumn<QVariant>("total"); // invalid: the column is absent from the sum row

        const int intMax = std::numeric_limits<int>::max();
        QTest::newRow("no rows") << Cells {} << QVariant();
        QTest::newRow("a string is ignored")
                << Cells {{{"0", 1}}, {{"0", "x"}}, {{"0", 2}}} << QVariant(3);
        QTest::newRow("256 chosen by presence") << Cells {{{"256", {}}, {"0", 5}}} << QVariant();
        QTest::newRow("0 before 257") << Cells {{{"0", 4}, {"257", 100}}} << QVariant(4);
        QTest::newRow("257 alone") << Cells {{{"257", 7}}} << QVariant(7);
        QTest::newRow("no role key") << Cells {{{"263", 3}}} << QVariant();
        QTest::newRow("int, double") << Cells {{{"0", 1}}, {{"0", 0.5}}} << QVariant(1.5);
        // the double total goes through QVariant::toInt(), which rounds: 2 + 2
        QTest::newRow("1.5, int") << Cells {{{"0", 1.5}}, {{"0", 2}}} << QVariant(4);
        QTest::newRow("int wraps") << Cells {{{"0", intMax}}, {{"0", 1}}} << QVariant(-intMax - 1);
        QTest::newRow("uint") << Cells {{{"0", 1u}}, {{"0", 2u}}} << QVariant(3u);
        QTest::newRow("long long")
                << Cells {{{"0", 1ll << 40}}, {{"0", 1ll}}} << QVariant((1ll << 40) + 1);
        QTest::newRow("unsigned long long") << Cells {{{"0", 5ull}}} << QVariant(5ull);
        QTest::newRow("float") << Cells {{{"0", 0.25f}}, {{"0", 0.5f}}} << QVariant(0.75f);
        QTest::newRow("short, bool and date are not summed")
                << Cells {{{"0", QVariant::fromValue<short>(3)}}, {{"0", true}}, {{"0", QDate()}}}
                << QVariant();
    }

    // Column 4 holds the cells under test, beside an int and a double column in every row; the
    // sum is taken with nothing excluded, then with column 4 (and one no row has) excluded.
    void sumRecord()
    {
        QFETCH(Cells, cells);
        QFETCH(QVariant, total);
        Rows rows;
        for (const QVariantMap &cell : cells)
            rows.append({{3, {{"0", 1}}}, {4, cell}, {5, {{"256", 0.5}}}});
        for (const QList<int> &excluded : {QList<int> {}, QList<int> {9, 4}}) {
            QMap<int, QVariantMap> expected;
            if (!cells.isEmpty())
                expected = {{3, {{"0", cells.size()}}}, {5, {{"0", 0.5 * cells.size()}}}};
            if (total.isValid() && excluded.isEmpty())
                expected.insert(4, {{"0", total}}); // only "0" is ever written
            const QMap<int, QVariantMap> sum = KrCommonUtils::getTableViewSumRecord(rows, excluded);
            QCOMPARE(sum, expected);
            for (int column : expected.keys())
                QCOMPARE(sum[column]["0"].userType(), expected[column]["0"].userType());
        }
    }

    void intersection_data()
    {
        QTest::addColumn<QList<QVariantList>>("lists");
        QTest::addColumn<QVariantList>("expected");
        QTest::newRow("no lists") << QList<QVariantList> {} << QVariantList {};
        QTest::newRow("one list") << QList<QVariantList> {{"b", "a"}} << QVariantList {"b", "a"};
        QTest::newRow("the shorter list is the base")
                << QList<QVariantList> {{"a", "b", "c"}, {"c", "a"}} << QVariantList {"c", "a"};
        QTest::newRow("ties keep the earlier")
                << QList<QVariantList> {{"b", "a"}, {"a", "b"}} << QVariantList {"b", "a"};
        QTest::newRow("the base's duplicates survive")
                << QList<QVariantList> {{"a", "a", "b", "c"}, {"a", "a", "c"}, {"c", "a", "b"}}
                << QVariantList {"a", "a", "c"};
        QTest::newRow("an empty list")
                << QList<QVariantList> {{}, {"a", "b"}, {"a"}} << QVariantList {};
        QTest::newRow("exact") << QList<QVariantList> {{"A", "é"}, {"a", "é"}}
                               << QVariantList {"é"};
        QTest::newRow("ints") << QList<QVariantList> {{1, 2, 3, -1}, {-1, 3, 5, 7, 9}}
                              << QVariantList {3, -1};
        // QVariant == equates across types: 1, 1.0 and "1" are one value
        QTest::newRow("mixed types")
                << QList<QVariantList> {{1, "2", 3.0}, {"1", 2, 4}} << QVariantList {1, "2"};
        QTest::newRow("doubles compare fuzzily")
                << QList<QVariantList> {{0.3}, {0.1 + 0.2}} << QVariantList {0.3};
    }

    void intersection()
    {
        QFETCH(QList<QVariantList>, lists);
        QFETCH(QVariantList, expected);
        QCOMPARE(KrCommonUtils::getIntersection(lists), expected);
    }

    void textLists()
    {
        // std::string lists intersect by the same rules, byte for byte
        QCOMPARE(KrCommonUtils::getIntersection(QList<QList<std::string>> {
                         {"a", "B", "c", "é"}, {"é", "b", "a"}, {"c", "a", "é", "a"}}),
                 (QList<std::string> {"é", "a"}));
        QVERIFY(KrCommonUtils::listContainsList({"IF", "IC"}, {"IH", "IC"}));
        QVERIFY(!KrCommonUtils::listContainsList({"IF", "IC"}, {"if"}));
        QVERIFY(!KrCommonUtils::listContainsList({"IF", "IC"}, {}));
        QVERIFY(!KrCommonUtils::listContainsList({}, {"IF"}));
    }

    void keyConversions()
    {
        const QMap<int, QVariant> byNumber {{-5, "minus"}, {0, 0}, {12, 1.5}};
        const QMap<QString, QVariant> byText {{"-5", "minus"}, {"0", 0}, {"12", 1.5}};
        QCOMPARE(KrCommonUtils::transformQMapToQVariantMap(byNumber), byText);
        QCOMPARE(KrCommonUtils::transformQVariantMapToQMap(byText), byNumber);
        // "x" is not a number: it becomes 0, and sorting after "0" it overwrites that key's value
        QCOMPARE(KrCommonUtils::transformQVariantMapToQMap(QVariantMap {{"x", 1}, {"0", 2}}),
                 (QMap<int, QVariant> {{0, 1}}));
        const QList<QMap<int, QVariant>> numbers {byNumber, {}, {{7, true}}};
        const QList<QMap<QString, QVariant>> texts {byText, {}, {{"7", true}}};
        QCOMPARE(KrCommonUtils::transformQMapToQVariantMap(numbers), texts);
        QCOMPARE(KrCommonUtils::transformQVariantMapToQMap(texts), numbers);
    }
};

QTEST_GUILESS_MAIN(tst_KrCommonUtilsTables)
#include "tst_krcommonutils_tables.moc"
