// Speed and memory of the metadata cache on a realistic container: about 20 files per
// directory, four levels of directories, mixed-case names, about a tenth of the paths outside
// ASCII and some of those in decomposed form, below a long container path. Every figure is
// taken at 100,000 and at 1,000,000 entries. Lookups are compared with a plain
// std::unordered_map keyed by the already lower-cased absolute path, measured in the same run.

#include <benchmark/benchmark.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "QNiCloud/QNiCloudCache.h"
#include "QNiCloud/QNiCloudDirectoryEnumerator.h"
#include "RealisticTree.h"
#include "qn/PathString.h"
#include "qn/util/PathNormalization.h"

namespace {

const std::string kContainer =
    "/home/user/.local/share/QNiCloud/Mobile Documents/iCloud~com~example~Writer/Documents";

std::int64_t heapInUse() {
    const struct mallinfo2 info = mallinfo2();
    return static_cast<std::int64_t>(info.uordblks + info.hblkhd);
}

std::int64_t residentBytes() {
    std::ifstream statm("/proc/self/statm");
    std::int64_t size = 0;
    std::int64_t resident = 0;
    statm >> size >> resident;
    return resident * sysconf(_SC_PAGESIZE);
}

struct Tree {
    std::vector<std::string> absolute;  // As the file system would spell them.
    std::vector<bool> isFile;
    std::string bigDirectory;     // A directory with 10,000 descendants.
    std::string listedDirectory;  // A directory with 20 files and no subdirectory.
    double nonAsciiShare = 0;
    double decomposedShare = 0;
};

Tree makeTree(std::size_t target) {
    qn::bench::RealisticTree realistic = qn::bench::makeRealisticTree(kContainer, target);
    Tree tree;
    tree.absolute = std::move(realistic.absolute);
    tree.isFile = std::move(realistic.isFile);
    tree.listedDirectory = std::move(realistic.listedDirectory);
    // The directory that is moved: its paths, old and new, must not share a hash with any other
    // path, as the move's index removals would then find neither entry of a bucket of two.
    tree.bigDirectory = kContainer + "/Big Project";
    std::set<std::int32_t> hashes;
    for (const std::string& path : tree.absolute) {
        hashes.insert(QNiCloudCache::hashForPath(path.substr(kContainer.size())));
    }
    auto unique = [&](const std::string& relative) {
        return !hashes.contains(QNiCloudCache::hashForPath(relative)) &&
               !hashes.contains(QNiCloudCache::hashForPath("/Archive 0" + relative));
    };
    for (const std::string top : {"/Big Project", "/Archive 0"}) {
        hashes.insert(QNiCloudCache::hashForPath(top));
    }
    hashes.insert(QNiCloudCache::hashForPath("/Archive 0/Big Project"));
    for (int i = 0; i < 476; ++i) {
        std::string sub = "/Big Project/Part " + std::to_string(i);
        while (!unique(sub)) {
            sub += "x";
        }
        hashes.insert(QNiCloudCache::hashForPath(sub));
        hashes.insert(QNiCloudCache::hashForPath("/Archive 0" + sub));
        tree.absolute.push_back(kContainer + sub);
        tree.isFile.push_back(false);
        for (int j = 0; j < 20; ++j) {
            std::string file = sub + "/Chapter " + std::to_string(j) + ".txt";
            while (!unique(file)) {
                file += "x";
            }
            hashes.insert(QNiCloudCache::hashForPath(file));
            hashes.insert(QNiCloudCache::hashForPath("/Archive 0" + file));
            tree.absolute.push_back(kContainer + file);
            tree.isFile.push_back(true);
        }
    }
    std::size_t nonAscii = 0;
    std::size_t decomposed = 0;
    for (const std::string& path : tree.absolute) {
        nonAscii += std::any_of(path.begin(), path.end(), [](char c) { return c & 0x80; });
        decomposed +=
            path.find("\u0301") != std::string::npos || path.find("\u0308") != std::string::npos;
    }
    tree.nonAsciiShare = static_cast<double>(nonAscii) / static_cast<double>(tree.absolute.size());
    tree.decomposedShare =
        static_cast<double>(decomposed) / static_cast<double>(tree.absolute.size());
    return tree;
}

std::shared_ptr<QNiCloudMetadataItem> querySnapshot(std::size_t i) {
    // As the metadata query makes them: state, size and date, no file name.
    auto item = std::make_shared<QNiCloudMetadataItem>();
    item->setContentSize(1000 + i);
    item->setIsDownloaded(i % 5 != 0);
    item->setIsUploaded(true);
    item->setPercentDownloaded(i % 5 != 0 ? 100.0 : 0.0);
    item->setPercentUploaded(100.0);
    item->setFsContentChangeDate(qn::Date(7.0e8 + static_cast<double>(i)));
    return item;
}

std::shared_ptr<QNiCloudCache> buildCache(const Tree& tree) {
    auto cache = QNiCloudCache::cacheWithCachedDirectoryPath(kContainer);
    for (std::size_t i = 0; i < tree.absolute.size(); ++i) {
        cache->createEntryAtPath(tree.absolute[i], tree.isFile[i] ? querySnapshot(i) : nullptr);
    }
    return cache;
}

struct Fixture {
    Tree tree;
    std::shared_ptr<QNiCloudCache> cache;
    std::vector<std::size_t> shuffled;
    std::vector<std::size_t> shuffledAscii;
    std::unordered_map<std::string, std::shared_ptr<QNiCloudCacheEntry>> plainMap;
    std::vector<std::string> plainKeys;  // lowercaseNFC of the normalised absolute paths.
};

Fixture& fixture(std::size_t size) {
    static std::map<std::size_t, std::unique_ptr<Fixture>> fixtures;
    auto& slot = fixtures[size];
    if (!slot) {
        slot = std::make_unique<Fixture>();
        slot->tree = makeTree(size);
        slot->cache = buildCache(slot->tree);
        const auto& paths = slot->tree.absolute;
        for (std::size_t i = 0; i < paths.size(); ++i) {
            slot->shuffled.push_back(i);
            slot->plainKeys.push_back(qn::lowercaseNFC(qn::stringByNormalizingPath(paths[i])));
            slot->plainMap.emplace(slot->plainKeys.back(), slot->cache->entryForPath(paths[i]));
            if (std::none_of(paths[i].begin(), paths[i].end(), [](char c) { return c & 0x80; })) {
                slot->shuffledAscii.push_back(i);
            }
        }
        std::mt19937 random(7);
        std::shuffle(slot->shuffled.begin(), slot->shuffled.end(), random);
        std::shuffle(slot->shuffledAscii.begin(), slot->shuffledAscii.end(), random);
    }
    return *slot;
}

// Memory first, in a process that has not yet freed anything large.
void BM_MemoryPerEntry(benchmark::State& state) {
    const Tree tree = makeTree(static_cast<std::size_t>(state.range(0)));
    std::shared_ptr<QNiCloudCache> cache;
    std::int64_t heap = 0;
    std::int64_t resident = 0;
    for (auto _ : state) {
        malloc_trim(0);
        const std::int64_t heapBefore = heapInUse();
        const std::int64_t residentBefore = residentBytes();
        cache = buildCache(tree);
        heap = heapInUse() - heapBefore;
        resident = residentBytes() - residentBefore;
    }
    const double count = static_cast<double>(cache->count());
    std::size_t longNames = 0;
    cache->enumerateSubentriesOfEntry(cache->entryForRelativePath("/"), [&](const auto& entry) {
        longNames += entry->name().size() > 23;
        return true;
    });
    state.counters["entries"] = count;
    state.counters["heap_B_per_entry"] = static_cast<double>(heap) / count;
    state.counters["rss_B_per_entry"] = static_cast<double>(resident) / count;
    state.counters["index_B_per_entry"] =
        static_cast<double>(cache->entriesTree().allocatedBytes()) / count;
    state.counters["long_names_pct"] = 100.0 * static_cast<double>(longNames) / count;
    state.counters["non_ascii_paths_pct"] = 100.0 * tree.nonAsciiShare;
    state.counters["decomposed_paths_pct"] = 100.0 * tree.decomposedShare;
}
BENCHMARK(BM_MemoryPerEntry)
    ->Arg(100000)
    ->Arg(1000000)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

// The parts of an entry's cost that do not depend on the tree: one entry and one snapshot, each
// with its reference counts in one allocation.
void BM_MemoryOfParts(benchmark::State& state) {
    constexpr int kCount = 100000;
    std::vector<std::shared_ptr<QNiCloudCacheEntry>> entries;
    std::vector<std::shared_ptr<QNiCloudMetadataItem>> items;
    double entryBytes = 0;
    double itemBytes = 0;
    for (auto _ : state) {
        entries.clear();
        items.clear();
        entries.reserve(kCount);
        items.reserve(kCount);
        std::int64_t before = heapInUse();
        for (int i = 0; i < kCount; ++i) {
            entries.push_back(std::make_shared<QNiCloudCacheEntry>("IMG_0001.JPG"));
        }
        entryBytes = static_cast<double>(heapInUse() - before) / kCount;
        before = heapInUse();
        for (int i = 0; i < kCount; ++i) {
            items.push_back(querySnapshot(static_cast<std::size_t>(i)));
        }
        itemBytes = static_cast<double>(heapInUse() - before) / kCount;
    }
    state.counters["entry_B"] = entryBytes;
    state.counters["snapshot_B"] = itemBytes;
    state.counters["sizeof_entry"] = sizeof(QNiCloudCacheEntry);
    state.counters["sizeof_snapshot"] = sizeof(QNiCloudMetadataItem);
}
BENCHMARK(BM_MemoryOfParts)->Iterations(1);

void BM_CreateFromScratch(benchmark::State& state) {
    const Fixture& f = fixture(static_cast<std::size_t>(state.range(0)));
    std::vector<std::shared_ptr<QNiCloudMetadataItem>> items(f.tree.absolute.size());
    for (std::size_t i = 0; i < items.size(); ++i) {
        if (f.tree.isFile[i]) {
            items[i] = querySnapshot(i);
        }
    }
    for (auto _ : state) {
        auto cache = QNiCloudCache::cacheWithCachedDirectoryPath(kContainer);
        for (std::size_t i = 0; i < items.size(); ++i) {
            cache->createEntryAtPath(f.tree.absolute[i], items[i]);
        }
        state.PauseTiming();
        cache.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(items.size()));
}
BENCHMARK(BM_CreateFromScratch)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

void BM_LookupByAbsolutePath(benchmark::State& state) {
    const Fixture& f = fixture(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        for (const std::size_t i : f.shuffled) {
            benchmark::DoNotOptimize(f.cache->entryForPath(f.tree.absolute[i]));
        }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(f.shuffled.size()));
}
BENCHMARK(BM_LookupByAbsolutePath)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

void BM_LookupByAbsolutePathAsciiOnly(benchmark::State& state) {
    const Fixture& f = fixture(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        for (const std::size_t i : f.shuffledAscii) {
            benchmark::DoNotOptimize(f.cache->entryForPath(f.tree.absolute[i]));
        }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(f.shuffledAscii.size()));
}
BENCHMARK(BM_LookupByAbsolutePathAsciiOnly)
    ->Arg(100000)
    ->Arg(1000000)
    ->Unit(benchmark::kMillisecond);

void BM_LookupPlainMap(benchmark::State& state) {
    const Fixture& f = fixture(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        for (const std::size_t i : f.shuffled) {
            const auto it = f.plainMap.find(f.plainKeys[i]);
            benchmark::DoNotOptimize(it == f.plainMap.end() ? nullptr : it->second);
        }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(f.shuffled.size()));
}
BENCHMARK(BM_LookupPlainMap)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

// Both lookups in alternation, so that both see the same machine load; the ratio is ours over
// the plain map's.
void BM_LookupRatioToPlainMap(benchmark::State& state) {
    const Fixture& f = fixture(static_cast<std::size_t>(state.range(0)));
    using Clock = std::chrono::steady_clock;
    Clock::duration ours{};
    Clock::duration plain{};
    for (auto _ : state) {
        const auto start = Clock::now();
        for (const std::size_t i : f.shuffled) {
            benchmark::DoNotOptimize(f.cache->entryForPath(f.tree.absolute[i]));
        }
        const auto middle = Clock::now();
        for (const std::size_t i : f.shuffled) {
            const auto it = f.plainMap.find(f.plainKeys[i]);
            benchmark::DoNotOptimize(it == f.plainMap.end() ? nullptr : it->second);
        }
        ours += middle - start;
        plain += Clock::now() - middle;
    }
    const double lookups = static_cast<double>(state.iterations() * f.shuffled.size());
    state.counters["ours_ns"] = std::chrono::duration<double, std::nano>(ours).count() / lookups;
    state.counters["plain_map_ns"] =
        std::chrono::duration<double, std::nano>(plain).count() / lookups;
    state.counters["ratio"] =
        static_cast<double>(ours.count()) / static_cast<double>(plain.count());
}
BENCHMARK(BM_LookupRatioToPlainMap)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

void BM_SubpathWalkOfWholeTree(benchmark::State& state) {
    const Fixture& f = fixture(static_cast<std::size_t>(state.range(0)));
    std::size_t visited = 0;
    for (auto _ : state) {
        std::size_t bytes = 0;
        visited = 0;
        f.cache->enumerateSubpathsOfEntryAtPath(kContainer,
                                                [&](std::optional<std::string_view> sub) {
                                                    bytes += sub->size();
                                                    ++visited;
                                                    return true;
                                                });
        benchmark::DoNotOptimize(bytes);
    }
    state.counters["entries"] = static_cast<double>(visited);
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(visited));
}
BENCHMARK(BM_SubpathWalkOfWholeTree)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

void BM_ListTwentyEntryDirectory(benchmark::State& state) {
    const Fixture& f = fixture(static_cast<std::size_t>(state.range(0)));
    const auto directory = f.cache->entryForPath(f.tree.listedDirectory);
    for (auto _ : state) {
        QNiCloudDirectoryEnumerator enumerator(directory, 0);
        benchmark::DoNotOptimize(enumerator.allObjects());
    }
    state.counters["listed"] =
        static_cast<double>(QNiCloudDirectoryEnumerator(directory, 0).allObjects().size());
}
BENCHMARK(BM_ListTwentyEntryDirectory)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMicrosecond);

// Moves a directory with 10,000 descendants into another directory and back.
void BM_MoveTenThousandDescendants(benchmark::State& state) {
    Fixture& f = fixture(static_cast<std::size_t>(state.range(0)));
    const std::string away = kContainer + "/Archive 0/Big Project";
    f.cache->createEntryAtPath(kContainer + "/Archive 0", nullptr);
    bool there = false;
    for (auto _ : state) {
        f.cache->moveEntryAtPath(there ? away : f.tree.bigDirectory,
                                 there ? f.tree.bigDirectory : away);
        there = !there;
    }
    if (there) {
        f.cache->moveEntryAtPath(away, f.tree.bigDirectory);
    }
    state.counters["descendants"] =
        static_cast<double>(f.cache->numberOfSubentriesForEntryAtPath(f.tree.bigDirectory));
}
BENCHMARK(BM_MoveTenThousandDescendants)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

void BM_RemoveAll(benchmark::State& state) {
    const Fixture& f = fixture(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        state.PauseTiming();
        auto cache = buildCache(f.tree);
        state.ResumeTiming();
        cache->removeAll();
    }
}
BENCHMARK(BM_RemoveAll)->Arg(100000)->Arg(1000000)->Iterations(3)->Unit(benchmark::kMillisecond);

void BM_HashForPath(benchmark::State& state) {
    const std::string path = "/Projects 12/Archive 345/Team 6789/IMG_12345.JPG";
    for (auto _ : state) {
        benchmark::DoNotOptimize(QNiCloudCache::hashForPath(path));
    }
    state.counters["bytes"] = static_cast<double>(path.size());
}
BENCHMARK(BM_HashForPath);

}  // namespace
