#ifndef KRLOGGING_P_H
#define KRLOGGING_P_H

// Internal: the one way every class of the library writes its diagnostics.
//
//     krWarning(KrMutexManager) << "mutex lock time out , please check it" << text;
//
// writes through Qt's message logger, in the "krutils" category, with the source file
// "shell/krutils/KrMutexManager", the line and the function attached; the text begins with the
// qualified name of the emitting function ("KrMutexManager::timerEvent"). Nothing after the
// macro is evaluated while the category has that level switched off, so a disabled debug line
// costs one test of a flag.

#include <krutils/krutils_export.h>

#include <QByteArray>
#include <QDebug>
#include <QLoggingCategory>

Q_DECLARE_LOGGING_CATEGORY(lcKrutils)

namespace KrLogging {
// "virtual void KrMutexManager::timerEvent(QTimerEvent*)" -> "KrMutexManager::timerEvent".
// Anonymous namespaces are written as "`anonymous-namespace'", as the client's Windows builds
// print them, so log lines read the same on every platform.
KRUTILS_EXPORT QByteArray
qualifiedFunctionName(const char *prettyFunction); // exported for the tests

// Switches the rest of a log line to QDebug's standard quoting, for values whose text should
// stand out (an empty string shows as ""):
//
//     krInfo(KrShortcutMgr) << KrLogging::quoted << obj << alterType;
struct QuoteValues
{
};
constexpr QuoteValues quoted {};
} // namespace KrLogging

inline QDebug &operator<<(QDebug &debug, KrLogging::QuoteValues)
{
    return debug.quote();
}

#define KR_LOG_IMPL(isEnabled, level, className)                                                   \
    for (bool krLogOn = lcKrutils().isEnabled(); krLogOn; krLogOn = false)                         \
    QMessageLogger("shell/krutils/" #className, __LINE__, Q_FUNC_INFO, lcKrutils().categoryName()) \
                    .level()                                                                       \
                    .noquote()                                                                     \
            << KrLogging::qualifiedFunctionName(Q_FUNC_INFO)

#define krDebug(className) KR_LOG_IMPL(isDebugEnabled, debug, className)
#define krInfo(className) KR_LOG_IMPL(isInfoEnabled, info, className)
#define krWarning(className) KR_LOG_IMPL(isWarningEnabled, warning, className)
#define krCritical(className) KR_LOG_IMPL(isCriticalEnabled, critical, className)

#endif // KRLOGGING_P_H
