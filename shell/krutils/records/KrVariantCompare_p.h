#ifndef KRVARIANTCOMPARE_P_H
#define KRVARIANTCOMPARE_P_H

#include <QVariant>

// Internal: Qt 5.15's three-way QVariant compare, the one behind QVariant's relational operators
// (deprecated in 5.15, so not called directly). QVariant::compare is protected; naming it through
// a derived class yields a member pointer that may be applied to any QVariant.
namespace KrVariant {

struct Access : QVariant
{
    static constexpr int (QVariant::*compareMember)(const QVariant &) const = &Access::compare;
};

// < 0, 0 or > 0 as `left` orders before, with or after `right`.
inline int compare(const QVariant &left, const QVariant &right)
{
    return (left.*Access::compareMember)(right);
}

} // namespace KrVariant

#endif // KRVARIANTCOMPARE_P_H
