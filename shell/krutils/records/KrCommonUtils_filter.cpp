// KrCommonUtils: the record filter engine.
//
// A filter is read once per call into plain structures: operators as enumerators, and each
// operand, where its type allows, also in a prepared form (an int, a double, a date-time as
// milliseconds since the epoch, a text). A cell is read once per row, in the form that its
// column's operands can use, so that most conditions compare plain numbers or texts in place.
// The prepared comparisons give exactly what Qt 5.15's QVariant gives for their pairs of types;
// every other pair (an int cell against a text operand, a bool, a local date-time, ...) goes
// through QVariant itself.

#include "KrCommonUtils.h"

#include "KrCellRoles_p.h"
#include "KrVariantCompare_p.h"

#include <krdefine/krdefine.h>

#include <QDateTime>

#include <algorithm>
#include <climits>
#include <cmath>
#include <vector>

namespace {

const KrCellRoles::Priority<3> filterPriority {&KrCellRoles::userKey, &KrCellRoles::user1Key,
                                               &KrCellRoles::displayKey};

// --- Prepared forms ----------------------------------------------------------------------------

enum class Form : quint8 { General, Int, Double, DateTime, Text };

constexpr unsigned formBit(Form form)
{
    return 1u << unsigned(form);
}

// A value read once in the form its comparisons need; General when it has none. The text
// points into the value it was read from.
struct Prepared
{
    Form form = Form::General;
    int integer = 0;
    double real = 0; // of an Int too, for its comparisons with doubles
    qint64 msecs = 0;
    const QString *text = nullptr;
};

// Reads `value` in a prepared form, only in one of the `wanted` forms (formBit()s): a column
// whose operands are all texts never converts a date-time cell.
Prepared prepare(const QVariant &value, unsigned wanted)
{
    const unsigned numbers = formBit(Form::Int) | formBit(Form::Double);
    Prepared prepared;
    switch (value.userType()) {
    case QMetaType::Int:
        if (wanted & numbers) {
            prepared.form = Form::Int;
            prepared.integer = *static_cast<const int *>(value.constData());
            prepared.real = prepared.integer;
        }
        break;
    case QMetaType::Double:
        if (wanted & numbers) {
            prepared.form = Form::Double;
            prepared.real = *static_cast<const double *>(value.constData());
        }
        break;
    case QMetaType::QDateTime:
        if (wanted & formBit(Form::DateTime)) {
            // Only fixed offsets: two of them order exactly as their instants do. Local and
            // time-zone date-times (Qt may compare them by local time) and invalid ones have
            // orderings of their own.
            const auto &dateTime = *static_cast<const QDateTime *>(value.constData());
            const Qt::TimeSpec timeSpec = dateTime.timeSpec();
            if ((timeSpec == Qt::UTC || timeSpec == Qt::OffsetFromUTC) && dateTime.isValid()) {
                prepared.form = Form::DateTime;
                prepared.msecs = dateTime.toMSecsSinceEpoch();
            }
        }
        break;
    case QMetaType::QString:
        if (wanted & formBit(Form::Text)) {
            prepared.form = Form::Text;
            prepared.text = static_cast<const QString *>(value.constData());
        }
        break;
    default:
        break;
    }
    return prepared;
}

template<typename T> int threeWay(T left, T right)
{
    return left == right ? 0 : left < right ? -1 : 1;
}

// QVariant's order of two numbers of which one is a double: equal also when qFuzzyCompare
// finds them so, but only for finite, non-zero numbers; NaN orders after everything.
int realOrder(double left, double right)
{
    if (left == right)
        return 0;
    const auto fuzzyComparable = [](double r) {
        const int kind = std::fpclassify(r);
        return kind == FP_NORMAL || kind == FP_SUBNORMAL;
    };
    if (fuzzyComparable(left) && fuzzyComparable(right) && qFuzzyCompare(left, right))
        return 0;
    return left < right ? -1 : 1;
}

// QVariant's order of two texts: equal only when identical, otherwise their order without
// case, and "after" when they differ in case only (so either of "a" and "A" orders after the
// other, as in QVariant).
int textOrder(const QString &left, const QString &right)
{
    if (left == right)
        return 0;
    const int order = left.compare(right, Qt::CaseInsensitive);
    return order != 0 ? order : 1;
}

constexpr int unprepared = INT_MIN;

// The sign of QVariant's compare of the values behind `left` and `right`, or `unprepared` when
// their pair of forms has no prepared comparison.
int preparedOrder(const Prepared &left, const Prepared &right)
{
    if (left.form != right.form) {
        // an int and a double compare as doubles
        const unsigned pair = formBit(left.form) | formBit(right.form);
        return pair == (formBit(Form::Int) | formBit(Form::Double))
                ? realOrder(left.real, right.real)
                : unprepared;
    }
    switch (left.form) {
    case Form::Int:
        return threeWay(left.integer, right.integer);
    case Form::Double:
        return realOrder(left.real, right.real);
    case Form::DateTime:
        return threeWay(left.msecs, right.msecs);
    case Form::Text:
        return textOrder(*left.text, *right.text);
    case Form::General:
        break;
    }
    return unprepared;
}

// --- The compiled filter -----------------------------------------------------------------------

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
    const QVariant *operand; // in the caller's filter list, which outlives the call
    Prepared prepared;
};

using Group = std::vector<Condition>;

struct CompiledFilterList
{
    std::vector<Group> groups; // non-empty groups only
    unsigned operandForms = 0; // formBit()s of the prepared operands
};

struct ColumnFilter
{
    int column;
    CompiledFilterList filterList;
    // How often this column rejected the rows it looked at, so that a long scan can look at
    // the most selective column first: the columns' tests are pure and all must pass, so the
    // order changes only the work done, never the result.
    quint32 looked = 0;
    quint32 rejected = 0;
};

// The enumerator whose operator text the condition holds under `key`, else `otherwise`.
template<typename Enum, size_t N>
Enum operatorOf(const KrFilterCondition &condition, const QString &key,
                const std::pair<const QString *, Enum> (&operators)[N], Enum otherwise)
{
    const QString text = condition.value(key).toString();
    for (const auto &[operatorText, value] : operators) {
        if (text == *operatorText)
            return value;
    }
    return otherwise;
}

Comparison comparisonOf(const KrFilterCondition &condition)
{
    using namespace Orvex_Values::CompareOperator;
    static const std::pair<const QString *, Comparison> comparisons[]
            = {{&greater, Comparison::Greater}, {&greaterOrEqual, Comparison::GreaterOrEqual},
               {&equal, Comparison::Equal},     {&noEqual, Comparison::NoEqual},
               {&less, Comparison::Less},       {&lessOrEqual, Comparison::LessOrEqual}};
    return operatorOf(condition, Orvex_Fields::Infomation::compareOperator, comparisons,
                      Comparison::Never);
}

Join joinOf(const KrFilterCondition &condition)
{
    using namespace Orvex_Values::LogicOperator;
    static const std::pair<const QString *, Join> joins[]
            = {{&andOperator, Join::And}, {&orOperator, Join::Or}, {&notOperator, Join::AndNot}};
    return operatorOf(condition, Orvex_Fields::Infomation::logicOperator, joins, Join::Skip);
}

const QVariant *operandOf(const KrFilterCondition &condition)
{
    static const QVariant missing;
    const auto operand = condition.constFind(Orvex_Fields::System::filterValue);
    return operand == condition.cend() ? &missing : &*operand;
}

CompiledFilterList compileFilterList(const KrFilterList &filterList)
{
    const unsigned everyForm = ~0u;
    CompiledFilterList compiled;
    compiled.groups.reserve(size_t(filterList.size()));
    for (const KrFilterGroup &conditions : filterList) {
        if (conditions.isEmpty())
            continue;
        Group group;
        group.reserve(size_t(conditions.size()));
        for (const KrFilterCondition &condition : conditions) {
            const QVariant *operand = operandOf(condition);
            const Prepared prepared = prepare(*operand, everyForm);
            compiled.operandForms |= formBit(prepared.form);
            group.push_back({comparisonOf(condition), joinOf(condition), operand, prepared});
        }
        compiled.groups.push_back(std::move(group));
    }
    return compiled;
}

// --- Matching ----------------------------------------------------------------------------------

bool satisfies(Comparison comparison, int order)
{
    switch (comparison) {
    case Comparison::Greater:
        return order > 0;
    case Comparison::GreaterOrEqual:
        return order >= 0;
    case Comparison::Equal:
        return order == 0;
    case Comparison::NoEqual:
        return order != 0;
    case Comparison::Less:
        return order < 0;
    case Comparison::LessOrEqual:
        return order <= 0;
    case Comparison::Never:
        break;
    }
    return false;
}

// The condition as QVariant decides it, for pairs without a prepared form.
bool holdsInGeneral(const Condition &condition, const QVariant &value)
{
    switch (condition.comparison) {
    case Comparison::Equal:
        return value == *condition.operand;
    case Comparison::NoEqual:
        return !(value == *condition.operand);
    case Comparison::Never:
        return false;
    default:
        return satisfies(condition.comparison, KrVariant::compare(value, *condition.operand));
    }
}

bool holds(const Condition &condition, const Prepared &cell, const QVariant &value)
{
    const bool equality = condition.comparison == Comparison::Equal
            || condition.comparison == Comparison::NoEqual;
    // equal texts are identical texts: no need to order them
    const int order = equality && cell.form == Form::Text && condition.prepared.form == Form::Text
            ? (*cell.text == *condition.prepared.text ? 0 : 1)
            : preparedOrder(cell, condition.prepared);
    return order == unprepared ? holdsInGeneral(condition, value)
                               : satisfies(condition.comparison, order);
}

// Conditions are pure, so a condition whose result cannot change the fold is not evaluated.
bool groupPasses(const Group &group, const Prepared &cell, const QVariant &value)
{
    bool accumulated = holds(group.front(), cell, value);
    for (size_t i = 1; i < group.size(); ++i) {
        switch (group[i - 1].joinNext) {
        case Join::And:
            accumulated = accumulated && holds(group[i], cell, value);
            break;
        case Join::Or:
            accumulated = accumulated || holds(group[i], cell, value);
            break;
        case Join::AndNot:
            accumulated = accumulated && !holds(group[i], cell, value);
            break;
        case Join::Skip:
            break;
        }
    }
    return accumulated;
}

bool valuePasses(const CompiledFilterList &filterList, const QVariant &value)
{
    if (!value.isValid())
        return false;
    const Prepared cell = prepare(value, filterList.operandForms);
    for (const Group &group : filterList.groups) {
        if (groupPasses(group, cell, value))
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

// Rows are matched a block at a time, one column after the other: a column's cells are looked
// up for all the block's rows still in the running before any of them is tested, the rows'
// maps first, then the cells' maps. Each lookup is a short chain of loads through maps far
// apart in memory; back to back and independent of each other, the processor follows several
// rows' chains at once, where testing between them would leave it waiting for one row at a time.
constexpr int blockSize = 16;
// How often a long scan puts its most selective column first, in rows.
constexpr int reorderInterval = 1024;

// Keeps in `rows` (`rowCount` of them, at most blockSize) those that pass every column, in their
// order.
void keepPassingRows(const KrTableRecord **rows, int &rowCount, std::vector<ColumnFilter> &columns)
{
    const KrRecord *cells[blockSize];
    const QVariant *values[blockSize];
    for (ColumnFilter &filter : columns) {
        for (int i = 0; i < rowCount; ++i) {
            const auto cell = rows[i]->constFind(filter.column);
            cells[i] = cell == rows[i]->cend() ? nullptr : &*cell;
        }
        for (int i = 0; i < rowCount; ++i)
            values[i] = cells[i] ? KrCellRoles::roleValue(*cells[i], filterPriority) : nullptr;
        int kept = 0;
        for (int i = 0; i < rowCount; ++i) {
            if (values[i] && valuePasses(filter.filterList, *values[i]))
                rows[kept++] = rows[i];
        }
        filter.looked += quint32(rowCount);
        filter.rejected += quint32(rowCount - kept);
        rowCount = kept;
    }
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
    const KrTableRecord *rows[] {&record};
    int rowCount = 1;
    keepPassingRows(rows, rowCount, columns);
    return rowCount == 1;
}

QList<KrTableRecord>
KrCommonUtils::getMatchRecordListByFilterList(const QList<KrTableRecord> &records,
                                              const KrColumnFilters &columnFilters,
                                              const KrColumnTags &)
{
    static_assert(reorderInterval % blockSize == 0, "the columns are reordered between blocks");
    std::vector<ColumnFilter> columns = compileColumnFilters(columnFilters);
    QList<KrTableRecord> matching;
    const KrTableRecord *rows[blockSize];
    for (int first = 0; first < records.size(); first += blockSize) {
        if (first % reorderInterval == 0 && first > 0)
            lookAtMostSelectiveFirst(columns);
        int rowCount = std::min(blockSize, records.size() - first);
        for (int i = 0; i < rowCount; ++i)
            rows[i] = &records.at(first + i);
        keepPassingRows(rows, rowCount, columns);
        for (int i = 0; i < rowCount; ++i)
            matching.append(*rows[i]);
    }
    return matching;
}
