#ifndef KRDEFINE_H
#define KRDEFINE_H

#include <krdefine/krdefine_export.h>

#include <QString>

/// @file
/// The client's shared string constants. The library only compares against them and uses them
/// as keys; every value is distinct, so a constant can never be mistaken for another one.

/// Values that the client's records carry: operators, kinds of change, record types.
namespace Orvex_Values {

/// Comparison of a filter condition: the cell value (left) against the condition's operand.
namespace CompareOperator {
KRDEFINE_EXPORT extern const QString less; ///< `"<"`
KRDEFINE_EXPORT extern const QString lessOrEqual; ///< `"<="`
KRDEFINE_EXPORT extern const QString equal; ///< `"=="`
KRDEFINE_EXPORT extern const QString noEqual; ///< `"!="`
KRDEFINE_EXPORT extern const QString greater; ///< `">"`
KRDEFINE_EXPORT extern const QString greaterOrEqual; ///< `">="`
} // namespace CompareOperator

/// How a filter condition joins the result of the conditions before it.
namespace LogicOperator {
KRDEFINE_EXPORT extern const QString andOperator; ///< `"and"`: both must hold.
KRDEFINE_EXPORT extern const QString orOperator; ///< `"or"`: either may hold.
KRDEFINE_EXPORT extern const QString notOperator; ///< `"not"`, meaning "and not".
} // namespace LogicOperator

/// The kind of change made to a registered shortcut (KrShortcutMgr::AlterShortcutInfo()).
namespace AlterType {
KRDEFINE_EXPORT extern const QString create; ///< `"create"`: register a new sequence.
KRDEFINE_EXPORT extern const QString update; ///< `"update"`: new id and parameters.
KRDEFINE_EXPORT extern const QString remove; ///< `"remove"`: forget the sequence.
} // namespace AlterType

/// Record type and keys of the crash records written to the monitor log.
namespace ClientMonitor {
KRDEFINE_EXPORT extern const QString TagDump; ///< `"dump"`: the type of a crash record.
KRDEFINE_EXPORT extern const QString TagDmpFlag; ///< `"dmpFlag"`: exception flags (hex).
KRDEFINE_EXPORT extern const QString TagDmpErrorCode; ///< `"dmpErrorCode"`: exception code (hex).
KRDEFINE_EXPORT extern const QString TagDmpDesc; ///< `"dmpDesc"`: what happened, as text.
KRDEFINE_EXPORT extern const QString TagCallStack; ///< `"callStack"`: the text with the frames.
KRDEFINE_EXPORT extern const QString TagThreadId; ///< `"threadId"`: the thread's system id.
KRDEFINE_EXPORT extern const QString TagThreadName; ///< `"threadName"`: its QThread's object name.
} // namespace ClientMonitor

} // namespace Orvex_Values

/// Field names (record keys) of the client's records.
namespace Orvex_Fields {

/// Keys of a filter condition record.
namespace Infomation {
KRDEFINE_EXPORT extern const QString compareOperator; ///< `"compareOperator"`: a CompareOperator.
KRDEFINE_EXPORT extern const QString logicOperator; ///< `"logicOperator"`: a LogicOperator.
} // namespace Infomation

/// Keys of the client's system fields.
namespace System {
KRDEFINE_EXPORT extern const QString filterValue; ///< `"filterValue"`: the operand.
} // namespace System

} // namespace Orvex_Fields

#endif // KRDEFINE_H
