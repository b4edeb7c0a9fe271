#ifndef KRCOMMONUTILS_H
#define KRCOMMONUTILS_H

#include <krutils/krutils_export.h>

#include <QList>
#include <QMap>
#include <QString>
#include <QVariant>

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
};

#endif // KRCOMMONUTILS_H
