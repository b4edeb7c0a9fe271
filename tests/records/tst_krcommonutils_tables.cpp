#include <krutils/KrCommonUtils.h>

#include <QDateTime>
#include <QRandomGenerator>
#include <QtTest>

#include <limits>

using SumCells = QList<QVariantMap>; // one column's cell records, one per row

namespace {

const QString display = QStringLiteral("0");
const QString user = QStringLiteral("256");
const QString user1 = QStringLiteral("257");
const QString user7 = QStringLiteral("263");

QT_WARNING_PUSH
QT_WARNING_DISABLE_DEPRECATED
// The multi-key sort as its rule reads: buckets in a QMap keyed by QVariant, key after key.
QList<int> plainBucketSort(const QList<QList<QVariant>> &values, const QList<bool> &descending,
                           const QList<int> &indices, int key = 0)
{
    if (key == values.size() || indices.size() < 2)
        return indices;
    QMap<QVariant, QList<int>> buckets;
    for (int index : indices)
        buckets[values.at(key).at(index)].append(index);
    QList<QList<int>> ordered;
    for (const QList<int> &bucket : qAsConst(buckets)) {
        if (descending.at(key))
            ordered.prepend(bucket);
        else
            ordered.append(bucket);
    }
    QList<int> result;
    for (const QList<int> &bucket : qAsConst(ordered))
        result += plainBucketSort(values, descending, bucket, key + 1);
    return result;
}
QT_WARNING_POP

} // namespace

class tst_KrCommonUtilsTables : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void sumRecord_data();
    void sumRecord();
    void sumRecordSkipsExcludedColumns();

    void sortCodes();
    void sortIsStableInBothOrders();
    void sortTableRowsByRolePriority_data();
    void sortTableRowsByRolePriority();
    void sortsMatchThePlainRuleOnRandomData();

    void intersection_data();
    void intersection();
    void variantIntersection_data();
    void variantIntersection();
    void listContainsList();
    void keyConversions();
};

void tst_KrCommonUtilsTables::sumRecord_data()
{
    QTest::addColumn<SumCells>("cells");
    QTest::addColumn<QVariant>("total"); // invalid: the column is absent from the sum row

    QTest::newRow("ints") << SumCells {{{display, 1}}, {{display, 2}}} << QVariant(3);
    QTest::newRow("a string is ignored")
            << SumCells {{{display, 1}}, {{display, QStringLiteral("x")}}, {{display, 2}}}
            << QVariant(3);
    QTest::newRow("256 chosen by presence")
            << SumCells {{{user, QVariant()}, {display, 5}}} << QVariant();
    QTest::newRow("0 before 257") << SumCells {{{display, 4}, {user1, 100}}} << QVariant(4);
    QTest::newRow("257 alone") << SumCells {{{user1, 7}}} << QVariant(7);
    QTest::newRow("int then double: double")
            << SumCells {{{display, 1}}, {{display, 0.5}}} << QVariant(1.5);
    // the double total goes through QVariant::toInt(), which rounds
    QTest::newRow("double 1.5 then int 2")
            << SumCells {{{display, 1.5}}, {{display, 2}}} << QVariant(4);
    QTest::newRow("double 1.4 then int 2")
            << SumCells {{{display, 1.4}}, {{display, 2}}} << QVariant(3);
    QTest::newRow("int wraps") << SumCells {{{display, std::numeric_limits<int>::max()}},
                                            {{display, 1}}}
                               << QVariant(std::numeric_limits<int>::min());
    QTest::newRow("uint") << SumCells {{{display, 1u}}, {{display, 2u}}} << QVariant(3u);
    QTest::newRow("long long") << SumCells {{{display, qlonglong(1) << 40}},
                                            {{display, qlonglong(1)}}}
                               << QVariant((qlonglong(1) << 40) + 1);
    QTest::newRow("unsigned long long")
            << SumCells {{{display, qulonglong(5)}}} << QVariant(qulonglong(5));
    QTest::newRow("float stays float")
            << SumCells {{{display, 0.25f}}, {{display, 0.5f}}} << QVariant(0.75f);
    QTest::newRow("short is not summed")
            << SumCells {{{display, QVariant::fromValue<short>(3)}}} << QVariant();
    QTest::newRow("bool and date are not")
            << SumCells {{{display, true}}, {{display, QDate(2024, 1, 1)}}} << QVariant();
    QTest::newRow("no role key") << SumCells {{{user7, 3}}} << QVariant();
}

void tst_KrCommonUtilsTables::sumRecord()
{
    QFETCH(SumCells, cells);
    QFETCH(QVariant, total);

    QList<QMap<int, QVariantMap>> rows;
    for (const QVariantMap &cell : cells)
        rows.append({{4, cell}});
    const QMap<int, QVariantMap> sum = KrCommonUtils::getTableViewSumRecord(rows, {});
    if (!total.isValid()) {
        QVERIFY(sum.isEmpty());
        return;
    }
    QCOMPARE(sum.keys(), QList<int> {4});
    QCOMPARE(sum.value(4).keys(), QStringList {display}); // only "0" is ever written
    const QVariant result = sum.value(4).value(display);
    QCOMPARE(result.userType(), total.userType());
    QCOMPARE(result, total);
}

void tst_KrCommonUtilsTables::sumRecordSkipsExcludedColumns()
{
    QList<QMap<int, QVariantMap>> rows;
    for (int r = 1; r <= 3; ++r)
        rows.append({{0, {{display, r}}},
                     {1, {{user, r * 1.5}}},
                     {2, {{display, r}}},
                     {3, {{display, QStringLiteral("n")}}}});
    rows.append({{2, {{display, 10}}}}); // a short row

    const QMap<int, QVariantMap> sum = KrCommonUtils::getTableViewSumRecord(rows, {2, 7, 2});
    QCOMPARE(sum.keys(), (QList<int> {0, 1}));
    QCOMPARE(sum.value(0).value(display), QVariant(6));
    QCOMPARE(sum.value(1).value(display), QVariant(9.0));
    QVERIFY(KrCommonUtils::getTableViewSumRecord({}, {}).isEmpty());
}

void tst_KrCommonUtilsTables::sortCodes()
{
    QList<QVariantMap> empty;
    QCOMPARE(KrCommonUtils::sortDataListByKeys(empty, {}), -1);
    QList<QMap<int, QVariantMap>> emptyRows;
    QCOMPARE(KrCommonUtils::sortTableViewRecordListByKeys(emptyRows, {}), -1);

    QList<QVariantMap> records {{{QStringLiteral("p"), 2}}, {{QStringLiteral("p"), 1}}};
    const QList<QVariantMap> before = records;
    QCOMPARE(KrCommonUtils::sortDataListByKeys(records, {}), -2);
    QCOMPARE(records, before);
    QCOMPARE(
            KrCommonUtils::sortDataListByKeys(records, {{QStringLiteral("p"), Qt::AscendingOrder}}),
            0);
    QCOMPARE(records.first().value(QStringLiteral("p")), QVariant(1));
}

void tst_KrCommonUtilsTables::sortIsStableInBothOrders()
{
    const QString symbol = QStringLiteral("symbol"), price = QStringLiteral("price"),
                  id = QStringLiteral("id");
    auto record = [&](int n, const QString &s, const QVariant &p) {
        return QVariantMap {{id, n}, {symbol, s}, {price, p}};
    };
    const QList<QVariantMap> input {
            record(1, QStringLiteral("IF"), 3.0), record(2, QStringLiteral("IC"), 2.0),
            record(3, QStringLiteral("IF"), 1.0), record(4, QStringLiteral("IC"), 2.0),
            record(5, QStringLiteral("IF"), 3.0), QVariantMap {{id, 6}},
    };
    auto ids = [&](const QList<QVariantMap> &records) {
        QList<int> result;
        for (const QVariantMap &r : records)
            result.append(r.value(id).toInt());
        return result;
    };

    QList<QVariantMap> records = input;
    KrCommonUtils::sortDataListByKeys(records, {{symbol, Qt::DescendingOrder}});
    QCOMPARE(ids(records),
             (QList<int> {1, 3, 5, 2, 4, 6})); // a missing key is invalid: sorts first, here last

    records = input;
    KrCommonUtils::sortDataListByKeys(records,
                                      {{symbol, Qt::AscendingOrder}, {price, Qt::DescendingOrder}});
    QCOMPARE(ids(records), (QList<int> {6, 2, 4, 1, 5, 3})); // equal prices keep their order
}

void tst_KrCommonUtilsTables::sortTableRowsByRolePriority_data()
{
    QTest::addColumn<QVariantMap>("first");
    QTest::addColumn<QVariantMap>("second");
    QTest::addColumn<bool>("swapped"); // ascending: does the second row come first?

    QTest::newRow("263 wins over 256 and 0")
            << QVariantMap {{user7, 2}, {user, 1}, {display, 1}}
            << QVariantMap {{user7, 1}, {user, 2}, {display, 2}} << true;
    QTest::newRow("256 before 0") << QVariantMap {{user, 2}, {display, 1}}
                                  << QVariantMap {{user, 1}, {display, 2}} << true;
    QTest::newRow("0 before 257") << QVariantMap {{display, 1}, {user1, 2}}
                                  << QVariantMap {{display, 2}, {user1, 1}} << false;
    QTest::newRow("257 last") << QVariantMap {{user1, 2}} << QVariantMap {{user1, 1}} << true;
    QTest::newRow("no role key is invalid")
            << QVariantMap {{QStringLiteral("9"), 1}} << QVariantMap {{user1, 0}} << false;
}

void tst_KrCommonUtilsTables::sortTableRowsByRolePriority()
{
    QFETCH(QVariantMap, first);
    QFETCH(QVariantMap, second);
    QFETCH(bool, swapped);
    const QMap<int, QVariantMap> a {{0, {{display, QStringLiteral("a")}}}, {5, first}};
    const QMap<int, QVariantMap> b {{0, {{display, QStringLiteral("b")}}}, {5, second}};
    QList<QMap<int, QVariantMap>> rows {a, b};
    QCOMPARE(KrCommonUtils::sortTableViewRecordListByKeys(rows, {{5, Qt::AscendingOrder}}), 0);
    QCOMPARE(rows,
             swapped ? (QList<QMap<int, QVariantMap>> {b, a})
                     : (QList<QMap<int, QVariantMap>> {a, b}));
}

// Both sorts against the rule read plainly, on random lists with invalid values, mixed types
// (whose QVariant ordering is not even consistent) and many equal keys.
void tst_KrCommonUtilsTables::sortsMatchThePlainRuleOnRandomData()
{
    QRandomGenerator random(4242);
    auto randomValue = [&]() -> QVariant {
        switch (random.bounded(6)) {
        case 0:
            return QVariant();
        case 1:
            return random.bounded(4);
        case 2:
            return random.bounded(4) * 0.5;
        case 3:
            return QString::number(random.bounded(4));
        case 4:
            return QStringList {QStringLiteral("a"), QStringLiteral("B"), QStringLiteral("b")}.at(
                    random.bounded(3));
        default:
            return QDateTime(QDate(2024, 1, 1), QTime(9, random.bounded(3)), Qt::UTC);
        }
    };
    const QStringList roles {display, user, user1, user7};
    for (int round = 0; round < 60; ++round) {
        const int n = 1 + random.bounded(300);
        const int keyCount = 1 + random.bounded(3);
        QList<QVariantMap> records;
        QList<QMap<int, QVariantMap>> rows;
        for (int i = 0; i < n; ++i) {
            QVariantMap record {{QStringLiteral("row"), i}};
            QMap<int, QVariantMap> row {{99, {{display, i}}}};
            for (int k = 0; k < keyCount; ++k) {
                if (random.bounded(8))
                    record.insert(QString::number(k), randomValue());
                QVariantMap cell;
                for (const QString &role : roles) {
                    if (random.bounded(3) == 0)
                        cell.insert(role, randomValue());
                }
                row.insert(k, cell);
            }
            records.append(record);
            rows.append(row);
        }
        QList<QPair<QString, Qt::SortOrder>> recordKeys;
        QList<QPair<int, Qt::SortOrder>> columnKeys;
        QList<QList<QVariant>> recordValues, cellValues;
        QList<bool> descending;
        for (int k = 0; k < keyCount; ++k) {
            const Qt::SortOrder order
                    = random.bounded(2) ? Qt::AscendingOrder : Qt::DescendingOrder;
            recordKeys.append({QString::number(k), order});
            columnKeys.append({k, order});
            descending.append(order == Qt::DescendingOrder);
            QList<QVariant> byRecord, byCell;
            for (int i = 0; i < n; ++i) {
                byRecord.append(records.at(i).value(QString::number(k)));
                const QVariantMap cell = rows.at(i).value(k);
                QVariant value;
                for (const QString &role : {user7, user, display, user1}) {
                    if (cell.contains(role)) {
                        value = cell.value(role);
                        break;
                    }
                }
                byCell.append(value);
            }
            recordValues.append(byRecord);
            cellValues.append(byCell);
        }
        QList<int> indices;
        for (int i = 0; i < n; ++i)
            indices.append(i);

        QList<int> expectedRecords = plainBucketSort(recordValues, descending, indices);
        QCOMPARE(KrCommonUtils::sortDataListByKeys(records, recordKeys), 0);
        QList<int> actualRecords;
        for (const QVariantMap &record : qAsConst(records))
            actualRecords.append(record.value(QStringLiteral("row")).toInt());
        QCOMPARE(actualRecords, expectedRecords);

        QList<int> expectedRows = plainBucketSort(cellValues, descending, indices);
        QCOMPARE(KrCommonUtils::sortTableViewRecordListByKeys(rows, columnKeys), 0);
        QList<int> actualRows;
        for (const auto &row : qAsConst(rows))
            actualRows.append(row.value(99).value(display).toInt());
        QCOMPARE(actualRows, expectedRows);
    }
}

using StringLists = QList<QList<std::string>>;
using Strings = QList<std::string>;
Q_DECLARE_METATYPE(std::string)

void tst_KrCommonUtilsTables::intersection_data()
{
    QTest::addColumn<StringLists>("lists");
    QTest::addColumn<Strings>("expected");
    const std::string a = "a", b = "b", c = "c";
    QTest::newRow("no lists") << StringLists {} << Strings {};
    QTest::newRow("shorter list is the base") << StringLists {{a, b, c}, {c, a}} << Strings {c, a};
    QTest::newRow("ties keep the earlier") << StringLists {{b, a}, {a, b}} << Strings {b, a};
    QTest::newRow("base duplicates survive")
            << StringLists {{a, a, b, c}, {a, a, c}, {c, a, b, b}} << Strings {a, a, c};
    QTest::newRow("an empty list empties it") << StringLists {{}, {a, b}, {a}} << Strings {};
    QTest::newRow("bytes, not text")
            << StringLists {{"A", "\xc3\xa9"}, {"a", "\xc3\xa9"}} << Strings {"\xc3\xa9"};
    QTest::newRow("one list") << StringLists {{b, a}} << Strings {b, a};
}

void tst_KrCommonUtilsTables::intersection()
{
    QFETCH(StringLists, lists);
    QFETCH(Strings, expected);
    QCOMPARE(KrCommonUtils::getIntersection(lists), expected);
}

void tst_KrCommonUtilsTables::variantIntersection_data()
{
    QTest::addColumn<QList<QVariantList>>("lists");
    QTest::addColumn<QVariantList>("expected");
    QTest::newRow("strings (hashed)")
            << QList<QVariantList> {{QStringLiteral("x"), QStringLiteral("y")},
                                    {QStringLiteral("y")}}
            << QVariantList {QStringLiteral("y")};
    QTest::newRow("ints (hashed)")
            << QList<QVariantList> {{1, 2, 3, -1}, {-1, 3, 5, 7, 9}} << QVariantList {3, -1};
    // QVariant == equates across types: 1, 1.0 and "1" are one value
    QTest::newRow("mixed types") << QList<QVariantList> {{1, QStringLiteral("2"), 3.0},
                                                         {QStringLiteral("1"), 2, 4}}
                                 << QVariantList {1, QStringLiteral("2")};
    QTest::newRow("doubles compare fuzzily")
            << QList<QVariantList> {{0.3}, {0.1 + 0.2}} << QVariantList {0.3};
}

void tst_KrCommonUtilsTables::variantIntersection()
{
    QFETCH(QList<QVariantList>, lists);
    QFETCH(QVariantList, expected);
    QCOMPARE(KrCommonUtils::getIntersection(lists), expected);
}

void tst_KrCommonUtilsTables::listContainsList()
{
    const QStringList list {QStringLiteral("IF"), QStringLiteral("IC")};
    QVERIFY(KrCommonUtils::listContainsList(list, {QStringLiteral("IH"), QStringLiteral("IC")}));
    QVERIFY(!KrCommonUtils::listContainsList(list, {QStringLiteral("if")}));
    QVERIFY(!KrCommonUtils::listContainsList(list, {}));
    QVERIFY(!KrCommonUtils::listContainsList({}, {QStringLiteral("IF")}));
}

void tst_KrCommonUtilsTables::keyConversions()
{
    const QMap<int, QVariant> byNumber {{-5, QStringLiteral("minus")}, {0, 0}, {12, 1.5}};
    const QMap<QString, QVariant> byText {{QStringLiteral("-5"), QStringLiteral("minus")},
                                          {QStringLiteral("0"), 0},
                                          {QStringLiteral("12"), 1.5}};
    QCOMPARE(KrCommonUtils::transformQMapToQVariantMap(byNumber), byText);
    QCOMPARE(KrCommonUtils::transformQVariantMapToQMap(byText), byNumber);

    // "x" is not a number: it becomes 0, and sorting after "0" it overwrites that key's value
    const QMap<int, QVariant> collided = KrCommonUtils::transformQVariantMapToQMap(
            {{QStringLiteral("x"), 1}, {QStringLiteral("0"), 2}});
    QCOMPARE(collided, (QMap<int, QVariant> {{0, 1}}));

    const QList<QMap<int, QVariant>> numbers {byNumber, {}, {{7, true}}};
    const QList<QMap<QString, QVariant>> texts = KrCommonUtils::transformQMapToQVariantMap(numbers);
    QCOMPARE(texts.size(), 3);
    QCOMPARE(texts.at(2), (QMap<QString, QVariant> {{QStringLiteral("7"), true}}));
    QCOMPARE(KrCommonUtils::transformQVariantMapToQMap(texts), numbers);
}

QTEST_GUILESS_MAIN(tst_KrCommonUtilsTables)
#include "tst_krcommonutils_tables.moc"
