#ifndef WINTESTCHECKS_H
#define WINTESTCHECKS_H

// The checks of the Qt-free Windows test drivers: a failed check prints its line and what it
// compared, and counts; each case reports PASS or FAIL by whether it added to the count.

#include <cstdio>
#include <sstream>
#include <string>

namespace WinTest {

inline int failedChecks = 0;

template<typename T> std::string show(const T &value)
{
    std::ostringstream out;
    out << value;
    return out.str();
}

inline bool check(bool ok, const char *what, int line, const std::string &compared = {})
{
    if (!ok)
        std::printf("    check failed, line %d: %s\n%s", line, what, compared.c_str());
    failedChecks += !ok;
    return ok;
}

template<typename A, typename B>
bool checkEqual(const A &actual, const B &expected, const char *what, int line)
{
    return check(actual == expected, what, line,
                 "      actual:   " + show(actual) + "\n      expected: " + show(expected) + "\n");
}

// Runs a case and prints its verdict: passed when no check failed in it.
template<typename Case> void runCase(const char *name, Case run)
{
    const int failedBefore = failedChecks;
    run();
    std::printf("%s %s\n", failedChecks == failedBefore ? "PASS" : "FAIL", name);
    std::fflush(stdout);
}

} // namespace WinTest

#define CHECK(condition) WinTest::check((condition), #condition, __LINE__)
#define CHECK_EQ(actual, expected)                                                                 \
    WinTest::checkEqual((actual), (expected), #actual " == " #expected, __LINE__)

#endif // WINTESTCHECKS_H
