#ifndef KRCOMMONUTILS_H
#define KRCOMMONUTILS_H

#include <krutils/krutils_export.h>

#include <QList>
#include <QMap>
#include <QPair>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <string>

// The record shapes that the client's table views, the record utilities and the workbook
// exchange share.

// A record of named fields. Also a cell record (one table cell's data keyed by item data role
// as decimal text: "0" Qt::DisplayRole, "256" Qt::UserRole, "257" Qt::UserRole + 1, "263"
// Qt::UserRole + 7; other keys are carried along) and a filter condition.
using KrRecord = QMap<QString, QVariant>;
// One table row: column number to cell record. Rows are walked in ascending column order.
using KrTableRecord = QMap<int, QMap<QString, QVariant>>;
// One filter condition, keyed by the krdefine constants Orvex_Fields::System::filterValue (the
// operand), Orvex_Fields::Infomation::compareOperator (an Orvex_Values::CompareOperator) and
// Orvex_Fields::Infomation::logicOperator (an Orvex_Values::LogicOperator joining this
// condition's result to the next condition of its group).
using KrFilterCondition = QMap<QString, QVariant>;
// Conditions combined left to right, without precedence.
using KrFilterGroup = QList<QMap<QString, QVariant>>;
// The filter of one column: alternative groups, any one passing is enough.
using KrFilterList = QList<QList<QMap<QString, QVariant>>>;
// Column number to that column's filter.
using KrColumnFilters = QMap<int, KrFilterList>;
// Column number to an integer handed to the single-value matcher (which does not use it).
using KrColumnTags = QMap<int, int>;

// Stateless operations on the client's table rows and records. Every operation is reentrant:
// call it from any thread, as long as the containers passed in are not changed meanwhile. None
// of them changes its arguments.
class KRUTILS_EXPORT KrCommonUtils
{
public:
    KrCommonUtils() = delete;

    // --- Filtering ---------------------------------------------------------------------------
    //
    // A condition compares the cell value v (left operand) with its filterValue f the way Qt
    // 5.15's QVariant does: greater v > f, greaterOrEqual v >= f, equal v == f, noEqual !(v == f),
    // less v < f, lessOrEqual v <= f; any other operator text makes the condition false. A group
    // folds its results left to right through each condition's logic operator: and, or, not
    // (meaning "and not"); any other text makes the next condition count for nothing. A value
    // passes a column filter when one non-empty group folds to true; an invalid value never
    // passes, and nothing passes an empty filter.

    // Whether one cell value passes one column filter; `column` is not used.
    static bool isMatchFilterList(int column, const QVariant &value,
                                  const QList<QList<QVariantMap>> &filterList);

    // Whether a row passes every column filter: a column with an empty filter is not looked at;
    // a filtered column the row lacks fails it. The cell value is the cell record's "256" entry,
    // else its "257" entry, else its "0" entry (whichever key is present first).
    static bool isRecordMatchFilterList(const QMap<int, QVariantMap> &record,
                                        const QMap<int, QList<QList<QVariantMap>>> &columnFilters,
                                        const QMap<int, int> &columnTags);

    // The rows that pass, in their input order. The filters are read once for the whole list.
    static QList<QMap<int, QVariantMap>>
    getMatchRecordListByFilterList(const QList<QMap<int, QVariantMap>> &records,
                                   const QMap<int, QList<QList<QVariantMap>>> &columnFilters,
                                   const QMap<int, int> &columnTags);

    // --- Summary row -------------------------------------------------------------------------

    // The sum row of a table: per column not in excludedColumns, the total of the cells' values
    // under "0". A cell contributes its "256" entry, else its "0" entry, else its "257" entry
    // (by key presence) when that value is an Int, UInt, LongLong, ULongLong, Double or Float;
    // other values are ignored. Each contribution is added in its own type, after converting the
    // total so far with QVariant's toInt(), toDouble(), ... (so the total takes the type of the
    // last value summed); integers wrap on overflow. Columns with nothing summed are absent.
    static QMap<int, QVariantMap>
    getTableViewSumRecord(const QList<QMap<int, QVariantMap>> &records,
                          const QList<int> &excludedColumns);

    // --- Sorting -----------------------------------------------------------------------------
    //
    // Both sorts are stable, in either order, and sort by the first key, then by the second
    // within equal first values, and so on. Values are ordered by Qt 5.15's QVariant ordering;
    // values that compare equal stay together in their input order (descending order reverses
    // the groups, never the order inside a group). They return 0, or -1 for an empty list
    // (tested first), -2 for no keys, leaving the list untouched.

    // Sorts records by named fields (a missing field reads as an invalid QVariant).
    static int sortDataListByKeys(QList<QVariantMap> &records,
                                  const QList<QPair<QString, Qt::SortOrder>> &keys);
    // Sorts table rows by columns, reading each cell's "263" entry, else "256", else "0", else
    // "257" (by key presence; an invalid QVariant when none is there).
    static int sortTableViewRecordListByKeys(QList<QMap<int, QVariantMap>> &records,
                                             const QList<QPair<int, Qt::SortOrder>> &keys);

    // --- Sets --------------------------------------------------------------------------------

    // The elements of the shortest list (the first of equal lengths) that every other list holds,
    // in that list's order, duplicates included. Strings match byte for byte, variants by
    // QVariant ==. Runs in near-linear time; only lists of variants of mixed or inexact types
    // (doubles compare fuzzily, numbers equal their text) fall back to pairwise comparisons.
    static QList<std::string> getIntersection(const QList<QList<std::string>> &lists);
    static QList<QVariant> getIntersection(const QList<QList<QVariant>> &lists);

    // Whether list holds at least one of candidates (case-sensitive); false for no candidates.
    static bool listContainsList(const QStringList &list, const QStringList &candidates);

    // --- Key conversions ---------------------------------------------------------------------

    // Integer keys to their decimal text; values unchanged.
    static QMap<QString, QVariant> transformQMapToQVariantMap(const QMap<int, QVariant> &map);
    static QList<QMap<QString, QVariant>>
    transformQMapToQVariantMap(const QList<QMap<int, QVariant>> &maps);
    // Text keys to integers (QString::toInt, 0 for a non-number; of several keys that give the
    // same integer, the one that sorts last as text wins); values unchanged.
    static QMap<int, QVariant> transformQVariantMapToQMap(const QMap<QString, QVariant> &map);
    static QList<QMap<int, QVariant>>
    transformQVariantMapToQMap(const QList<QMap<QString, QVariant>> &maps);
};

#endif // KRCOMMONUTILS_H
