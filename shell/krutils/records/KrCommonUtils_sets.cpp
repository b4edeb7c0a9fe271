// KrCommonUtils: intersections, list overlap and key conversions.

#include "KrCommonUtils.h"

#include <QMultiHash>
#include <QSet>

#include <algorithm>
#include <string_view>
#include <unordered_set>

namespace {

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
} // namespace

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
