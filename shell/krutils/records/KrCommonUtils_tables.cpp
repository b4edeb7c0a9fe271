// KrCommonUtils: the summary row and the multi-key sorts.

#include "KrCommonUtils.h"

#include "KrCellRoles_p.h"
#include "KrVariantCompare_p.h"

#include <QSet>

#include <algorithm>
#include <numeric>
#include <vector>

namespace {

using KrCellRoles::displayKey;
using KrCellRoles::user1Key;
using KrCellRoles::user7Key;
using KrCellRoles::userKey;

const KrCellRoles::Priority<3> sumPriority {&userKey, &displayKey, &user1Key};
const KrCellRoles::Priority<4> sortPriority {&user7Key, &userKey, &displayKey, &user1Key};

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

} // namespace

KrTableRecord KrCommonUtils::getTableViewSumRecord(const QList<KrTableRecord> &records,
                                                   const QList<int> &excludedColumns)
{
    const QSet<int> excluded(excludedColumns.cbegin(), excludedColumns.cend());
    QMap<int, QVariant> totals;
    for (const KrTableRecord &record : records) {
        auto total = totals.begin();
        for (auto cell = record.cbegin(); cell != record.cend(); ++cell) {
            if (excluded.contains(cell.key()))
                continue;
            const QVariant *value = KrCellRoles::roleValue(*cell, sumPriority);
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
    KrTableRecord sumRecord;
    for (auto it = totals.cbegin(); it != totals.cend(); ++it)
        sumRecord.insert(it.key(), {{displayKey, *it}});
    return sumRecord;
}

int KrCommonUtils::sortDataListByKeys(QList<KrRecord> &records,
                                      const QList<QPair<QString, Qt::SortOrder>> &keys)
{
    return sortByKeys(records, keys,
                      [](const KrRecord &record, const QString &key) -> const QVariant * {
                          const auto it = record.constFind(key);
                          return it == record.cend() ? nullptr : &*it;
                      });
}

int KrCommonUtils::sortTableViewRecordListByKeys(QList<KrTableRecord> &records,
                                                 const QList<QPair<int, Qt::SortOrder>> &keys)
{
    return sortByKeys(
            records, keys, [](const KrTableRecord &record, int column) -> const QVariant * {
                const auto cell = record.constFind(column);
                return cell == record.cend() ? nullptr
                                             : KrCellRoles::roleValue(*cell, sortPriority);
            });
}
