#include "UAssert.h"

#include "runtime/KrLogging_p.h"

namespace {

// The messages carry a fixed place, the same in every build, so that tools reading the log
// can match them.
constexpr char assertFile[] = "shell/krutils/UAssert";
constexpr char assertFunction[] = "void __cdecl Utils::writeAssertLocation(const char *)";
constexpr int softLine = 43;
constexpr int fatalLine = 41;

bool fatalAsserts()
{
    static const bool fatal = !qEnvironmentVariableIsEmpty("QTC_FATAL_ASSERTS");
    return fatal;
}

} // namespace

void Utils::writeAssertLocation(const char *msg)
{
    if (fatalAsserts())
        QMessageLogger(assertFile, fatalLine, assertFunction, lcKrutils().categoryName())
                .fatal("SOFT ASSERT made fatal: %s", msg);
    else
        QMessageLogger(assertFile, softLine, assertFunction)
                .debug(lcKrutils(), "SOFT ASSERT: %s", msg);
}
