#ifndef KRFILTERREFERENCE_H
#define KRFILTERREFERENCE_H

// A plain reading of the filter rules, written the obvious way: every condition re-reads its
// map entries and operator texts, every condition of a group is evaluated, and comparisons go
// through QVariant's own (deprecated) relational operators. The tests check the library against
// it on random tables; the benchmarks use it as the loop a client would otherwise write.

#include <krdefine/krdefine.h>

#include <QList>
#include <QMap>
#include <QVariant>

namespace KrFilterReference {

QT_WARNING_PUSH
QT_WARNING_DISABLE_DEPRECATED
inline bool conditionHolds(const QVariant &v, const QVariantMap &condition)
{
    using namespace Orvex_Values::CompareOperator;
    const QVariant f = condition.value(Orvex_Fields::System::filterValue);
    const QString op = condition.value(Orvex_Fields::Infomation::compareOperator).toString();
    if (op == greater)
        return v > f;
    if (op == greaterOrEqual)
        return v >= f;
    if (op == equal)
        return v == f;
    if (op == noEqual)
        return !(v == f);
    if (op == less)
        return v < f;
    if (op == lessOrEqual)
        return v <= f;
    return false;
}
QT_WARNING_POP

inline bool matchFilterList(const QVariant &value, const QList<QList<QVariantMap>> &filterList)
{
    using namespace Orvex_Values::LogicOperator;
    if (!value.isValid())
        return false;
    for (const QList<QVariantMap> &group : filterList) {
        if (group.isEmpty())
            continue;
        QList<bool> results;
        for (const QVariantMap &condition : group)
            results.append(conditionHolds(value, condition));
        bool acc = results.at(0);
        for (int i = 1; i < results.size(); ++i) {
            const QString logic
                    = group.at(i - 1).value(Orvex_Fields::Infomation::logicOperator).toString();
            if (logic == andOperator)
                acc = acc && results.at(i);
            else if (logic == orOperator)
                acc = acc || results.at(i);
            else if (logic == notOperator)
                acc = acc && !results.at(i);
        }
        if (acc)
            return true;
    }
    return false;
}

inline bool matchRecord(const QMap<int, QVariantMap> &record,
                        const QMap<int, QList<QList<QVariantMap>>> &columnFilters)
{
    for (auto it = columnFilters.cbegin(); it != columnFilters.cend(); ++it) {
        if (it->isEmpty())
            continue;
        if (!record.contains(it.key()))
            return false;
        const QVariantMap cell = record.value(it.key());
        QVariant value;
        if (cell.contains(QStringLiteral("256")))
            value = cell.value(QStringLiteral("256"));
        else if (cell.contains(QStringLiteral("257")))
            value = cell.value(QStringLiteral("257"));
        else
            value = cell.value(QStringLiteral("0"));
        if (!matchFilterList(value, *it))
            return false;
    }
    return true;
}

inline QList<QMap<int, QVariantMap>>
matchRecords(const QList<QMap<int, QVariantMap>> &records,
             const QMap<int, QList<QList<QVariantMap>>> &columnFilters)
{
    QList<QMap<int, QVariantMap>> result;
    for (const QMap<int, QVariantMap> &record : records) {
        if (matchRecord(record, columnFilters))
            result.append(record);
    }
    return result;
}

} // namespace KrFilterReference

#endif // KRFILTERREFERENCE_H
