// Costs of the runtime primitives that sit on the library's hot paths: posting a file-change
// notification, handing work to the main thread, queueing operations, and log calls whose level
// is disabled.

#include <benchmark/benchmark.h>

#include <atomic>
#include <thread>

#include "qn/Dictionary.h"
#include "qn/Logger.h"
#include "qn/MainQueue.h"
#include "qn/NotificationCenter.h"
#include "qn/OperationQueue.h"

namespace {

struct Sender : qn::Object {};

void BM_PostToObservers(benchmark::State& state) {
    qn::NotificationCenter center;
    int owner = 0;
    std::int64_t seen = 0;
    // A realistic centre: most observers listen for other names.
    for (int i = 0; i < state.range(0); ++i) {
        center.addObserver(&owner, "Other" + std::to_string(i), nullptr,
                           [&](const qn::Notification&) { ++seen; });
    }
    center.addObserver(&owner, "QNiCloudFileDidChangeNotification", nullptr,
                       [&](const qn::Notification& n) { seen += *n.userInfo.int64ForKey("type"); });
    const qn::Dictionary userInfo{{"QNiCloudSourcePathKey", qn::Value("/Documents/a.txt")},
                                  {"type", qn::Value(3)}};
    for (auto _ : state) {
        center.post(qn::Notification{"QNiCloudFileDidChangeNotification", nullptr, userInfo});
    }
    benchmark::DoNotOptimize(seen);
}
BENCHMARK(BM_PostToObservers)->Arg(4)->Arg(32);

void BM_MainQueueAsyncAndDrain(benchmark::State& state) {
    int ran = 0;
    for (auto _ : state) {
        for (int i = 0; i < 64; ++i) {
            qn::MainQueue::async([&ran] { ++ran; });
        }
        qn::MainQueue::drain();
    }
    state.SetItemsProcessed(state.iterations() * 64);
    benchmark::DoNotOptimize(ran);
}
BENCHMARK(BM_MainQueueAsyncAndDrain);

void BM_MainQueueSyncFromWorker(benchmark::State& state) {
    std::atomic<bool> done{false};
    std::int64_t calls = 0;
    // The benchmark thread is the main thread; a worker makes the sync calls while it pumps.
    std::thread worker([&] {
        for (int i = 0; i < 2000; ++i) {
            qn::MainQueue::sync([&] { ++calls; });
        }
        done = true;
    });
    for (auto _ : state) {
        qn::MainQueue::runUntil([&] { return done.load(); }, std::chrono::seconds(30));
    }
    worker.join();
    state.SetItemsProcessed(calls);
}
BENCHMARK(BM_MainQueueSyncFromWorker)->Iterations(1)->UseRealTime();

void BM_SerialOperationQueue(benchmark::State& state) {
    auto queue = qn::OperationQueue::create("bench", 1);
    std::atomic<int> ran{0};
    for (auto _ : state) {
        for (int i = 0; i < 256; ++i) {
            queue->addOperationWithBlock([&ran] { ran.fetch_add(1, std::memory_order_relaxed); });
        }
        queue->waitUntilAllOperationsAreFinished();
    }
    state.SetItemsProcessed(state.iterations() * 256);
}
BENCHMARK(BM_SerialOperationQueue)->UseRealTime();

void BM_DisabledDebugLog(benchmark::State& state) {
    auto& logger = qn::Logger::named("bench");
    logger.setLevel(qn::LogLevel::Info);
    const std::string path = "/Users/someone/Library/Mobile Documents/Documents/a.txt";
    for (auto _ : state) {
        logger.debug("Did change file at path {} to type {}.", path, 3);
    }
}
BENCHMARK(BM_DisabledDebugLog);

void BM_DictionaryLookup(benchmark::State& state) {
    const qn::Dictionary userInfo{{"QNiCloudSourcePathKey", qn::Value("/Documents/a.txt")},
                                  {"QNiCloudFileChangeTypeKey", qn::Value(3)},
                                  {"QNiCloudIsDirectoryKey", qn::Value(false)}};
    std::int64_t sum = 0;
    for (auto _ : state) {
        sum += userInfo.int64ForKey("QNiCloudFileChangeTypeKey").value_or(0);
    }
    benchmark::DoNotOptimize(sum);
}
BENCHMARK(BM_DictionaryLookup);

}  // namespace
