#include "KrCommonUtils.h"

#include "KrVariantCompare_p.h"
#include "identity/KrIdentityFormat_p.h"
#include "identity/KrMachineIdentity_p.h"
#include "runtime/KrLogging_p.h"

#include <krdefine/krdefine.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QGuiApplication>
#include <QHostAddress>
#include <QJsonDocument>
#include <QMultiHash>
#include <QNetworkInterface>
#include <QPixmap>
#include <QScreen>
#include <QSet>
#include <QTextStream>
#include <QWidget>

#include <algorithm>
#include <array>
#include <numeric>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace {

// Cell record keys, the item data roles as decimal text.
const QString displayRoleKey = QString::number(Qt::DisplayRole); // "0"
const QString userRoleKey = QString::number(Qt::UserRole); // "256"
const QString userRole1Key = QString::number(Qt::UserRole + 1); // "257"
const QString userRole7Key = QString::number(Qt::UserRole + 7); // "263"

// Which entry of a cell record an operation reads: the first of its keys that the record holds
// (by key presence, whatever the value). The orders differ on purpose.
template<size_t N> using RolePriority = std::array<const QString *, N>;
const RolePriority<3> filterPriority {&userRoleKey, &userRole1Key, &displayRoleKey};
const RolePriority<3> sumPriority {&userRoleKey, &displayRoleKey, &userRole1Key};
const RolePriority<4> sortPriority {&userRole7Key, &userRoleKey, &displayRoleKey, &userRole1Key};

// One walk over the cell's few entries, comparing keys for equality only; null when the cell
// holds none of the keys.
template<size_t N>
const QVariant *roleValue(const QVariantMap &cell, const RolePriority<N> &priority)
{
    const QVariant *best = nullptr;
    size_t bestRank = N;
    for (auto it = cell.cbegin(); it != cell.cend() && bestRank > 0; ++it) {
        for (size_t rank = 0; rank < bestRank; ++rank) {
            if (it.key() == *priority[rank]) {
                best = &it.value();
                bestRank = rank;
                break;
            }
        }
    }
    return best;
}

// --- Filtering ---------------------------------------------------------------------------------
//
// A filter is read once into plain structures (operators as enumerators, operands as they are),
// so that matching many rows re-reads no map and compares no operator text.

enum class Comparison : quint8 {
    Greater,
    GreaterOrEqual,
    Equal,
    NoEqual,
    Less,
    LessOrEqual,
    Never
};
enum class Join : quint8 { And, Or, AndNot, Skip };

struct Condition
{
    Comparison comparison;
    Join joinNext; // how this condition's accumulated result joins the next one
    QVariant operand;
};

using Group = std::vector<Condition>;

struct ColumnFilter
{
    int column;
    std::vector<Group> groups; // non-empty groups only
    // How often this column rejected the rows it looked at, so that a long scan can look at
    // the most selective column first: the columns' tests are pure and all must pass, so the
    // order changes only the work done, never the result.
    quint32 looked = 0;
    quint32 rejected = 0;
};

// The enumerator whose operator text the condition holds under `key`, else `otherwise`.
template<typename Enum, size_t N>
Enum operatorOf(const QVariantMap &condition, const QString &key,
                const std::pair<const QString *, Enum> (&operators)[N], Enum otherwise)
{
    const QString text = condition.value(key).toString();
    for (const auto &[operatorText, value] : operators) {
        if (text == *operatorText)
            return value;
    }
    return otherwise;
}

Comparison comparisonOf(const QVariantMap &condition)
{
    using namespace Orvex_Values::CompareOperator;
    static const std::pair<const QString *, Comparison> comparisons[]
            = {{&greater, Comparison::Greater}, {&greaterOrEqual, Comparison::GreaterOrEqual},
               {&equal, Comparison::Equal},     {&noEqual, Comparison::NoEqual},
               {&less, Comparison::Less},       {&lessOrEqual, Comparison::LessOrEqual}};
    return operatorOf(condition, Orvex_Fields::Infomation::compareOperator, comparisons,
                      Comparison::Never);
}

Join joinOf(const QVariantMap &condition)
{
    using namespace Orvex_Values::LogicOperator;
    static const std::pair<const QString *, Join> joins[]
            = {{&andOperator, Join::And}, {&orOperator, Join::Or}, {&notOperator, Join::AndNot}};
    return operatorOf(condition, Orvex_Fields::Infomation::logicOperator, joins, Join::Skip);
}

std::vector<Group> compileFilterList(const QList<QList<QVariantMap>> &filterList)
{
    std::vector<Group> groups;
    groups.reserve(size_t(filterList.size()));
    for (const QList<QVariantMap> &conditions : filterList) {
        if (conditions.isEmpty())
            continue;
        Group group;
        group.reserve(size_t(conditions.size()));
        for (const QVariantMap &condition : conditions)
            group.push_back({comparisonOf(condition), joinOf(condition),
                             condition.value(Orvex_Fields::System::filterValue)});
        groups.push_back(std::move(group));
    }
    return groups;
}

bool holds(const Condition &condition, const QVariant &value)
{
    switch (condition.comparison) {
    case Comparison::Greater:
        return KrVariant::compare(value, condition.operand) > 0;
    case Comparison::GreaterOrEqual:
        return KrVariant::compare(value, condition.operand) >= 0;
    case Comparison::Equal:
        return value == condition.operand;
    case Comparison::NoEqual:
        return !(value == condition.operand);
    case Comparison::Less:
        return KrVariant::compare(value, condition.operand) < 0;
    case Comparison::LessOrEqual:
        return KrVariant::compare(value, condition.operand) <= 0;
    case Comparison::Never:
        break;
    }
    return false;
}

// Conditions are pure, so a condition whose result cannot change the fold is not evaluated.
bool groupPasses(const Group &group, const QVariant &value)
{
    bool accumulated = holds(group.front(), value);
    for (size_t i = 1; i < group.size(); ++i) {
        switch (group[i - 1].joinNext) {
        case Join::And:
            accumulated = accumulated && holds(group[i], value);
            break;
        case Join::Or:
            accumulated = accumulated || holds(group[i], value);
            break;
        case Join::AndNot:
            accumulated = accumulated && !holds(group[i], value);
            break;
        case Join::Skip:
            break;
        }
    }
    return accumulated;
}

bool valuePasses(const std::vector<Group> &groups, const QVariant &value)
{
    if (!value.isValid())
        return false;
    for (const Group &group : groups) {
        if (groupPasses(group, value))
            return true;
    }
    return false;
}

std::vector<ColumnFilter>
compileColumnFilters(const QMap<int, QList<QList<QVariantMap>>> &columnFilters)
{
    std::vector<ColumnFilter> columns;
    for (auto it = columnFilters.cbegin(); it != columnFilters.cend(); ++it) {
        if (!it->isEmpty())
            columns.push_back({it.key(), compileFilterList(*it)});
    }
    return columns;
}

bool cellPasses(const QMap<int, QVariantMap> &record, const ColumnFilter &filter)
{
    const auto cell = record.constFind(filter.column);
    if (cell == record.cend())
        return false;
    const QVariant *value = roleValue(*cell, filterPriority);
    return value && valuePasses(filter.groups, *value);
}

bool rowPasses(const QMap<int, QVariantMap> &record, std::vector<ColumnFilter> &columns)
{
    for (ColumnFilter &filter : columns) {
        ++filter.looked;
        if (!cellPasses(record, filter)) {
            ++filter.rejected;
            return false;
        }
    }
    return true;
}

void lookAtMostSelectiveFirst(std::vector<ColumnFilter> &columns)
{
    std::stable_sort(columns.begin(), columns.end(),
                     [](const ColumnFilter &a, const ColumnFilter &b) {
                         // a.rejected / a.looked > b.rejected / b.looked, without division
                         return quint64(a.rejected) * b.looked > quint64(b.rejected) * a.looked;
                     });
}

// --- Summary row -------------------------------------------------------------------------------

// Adds one value to a column's total by the rules of the summary row; false for a value that is
// not summed.
bool addToTotal(QVariant &total, const QVariant &value)
{
    switch (value.userType()) {
    case QMetaType::Int: // integers wrap: add in the unsigned type of the same width
        total = int(uint(total.toInt()) + uint(value.toInt()));
        return true;
    case QMetaType::UInt:
        total = total.toUInt() + value.toUInt();
        return true;
    case QMetaType::LongLong:
        total = qlonglong(qulonglong(total.toLongLong()) + qulonglong(value.toLongLong()));
        return true;
    case QMetaType::ULongLong:
        total = total.toULongLong() + value.toULongLong();
        return true;
    case QMetaType::Double:
        total = total.toDouble() + value.toDouble();
        return true;
    case QMetaType::Float:
        total = total.toFloat() + value.toFloat();
        return true;
    default:
        return false;
    }
}

// --- Sorting -----------------------------------------------------------------------------------
//
// Rows are put into buckets of equal value by an ordered map keyed by QVariant's ordering, one
// key at a time, the next key sorting inside each bucket. The map is a QMap, as the rule is
// written, so that even values whose QVariant ordering is not consistent (mixed types) land in
// the same buckets as the rule gives; it holds pointers to the values read once per row, and
// each bucket is a chain through one shared array, so a row costs no allocation of its own.

struct SortValue
{
    const QVariant *value;
    bool operator<(const SortValue &other) const
    {
        return KrVariant::compare(*value, *other.value) < 0;
    }
};

struct Bucket
{
    int first = -1; // -1 while the bucket is new
    int last = -1;
};

class BucketSort
{
public:
    // values[k][row]: the value of row under key k; descending[k]: that key's order.
    BucketSort(std::vector<std::vector<const QVariant *>> values, std::vector<bool> descending)
        : m_values(std::move(values)), m_descending(std::move(descending))
    {
    }

    std::vector<int> sorted(int rowCount)
    {
        std::vector<int> rows(static_cast<size_t>(rowCount));
        std::iota(rows.begin(), rows.end(), 0);
        m_next.assign(size_t(rowCount), -1);
        std::vector<int> result;
        result.reserve(size_t(rowCount));
        sortInto(rows, 0, result);
        return result;
    }

private:
    void sortInto(const std::vector<int> &rows, size_t key, std::vector<int> &out)
    {
        if (key == m_values.size() || rows.size() < 2) {
            out.insert(out.end(), rows.begin(), rows.end());
            return;
        }
        const std::vector<const QVariant *> &values = m_values[key];
        QMap<SortValue, Bucket> buckets;
        for (int row : rows) {
            // operator[] looks up, then inserts, exactly as the rule's QMap<QVariant> reading does
            Bucket &bucket = buckets[SortValue {values[size_t(row)]}];
            if (bucket.first < 0)
                bucket.first = row;
            else
                m_next[size_t(bucket.last)] = row;
            bucket.last = row;
        }
        std::vector<Bucket> ordered(buckets.cbegin(), buckets.cend());
        if (m_descending[key])
            std::reverse(ordered.begin(), ordered.end());
        std::vector<int> bucketRows;
        for (const Bucket &bucket : ordered) {
            bucketRows.clear();
            for (int row = bucket.first; row != bucket.last; row = m_next[size_t(row)])
                bucketRows.push_back(row);
            bucketRows.push_back(bucket.last);
            sortInto(bucketRows, key + 1, out);
        }
    }

    const std::vector<std::vector<const QVariant *>> m_values;
    const std::vector<bool> m_descending;
    std::vector<int> m_next; // chains the rows of a bucket in input order
};

// The shared frame of the two sorts: checks, reads each key's values once, sorts, reorders.
template<typename Record, typename Key, typename ReadValue>
int sortByKeys(QList<Record> &records, const QList<QPair<Key, Qt::SortOrder>> &keys,
               ReadValue readValue)
{
    if (records.isEmpty())
        return -1;
    if (keys.isEmpty())
        return -2;
    static const QVariant invalid;
    std::vector<std::vector<const QVariant *>> values;
    std::vector<bool> descending;
    for (const auto &key : keys) {
        std::vector<const QVariant *> column;
        column.reserve(size_t(records.size()));
        for (const Record &record : qAsConst(records)) {
            const QVariant *value = readValue(record, key.first);
            column.push_back(value ? value : &invalid);
        }
        values.push_back(std::move(column));
        descending.push_back(key.second == Qt::DescendingOrder);
    }
    const std::vector<int> order
            = BucketSort(std::move(values), std::move(descending)).sorted(records.size());
    QList<Record> sorted;
    sorted.reserve(records.size());
    for (int row : order)
        sorted.append(records.at(row));
    records = sorted;
    return 0;
}

// --- Sets --------------------------------------------------------------------------------------

// The index of the list the intersection starts from: the shortest, the first of equal lengths;
// an empty list is passed over in favour of the next one (the result is empty all the same).
template<typename List> int baseListIndex(const QList<List> &lists)
{
    int base = 0;
    for (int i = 1; i < lists.size(); ++i) {
        if (lists.at(base).isEmpty() || lists.at(i).size() < lists.at(base).size())
            base = i;
    }
    return base;
}

// Removes from result what a list lacks; `makeSet` builds a fast membership test of a list.
template<typename T, typename MakeSet>
QList<T> intersect(const QList<QList<T>> &lists, MakeSet makeSet)
{
    if (lists.isEmpty())
        return {};
    const int base = baseListIndex(lists);
    QList<T> result = lists.at(base);
    for (int i = 0; i < lists.size() && !result.isEmpty(); ++i) {
        if (i == base)
            continue;
        const auto members = makeSet(lists.at(i));
        result.erase(std::remove_if(result.begin(), result.end(),
                                    [&](const T &element) { return !members.contains(element); }),
                     result.end());
    }
    return result;
}

// Byte-exact membership of strings; the views point into the list, which outlives the test.
class StringMembers
{
public:
    explicit StringMembers(const QList<std::string> &list)
    {
        m_members.reserve(size_t(list.size()));
        for (const std::string &element : list)
            m_members.insert(element);
    }
    bool contains(const std::string &element) const { return m_members.count(element) > 0; }

private:
    std::unordered_set<std::string_view> m_members;
};

// Variant types whose QVariant == between two values of the type is plain equality of their
// content, so that a hash of the content is a faithful membership test.
bool hasExactEquality(int type)
{
    switch (type) {
    case QMetaType::Bool:
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::QString:
    case QMetaType::QByteArray:
        return true;
    default:
        return false;
    }
}

// A membership test by QVariant ==: hashed when every element everywhere has one exact type
// (checked by the caller), pairwise otherwise.
class VariantMembers
{
public:
    VariantMembers(const QList<QVariant> &list, bool hashed) : m_list(list), m_hashed(hashed)
    {
        if (!hashed)
            return;
        m_hashes.reserve(list.size());
        for (const QVariant &element : list)
            m_hashes.insert(hashOf(element), &element);
    }

    bool contains(const QVariant &element) const
    {
        if (!m_hashed)
            return m_list.contains(element);
        const uint hash = hashOf(element);
        for (auto it = m_hashes.constFind(hash); it != m_hashes.cend() && it.key() == hash; ++it) {
            if (**it == element)
                return true;
        }
        return false;
    }

private:
    static uint hashOf(const QVariant &value)
    {
        switch (value.userType()) {
        case QMetaType::QString:
            return qHash(*static_cast<const QString *>(value.constData()));
        case QMetaType::QByteArray:
            return qHash(*static_cast<const QByteArray *>(value.constData()));
        default:
            return qHash(value.toULongLong());
        }
    }

    const QList<QVariant> &m_list;
    const bool m_hashed;
    QMultiHash<uint, const QVariant *> m_hashes;
};

// --- Key conversions ---------------------------------------------------------------------------

template<typename From, typename To, typename Convert>
QList<To> convertEach(const QList<From> &maps, Convert convert)
{
    QList<To> converted;
    converted.reserve(maps.size());
    for (const From &map : maps)
        converted.append(convert(map));
    return converted;
}

// --- Parameter files ---------------------------------------------------------------------------

const QString algoParamFolder = QStringLiteral("res/plugindata/algo/");
const QString indicatorParamFolder = QStringLiteral("res/plugindata/Indicatoration/");

// The file's top-level object, or the parser's code (-1 no text, -2 not JSON) in `code`.
QVariantMap readParamFile(const QString &path, int &code)
{
    const QString text = KrCommonUtils::readAll(path);
    if (text.isEmpty()) {
        code = -1;
        return {};
    }
    QJsonDocument document;
    if (!KrCommonUtils::canCreateJsonDocu(document, text)) {
        code = -2;
        return {};
    }
    code = 0;
    return document.toVariant().toMap();
}

void appendRecords(const QVariantMap &file, const char *member, QList<QVariantMap> &records)
{
    const QVariantList elements = file.value(QLatin1String(member)).toList();
    for (const QVariant &element : elements)
        records.append(element.toMap());
}

// --- Files and directories -------------------------------------------------------------------

// Deletes a directory tree, hidden and read-only entries included; false at the first failure.
bool delDirectoryPri(const QString &path)
{
    QDir directory(path);
    if (!directory.exists())
        return false;
    const QFileInfoList entries = directory.entryInfoList(QDir::NoDotAndDotDot | QDir::AllEntries
                                                          | QDir::Hidden | QDir::System);
    for (const QFileInfo &entry : entries) {
        // a link is removed as the link: neither followed nor its target's permissions touched
        if (entry.isFile() || entry.isSymLink()) {
            if (!entry.isSymLink())
                QFile::setPermissions(entry.filePath(),
                                      QFile::ReadOther | QFile::WriteOther | QFile::ExeOther);
            if (!directory.remove(entry.fileName())) {
                krDebug(KrCommonUtils) << "rm file failed:" << entry.fileName();
                return false;
            }
        } else if (!delDirectoryPri(entry.filePath())) {
            krDebug(KrCommonUtils) << "rm dir failed:" << entry.filePath();
            return false;
        }
    }
    const QString name = directory.dirName();
    directory.cdUp();
    const bool removed = directory.rmdir(name);
    if (!removed)
        krDebug(KrCommonUtils) << "rmdir " << name << " failed!";
    return removed;
}

} // namespace

bool KrCommonUtils::isMatchFilterList(int, const QVariant &value,
                                      const QList<QList<QVariantMap>> &filterList)
{
    return value.isValid() && valuePasses(compileFilterList(filterList), value);
}

bool KrCommonUtils::isRecordMatchFilterList(
        const QMap<int, QVariantMap> &record,
        const QMap<int, QList<QList<QVariantMap>>> &columnFilters, const QMap<int, int> &)
{
    std::vector<ColumnFilter> columns = compileColumnFilters(columnFilters);
    return rowPasses(record, columns);
}

QList<QMap<int, QVariantMap>> KrCommonUtils::getMatchRecordListByFilterList(
        const QList<QMap<int, QVariantMap>> &records,
        const QMap<int, QList<QList<QVariantMap>>> &columnFilters, const QMap<int, int> &)
{
    std::vector<ColumnFilter> columns = compileColumnFilters(columnFilters);
    QList<QMap<int, QVariantMap>> matching;
    for (int row = 0; row < records.size(); ++row) {
        if (row % 1024 == 1023)
            lookAtMostSelectiveFirst(columns);
        if (rowPasses(records.at(row), columns))
            matching.append(records.at(row));
    }
    return matching;
}

QMap<int, QVariantMap>
KrCommonUtils::getTableViewSumRecord(const QList<QMap<int, QVariantMap>> &records,
                                     const QList<int> &excludedColumns)
{
    const QSet<int> excluded(excludedColumns.cbegin(), excludedColumns.cend());
    QMap<int, QVariant> totals;
    for (const QMap<int, QVariantMap> &record : records) {
        auto total = totals.begin();
        for (auto cell = record.cbegin(); cell != record.cend(); ++cell) {
            if (excluded.contains(cell.key()))
                continue;
            const QVariant *value = roleValue(*cell, sumPriority);
            if (!value)
                continue;
            // rows usually hold the same columns: the total of the previous cell's column is the
            // nearest guess for where this one's is
            if (total == totals.end() || total.key() != cell.key())
                total = totals.find(cell.key());
            if (total == totals.end()) {
                QVariant first;
                if (addToTotal(first, *value))
                    total = totals.insert(cell.key(), first);
            } else {
                addToTotal(*total, *value);
            }
        }
    }
    QMap<int, QVariantMap> sumRecord;
    for (auto it = totals.cbegin(); it != totals.cend(); ++it)
        sumRecord.insert(it.key(), {{displayRoleKey, *it}});
    return sumRecord;
}

int KrCommonUtils::sortDataListByKeys(QList<QVariantMap> &records,
                                      const QList<QPair<QString, Qt::SortOrder>> &keys)
{
    return sortByKeys(records, keys,
                      [](const QVariantMap &record, const QString &key) -> const QVariant * {
                          const auto it = record.constFind(key);
                          return it == record.cend() ? nullptr : &*it;
                      });
}

int KrCommonUtils::sortTableViewRecordListByKeys(QList<QMap<int, QVariantMap>> &records,
                                                 const QList<QPair<int, Qt::SortOrder>> &keys)
{
    return sortByKeys(records, keys,
                      [](const QMap<int, QVariantMap> &record, int column) -> const QVariant * {
                          const auto cell = record.constFind(column);
                          return cell == record.cend() ? nullptr : roleValue(*cell, sortPriority);
                      });
}

QList<std::string> KrCommonUtils::getIntersection(const QList<QList<std::string>> &lists)
{
    return intersect(lists, [](const QList<std::string> &list) { return StringMembers(list); });
}

QList<QVariant> KrCommonUtils::getIntersection(const QList<QList<QVariant>> &lists)
{
    int commonType = QMetaType::UnknownType;
    bool oneType = true;
    for (const QList<QVariant> &list : lists) {
        for (const QVariant &element : list) {
            if (commonType == QMetaType::UnknownType)
                commonType = element.userType();
            oneType = oneType && element.userType() == commonType;
        }
    }
    const bool hashed = oneType && hasExactEquality(commonType);
    return intersect(
            lists, [hashed](const QList<QVariant> &list) { return VariantMembers(list, hashed); });
}

bool KrCommonUtils::listContainsList(const QStringList &list, const QStringList &candidates)
{
    if (candidates.isEmpty())
        return false;
    const QSet<QString> members(list.cbegin(), list.cend());
    return std::any_of(candidates.cbegin(), candidates.cend(),
                       [&](const QString &candidate) { return members.contains(candidate); });
}

QMap<QString, QVariant> KrCommonUtils::transformQMapToQVariantMap(const QMap<int, QVariant> &map)
{
    QMap<QString, QVariant> converted;
    for (auto it = map.cbegin(); it != map.cend(); ++it)
        converted.insert(QString::number(it.key()), *it);
    return converted;
}

QList<QMap<QString, QVariant>>
KrCommonUtils::transformQMapToQVariantMap(const QList<QMap<int, QVariant>> &maps)
{
    return convertEach<QMap<int, QVariant>, QMap<QString, QVariant>>(
            maps, [](const QMap<int, QVariant> &map) { return transformQMapToQVariantMap(map); });
}

QMap<int, QVariant> KrCommonUtils::transformQVariantMapToQMap(const QMap<QString, QVariant> &map)
{
    QMap<int, QVariant> converted;
    for (auto it = map.cbegin(); it != map.cend(); ++it)
        converted.insert(it.key().toInt(), *it); // in text order: a later key overwrites
    return converted;
}

QList<QMap<int, QVariant>>
KrCommonUtils::transformQVariantMapToQMap(const QList<QMap<QString, QVariant>> &maps)
{
    return convertEach<QMap<QString, QVariant>, QMap<int, QVariant>>(
            maps,
            [](const QMap<QString, QVariant> &map) { return transformQVariantMapToQMap(map); });
}

int KrCommonUtils::praseAlgoParamJsonFile(const QString &fileName,
                                          QList<QVariantMap> &initialBasicParams,
                                          QList<QVariantMap> &initialParams,
                                          QList<QVariantMap> &performParams,
                                          QList<QVariantMap> &reportParams,
                                          QList<QVariantMap> &logParams,
                                          QVariantMap &monitorUiParams, QVariantMap &createUiParams)
{
    int code = 0;
    const QVariantMap file = readParamFile(algoParamFolder + fileName, code);
    if (code != 0)
        return code;
    appendRecords(file, "InitialBasicParam", initialBasicParams);
    appendRecords(file, "InitialParamList", initialParams);
    appendRecords(file, "PerformParam", performParams);
    appendRecords(file, "ReportParam", reportParams);
    appendRecords(file, "LogParam", logParams);
    createUiParams = file.value(QStringLiteral("CreateUIParam")).toMap();
    monitorUiParams = file.value(QStringLiteral("MonitorUIParam")).toMap();
    return 0;
}

int KrCommonUtils::praseIndicatorParamJsonFile(const QString &fileName,
                                               QList<QVariantMap> &initialBasicParams,
                                               QList<QVariantMap> &initialParams,
                                               QList<QVariantMap> &reportParams,
                                               QVariantMap &createUiParams)
{
    int code = 0;
    const QVariantMap file = readParamFile(indicatorParamFolder + fileName, code);
    if (code != 0)
        return code;
    appendRecords(file, "InitialBasicParam", initialBasicParams);
    appendRecords(file, "InitialParamList", initialParams);
    appendRecords(file, "ReportParam", reportParams);
    createUiParams = file.value(QStringLiteral("CreateUIParam")).toMap();
    return 0;
}

bool KrCommonUtils::canCreateJsonDocu(QJsonDocument &doc, const QString &text)
{
    QJsonParseError error;
    doc = QJsonDocument::fromJson(text.toUtf8(), &error);
    return error.error == QJsonParseError::NoError;
}

QString KrCommonUtils::readAll(const QString &path)
{
    if (path.isEmpty())
        return {};
    QFile file(path);
    // a larger file is no parameter file, and its text could exceed what a QString holds
    if (!file.open(QIODevice::ReadOnly) || file.size() > MaxReadAllBytes)
        return {};
    return QString::fromUtf8(file.read(MaxReadAllBytes));
}

void KrCommonUtils::writeall(const QString &path, const QString &text)
{
    if (path.isEmpty())
        return;
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Text))
        return;
    QTextStream stream(&file);
    stream.setCodec("utf-8");
    stream << text << "\r\n";
    stream.flush();
    file.close();
}

bool KrCommonUtils::DelDir(const QString &path)
{
    if (path.isEmpty())
        return false;
    QDir directory(path);
    if (!directory.exists())
        return true;
    const QFileInfoList entries = directory.entryInfoList(QDir::NoDotAndDotDot | QDir::AllEntries);
    for (const QFileInfo &entry : entries) {
        if (entry.isFile() || entry.isSymLink()) // a link is removed, never followed
            entry.dir().remove(entry.fileName());
        else
            DelDir(entry.absoluteFilePath());
    }
    return directory.rmpath(directory.absolutePath());
}

bool KrCommonUtils::cleanDirectory(QString path)
{
    QDir directory(path);
    if (!directory.exists())
        return false;
    const QFileInfoList entries = directory.entryInfoList(QDir::NoDotAndDotDot | QDir::AllEntries
                                                          | QDir::Hidden | QDir::System);
    for (const QFileInfo &entry : entries) {
        if (entry.isFile() || entry.isSymLink()) {
            if (!directory.remove(entry.fileName())) {
                krDebug(KrCommonUtils)
                        << "remove the file " << entry.absoluteFilePath() << " failed";
                return false;
            }
        } else if (!delDirectoryPri(entry.filePath())) {
            krDebug(KrCommonUtils) << "del the dir " << entry.filePath() << " failed";
            return false;
        }
    }
    return true;
}

bool KrCommonUtils::copyFileToPath(QString source, QString target, bool overwrite)
{
    target.replace(QLatin1Char('\\'), QLatin1Char('/'));
    if (source == target)
        return true;
    if (!QFile::exists(source))
        return false;
    if (overwrite && QFile::exists(target))
        QFile::remove(target);
    return QFile::copy(source, target);
}

bool KrCommonUtils::isFileExist(const QString &path)
{
    QFile file(path);
    // QFile opens a directory for reading on Unix; it is no file all the same
    if (QFileInfo(path).isDir() || !file.open(QIODevice::ReadOnly))
        return false;
    file.close();
    return true;
}

QPixmap KrCommonUtils::screenShot(QWidget *widget)
{
    if (!widget) {
        QScreen *screen = QGuiApplication::primaryScreen();
        return screen ? screen->grabWindow(0) : QPixmap();
    }
    QScreen *screen = widget->screen();
    if (!screen)
        return QPixmap();
    return screen->grabWindow(widget->winId(), -2, -26, widget->width() + 4, widget->height() + 30);
}

QString KrCommonUtils::getMyTipString(const QString &text)
{
    if (text.size() <= 100)
        return text;
    QString wrapped;
    wrapped.reserve(text.size() + text.size() / 100);
    for (int i = 0; i < text.size(); ++i) {
        wrapped.append(text.at(i));
        if (i != 0 && i % 100 == 0)
            wrapped.append(QLatin1Char('\n'));
    }
    return wrapped;
}

// --- Machine identity ------------------------------------------------------------------------

QString KrIdentityFormat::cpuId(quint32 eax, quint32 edx)
{
    return QString::number(edx, 16).toUpper() + QString::number(eax, 16).toUpper();
}

QString KrIdentityFormat::volumeSerial(quint32 serial)
{
    // QString::insert() past the end would pad with spaces; a short serial keeps its one dash
    // right after its digits instead.
    QString text = QString::number(serial, 16).toUpper();
    text.insert(qMin(4, text.size()), QLatin1Char('-'));
    return text;
}

QString KrIdentityFormat::decimalSerial(quint32 serial)
{
    return QString::number(serial);
}

long KrIdentityFormat::wholeGiB(quint64 bytes)
{
    return static_cast<long>(bytes >> 30);
}

QString KrIdentityFormat::fileSystemName(const QString &reported)
{
    QString name = reported;
    name.remove(QLatin1Char('"'));
    name.remove(QLatin1Char('\''));
    return name;
}

QString KrIdentityFormat::systemDiskFlag(const QString &systemDirectory)
{
    return systemDirectory.left(systemDirectory.indexOf(QLatin1Char(':')));
}

QString KrIdentityFormat::firstInterfaceMac(const QStringList &interfaceHardwareAddresses,
                                            const QStringList &hostAddresses, const QString &ip)
{
    // Each interface in turn would be asked whether ip is among the host's addresses, all of
    // them, not its own: so either the first one answers, or none does.
    if (ip.isEmpty() || interfaceHardwareAddresses.isEmpty() || !hostAddresses.contains(ip))
        return QString();
    QString mac = interfaceHardwareAddresses.first();
    mac.remove(QLatin1Char(':'));
    return mac;
}

namespace {
std::string toSystemText(const QString &text)
{
    return text.toUtf8().toStdString();
}
QString fromSystemText(const std::string &text)
{
    return QString::fromUtf8(text.data(), static_cast<int>(text.size()));
}
} // namespace

QString KrCommonUtils::getCpuID()
{
    const KrMachine::CpuSignature signature = KrMachine::cpuSignature();
    return signature.ok ? KrIdentityFormat::cpuId(signature.eax, signature.edx) : QString();
}

QString KrCommonUtils::getDiskFileSysName(QString drive)
{
    const KrMachine::VolumeInfo volume = KrMachine::driveVolume(toSystemText(drive));
    return volume.ok ? KrIdentityFormat::fileSystemName(fromSystemText(volume.fileSystemName))
                     : QString();
}

QString KrCommonUtils::getDiskSerialNumber(QString drive)
{
    return KrIdentityFormat::volumeSerial(KrMachine::driveVolume(toSystemText(drive)).serialNumber);
}

long KrCommonUtils::getDiskTotalSize(QString drive)
{
    const KrMachine::DiskSize size = KrMachine::driveSize(toSystemText(drive));
    return size.ok ? KrIdentityFormat::wholeGiB(size.totalBytes) : 0;
}

QString KrCommonUtils::getHardDiskNumer()
{
    const KrMachine::SystemDirectory directory = KrMachine::systemDirectory(512);
    if (!directory.ok)
        return QString();
    const QString root = fromSystemText(directory.path).left(3); // "C:\" ("/" on Linux)
    return KrIdentityFormat::decimalSerial(KrMachine::rootVolume(toSystemText(root)).serialNumber);
}

QString KrCommonUtils::getSystemDiskFlag()
{
    const KrMachine::SystemDirectory directory = KrMachine::systemDirectory(260);
    return directory.ok ? KrIdentityFormat::systemDiskFlag(fromSystemText(directory.path))
                        : QString();
}

QString KrCommonUtils::get_localmachine_mac(QString ip)
{
    if (ip.isEmpty())
        return QString();
    QStringList hardwareAddresses;
    for (const QNetworkInterface &networkInterface : QNetworkInterface::allInterfaces())
        hardwareAddresses << networkInterface.hardwareAddress();
    QStringList hostAddresses;
    for (const QHostAddress &address : QNetworkInterface::allAddresses())
        hostAddresses << address.toString();
    return KrIdentityFormat::firstInterfaceMac(hardwareAddresses, hostAddresses, ip);
}
