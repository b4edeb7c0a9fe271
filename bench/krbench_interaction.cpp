// Benchmarks of the interaction services: KrTokenBucket::consumeTokens from one and from two
// threads against an uncontended QMutex lock/unlock pair, and the rate of CKrUUID::GetUuid.
//
// The bucket lives on a thread of its own with a running event loop, as in the client; it is
// drained at once, so the takers measure the common case of a bucket whose refill timer is
// already running. The closing table gives each figure as a ratio to the mutex pair.
//
//     build/default/bench/krbench_interaction [Google Benchmark flags]

#include "KrBenchSupport.h"

#include <krutils/CKrUUID.h>
#include <krutils/KrThread.h>
#include <krutils/KrTokenBucket.h>

#include <benchmark/benchmark.h>

#include <QCoreApplication>
#include <QLoggingCategory>
#include <QMutex>
#include <QThread>

#include <cstdio>

namespace {

KrTokenBucket *bucket = nullptr;

void qMutexPair(benchmark::State &state)
{
    QMutex mutex; // one per benchmark thread: uncontended
    for (auto _ : state) {
        mutex.lock();
        benchmark::DoNotOptimize(&mutex);
        mutex.unlock();
    }
}

void consumeTokens(benchmark::State &state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(bucket->consumeTokens(1));
}

void getUuid(benchmark::State &state)
{
    CKrUUID *generator = CKrUUID::GetInstance();
    for (auto _ : state)
        benchmark::DoNotOptimize(generator->GetUuid());
    state.SetItemsProcessed(state.iterations());
}

void printRatios(const RatioReporter &reporter)
{
    std::printf("\nRatios to an uncontended QMutex lock/unlock pair (real time per call and "
                "thread):\n");
    for (const char *threads : {"threads:1", "threads:2"}) {
        const auto time = [&](const char *what) {
            const auto it = reporter.nanoseconds.find(std::string(what) + "/real_time/" + threads);
            return it == reporter.nanoseconds.end() ? 0.0 : it->second;
        };
        const double base = time("QMutex_pair");
        const double take = time("KrTokenBucket_consumeTokens");
        if (base > 0 && take > 0)
            std::printf("  %-9s consumeTokens %7.1f ns = %5.2fx  (QMutex pair %.1f ns)\n", threads,
                        take, take / base, base);
    }
    const auto uuid = reporter.nanoseconds.find("CKrUUID_GetUuid/real_time/threads:1");
    if (uuid != reporter.nanoseconds.end())
        std::printf("  GetUuid: %.0f ns per id = %.2f M ids per second on one thread\n",
                    uuid->second, 1e3 / uuid->second);
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("krutils.debug=false"));
    benchmark::Initialize(&argc, argv);

    auto *thread = new KrThread;
    thread->setObjectName(QStringLiteral("TokenBucketThread"));
    bucket = new KrTokenBucket(100, 50);
    bucket->moveToThread(thread);
    thread->start();

    for (int threads : {1, 2}) {
        benchmark::RegisterBenchmark("QMutex_pair", qMutexPair)->Threads(threads)->UseRealTime();
        benchmark::RegisterBenchmark("KrTokenBucket_consumeTokens", consumeTokens)
                ->Threads(threads)
                ->UseRealTime();
    }
    benchmark::RegisterBenchmark("CKrUUID_GetUuid", getUuid)->Threads(1)->UseRealTime();

    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    printRatios(reporter);

    QMetaObject::invokeMethod(
            bucket, [] { delete bucket; }, Qt::BlockingQueuedConnection);
    thread->quit();
    thread->wait();
    return 0;
}
