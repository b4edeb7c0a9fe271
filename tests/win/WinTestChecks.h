#ifndef WINTESTCHECKS_H
#define WINTESTCHECKS_H

// The checks of the Qt-free Windows test drivers: a failed check prints its line and what it
// compared, and counts; each case reports PASS or FAIL by whether it added to the count.

#include <cstdio>
#include <sstream>
#include <string>

namespace WinTest {

inline int failedChecks = 0;

inline std::string show(const std::string &text)
{
    return '"' + text + '"';
}
inline std::string show(const char *text)
{
    return text ? show(std::string(text)) : "null";
}
template<typename T> std::string show(const T &value)
{
    std::ostringstream out;
    out << value;
    return out.str();
}

inline bool check(bool ok, const char *what, int line)
{
    if (!ok) {
        ++failedChecks;
        std::printf("    check failed, line %d: %s\n", line, what);
    }
    return ok;
}

template<typename A, typename B>
bool checkEqual(const A &actual, const B &expected, const char *what, int line)
{
    if (actual == expected)
        return true;
    ++failedChecks;
    std::printf("    check failed, line %d: %s\n      actual:   %s\n      expected: %s\n", line,
                what, show(actual).c_str(), show(expected).c_str());
    return false;
}

// Prints the case's verdict: passed when no check failed since `failedBefore` was taken.
inline bool report(const char *name, int failedBefore)
{
    const bool passed = failedChecks == failedBefore;
    std::printf("%s %s\n", passed ? "PASS" : "FAIL", name);
    std::fflush(stdout);
    return passed;
}

} // namespace WinTest

#define CHECK(condition) WinTest::check((condition), #condition, __LINE__)
#define CHECK_EQ(actual, expected)                                                                 \
    WinTest::checkEqual((actual), (expected), #actual " == " #expected, __LINE__)

#endif // WINTESTCHECKS_H
