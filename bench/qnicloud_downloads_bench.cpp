// Speed of the downloads manager on the simulated cloud, behind an initialised default presenter
// whose container holds 3,000 cloud-only files in "Pool" and a folder "Big" of 10,000 cloud-only
// files. Downloads are progressive: nothing moves until the benchmark advances them.
//   - BM_FileDownload: one file at a time, asked for with the presenter's single-item download.
//       request_to_start_us: from the request until the manager calls the platform's start of
//         the download (the file manager's startDownloadingUbiquitousItemAtURL, which reaches
//         the simulated cloud); cloud_start_us is the time spent inside that call, apart.
//       finish_us: the file is advanced to 50 %, then to 100 %; from the presenter's file-change
//         notification that it is downloaded (the last word on its progress, seen on the main
//         thread by an observer that runs before the manager's own) until the completion handler
//         runs on the main thread. cloud_and_presenter_us, apart: from the cloud's completion of
//         the download until that notification (delivery, the query, the presenter's comparison).
//       queue_hop_us / main_hop_us: an empty hand-over from the main thread to a serial operation
//         queue and from there back to the waiting main thread, measured alongside: the part
//         of the figures above that is only threads waking up (request_to_start_us contains one
//         hop to a queue, finish_us one of each).
//     The time reported per iteration is request_to_start_us + finish_us; each figure is also
//     given as its median, which a busy machine disturbs less than the mean.
//   - BM_BatchRequestToStart: one batch request of 100 files with a limit above 100; from the
//     request until the platform's start of the 100th, per file. Every start also posts the
//     downloading-started change synchronously to the main thread, so each file pays a round
//     trip to the main thread.
//   - BM_DirectoryRequest: the presenter's single-item download of the 10,000-file folder; from
//     the request until its completion handler runs on the main thread. The folder is walked in
//     the cache and answered as having nothing to fetch (see QNiCloudDownloadsManager.h).
// The host's side is played by this thread: it is the main thread and pumps while it waits.

#include <benchmark/benchmark.h>
#include <fmt/core.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "QNiCloud/QNiCloud.h"
#include "QNiCloud/QNiCloudDocumentsPresenter.h"
#include "QNiCloud/QNiCloudDownloadsManager.h"
#include "qn/FileManager.h"
#include "qn/ForwardingFileManager.h"
#include "qn/Logger.h"
#include "qn/MainQueue.h"
#include "qn/NotificationCenter.h"
#include "qn/OperationQueue.h"
#include "qn/SimulatedCloud.h"
#include "qn/URL.h"
#include "qn/util/ContainerHelpers.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kPatience = std::chrono::seconds(30);
constexpr const char* kContainerIdentifier = "iCloud.com.example.DownloadsBench";
constexpr std::size_t kPoolFiles = 3000;
constexpr std::size_t kBigFolderFiles = 10000;
constexpr std::size_t kBatchFiles = 100;

double microseconds(Clock::duration d) {
    return std::chrono::duration<double, std::micro>(d).count();
}

double seconds(double microseconds) {
    return microseconds / 1e6;
}

// Per-iteration figures in µs, reported as their mean and, because a busy machine makes the odd
// thread wake late, their median ("..._median").
class Samples {
public:
    void add(double value) { values_.push_back(value); }
    void report(benchmark::State& state, const std::string& name) {
        if (values_.empty()) {
            return;
        }
        double sum = 0;
        for (const double value : values_) {
            sum += value;
        }
        std::nth_element(values_.begin(), values_.begin() + values_.size() / 2, values_.end());
        state.counters[name] = sum / static_cast<double>(values_.size());
        state.counters[name + "_median"] = values_[values_.size() / 2];
    }

private:
    std::vector<double> values_;
};

// Pumps the main queue until `done` holds.
void waitUntil(const std::function<bool()>& done, const char* what) {
    if (!qn::MainQueue::runUntil(done, kPatience)) {
        throw std::runtime_error(fmt::format("gave up waiting for {}", what));
    }
}

// Times the manager's calls of the platform's start of a download, made on its queue.
class StartTimingFileManager final : public qn::ForwardingFileManager {
public:
    using ForwardingFileManager::ForwardingFileManager;

    struct Calls {
        std::size_t count = 0;
        Clock::time_point lastEntered;
        Clock::time_point lastLeft;
    };

    bool startDownloadingUbiquitousItemAtURL(const qn::URL& url, qn::Error* error) override {
        const auto entered = Clock::now();
        const bool started = ForwardingFileManager::startDownloadingUbiquitousItemAtURL(url, error);
        const auto left = Clock::now();
        std::lock_guard lock(mutex_);
        calls_.count += 1;
        calls_.lastEntered = entered;
        calls_.lastLeft = left;
        return started;
    }
    Calls calls() const {
        std::lock_guard lock(mutex_);
        return calls_;
    }

private:
    mutable std::mutex mutex_;
    Calls calls_;
};

// What the main thread saw of the presenter's notifications. Main thread only.
struct Seen {
    std::size_t cacheInitializations = 0;
    Clock::time_point lastDownloaded;  // the last "downloaded" file change
};

Seen& seen() {
    static Seen* s = new Seen;
    return *s;
}

// Registered before anything makes the downloads manager, so that these observers run before
// its own: the time taken is when the news reached the main thread, not when the manager had
// queued its work.
void observeNotifications() {
    static auto initialized = qn::NotificationCenter::defaultCenter().addObserver(
        QNiCloudCacheInitializedNotification, nullptr,
        [](const qn::Notification&) { ++seen().cacheInitializations; });
    static auto changed = qn::NotificationCenter::defaultCenter().addObserver(
        QNiCloudFileDidChangeNotification, nullptr, [](const qn::Notification& notification) {
            if (notification.userInfo.int64ForKey(QNiCloudFileChangeTypeKey) ==
                QNiCloudFileChangeDownloaded) {
                seen().lastDownloaded = Clock::now();
            }
        });
}

struct Drive {
    std::string scratch;
    std::shared_ptr<qn::SimulatedCloud> cloud;
    std::shared_ptr<StartTimingFileManager> fileManager;
    std::shared_ptr<QNiCloudDocumentsPresenter> presenter;
    std::vector<qn::URL> pool;  // cloud-only files, each downloaded once
    std::size_t nextPoolFile = 0;
    qn::URL bigFolder;

    // The next cloud-only file, or nullopt when the pool is used up.
    std::optional<qn::URL> takeFile() {
        if (nextPoolFile == pool.size()) {
            return std::nullopt;
        }
        return pool[nextPoolFile++];
    }
};

std::unique_ptr<Drive>& driveSlot() {
    static std::unique_ptr<Drive> drive;
    return drive;
}

const std::shared_ptr<QNiCloudDownloadsManager>& manager() {
    return QNiCloudDownloadsManager::sharedManager();
}

// Waits until the manager's queue is idle and the main thread has run what it was handed.
void settle() {
    for (int round = 0; round < 2; ++round) {
        waitUntil([] { return manager()->downloadOperationQueue()->operationCount() == 0; },
                  "the downloads manager's queue");
        bool marker = false;
        qn::MainQueue::async([&] { marker = true; });
        waitUntil([&] { return marker; }, "the main queue");
    }
}

Drive& drive() {
    auto& slot = driveSlot();
    if (slot) {
        return *slot;
    }
    observeNotifications();
    // Only errors are shown; the library's lines are not formatted at debug level.
    qn::setLogSink([](const qn::LogRecord& record) {
        if (record.level == qn::LogLevel::Error) {
            fmt::print(stderr, "{}\n", record.message);
        }
    });
    qn::Logger::named("iCloud").setLevel(qn::LogLevel::Info);

    auto d = std::make_unique<Drive>();
    const char* temporary = std::getenv("TMPDIR");
    d->scratch = std::string(temporary != nullptr && *temporary ? temporary : "/tmp") +
                 "/qn-downloads-bench-XXXXXX";
    if (::mkdtemp(d->scratch.data()) == nullptr) {
        throw std::runtime_error("cannot create a temporary directory");
    }
    qn::setUbiquityDriveDirectory(d->scratch + "/Mobile Documents");
    qn::setApplicationSupportDirectory(d->scratch + "/Support");
    d->cloud = qn::SimulatedCloud::create("bench@example.com");
    qn::UbiquityService::setCurrent(d->cloud);
    d->fileManager = std::make_shared<StartTimingFileManager>(qn::FileManager::defaultManager());
    qn::FileManager::setDefaultManager(d->fileManager);

    const qn::URL documents =
        QNiCloudDocumentsPresenter::documentsDirectoryURLFromContainerIdentifier(
            kContainerIdentifier);
    const auto addFolder = [&](const char* name, std::size_t files) {
        const qn::URL folder = documents.URLByAppendingPathComponent(name);
        d->cloud->setItem(folder, qn::SimulatedItemState::directory(qn::Date(7e8)));
        std::vector<qn::URL> urls;
        for (std::size_t i = 0; i < files; ++i) {
            urls.push_back(folder.URLByAppendingPathComponent(fmt::format("File {}.txt", i)));
            d->cloud->setItem(urls.back(),
                              qn::SimulatedItemState::notDownloaded(
                                  fmt::format("Contents of file {}.\n", i), qn::Date(7e8 + i)));
        }
        return std::pair(folder, urls);
    };
    d->pool = addFolder("Pool", kPoolFiles).second;
    d->bigFolder = addFolder("Big", kBigFolderFiles).first;
    d->cloud->setDefaultDownloadBehavior(qn::SimulatedDownloadBehavior::progressive());

    d->presenter = QNiCloudDocumentsPresenter::initWithContainerIdentifier(kContainerIdentifier);
    if (d->presenter == nullptr) {
        throw std::runtime_error("no presenter");
    }
    QNiCloudDocumentsPresenter::setDefaultPresenter(d->presenter);
    d->presenter->setCacheUpdatesInterval(0);
    // No automatic downloads: every download is one the benchmark asked for.
    d->presenter->setExtensionsAllowedForAutomaticDownload(std::set<std::string>{"automatic"});
    d->presenter->setMaxSimultaneousFileDownloadsCount(3);
    d->presenter->registerForFileChangesNotifications();
    waitUntil([&] { return d->cloud->runningFeedCount() == 1; }, "the query to start");
    d->cloud->deliverQueryBatches();
    waitUntil([] { return seen().cacheInitializations > 0; }, "the cache");
    settle();
    slot = std::move(d);
    return *slot;
}

void tearDownDrive() {
    auto& slot = driveSlot();
    if (!slot) {
        return;
    }
    QNiCloudDocumentsPresenter::setDefaultPresenter(nullptr);  // unregisters it
    const std::weak_ptr<QNiCloudDocumentsPresenter> gone = slot->presenter;
    slot->presenter.reset();
    qn::MainQueue::runUntil([&] { return gone.expired(); }, kPatience);
    manager()->cancelAllDownloads();
    settle();
    qn::FileManager::setDefaultManager(nullptr);
    qn::UbiquityService::setCurrent(nullptr);
    std::error_code ignored;
    std::filesystem::remove_all(slot->scratch, ignored);
    slot.reset();
}

// The handlers' view of one request, shared with them: they may run after a failed wait.
struct Heard {
    bool progressed = false;
    std::optional<Clock::time_point> completed;
    std::optional<std::string> error;
};

QNiCloudDownloadErrorHandler recordError(const std::shared_ptr<Heard>& heard) {
    return [heard](const QNBackgroundOperationPointer&, const qn::Error& error) {
        heard->error = error.localizedDescription();
    };
}

// An empty hand-over to a serial queue and back to the main thread: (there, back) in µs.
std::pair<double, double> measureHops(qn::OperationQueue& queue) {
    struct Hop {
        Clock::time_point onQueue;
        std::optional<Clock::time_point> back;
    };
    const auto hop = std::make_shared<Hop>();
    const auto handed = Clock::now();
    queue.addOperationWithBlock([hop] {
        hop->onQueue = Clock::now();
        qn::MainQueue::async([hop] { hop->back = Clock::now(); });
    });
    waitUntil([&] { return hop->back.has_value(); }, "the hand-over");
    return {microseconds(hop->onQueue - handed), microseconds(*hop->back - hop->onQueue)};
}

void BM_FileDownload(benchmark::State& state) {
    Drive& d = drive();
    const auto hopQueue = qn::OperationQueue::create("bench hops", 1);
    Samples toStart, finish, queueHop, mainHop;
    double cloudStart = 0, cloudAndPresenter = 0;
    for (auto _ : state) {
        const auto url = d.takeFile();
        if (!url) {
            state.SkipWithError("the pool of cloud-only files is used up");
            return;
        }
        const auto heard = std::make_shared<Heard>();
        const std::size_t startsBefore = d.fileManager->calls().count;
        const auto requested = Clock::now();
        d.presenter->downloadItemAtURL(
            *url, false, nullptr,
            [heard](const QNBackgroundOperationPointer&, const qn::URL&, std::uint64_t,
                    std::uint64_t, std::uint64_t, double) { heard->progressed = true; },
            [heard](const QNBackgroundOperationPointer&, const qn::URL&, std::uint64_t,
                    std::uint64_t) { heard->completed = Clock::now(); },
            recordError(heard));
        waitUntil([&] { return d.fileManager->calls().count > startsBefore || heard->error; },
                  "the start");
        const auto calls = d.fileManager->calls();
        settle();  // the downloading-started change has reached the main thread
        d.cloud->advanceDownload(*url, 50);
        d.cloud->deliverQueryBatches();
        waitUntil([&] { return heard->progressed || heard->error; }, "progress");
        settle();
        const auto advanced = Clock::now();
        d.cloud->advanceDownload(*url, 100);
        d.cloud->deliverQueryBatches();
        waitUntil([&] { return heard->completed || heard->error; }, "the completion");
        if (heard->error) {
            state.SkipWithError(heard->error->c_str());
            return;
        }
        const double iterationToStart = microseconds(calls.lastEntered - requested);
        const double iterationFinish = microseconds(*heard->completed - seen().lastDownloaded);
        toStart.add(iterationToStart);
        cloudStart += microseconds(calls.lastLeft - calls.lastEntered);
        finish.add(iterationFinish);
        cloudAndPresenter += microseconds(seen().lastDownloaded - advanced);
        state.SetIterationTime(seconds(iterationToStart + iterationFinish));
        settle();
        const auto [there, back] = measureHops(*hopQueue);
        queueHop.add(there);
        mainHop.add(back);
    }
    const double runs = static_cast<double>(state.iterations());
    toStart.report(state, "request_to_start_us");
    state.counters["cloud_start_us"] = cloudStart / runs;
    finish.report(state, "finish_us");
    state.counters["cloud_and_presenter_us"] = cloudAndPresenter / runs;
    queueHop.report(state, "queue_hop_us");
    mainHop.report(state, "main_hop_us");
}

void BM_BatchRequestToStart(benchmark::State& state) {
    Drive& d = drive();
    d.presenter->setMaxSimultaneousFileDownloadsCount(kBatchFiles + 1);
    double perFile = 0, cloudStart = 0;
    for (auto _ : state) {
        std::vector<qn::URL> urls;
        for (std::size_t i = 0; i < kBatchFiles; ++i) {
            const auto url = d.takeFile();
            if (!url) {
                state.SkipWithError("the pool of cloud-only files is used up");
                return;
            }
            urls.push_back(*url);
        }
        const auto heard = std::make_shared<Heard>();
        const std::size_t startsBefore = d.fileManager->calls().count;
        const auto requested = Clock::now();
        d.presenter->downloadItemsAtURLs(
            urls, nullptr, nullptr, nullptr, nullptr,
            [heard](const QNBackgroundOperationPointer&) { heard->completed = Clock::now(); },
            recordError(heard));
        waitUntil(
            [&] {
                return d.fileManager->calls().count >= startsBefore + kBatchFiles || heard->error;
            },
            "the starts");
        const auto calls = d.fileManager->calls();
        const double iteration = microseconds(calls.lastEntered - requested) / kBatchFiles;
        perFile += iteration;
        cloudStart += microseconds(calls.lastLeft - calls.lastEntered);
        state.SetIterationTime(seconds(iteration));

        // Untimed: the files complete, so that the next batch finds the manager empty.
        settle();
        for (const auto& url : urls) {
            d.cloud->advanceDownload(url, 100);
        }
        d.cloud->deliverQueryBatches();
        waitUntil([&] { return heard->completed || heard->error; }, "the batch's completion");
        if (heard->error) {
            state.SkipWithError(heard->error->c_str());
            break;
        }
        settle();
    }
    d.presenter->setMaxSimultaneousFileDownloadsCount(3);
    const double runs = static_cast<double>(state.iterations());
    state.counters["files"] = kBatchFiles;
    state.counters["request_to_start_us_per_file"] = perFile / runs;
    state.counters["cloud_start_us_last_file"] = cloudStart / runs;
}

void BM_DirectoryRequest(benchmark::State& state) {
    Drive& d = drive();
    double answered = 0;
    for (auto _ : state) {
        const auto heard = std::make_shared<Heard>();
        const auto requested = Clock::now();
        d.presenter->downloadItemAtURL(
            d.bigFolder, true, nullptr, nullptr,
            [heard](const QNBackgroundOperationPointer&, const qn::URL&, std::uint64_t,
                    std::uint64_t) { heard->completed = Clock::now(); },
            recordError(heard));
        waitUntil([&] { return heard->completed || heard->error; }, "the folder's answer");
        if (heard->error) {
            state.SkipWithError(heard->error->c_str());
            return;
        }
        const double iteration = microseconds(*heard->completed - requested);
        answered += iteration;
        state.SetIterationTime(seconds(iteration));
        settle();
    }
    state.counters["files"] = kBigFolderFiles;
    state.counters["answered_ms"] = answered / static_cast<double>(state.iterations()) / 1e3;
    state.counters["queued_files"] = static_cast<double>(manager()->filesDownloadsQueue().size());
}

BENCHMARK(BM_FileDownload)->Iterations(500)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_BatchRequestToStart)->Iterations(20)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_DirectoryRequest)->Iterations(20)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

// The drive is torn down after the runs, on the main thread, before the process exits.
int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    tearDownDrive();
    return 0;
}
