#ifndef KRCOMMONUTILS_H
#define KRCOMMONUTILS_H

#include <krutils/krutils_export.h>

class QJsonDocument;
class QPixmap;
class QWidget;

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

    // --- Parameter files ---------------------------------------------------------------------
    //
    // Plug-ins describe their parameters in JSON files, relative to the current directory (the
    // client's installation folder). The parsers return 0 when parsed, -1 when the file gives no
    // text (missing, unreadable, empty, or too large to be a parameter file) and -2 when the
    // text is not JSON; on -1 and -2 no output is touched. The lists are appended to, never
    // cleared; the maps are replaced. Missing members or members of another shape give empty
    // lists or maps; an array element that is not an object gives an empty record.

    // Reads "res/plugindata/algo/" + fileName: "InitialBasicParam", "InitialParamList",
    // "PerformParam", "ReportParam" and "LogParam" into the lists, and, crosswise,
    // "MonitorUIParam" into monitorUiParams and "CreateUIParam" into createUiParams.
    static int
    praseAlgoParamJsonFile(const QString &fileName, QList<QVariantMap> &initialBasicParams,
                           QList<QVariantMap> &initialParams, QList<QVariantMap> &performParams,
                           QList<QVariantMap> &reportParams, QList<QVariantMap> &logParams,
                           QVariantMap &monitorUiParams, QVariantMap &createUiParams);
    // Reads "res/plugindata/Indicatoration/" + fileName: "InitialBasicParam",
    // "InitialParamList", "ReportParam" and "CreateUIParam".
    static int praseIndicatorParamJsonFile(const QString &fileName,
                                           QList<QVariantMap> &initialBasicParams,
                                           QList<QVariantMap> &initialParams,
                                           QList<QVariantMap> &reportParams,
                                           QVariantMap &createUiParams);

    // doc = the JSON document of text; whether it parsed without error.
    static bool canCreateJsonDocu(QJsonDocument &doc, const QString &text);
    // The whole file as UTF-8 text; empty for an empty path, a file that cannot be opened, or a
    // file larger than MaxReadAllBytes.
    static QString readAll(const QString &path);
    // Replaces the file's content with text and "\r\n" in UTF-8; does nothing for an empty path
    // or a file that cannot be opened.
    static void writeall(const QString &path, const QString &text);

    static constexpr qint64 MaxReadAllBytes = 256 * 1024 * 1024;

    // --- Files and directories ---------------------------------------------------------------
    //
    // The deletes never leave the tree they are given: a symbolic link inside it (to a file, a
    // directory, even an ancestor) is removed as a link, never followed.

    // Deletes a directory tree (hidden entries are not listed, so a tree holding them stays),
    // then the directory and its parents as far as they are empty (QDir::rmpath). False for an
    // empty path; true for a directory that does not exist.
    static bool DelDir(const QString &path);
    // Deletes everything inside a directory, hidden entries and read-only files included; the
    // directory stays. False for a missing directory or at the first entry that cannot be
    // deleted (logged at debug level; what was deleted stays deleted).
    static bool cleanDirectory(QString path);
    // Copies a file; true without copying when target (with "\\" read as "/") equals source.
    // Replaces an existing target only with overwrite; creates no directory.
    static bool copyFileToPath(QString source, QString target, bool overwrite);
    // Whether the file can be opened for reading (false for a directory).
    static bool isFileExist(const QString &path);
    // A picture of the widget with its window frame (2 pixels left and right, 26 above, 4
    // below), or of the whole desktop for a null widget. Needs a QGuiApplication.
    static QPixmap screenShot(QWidget *widget);
    // Long tooltip text with a line feed after the character at each non-zero index that is a
    // multiple of 100 (first line 101 characters, then 100); text of up to 100 characters as is.
    static QString getMyTipString(const QString &text);
};

#endif // KRCOMMONUTILS_H
