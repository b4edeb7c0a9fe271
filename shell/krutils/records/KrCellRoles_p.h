#ifndef KRCELLROLES_P_H
#define KRCELLROLES_P_H

// Internal: the keys of a cell record (the item data roles as decimal text) and the lookup of the
// entry an operation reads. The filter, the summary row and the sorts each read a cell by an
// order of keys of their own, on purpose; each keeps its order beside its code.

#include "KrCommonUtils.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace KrCellRoles {

inline const QString displayKey = QString::number(Qt::DisplayRole); // "0"
inline const QString userKey = QString::number(Qt::UserRole); // "256"
inline const QString user1Key = QString::number(Qt::UserRole + 1); // "257"
inline const QString user7Key = QString::number(Qt::UserRole + 7); // "263"

// The keys an operation reads, the one to prefer first.
template<std::size_t N> using Priority = std::array<const QString *, N>;

// Plain key equality, inline: the sums, sorts and filters ask it for every cell of long tables.
inline bool sameKey(const QString &key, const QString &roleKey)
{
    return key.size() == roleKey.size() && std::equal(key.cbegin(), key.cend(), roleKey.cbegin());
}

// The entry under the first of the keys that the cell holds (by key presence, whatever the
// value), or null when it holds none. One walk over the cell's few entries, comparing keys for
// equality only.
template<std::size_t N> const QVariant *roleValue(const KrRecord &cell, const Priority<N> &priority)
{
    const QVariant *best = nullptr;
    std::size_t bestRank = N;
    for (auto it = cell.cbegin(); it != cell.cend() && bestRank > 0; ++it) {
        for (std::size_t rank = 0; rank < bestRank; ++rank) {
            if (sameKey(it.key(), *priority[rank])) {
                best = &it.value();
                bestRank = rank;
                break;
            }
        }
    }
    return best;
}

} // namespace KrCellRoles

#endif // KRCELLROLES_P_H
