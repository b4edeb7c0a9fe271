#ifndef UASSERT_H
#define UASSERT_H

#include <krutils/krutils_export.h>

#include <QtGlobal>

/// @file
/// Soft asserts: the reporting point for broken contracts and the macro that checks one.

/// The tree model, the item views and the soft-assert sink.
namespace Utils {

/// The one reporting point for broken contracts in the Utils classes: logs
/// `"SOFT ASSERT: <msg>"` at debug level and returns, so the caller can carry on with a neutral
/// result. When the environment variable QTC_FATAL_ASSERTS is set to a non-empty value at the
/// first assertion of the process, it logs `"SOFT ASSERT made fatal: <msg>"` as a fatal message
/// instead, which ends the process. The variable is read once. Callable from any thread.
KRUTILS_EXPORT void writeAssertLocation(const char *msg);

} // namespace Utils

/// Checks a contract of a Utils class: when `cond` is false, reports
///
///     "<cond>" in file <file>, line <line>
///
/// through Utils::writeAssertLocation and runs `action` (typically a return of the neutral
/// result). The file and line are given, not taken from the preprocessor, because the texts are
/// part of the log output that operators and tools read: they must not move when the source is
/// edited.
///
///     UTILS_SOFT_ASSERT(pos >= 0, "shell/krutils/TreeModel", 634, return nullptr);
#define UTILS_SOFT_ASSERT(cond, file, line, action)                                                \
    if (Q_LIKELY(cond)) {                                                                          \
    } else {                                                                                       \
        ::Utils::writeAssertLocation("\"" #cond "\" in file " file ", line " #line);               \
        action;                                                                                    \
    }                                                                                              \
    do {                                                                                           \
    } while (false)

#endif // UASSERT_H
