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

/// @file
/// The record shapes that the client's table views, the record utilities and the workbook
/// exchange share, and the record utilities (KrCommonUtils).

/// A record of named fields. Also a cell record (one table cell's data keyed by item data role
/// as decimal text: "0" Qt::DisplayRole, "256" Qt::UserRole, "257" Qt::UserRole + 1, "263"
/// Qt::UserRole + 7; other keys are carried along) and a filter condition.
using KrRecord = QMap<QString, QVariant>;
/// One table row: column number to cell record. Rows are walked in ascending column order.
using KrTableRecord = QMap<int, KrRecord>;
/// One filter condition, keyed by the krdefine constants Orvex_Fields::System::filterValue (the
/// operand), Orvex_Fields::Infomation::compareOperator (an Orvex_Values::CompareOperator) and
/// Orvex_Fields::Infomation::logicOperator (an Orvex_Values::LogicOperator joining this
/// condition's result to the next condition of its group).
using KrFilterCondition = KrRecord;
/// Conditions combined left to right, without precedence.
using KrFilterGroup = QList<KrFilterCondition>;
/// The filter of one column: alternative groups, any one passing is enough.
using KrFilterList = QList<KrFilterGroup>;
/// Column number to that column's filter.
using KrColumnFilters = QMap<int, KrFilterList>;
/// Column number to an integer handed to the single-value matcher (which does not use it).
using KrColumnTags = QMap<int, int>;

/// Stateless operations on the client's table rows and records. Every operation is reentrant:
/// call it from any thread, as long as the containers passed in are not changed meanwhile. None
/// of them changes its arguments.
class KRUTILS_EXPORT KrCommonUtils
{
public:
    KrCommonUtils() = delete;

    /// @name Filtering
    ///
    /// A condition compares the cell value v (left operand) with its filterValue f the way Qt
    /// 5.15's QVariant does: greater v > f, greaterOrEqual v >= f, equal v == f, noEqual !(v == f),
    /// less v < f, lessOrEqual v <= f; any other operator text makes the condition false. A group
    /// folds its results left to right through each condition's logic operator: and, or, not
    /// (meaning "and not"); any other text makes the next condition count for nothing. A value
    /// passes a column filter when one non-empty group folds to true; an invalid value never
    /// passes, and nothing passes an empty filter.
    ///@{

    /// Whether one cell value passes one column filter; `column` is not used.
    static bool isMatchFilterList(int column, const QVariant &value,
                                  const KrFilterList &filterList);

    /// Whether a row passes every column filter: a column with an empty filter is not looked at;
    /// a filtered column the row lacks fails it. The cell value is the cell record's "256" entry,
    /// else its "257" entry, else its "0" entry (whichever key is present first).
    static bool isRecordMatchFilterList(const KrTableRecord &record,
                                        const KrColumnFilters &columnFilters,
                                        const KrColumnTags &columnTags);

    /// The rows that pass, in their input order. The filters are read once for the whole list.
    static QList<KrTableRecord> getMatchRecordListByFilterList(const QList<KrTableRecord> &records,
                                                               const KrColumnFilters &columnFilters,
                                                               const KrColumnTags &columnTags);
    ///@}

    /// @name Summary row
    ///@{

    /// The sum row of a table: per column not in excludedColumns, the total of the cells' values
    /// under "0". A cell contributes its "256" entry, else its "0" entry, else its "257" entry
    /// (by key presence) when that value is an Int, UInt, LongLong, ULongLong, Double or Float;
    /// other values are ignored. Each contribution is added in its own type, after converting the
    /// total so far with QVariant's toInt(), toDouble(), ... (so the total takes the type of the
    /// last value summed); integers wrap on overflow. Columns with nothing summed are absent.
    static KrTableRecord getTableViewSumRecord(const QList<KrTableRecord> &records,
                                               const QList<int> &excludedColumns);
    ///@}

    /// @name Sorting
    ///
    /// Both sorts are stable, in either order, and sort by the first key, then by the second
    /// within equal first values, and so on. Values are ordered by Qt 5.15's QVariant ordering;
    /// values that compare equal stay together in their input order (descending order reverses
    /// the groups, never the order inside a group). They return 0, or -1 for an empty list
    /// (tested first), -2 for no keys, leaving the list untouched.
    ///@{

    /// Sorts records by named fields (a missing field reads as an invalid QVariant).
    static int sortDataListByKeys(QList<KrRecord> &records,
                                  const QList<QPair<QString, Qt::SortOrder>> &keys);
    /// Sorts table rows by columns, reading each cell's "263" entry, else "256", else "0", else
    /// "257" (by key presence; an invalid QVariant when none is there).
    static int sortTableViewRecordListByKeys(QList<KrTableRecord> &records,
                                             const QList<QPair<int, Qt::SortOrder>> &keys);
    ///@}

    /// @name Sets
    ///@{

    /// The elements of the shortest list (the first of equal lengths) that every other list holds,
    /// in that list's order, duplicates included. Strings match byte for byte, variants by
    /// QVariant ==. Runs in near-linear time; only lists of variants of mixed or inexact types
    /// (doubles compare fuzzily, numbers equal their text) fall back to pairwise comparisons.
    static QList<std::string> getIntersection(const QList<QList<std::string>> &lists);
    /// @overload
    static QList<QVariant> getIntersection(const QList<QList<QVariant>> &lists);

    /// Whether list holds at least one of candidates (case-sensitive); false for no candidates.
    static bool listContainsList(const QStringList &list, const QStringList &candidates);
    ///@}

    /// @name Key conversions
    ///@{

    /// Integer keys to their decimal text; values unchanged.
    static QMap<QString, QVariant> transformQMapToQVariantMap(const QMap<int, QVariant> &map);
    /// @overload
    /// Converts each map of the list.
    static QList<QMap<QString, QVariant>>
    transformQMapToQVariantMap(const QList<QMap<int, QVariant>> &maps);
    /// Text keys to integers (QString::toInt, 0 for a non-number; of several keys that give the
    /// same integer, the one that sorts last as text wins); values unchanged.
    static QMap<int, QVariant> transformQVariantMapToQMap(const QMap<QString, QVariant> &map);
    /// @overload
    /// Converts each map of the list.
    static QList<QMap<int, QVariant>>
    transformQVariantMapToQMap(const QList<QMap<QString, QVariant>> &maps);
    ///@}

    /// @name Parameter files
    ///
    /// Plug-ins describe their parameters in JSON files, relative to the current directory (the
    /// client's installation folder). The parsers return 0 when parsed, -1 when the file gives no
    /// text (missing, unreadable, empty, or too large to be a parameter file) and -2 when the
    /// text is not JSON; on -1 and -2 no output is touched. The lists are appended to, never
    /// cleared; the maps are replaced. Missing members or members of another shape give empty
    /// lists or maps; an array element that is not an object gives an empty record.
    ///@{

    /// Reads "res/plugindata/algo/" + fileName: "InitialBasicParam", "InitialParamList",
    /// "PerformParam", "ReportParam" and "LogParam" into the lists, and, crosswise,
    /// "MonitorUIParam" into monitorUiParams and "CreateUIParam" into createUiParams.
    static int praseAlgoParamJsonFile(const QString &fileName, QList<KrRecord> &initialBasicParams,
                                      QList<KrRecord> &initialParams,
                                      QList<KrRecord> &performParams, QList<KrRecord> &reportParams,
                                      QList<KrRecord> &logParams, KrRecord &monitorUiParams,
                                      KrRecord &createUiParams);
    /// Reads "res/plugindata/Indicatoration/" + fileName: "InitialBasicParam",
    /// "InitialParamList", "ReportParam" and "CreateUIParam".
    static int praseIndicatorParamJsonFile(const QString &fileName,
                                           QList<KrRecord> &initialBasicParams,
                                           QList<KrRecord> &initialParams,
                                           QList<KrRecord> &reportParams, KrRecord &createUiParams);

    /// doc = the JSON document of text; whether it parsed without error.
    static bool canCreateJsonDocu(QJsonDocument &doc, const QString &text);
    /// The whole file as UTF-8 text; empty for an empty path, a file that cannot be opened, or a
    /// file larger than MaxReadAllBytes.
    static QString readAll(const QString &path);
    /// Replaces the file's content with text and `"\r\n"` in UTF-8; does nothing for an empty path
    /// or a file that cannot be opened.
    static void writeall(const QString &path, const QString &text);

    /// The largest file that readAll() reads: 256 MiB.
    static constexpr qint64 MaxReadAllBytes = 256 * 1024 * 1024;
    ///@}

    /// @name Files and directories
    ///
    /// The deletes never leave the tree they are given: a symbolic link inside it (to a file, a
    /// directory, even an ancestor) is removed as a link, never followed.
    ///@{

    /// Deletes a directory tree (hidden entries are not listed, so a tree holding them stays),
    /// then the directory and its parents as far as they are empty (QDir::rmpath). False for an
    /// empty path; true for a directory that does not exist.
    static bool DelDir(const QString &path);
    /// Deletes everything inside a directory, hidden entries and read-only files included; the
    /// directory stays. False for a missing directory or at the first entry that cannot be
    /// deleted (logged at debug level; what was deleted stays deleted).
    static bool cleanDirectory(QString path);
    /// Copies a file; true without copying when target (with "\\" read as "/") equals source.
    /// Replaces an existing target only with overwrite; creates no directory.
    static bool copyFileToPath(QString source, QString target, bool overwrite);
    /// Whether the file can be opened for reading (false for a directory).
    static bool isFileExist(const QString &path);
    /// A picture of the widget with its window frame (2 pixels left and right, 26 above, 4
    /// below), or of the whole desktop for a null widget. Needs a QGuiApplication.
    static QPixmap screenShot(QWidget *widget);
    /// Long tooltip text with a line feed after the character at each non-zero index that is a
    /// multiple of 100 (first line 101 characters, then 100); text of up to 100 characters as is.
    static QString getMyTipString(const QString &text);
    ///@}

    /// @name Machine identity
    ///
    /// Facts of the local machine that the client reports as its terminal information. Every
    /// call asks the system afresh.
    ///
    /// On Windows a drive argument is a drive letter ("C"), to which ":" is appended ("C:", no
    /// backslash). Linux has no drive letters, volume serial numbers or system directory, and the
    /// operations map as follows:
    /// - a drive argument is a path, used as it is (nothing appended): a mount point or any path
    ///   on the volume, a relative one from the working directory, symbolic links followed;
    /// - the file-system name is the type that the mount table (/proc/self/mountinfo) gives for
    ///   the mount that holds the path, the one with the longest mount point on its way ("ext4",
    ///   "tmpfs", "overlay", "fuse.sshfs");
    /// - the serial number is the first of the two 32-bit words of statfs's f_fsid, the low half
    ///   of the kernel's id of the file system: on ext4 and xfs derived from the UUID written at
    ///   format time (the nearest thing to a Windows volume serial), elsewhere mostly from the
    ///   device number, which that word holds whole. `stat -f -c %i <path>` shows it as the high
    ///   half of its hexadecimal number (the digits before the last eight);
    /// - the total size is statvfs's f_blocks * f_frsize;
    /// - the system directory is "/", so getSystemDiskFlag() returns "/" and getHardDiskNumer()
    ///   the root file system's serial number in decimal.
    ///@{

    /// CPUID leaf 1 (EAX = 1, ECX = 0): EDX, then EAX, each as upper-case hexadecimal without
    /// leading zeros, nothing between ("178BFBFF" + "A20F12"). Empty on a processor without CPUID
    /// (not x86).
    static QString getCpuID();
    /// The file-system name of the drive's volume ("NTFS", "ext4") without any double quote or
    /// apostrophe; empty when the volume cannot be queried.
    static QString getDiskFileSysName(QString drive);
    /// The drive's volume serial number as upper-case hexadecimal without zero padding, with "-"
    /// after the fourth digit: 0x1A2B3C4D gives "1A2B-3C4D", 0xA2B3C4D "A2B3-C4D", 0x1234
    /// "1234-". A serial of fewer than four digits has the dash after its last one (0x12 gives
    /// "12-"). The query's success is not looked at: a volume that cannot be queried reads as
    /// serial 0, "0-".
    static QString getDiskSerialNumber(QString drive);
    /// The drive's total size in whole GiB (bytes >> 30, rounded down: 500,000,000,000 bytes give
    /// 465); 0 when the volume cannot be queried.
    static long getDiskTotalSize(QString drive);
    /// The serial number, in decimal, of the volume whose root is the first three characters of
    /// the system directory ("C:\"); empty when the system directory cannot be read, "0" when
    /// that volume cannot be queried.
    static QString getHardDiskNumer();
    /// The system directory up to its first ":" ("C"), the whole directory when it has none ("/"
    /// on Linux); empty when the system directory cannot be read.
    static QString getSystemDiskFlag();
    /// The hardware address, without colons ("AABBCCDDEEFF"), of the first interface that
    /// QNetworkInterface::allInterfaces() lists, when ip (compared as text, case-sensitive, with
    /// QHostAddress::toString()) is one of the host's addresses
    /// (QNetworkInterface::allAddresses()); empty otherwise, and for an empty ip. Deliberately the
    /// first interface, whichever holds ip: a machine reports one address whichever of its own
    /// addresses the caller knows.
    static QString get_localmachine_mac(QString ip);
    ///@}
};

#endif // KRCOMMONUTILS_H
