// Speed and memory of keeping the documents presenter's cache in step with its live query, on the
// simulated cloud, for a container of 100,000 and of 1,000,000 items (the tree of
// RealisticTree.h; every folder is an item, a tenth of the files are downloaded with a small
// file on disk, the others are only in the cloud):
//   - BM_InitialSync: from registering for file changes until QNiCloudCacheInitializedNotification
//     arrives, with the share of each phase: the simulated cloud building its reports, the
//     query applying the gathered batch, the presenter's fill, silent comparison, initial
//     download pass and walk of the disk. The ".../1" runs log at debug level to time the
//     presenter's phases, which costs them the formatting of one line per download request.
//   - BM_UpdateOfTenItems: ten files become downloaded; from delivering the change until the
//     presenter's comparison has ended, split into the query's apply and the comparison. The
//     ".../1" runs first save a new local file through the cache upkeep, as a host's own file
//     operation does, so that the comparison cannot rely on what the last one found.
//   - BM_MemoryPerItem: heap per item of the cloud's records, its reports (the query's results),
//     the query's own index, the cache entries and the snapshots (with the report blocks they
//     still refer to).
// The host's side is played by this thread: it is the main thread and pumps while it waits.

#include <benchmark/benchmark.h>
#include <fmt/core.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "QNiCloud/QNiCloud.h"
#include "QNiCloud/QNiCloudCache.h"
#include "QNiCloud/QNiCloudCacheEntry.h"
#include "QNiCloud/QNiCloudDocumentsPresenter.h"
#include "RealisticTree.h"
#include "qn/Logger.h"
#include "qn/MainQueue.h"
#include "qn/MetadataAttributes.h"
#include "qn/MetadataPredicate.h"
#include "qn/MetadataQuery.h"
#include "qn/NotificationCenter.h"
#include "qn/SimulatedCloud.h"
#include "qn/URL.h"
#include "qn/util/ContainerHelpers.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kPatience = std::chrono::minutes(10);

std::int64_t heapInUse() {
    const struct mallinfo2 info = mallinfo2();
    return static_cast<std::int64_t>(info.uordblks + info.hblkhd);
}

double milliseconds(Clock::duration d) {
    return std::chrono::duration<double, std::milli>(d).count();
}

// CPU time of the library's worker threads so far, in milliseconds: on a busy machine the wall
// time of a phase also counts the time its thread waited for a core.
double workerCpuMilliseconds() {
    double total = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream comm(task.path() / "comm");
        std::string name;
        std::getline(comm, name);
        if (name != "qn-worker") {
            continue;
        }
        std::ifstream schedstat(task.path() / "schedstat");
        double onCpuNanoseconds = 0;
        schedstat >> onCpuNanoseconds;
        total += onCpuNanoseconds / 1e6;
    }
    return total;
}

// The log lines and notifications that mark the phases of a run, with their arrival times. Only
// these are kept; every other line is dropped unread.
class Timeline {
public:
    static Timeline& shared() {
        static Timeline* timeline = new Timeline;  // the sink may outlive static destruction
        return *timeline;
    }

    void mark(std::string_view what) {
        std::lock_guard lock(mutex_);
        events_.push_back({Clock::now(), std::string(what)});
    }
    std::size_t size() const {
        std::lock_guard lock(mutex_);
        return events_.size();
    }
    /// The time of the first event from index `from` on that starts with `prefix`.
    std::optional<Clock::time_point> find(std::string_view prefix, std::size_t from) const {
        std::lock_guard lock(mutex_);
        for (std::size_t i = from; i < events_.size(); ++i) {
            if (events_[i].what.starts_with(prefix)) {
                return events_[i].time;
            }
        }
        return std::nullopt;
    }
    /// The text of the first such event, or "".
    std::string text(std::string_view prefix, std::size_t from) const {
        std::lock_guard lock(mutex_);
        for (std::size_t i = from; i < events_.size(); ++i) {
            if (events_[i].what.starts_with(prefix)) {
                return events_[i].what;
            }
        }
        return {};
    }
    /// Pumps the main queue until an event starting with `prefix` arrived from index `from` on.
    Clock::time_point waitFor(std::string_view prefix, std::size_t from) const {
        if (!qn::MainQueue::runUntil([&] { return find(prefix, from).has_value(); }, kPatience)) {
            throw std::runtime_error(fmt::format("gave up waiting for \"{}\"", prefix));
        }
        return *find(prefix, from);
    }

private:
    struct Event {
        Clock::time_point time;
        std::string what;
    };
    mutable std::mutex mutex_;
    std::vector<Event> events_;
};

// Notifications are marked as "@name".
constexpr const char* kGathered = "@NSMetadataQueryGatheringProgressNotification";
constexpr const char* kQueryUpdated = "@NSMetadataQueryDidUpdateNotification";
constexpr const char* kCacheInitialized = "@QNiCloudCacheInitializedNotification";
constexpr const char* kQueryStarted = "Initial iCloud files tree query started.";
constexpr const char* kFilled = "Updated iCloud tree cache.";
constexpr const char* kInitializing = "Initial iCloud tree query complete.";
constexpr const char* kComparing = "Going to perform initial comparison.";
constexpr const char* kCompared = "Initial comparison completed.";
constexpr const char* kDownloading = "Performing initial download.";
constexpr const char* kWalkingDisk = "Looking for files which are not present";
constexpr const char* kCached = "Files tree is cached.";
constexpr const char* kStartComparison = "Start comparison.";
constexpr const char* kComparisonDone = "Complete comparison.";
constexpr const char* kSettled = "Did cancel all running operations.";

void installTimeline() {
    static const bool installed = [] {
        qn::setLogSink([](const qn::LogRecord& record) {
            static constexpr const char* kMarkers[] = {
                kQueryStarted, kFilled, kInitializing,    kComparing,      kCompared, kDownloading,
                kWalkingDisk,  kCached, kStartComparison, kComparisonDone, kSettled};
            for (const char* marker : kMarkers) {
                if (record.message.starts_with(marker)) {
                    Timeline::shared().mark(record.message);
                    return;
                }
            }
        });
        static auto observation = qn::NotificationCenter::defaultCenter().addObserver(
            "", nullptr, [](const qn::Notification& notification) {
                const std::string_view name = notification.name;
                if (name == qn::NSMetadataQueryGatheringProgressNotification ||
                    name == qn::NSMetadataQueryDidUpdateNotification ||
                    name == QNiCloudCacheInitializedNotification) {
                    Timeline::shared().mark("@" + notification.name);
                }
            });
        return true;
    }();
    (void)installed;
}

qn::Logger& logger() {
    return qn::Logger::named("iCloud");
}

// Runs everything handed to the main thread so far.
void settleMainQueue() {
    bool marker = false;
    qn::MainQueue::async([&] { marker = true; });
    qn::MainQueue::runUntil([&] { return marker; }, kPatience);
}

// The process's drive and application support directories, removed at exit.
class Home {
public:
    static const Home& shared() {
        static const Home home;
        return home;
    }
    ~Home() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

private:
    Home() {
        const char* temporary = std::getenv("TMPDIR");
        std::string pattern = std::string(temporary != nullptr && *temporary ? temporary : "/tmp") +
                              "/qn-sync-bench-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("cannot create a temporary directory");
        }
        path_ = pattern;
        qn::setUbiquityDriveDirectory(path_ + "/Mobile Documents");
        qn::setApplicationSupportDirectory(path_ + "/Support");
    }
    std::string path_;
};

// One container in the simulated cloud, and what the benchmarks keep between iterations.
struct Drive {
    std::size_t size = 0;
    std::string identifier;
    qn::URL container;
    std::shared_ptr<qn::SimulatedCloud> cloud;
    qn::bench::RealisticTree tree;
    std::vector<bool> downloaded;
    std::vector<std::size_t> notDownloadedFiles;  // in the order the update benchmark takes them
    std::size_t nextChange = 0;
    std::size_t files = 0;
    double populateSeconds = 0;
    std::int64_t cloudHeap = 0;
    // An initialised presenter, for the update benchmark.
    std::shared_ptr<QNiCloudDocumentsPresenter> presenter;

    qn::SimulatedItemState stateOf(std::size_t i) const {
        const qn::Date date(7.0e8 + static_cast<double>(i));
        if (!tree.isFile[i]) {
            return withSpelling(i, qn::SimulatedItemState::directory(date));
        }
        std::string contents = fmt::format("Contents of item {}.\n", i);
        return withSpelling(
            i, downloaded[i] ? qn::SimulatedItemState::downloaded(std::move(contents), date)
                             : qn::SimulatedItemState::notDownloaded(std::move(contents), date));
    }

    void setItem(std::size_t i) const {
        cloud->setItem(qn::URL::fileURLWithPath(tree.absolute[i], !tree.isFile[i]), stateOf(i));
    }

private:
    // The cloud stores and writes the composed spelling; a path spelled decomposed is reported
    // that way, as the platform reports what the file system holds.
    qn::SimulatedItemState withSpelling(std::size_t i, qn::SimulatedItemState state) const {
        const std::string& path = tree.absolute[i];
        if (path.find("\u0301") != std::string::npos || path.find("\u0308") != std::string::npos) {
            state.attributeOverrides.set(qn::NSMetadataItemPathKey, path);
        }
        return state;
    }
};

void forget(std::unique_ptr<Drive>& drive);

Drive& drive(std::size_t size) {
    static std::unique_ptr<Drive> current;
    if (current && current->size == size) {
        return *current;
    }
    forget(current);  // one drive at a time: the 1,000,000-item one takes gigabytes
    installTimeline();
    Home::shared();
    malloc_trim(0);
    auto made = std::make_unique<Drive>();
    Drive& d = *made;
    d.size = size;
    d.identifier = fmt::format("iCloud.com.example.Writer{}", size);
    d.container = QNiCloudContainerURLFromIdentifier(d.identifier);
    d.tree = qn::bench::makeRealisticTree(d.container.path() + "/Documents", size);
    std::mt19937 random(99);
    d.downloaded.resize(d.tree.absolute.size());
    for (std::size_t i = 0; i < d.tree.absolute.size(); ++i) {
        if (d.tree.isFile[i]) {
            ++d.files;
            d.downloaded[i] = random() % 10 == 0;
            if (!d.downloaded[i]) {
                d.notDownloadedFiles.push_back(i);
            }
        }
    }
    std::shuffle(d.notDownloadedFiles.begin(), d.notDownloadedFiles.end(), random);

    const std::int64_t heapBefore = heapInUse();
    const auto start = Clock::now();
    d.cloud = qn::SimulatedCloud::create("bench@example.com");
    qn::UbiquityService::setCurrent(d.cloud);
    for (std::size_t i = 0; i < d.tree.absolute.size(); ++i) {
        d.setItem(i);
    }
    d.populateSeconds = std::chrono::duration<double>(Clock::now() - start).count();
    d.cloudHeap = heapInUse() - heapBefore;
    current = std::move(made);
    return *current;
}

void forget(std::unique_ptr<Drive>& drive) {
    if (!drive) {
        return;
    }
    if (drive->presenter) {
        drive->presenter->unregisterFromFileChangesNotifications();
        drive->presenter.reset();
        settleMainQueue();
    }
    qn::UbiquityService::setCurrent(nullptr);
    const std::string container = drive->container.path();
    drive.reset();
    std::error_code ignored;
    std::filesystem::remove_all(container, ignored);
    malloc_trim(0);
}

// A presenter whose first reading of the account, and all it set off, is over.
std::shared_ptr<QNiCloudDocumentsPresenter> makePresenter(const Drive& d) {
    logger().setLevel(qn::LogLevel::Debug);
    const std::size_t from = Timeline::shared().size();
    auto presenter = QNiCloudDocumentsPresenter::initWithContainerIdentifier(d.identifier);
    if (presenter == nullptr) {
        throw std::runtime_error("no presenter");
    }
    Timeline::shared().waitFor(kSettled, from);
    settleMainQueue();
    presenter->setCacheUpdatesInterval(0);
    // The cache's automatic downloads are requested and queued as usual, but none runs: a
    // download would change the container while it is measured.
    presenter->setMaxSimultaneousFileDownloadsCount(0);
    return presenter;
}

// The moments of one initial synchronisation.
struct InitialSync {
    std::size_t from = 0;  // timeline index at registration
    Clock::time_point registered;
    Clock::time_point feedStarted;
    Clock::time_point delivered;
    Clock::time_point initialized;
};

InitialSync synchronize(const Drive& d, QNiCloudDocumentsPresenter& presenter) {
    InitialSync sync;
    sync.from = Timeline::shared().size();
    sync.registered = Clock::now();
    presenter.registerForFileChangesNotifications();
    // The set-up unit made the query, the main thread started it, and the cloud built its
    // reports of every item for the new feed.
    if (!qn::MainQueue::runUntil([&] { return d.cloud->runningFeedCount() == 1; }, kPatience)) {
        throw std::runtime_error("the query never started");
    }
    sync.feedStarted = Clock::now();
    d.cloud->deliverQueryBatches();
    sync.delivered = Clock::now();
    sync.initialized = Timeline::shared().waitFor(kCacheInitialized, sync.from);
    // Logged after the notification was handed over, so perhaps not yet.
    Timeline::shared().waitFor(kCached, sync.from);
    return sync;
}

void tearDown(std::shared_ptr<QNiCloudDocumentsPresenter>& presenter) {
    presenter->unregisterFromFileChangesNotifications();
    std::weak_ptr<QNiCloudDocumentsPresenter> weak = presenter;
    presenter.reset();
    qn::MainQueue::runUntil([&] { return weak.expired(); }, kPatience);
    settleMainQueue();
}

// Arguments: the number of items; 1 to log at debug level and time the presenter's phases.
void BM_InitialSync(benchmark::State& state) {
    Drive& d = drive(static_cast<std::size_t>(state.range(0)));
    const bool phases = state.range(1) != 0;
    Timeline& timeline = Timeline::shared();
    double feed = 0, deliver = 0, apply = 0, fill = 0, compare = 0, download = 0, disk = 0;
    double untilCached = 0;
    for (auto _ : state) {
        auto presenter = makePresenter(d);
        logger().setLevel(phases ? qn::LogLevel::Debug : qn::LogLevel::Info);
        const InitialSync sync = synchronize(d, *presenter);
        state.SetIterationTime(
            std::chrono::duration<double>(sync.initialized - sync.registered).count());
        const auto at = [&](const char* prefix) {
            const auto time = timeline.find(prefix, sync.from);
            return time ? *time : sync.registered;
        };
        feed += milliseconds(sync.feedStarted - sync.registered);
        deliver += milliseconds(sync.delivered - sync.feedStarted);
        apply += milliseconds(at(kGathered) - sync.delivered);
        untilCached += milliseconds(at(kCached) - at(kGathered));
        if (phases) {
            fill += milliseconds(at(kFilled) - at(kGathered));
            compare += milliseconds(at(kCompared) - at(kComparing));
            download += milliseconds(at(kWalkingDisk) - at(kDownloading));
            disk += milliseconds(at(kCached) - at(kWalkingDisk));
        }
        state.PauseTiming();
        tearDown(presenter);
        state.ResumeTiming();
    }
    const double runs = static_cast<double>(state.iterations());
    const double results = static_cast<double>(d.tree.absolute.size());
    state.counters["items"] = results;
    state.counters["cloud_feed_ms"] = feed / runs;
    state.counters["delivery_ms"] = deliver / runs;
    state.counters["query_apply_ms"] = apply / runs;
    state.counters["presenter_ms"] = untilCached / runs;
    if (phases) {
        state.counters["fill_ms"] = fill / runs;
        state.counters["compare_ms"] = compare / runs;
        state.counters["download_pass_ms"] = download / runs;
        state.counters["disk_walk_ms"] = disk / runs;
        state.counters["fill_ns_per_result"] = fill / runs * 1e6 / results;
        state.counters["compare_ns_per_result"] = compare / runs * 1e6 / results;
    }
    state.counters["cloud_feed_ns_per_item"] = feed / runs * 1e6 / results;
    state.counters["query_apply_ns_per_item"] = apply / runs * 1e6 / results;
    state.counters["populate_s"] = d.populateSeconds;
}

void BM_UpdateOfTenItems(benchmark::State& state) {
    Drive& d = drive(static_cast<std::size_t>(state.range(0)));
    Timeline& timeline = Timeline::shared();
    if (!d.presenter) {
        d.presenter = makePresenter(d);
        synchronize(d, *d.presenter);
        settleMainQueue();
    }
    logger().setLevel(qn::LogLevel::Debug);
    const bool localChange = state.range(1) != 0;
    std::size_t localFiles = 0;
    double apply = 0, wait = 0, compare = 0, changed = 0, workerCpu = 0;
    for (auto _ : state) {
        if (localChange) {
            state.PauseTiming();
            const std::string path =
                fmt::format("{}/Documents/Local {}.txt", d.container.path(), ++localFiles);
            std::ofstream(path) << "local";
            d.presenter->updateCacheAfterCreationOfItemAtPath(path);
            state.ResumeTiming();
        }
        for (int i = 0; i < 10; ++i) {
            if (d.nextChange == d.notDownloadedFiles.size()) {
                state.SkipWithError("no file left to download");
                return;
            }
            const std::size_t item = d.notDownloadedFiles[d.nextChange++];
            d.downloaded[item] = true;
            d.setItem(item);  // writes the file, as a finished download would
        }
        const std::size_t from = timeline.size();
        const double cpuBefore = workerCpuMilliseconds();
        const auto start = Clock::now();
        d.cloud->deliverQueryBatches();
        const auto done = timeline.waitFor(kComparisonDone, from);
        workerCpu += workerCpuMilliseconds() - cpuBefore;
        state.SetIterationTime(std::chrono::duration<double>(done - start).count());
        const auto updated = timeline.find(kQueryUpdated, from).value_or(start);
        const auto started = timeline.find(kStartComparison, from).value_or(updated);
        apply += milliseconds(updated - start);
        wait += milliseconds(started - updated);
        compare += milliseconds(done - started);
        const std::string line = timeline.text(kComparisonDone, from);
        const std::size_t number = line.find("= ");
        changed +=
            number == std::string::npos ? 0 : std::strtod(line.c_str() + number + 2, nullptr);
        state.PauseTiming();
        settleMainQueue();
        state.ResumeTiming();
    }
    const double runs = static_cast<double>(state.iterations());
    const double results = static_cast<double>(d.tree.absolute.size());
    state.counters["items"] = results;
    state.counters["query_apply_ms"] = apply / runs;
    state.counters["queue_wait_ms"] = wait / runs;
    state.counters["comparison_ms"] = compare / runs;
    state.counters["comparison_ns_per_result"] = compare / runs * 1e6 / results;
    state.counters["worker_cpu_ms"] = workerCpu / runs;
    state.counters["changed_files"] = changed / runs;
}

// Heap per item of each holder. The reports and the query's index are measured on a query of
// their own as they are made. The presenter's share is measured as what it frees: the cache
// entries when the presenter goes, the snapshots when the last reference to them goes (with the
// blocks of the reports a snapshot still refers to weakly, which stay until then).
void BM_MemoryPerItem(benchmark::State& state) {
    Drive& d = drive(static_cast<std::size_t>(state.range(0)));
    if (d.presenter) {
        tearDown(d.presenter);
    }
    double reports = 0, queryIndex = 0, entries = 0, snapshots = 0, total = 0;
    for (auto _ : state) {
        {
            auto query = std::make_shared<qn::MetadataQuery>();
            query->setSearchScopes({qn::NSMetadataQueryUbiquitousDocumentsScope});
            query->setPredicate(*qn::MetadataPredicate::predicateWithFormat(
                "%K like \"*\"", qn::NSMetadataItemPathKey));
            malloc_trim(0);
            const std::int64_t before = heapInUse();
            query->startQuery();
            const std::int64_t reported = heapInUse();  // the feed holds every report
            d.cloud->deliverQueryBatches();
            qn::MainQueue::runUntil([&] { return !query->isGathering(); }, kPatience);
            settleMainQueue();
            const std::int64_t applied = heapInUse();
            reports = static_cast<double>(reported - before);
            queryIndex = static_cast<double>(applied - reported);
            query->stopQuery();
        }
        settleMainQueue();

        auto presenter = makePresenter(d);
        logger().setLevel(qn::LogLevel::Info);
        malloc_trim(0);
        const std::int64_t before = heapInUse();
        synchronize(d, *presenter);
        settleMainQueue();
        const std::int64_t initialized = heapInUse();

        std::vector<std::shared_ptr<QNiCloudMetadataItem>> kept;
        {
            const auto cache = presenter->cache();
            cache->enumerateSubentriesOfEntry(cache->entryForRelativePath("/"),
                                              [&](const auto& entry) {
                                                  if (entry->metadataItem() != nullptr) {
                                                      kept.push_back(entry->metadataItem());
                                                  }
                                                  return true;
                                              });
        }
        presenter->unregisterFromFileChangesNotifications();  // drops the query
        settleMainQueue();
        const std::int64_t withoutQuery = heapInUse();
        std::weak_ptr<QNiCloudDocumentsPresenter> weak = presenter;
        presenter.reset();
        qn::MainQueue::runUntil([&] { return weak.expired(); }, kPatience);
        settleMainQueue();
        const std::int64_t withoutCache = heapInUse();
        const auto keptVector = static_cast<std::int64_t>(kept.capacity() * sizeof(kept[0]));
        const auto snapshotCount = static_cast<double>(kept.size());
        kept.clear();
        kept.shrink_to_fit();
        const std::int64_t withoutSnapshots = heapInUse();

        entries = static_cast<double>(withoutQuery - withoutCache);
        snapshots = static_cast<double>(withoutCache - withoutSnapshots - keptVector);
        total = static_cast<double>(initialized - before);
        state.counters["B_per_snapshot"] = snapshots / snapshotCount;
    }
    const double items = static_cast<double>(d.tree.absolute.size());
    state.counters["items"] = items;
    state.counters["cloud_records_B_per_item"] = static_cast<double>(d.cloudHeap) / items;
    state.counters["reports_B_per_item"] = reports / items;
    state.counters["query_index_B_per_item"] = queryIndex / items;
    state.counters["cache_entries_B_per_item"] = entries / items;
    state.counters["snapshots_B_per_item"] = snapshots / items;
    state.counters["presenter_B_per_item"] = (entries + snapshots) / items;
    state.counters["initialised_total_B_per_item"] = total / items;
}

// Grouped by size, so that only one drive is alive at a time.
BENCHMARK(BM_MemoryPerItem)->Arg(100000)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_InitialSync)
    ->Args({100000, 0})
    ->Args({100000, 1})
    ->Iterations(3)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_UpdateOfTenItems)
    ->Args({100000, 0})
    ->Args({100000, 1})
    ->Iterations(20)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_InitialSync)
    ->Args({1000000, 0})
    ->Args({1000000, 1})
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_UpdateOfTenItems)
    ->Args({1000000, 0})
    ->Args({1000000, 1})
    ->Iterations(5)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
