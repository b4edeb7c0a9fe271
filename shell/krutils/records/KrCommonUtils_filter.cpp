// KrCommonUtils: the record filter engine.

#include "KrCommonUtils.h"

#include "KrCellRoles_p.h"
#include "KrVariantCompare_p.h"

#include <krdefine/krdefine.h>

#include <algorithm>
#include <vector>

namespace {

const KrCellRoles::Priority<3> filterPriority {&KrCellRoles::userKey, &KrCellRoles::user1Key,
                                               &KrCellRoles::displayKey};
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
Enum operatorOf(const KrRecord &condition, const QString &key,
                const std::pair<const QString *, Enum> (&operators)[N], Enum otherwise)
{
    const QString text = condition.value(key).toString();
    for (const auto &[operatorText, value] : operators) {
        if (text == *operatorText)
            return value;
    }
    return otherwise;
}

Comparison comparisonOf(const KrRecord &condition)
{
    using namespace Orvex_Values::CompareOperator;
    static const std::pair<const QString *, Comparison> comparisons[]
            = {{&greater, Comparison::Greater}, {&greaterOrEqual, Comparison::GreaterOrEqual},
               {&equal, Comparison::Equal},     {&noEqual, Comparison::NoEqual},
               {&less, Comparison::Less},       {&lessOrEqual, Comparison::LessOrEqual}};
    return operatorOf(condition, Orvex_Fields::Infomation::compareOperator, comparisons,
                      Comparison::Never);
}

Join joinOf(const KrRecord &condition)
{
    using namespace Orvex_Values::LogicOperator;
    static const std::pair<const QString *, Join> joins[]
            = {{&andOperator, Join::And}, {&orOperator, Join::Or}, {&notOperator, Join::AndNot}};
    return operatorOf(condition, Orvex_Fields::Infomation::logicOperator, joins, Join::Skip);
}

std::vector<Group> compileFilterList(const KrFilterList &filterList)
{
    std::vector<Group> groups;
    groups.reserve(size_t(filterList.size()));
    for (const QList<KrRecord> &conditions : filterList) {
        if (conditions.isEmpty())
            continue;
        Group group;
        group.reserve(size_t(conditions.size()));
        for (const KrRecord &condition : conditions)
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

std::vector<ColumnFilter> compileColumnFilters(const KrColumnFilters &columnFilters)
{
    std::vector<ColumnFilter> columns;
    for (auto it = columnFilters.cbegin(); it != columnFilters.cend(); ++it) {
        if (!it->isEmpty())
            columns.push_back({it.key(), compileFilterList(*it)});
    }
    return columns;
}

bool cellPasses(const KrTableRecord &record, const ColumnFilter &filter)
{
    const auto cell = record.constFind(filter.column);
    if (cell == record.cend())
        return false;
    const QVariant *value = KrCellRoles::roleValue(*cell, filterPriority);
    return value && valuePasses(filter.groups, *value);
}

bool rowPasses(const KrTableRecord &record, std::vector<ColumnFilter> &columns)
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

} // namespace

bool KrCommonUtils::isMatchFilterList(int, const QVariant &value, const KrFilterList &filterList)
{
    return value.isValid() && valuePasses(compileFilterList(filterList), value);
}

bool KrCommonUtils::isRecordMatchFilterList(const KrTableRecord &record,
                                            const KrColumnFilters &columnFilters,
                                            const KrColumnTags &)
{
    std::vector<ColumnFilter> columns = compileColumnFilters(columnFilters);
    return rowPasses(record, columns);
}

QList<KrTableRecord>
KrCommonUtils::getMatchRecordListByFilterList(const QList<KrTableRecord> &records,
                                              const KrColumnFilters &columnFilters,
                                              const KrColumnTags &)
{
    std::vector<ColumnFilter> columns = compileColumnFilters(columnFilters);
    QList<KrTableRecord> matching;
    for (int row = 0; row < records.size(); ++row) {
        if (row % 1024 == 1023)
            lookAtMostSelectiveFirst(columns);
        if (rowPasses(records.at(row), columns))
            matching.append(records.at(row));
    }
    return matching;
}
