#include "krdefine.h"

// QStringLiteral keeps the constants in read-only data: no allocation, nothing to order at
// start-up.

namespace Orvex_Values {

namespace CompareOperator {
const QString less = QStringLiteral("<");
const QString lessOrEqual = QStringLiteral("<=");
const QString equal = QStringLiteral("==");
const QString noEqual = QStringLiteral("!=");
const QString greater = QStringLiteral(">");
const QString greaterOrEqual = QStringLiteral(">=");
} // namespace CompareOperator

namespace LogicOperator {
const QString andOperator = QStringLiteral("and");
const QString orOperator = QStringLiteral("or");
const QString notOperator = QStringLiteral("not");
} // namespace LogicOperator

namespace AlterType {
const QString create = QStringLiteral("create");
const QString update = QStringLiteral("update");
const QString remove = QStringLiteral("remove");
} // namespace AlterType

namespace ClientMonitor {
const QString TagDump = QStringLiteral("dump");
const QString TagDmpFlag = QStringLiteral("dmpFlag");
const QString TagDmpErrorCode = QStringLiteral("dmpErrorCode");
const QString TagDmpDesc = QStringLiteral("dmpDesc");
const QString TagCallStack = QStringLiteral("callStack");
const QString TagThreadId = QStringLiteral("threadId");
const QString TagThreadName = QStringLiteral("threadName");
} // namespace ClientMonitor

} // namespace Orvex_Values

namespace Orvex_Fields {

namespace Infomation {
const QString compareOperator = QStringLiteral("compareOperator");
const QString logicOperator = QStringLiteral("logicOperator");
} // namespace Infomation

namespace System {
const QString filterValue = QStringLiteral("filterValue");
} // namespace System

} // namespace Orvex_Fields
