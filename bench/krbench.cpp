// Benchmarks of the supervision services against the plain Qt calls they wrap.
//
// Phase 1 runs with the monitors not started, phase 2 with both started (which cannot be undone
// within a process), then a soak run checks that the lock monitor keeps up with two threads
// locking and unlocking continuously. The closing table gives every figure as a ratio to the
// QMutexLocker pair measured in the same phase. Debug lines of the library are switched off,
// as in production.
//
//     build/default/bench/krbench [--soak-seconds=10] [Google Benchmark flags]

#include <krutils/KrFunctionGuard.h>
#include <krutils/KrFunctionGuardManager.h>
#include <krutils/KrMutexLocker.h>
#include <krutils/KrMutexManager.h>

#include "KrBenchSupport.h"

#include <benchmark/benchmark.h>

#include <QCoreApplication>
#include <QFile>
#include <QLoggingCategory>
#include <QMutex>
#include <QThread>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace {

const QString benchFile = QStringLiteral("krbench.cpp");
const QString benchFunction = QStringLiteral("lockPair");

void qMutexLockerPair(benchmark::State &state)
{
    QMutex mutex; // one per benchmark thread: the wrappers' cost, not contention, is measured
    for (auto _ : state) {
        QMutexLocker locker(&mutex);
        benchmark::DoNotOptimize(&mutex);
    }
}

void krMutexLockerPair(benchmark::State &state)
{
    QMutex mutex;
    for (auto _ : state) {
        KrMutexLocker locker(&mutex, benchFile, __LINE__, benchFunction);
        benchmark::DoNotOptimize(&mutex);
    }
}

void krFunctionGuardLifetime(benchmark::State &state)
{
    for (auto _ : state) {
        KrFunctionGuard guard(benchFile, benchFunction, false, 60);
        benchmark::DoNotOptimize(&guard);
    }
}

void registerPhase(const char *phase, bool withGuard)
{
    for (int threads : {1, 2}) {
        benchmark::RegisterBenchmark((std::string(phase) + "/QMutexLocker").c_str(),
                                     qMutexLockerPair)
                ->Threads(threads)
                ->UseRealTime();
        benchmark::RegisterBenchmark((std::string(phase) + "/KrMutexLocker").c_str(),
                                     krMutexLockerPair)
                ->Threads(threads)
                ->UseRealTime();
    }
    if (withGuard) {
        benchmark::RegisterBenchmark((std::string(phase) + "/KrFunctionGuard").c_str(),
                                     krFunctionGuardLifetime)
                ->Threads(1)
                ->UseRealTime();
    }
}

void printRatios(const RatioReporter &reporter)
{
    std::printf("\nRatios to a QMutexLocker pair in the same phase (real time per iteration):\n");
    for (const char *phase : {"monitor_off", "monitor_on"}) {
        for (const char *threads : {"threads:1", "threads:2"}) {
            const auto name = [&](const char *what) {
                return std::string(phase) + "/" + what + "/real_time/" + threads;
            };
            const auto base = reporter.nanoseconds.find(name("QMutexLocker"));
            if (base == reporter.nanoseconds.end())
                continue;
            for (const char *what : {"KrMutexLocker", "KrFunctionGuard"}) {
                const auto it = reporter.nanoseconds.find(name(what));
                if (it != reporter.nanoseconds.end())
                    std::printf("  %-11s %-9s %-15s %9.1f ns  = %6.1fx  (QMutexLocker %.1f ns)\n",
                                phase, threads, what, it->second, it->second / base->second,
                                base->second);
            }
        }
    }
}

long residentKiB()
{
    QFile statm(QStringLiteral("/proc/self/statm"));
    if (!statm.open(QIODevice::ReadOnly))
        return -1;
    const QList<QByteArray> fields = statm.readAll().split(' ');
    return fields.size() > 1 ? fields.at(1).toLong() * 4 : -1;
}

// Two threads lock and unlock their own mutex through KrMutexLocker for `seconds`; the monitor
// must keep up: flat memory during the run, no record left after it.
void soak(int seconds)
{
    KrMutexManager *monitor = KrMutexManager::getInstance();
    std::atomic<bool> stop {false};
    std::atomic<long> pairs {0};
    QMutex mutexes[2];
    std::vector<std::thread> threads;
    for (QMutex &mutex : mutexes) {
        threads.emplace_back([&] {
            long count = 0;
            while (!stop.load(std::memory_order_relaxed)) {
                KrMutexLocker locker(&mutex, benchFile, __LINE__, benchFunction);
                ++count;
            }
            pairs += count;
        });
    }

    std::printf("\nSoak: 2 threads locking and unlocking through KrMutexLocker for %d s, monitor "
                "started\n",
                seconds);
    std::printf("  second  resident KiB\n");
    long firstKiB = 0;
    long peakKiB = 0;
    for (int second = 1; second <= seconds; ++second) {
        QThread::sleep(1);
        const long kib = residentKiB();
        if (second == 1)
            firstKiB = kib;
        peakKiB = std::max(peakKiB, kib);
        std::printf("  %6d  %12ld\n", second, kib);
    }
    stop = true;
    for (std::thread &thread : threads)
        thread.join();

    // the queries record every report made before them
    const bool tablesEmpty
            = !monitor->containsMutex(&mutexes[0]) && !monitor->containsMutex(&mutexes[1]);
    std::printf(
            "  %.2f M lock/unlock pairs (%.0f ns per pair per thread); resident memory after the\n"
            "  first second %ld KiB, peak %ld KiB (growth %ld KiB); tables empty afterwards: %s\n",
            pairs.load() / 1e6, seconds * 1e9 * 2 / std::max(1L, pairs.load()), firstKiB, peakKiB,
            peakKiB - firstKiB, tablesEmpty ? "yes" : "NO");
}

} // namespace

int main(int argc, char **argv)
{
    int soakSeconds = 10;
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], "--soak-seconds=", 15) == 0)
            soakSeconds = std::atoi(argv[i] + 15);
    }
    QCoreApplication app(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("krutils.debug=false"));
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;

    registerPhase("monitor_off", false);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::ClearRegisteredBenchmarks();

    KrMutexManager::getInstance()->start();
    KrFunctionGuardManager::getInstance()->start();
    // wait until both monitors record, from their threads' start
    QMetaObject::invokeMethod(
            KrMutexManager::getInstance(), [] {}, Qt::BlockingQueuedConnection);
    QMetaObject::invokeMethod(
            KrFunctionGuardManager::getInstance(), [] {}, Qt::BlockingQueuedConnection);
    registerPhase("monitor_on", true);
    benchmark::RunSpecifiedBenchmarks(&reporter);

    printRatios(reporter);
    if (soakSeconds > 0)
        soak(soakSeconds);
    return 0;
}
