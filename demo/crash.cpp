// `krdemo crash <kind>`: ends the demo the hard way, so that a newcomer sees what the crash
// handlers leave behind.

#include "krdemo.h"

#include <krutils/KrThread.h>

#include <QCoreApplication>
#include <QDir>
#include <QThread>

#include <cstdlib>
#include <stdexcept>

namespace krdemo {

namespace {

volatile int zero = 0;
volatile int hundred = 100;
volatile int sink = 0;
// Read at run time, so that the compiler can neither fold the faults away nor warn about them.
int *volatile nowhere = nullptr;

__attribute__((noinline)) void writeThroughNull()
{
    *nowhere = 1;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winfinite-recursion" // endless on purpose
__attribute__((noinline)) int recurseForever(int depth)
{
    volatile char frame[512];
    frame[depth % sizeof frame] = 1;
    return recurseForever(depth + 1) + frame[0];
}
#pragma GCC diagnostic pop

__attribute__((noinline)) void throwUncaught()
{
    throw std::runtime_error("an exception nobody catches");
}

// The ways to crash, by the name given on the command line.
const QMap<QString, std::function<void()>> &kinds()
{
    static const QMap<QString, std::function<void()>> all = {
            {QStringLiteral("null-write"), [] { writeThroughNull(); }},
            {QStringLiteral("abort"), [] { std::abort(); }},
            {QStringLiteral("divide"), [] { sink = hundred / zero; }},
            {QStringLiteral("trap"), [] { __builtin_trap(); }},
            {QStringLiteral("stack-overflow"), [] { sink = recurseForever(0); }},
            {QStringLiteral("exception"), [] { throwUncaught(); }},
            {QStringLiteral("thread"),
             [] {
                 auto *thread = new KrThread;
                 thread->setObjectName(QStringLiteral("DemoWorker"));
                 auto *worker = new QObject;
                 worker->moveToThread(thread);
                 thread->start(QThread::InheritPriority);
                 QMetaObject::invokeMethod(
                         worker, [] { writeThroughNull(); }, Qt::QueuedConnection);
                 QThread::sleep(60);
             }},
    };
    return all;
}

} // namespace

int crashOnPurpose(const QString &kind)
{
    const auto &all = kinds();
    if (!all.contains(kind)) {
        say("usage: krdemo crash <kind>, with <kind> one of: %s\n",
            all.keys().join(QStringLiteral(", ")));
        return 2;
    }
    section("Crash interception",
            "set_process_exception_handlers() and set_thread_exception_handlers() are installed; "
            "now\n"
            "the demo crashes on purpose. The handler's log lines follow, then the process ends "
            "with\n"
            "the signal it would have ended with anyway.");
    say("    monitor log: %s\n",
        QStringLiteral("%1/log/monitorLog_%2")
                .arg(QCoreApplication::applicationDirPath())
                .arg(QCoreApplication::applicationPid()));
    say("    dump file:   %s\n",
        QDir::currentPath()
                + QStringLiteral("/trelk_dump-<yyyyMMddhhmmss>.dmp (abort, faults, exceptions)"));
    say("    crashing:    %s\n\n", kind);
    all.value(kind)();
    return 1;
}

} // namespace krdemo
