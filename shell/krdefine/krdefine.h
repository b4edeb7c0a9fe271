#ifndef KRDEFINE_H
#define KRDEFINE_H

#include <krdefine/krdefine_export.h>

#include <QString>

// The client's shared string constants. The library only compares against them and uses them
// as keys; every value is distinct, so a constant can never be mistaken for another one.

namespace Orvex_Values {

// Comparison of a filter condition.
namespace CompareOperator {
KRDEFINE_EXPORT extern const QString less;
KRDEFINE_EXPORT extern const QString lessOrEqual;
KRDEFINE_EXPORT extern const QString equal;
KRDEFINE_EXPORT extern const QString noEqual;
KRDEFINE_EXPORT extern const QString greater;
KRDEFINE_EXPORT extern const QString greaterOrEqual;
} // namespace CompareOperator

// How a filter condition joins the result of the conditions before it.
namespace LogicOperator {
KRDEFINE_EXPORT extern const QString andOperator;
KRDEFINE_EXPORT extern const QString orOperator;
KRDEFINE_EXPORT extern const QString notOperator;
} // namespace LogicOperator

// The kind of change made to a registered shortcut.
namespace AlterType {
KRDEFINE_EXPORT extern const QString create;
KRDEFINE_EXPORT extern const QString update;
KRDEFINE_EXPORT extern const QString remove;
} // namespace AlterType

// Record type and keys of the crash records written to the monitor log.
namespace ClientMonitor {
KRDEFINE_EXPORT extern const QString TagDump;
KRDEFINE_EXPORT extern const QString TagDmpFlag;
KRDEFINE_EXPORT extern const QString TagDmpErrorCode;
KRDEFINE_EXPORT extern const QString TagDmpDesc;
KRDEFINE_EXPORT extern const QString TagCallStack;
KRDEFINE_EXPORT extern const QString TagThreadId;
KRDEFINE_EXPORT extern const QString TagThreadName;
} // namespace ClientMonitor

} // namespace Orvex_Values

namespace Orvex_Fields {

// Keys of a filter condition record.
namespace Infomation {
KRDEFINE_EXPORT extern const QString compareOperator;
KRDEFINE_EXPORT extern const QString logicOperator;
} // namespace Infomation

namespace System {
KRDEFINE_EXPORT extern const QString filterValue;
} // namespace System

} // namespace Orvex_Fields

#endif // KRDEFINE_H
