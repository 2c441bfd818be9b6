// A long seeded walk through everything that moves the cache: the cloud changing items, the
// presenter's upkeep after real file operations under Documents, metadata updates by hand and
// the query's deliveries. After every step the cache and the notifications the host received
// are checked against a model of this test's own: appearances, changes and removals, broken and
// strange items left out, entries kept while something is still on disk, and the folders above.
// QN_RANDOM_SYNC_SEED runs that seed alone; QN_RANDOM_SYNC_STEPS sets the steps per seed.

#include <fcntl.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "QNiCloud/QNiCloudCache.h"
#include "QNiCloud/QNiCloudMetadataItem.h"
#include "SyncFixture.h"

namespace qn::test {
namespace {

namespace fs = std::filesystem;

std::uint64_t fromEnvironment(const char* name, std::uint64_t fallback) {
    const char* value = std::getenv(name);
    return value != nullptr && *value != 0 ? std::strtoull(value, nullptr, 10) : fallback;
}

// The cloud's items (files, two packages and a plain folder) and the test's own have names of
// their own, so they only meet where the test moves or copies one onto the other's ground.
const std::vector<std::string> kCloudFiles = {
    "c0.txt",      "c1.txt",          "c2.txt",      "Caf\u00e9.txt",    "\u65e5\u672c.txt",
    "Sub0/c0.txt", "Sub0/\u00dc.txt", "Sub1/c0.txt", "Sub1/Deep/c0.txt", "Sub1/Deep/c1.txt"};
const std::vector<std::string> kCloudFolders = {"P0.pages", "P1.pages", "F0"};
const std::vector<std::string> kLocalFiles = {"L0.txt",          "L1.txt",           "LDir0/L0.txt",
                                              "LDir0/In/L1.txt", "LDir1/\u00c4.txt", "Sub0/L0.txt",
                                              "Sub1/Deep/L1.txt"};
const std::vector<std::string> kLocalFolders = {"LDir0", "LDir1", "LDir2", "LDir0/In"};

// What a cached snapshot must say; the file name is left out, as copies lose it.
struct Snapshot {
    bool downloaded = false, downloading = false, uploaded = false, uploading = false;
    bool conflicts = false;
    double percentDownloaded = 0, percentUploaded = 0;
    std::optional<double> date;
    std::uint64_t size = 0;
};
using Tree = std::map<std::string, std::optional<Snapshot>>;  // relative path: none for a folder

// No transfer in progress and no conflicts, as a local file is snapshotted.
Snapshot settled(bool downloaded, bool uploaded, std::optional<double> date, std::uint64_t size) {
    Snapshot s;
    s.downloaded = downloaded, s.percentDownloaded = downloaded ? 100 : 0;
    s.uploaded = uploaded, s.percentUploaded = uploaded ? 100 : 0;
    s.date = date, s.size = size;
    return s;
}

std::string describe(const std::optional<Snapshot>& s) {
    return !s ? "folder"
              : fmt::format("{}{}{}{}{} {}% {}% date {} size {}", s->downloaded ? 'D' : '-',
                            s->downloading ? 'd' : '-', s->uploaded ? 'U' : '-',
                            s->uploading ? 'u' : '-', s->conflicts ? 'C' : '-',
                            s->percentDownloaded, s->percentUploaded,
                            s->date ? fmt::format("{}", *s->date) : "none", s->size);
}

std::string describe(const QNiCloudMetadataItem* item) {
    if (item == nullptr) {
        return describe(std::nullopt);
    }
    const auto& date = item->fsContentChangeDate();
    Snapshot s =
        settled(item->isDownloaded(), item->isUploaded(),
                date ? std::optional(date->timeIntervalSinceReferenceDate()) : std::nullopt,
                item->contentSize());
    s.downloading = item->isDownloading(), s.percentDownloaded = item->percentDownloaded();
    s.uploading = item->isUploading(), s.percentUploaded = item->percentUploaded();
    s.conflicts = item->hasUnresolvedConflicts();
    return describe(s);
}

// What the query reports of a cloud state: a transfer that is over shows nothing in progress.
Snapshot reportedBy(const SimulatedItemState& state) {
    Snapshot s =
        settled(state.downloadingStatus == SimulatedDownloadingStatus::Current, state.uploaded,
                state.contentChangeDate.timeIntervalSinceReferenceDate(), state.reportedSize());
    if (!s.downloaded) {
        s.downloading = state.downloading, s.percentDownloaded = state.percentDownloaded;
    }
    if (!s.uploaded) {
        s.uploading = state.uploading, s.percentUploaded = state.percentUploaded;
    }
    s.conflicts = state.hasUnresolvedConflicts;
    return s;
}

// The change the host hears of, from an older snapshot to a newer one: the first rule that
// holds. A later content date hides every transfer change, only a transfer that starts or
// finishes counts, and a percentage only while the old snapshot's transfer is not finished.
int changeType(const Snapshot& o, const Snapshot& n) {
    const std::pair<bool, int> rules[] = {
        {o.conflicts != n.conflicts, n.conflicts ? 7 : 8},
        {o.date && n.date && *o.date < *n.date, 9},
        {!o.downloading && n.downloading, 2},
        {!o.downloaded && n.downloaded, 1},
        {!o.downloaded && o.percentDownloaded != n.percentDownloaded, 3},
        {!o.uploading && n.uploading, 5},
        {!o.uploaded && n.uploaded, 4},
        {!o.uploaded && o.percentUploaded != n.percentUploaded, 6},
    };
    const auto rule =
        std::find_if(std::begin(rules), std::end(rules), [](const auto& r) { return r.first; });
    return rule == std::end(rules) ? 0 : rule->second;
}

std::string parentOf(const std::string& rel) {
    const auto slash = rel.rfind('/');
    return slash == std::string::npos ? "" : rel.substr(0, slash);
}

// Whole seconds chosen by the test, so that a seed replays the same dates.
void setModificationDate(const std::string& path, double date) {
    const struct timespec times[2] = {{0, UTIME_OMIT}, Date(date).toTimespec()};
    ::utimensat(AT_FDCWD, path.c_str(), times, 0);
}

void writeFile(const std::string& path, const std::string& contents, double date) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << contents;
    setModificationDate(path, date);
}

class QNiCloudCacheSynchronisationRandomTest : public SyncFixture,
                                               public ::testing::WithParamInterface<std::uint64_t> {
protected:
    std::size_t pick(std::size_t n) { return rng() % n; }
    bool chance(double p) { return std::bernoulli_distribution(p)(rng); }
    const std::string& any(const std::vector<std::string>& n) { return n[pick(n.size())]; }
    double anyDate() { return 8e8 + 60.0 * static_cast<double>(pick(100)); }
    double anyPercent() { return std::vector<double>{0, 12.5, 50, 99.5}[pick(4)]; }

    std::string abs(const std::string& rel) const { return documentPath(rel); }
    bool onDisk(const std::string& rel) const {
        std::error_code error;
        return fs::exists(fs::symlink_status(abs(rel), error));
    }
    Snapshot fromDisk(const std::string& rel, bool uploaded) const {
        struct stat status {};
        ::stat(abs(rel).c_str(), &status);
        return settled(true, uploaded,
                       Date::fromTimespec(status.st_mtim).timeIntervalSinceReferenceDate(),
                       S_ISREG(status.st_mode) ? static_cast<std::uint64_t>(status.st_size) : 0);
    }
    std::vector<std::string> diskItems() const {
        std::vector<std::string> items;
        for (const auto& item : fs::recursive_directory_iterator(documents)) {
            items.push_back(item.path().lexically_relative(documents).string());
        }
        std::sort(items.begin(), items.end());  // the same picks whatever the disk's order
        return items;
    }

    // The model's tree: creation brings the missing folders above, removal takes what is below.
    void create(const std::string& rel, std::optional<Snapshot> snapshot) {
        model[rel] = snapshot;
        for (std::string p = parentOf(rel); !p.empty(); p = parentOf(p)) {
            model.try_emplace(p);
        }
    }
    Tree subtree(const std::string& rel) const {
        Tree found;
        std::copy_if(
            model.begin(), model.end(), std::inserter(found, found.end()),
            [&](const auto& e) { return e.first == rel || e.first.starts_with(rel + "/"); });
        return found;
    }
    void removeTree(const std::string& rel) {
        for (const auto& [path, snapshot] : subtree(rel)) {
            model.erase(path);
        }
    }

    // Every cloud item as the comparison will read it, with whether a conflict version backs its
    // flag once the check has removed those holding the file's own contents.
    std::map<std::string, std::pair<Snapshot, bool>> results() {
        std::map<std::string, std::pair<Snapshot, bool>> found;
        for (const auto* names : {&kCloudFiles, &kCloudFolders}) {
            for (const auto& rel : *names) {
                if (const auto state = cloud->item(documentURL(rel))) {
                    const bool file = fs::is_regular_file(abs(rel));
                    bool real = false;
                    for (const auto& v : cloud->otherVersionsOfItem(documentURL(rel))) {
                        real = real || (v.isConflict && !v.isResolved &&
                                        !(file && readFile(abs(rel)) == readFile(v.url.path())));
                    }
                    found[rel] = {reportedBy(*state), real};
                }
            }
        }
        return found;
    }

    // One comparison of the results with the model; returns the number of changed files.
    std::uint64_t compare(const std::map<std::string, std::pair<Snapshot, bool>>& results,
                          bool notify) {
        const auto note = [&](const std::string& rel, std::string event) {
            if (notify) {
                expected[rel].push_back(std::move(event));
            }
        };
        std::uint64_t changed = 0;
        std::set<std::string> seen;
        for (const auto& [rel, result] : results) {
            const Snapshot& r = result.first;
            Snapshot fresh = r;
            fresh.conflicts = r.conflicts && result.second;
            const auto found = model.find(rel);
            if (found != model.end() && found->second) {
                Snapshot& old = *found->second;
                // Judged against the report as it came; a flag the check corrects is a second
                // change. The content date never goes back, and the size stays the first.
                if (const int type = changeType(old, r); type != 0) {
                    note(rel, std::to_string(type));
                    if (const int c = fresh.conflicts ? 7 : 8;
                        old.conflicts != fresh.conflicts && type != c) {
                        note(rel, std::to_string(c));
                    }
                    const Snapshot before = std::exchange(old, fresh);
                    old.size = before.size;
                    old.date = before.date && *before.date > *r.date ? before.date : r.date;
                    ++changed;
                }
            } else if ((r.downloaded && !onDisk(rel)) ||  // broken: evicted instead
                       (!r.downloaded && !r.downloading && !r.uploaded && !r.uploading &&
                        !r.conflicts)) {  // strange: skipped
                continue;
            } else {
                create(rel, fresh);
                note(rel, "+");
                ++changed;
            }
            seen.insert({rel, parentOf(rel)});
        }
        for (const auto& [rel, unused] : Tree(model)) {  // sorted: folders before what they hold
            if (!seen.contains(rel) && !onDisk(rel)) {
                const auto found = model.find(rel);
                note(rel, found != model.end() && !found->second ? "-folder" : "-");
                removeTree(rel);
                ++changed;
            }
        }
        return changed;
    }

    // The first gathering: filled (broken items evicted), compared silently, then whatever the
    // disk holds that nothing reported.
    void initialise() {
        const auto gathered = results();
        for (const auto& [rel, result] : gathered) {
            Snapshot filled = result.first;
            filled.conflicts = filled.conflicts && result.second;
            if (!filled.downloaded || onDisk(rel)) {
                create(rel, filled);
            }
        }
        compare(gathered, false);
        for (const auto& rel : diskItems()) {
            const bool file = fs::is_regular_file(abs(rel)) || rel.ends_with(".pages");
            if (!model.contains(rel)) {
                create(rel, file ? std::optional(fromDisk(rel, true)) : std::nullopt);
            }
        }
        SyncFixture::initialize();
    }

    void deliverChanges() {
        if (cloud->pendingQueryBatchCount() == 0) {
            return;
        }
        const std::uint64_t changed = compare(results(), true);  // the disk is as it will be seen
        cloud->deliverQueryBatches();
        ASSERT_TRUE(waitForLogPrefix(LogLevel::Debug, kComparisonDone, 1));
        ASSERT_TRUE(MainQueue::runUntil(
            [&] { return presenter->presentedItemOperationQueue()->operationCount() == 0; },
            std::chrono::seconds(10)));
        settleMainQueue();
        EXPECT_TRUE(log.contains(LogLevel::Debug, fmt::format("Complete comparison. Number of "
                                                              "changed files = {}. Cancelled = 0.",
                                                              changed)));
    }

    void changeCloud() {
        const bool folder = chance(0.2);
        const URL url = documentURL(any(folder ? kCloudFolders : kCloudFiles));
        const auto state = cloud->item(url);
        const std::function<void(SimulatedItemState&)> changes[] = {
            [&](auto& s) { s.downloadingStatus = SimulatedDownloadingStatus(pick(3)); },
            [&](auto& s) { s.downloading = chance(0.5); },
            [&](auto& s) { s.percentDownloaded = s.percentUploaded = anyPercent(); },
            [&](auto& s) { s.uploaded = chance(0.5), s.uploading = chance(0.5); },
            [&](auto& s) { s.hasUnresolvedConflicts = !s.hasUnresolvedConflicts; },
            [&](auto& s) { s.contentChangeDate = Date(anyDate()); },
        };
        const std::size_t what = state ? pick(7) : 0;
        if (what == 0) {
            const Date date(anyDate());
            auto s = folder ? SimulatedItemState::directory(date)
                            : SimulatedItemState::downloaded(fmt::format("c{}", step), date);
            const std::size_t kind = pick(6);
            if (kind == 1) {  // in the cloud only, perhaps on its way down
                s.downloadingStatus = SimulatedDownloadingStatus::NotDownloaded;
                s.downloading = chance(0.5), s.percentDownloaded = anyPercent();
            } else if (kind == 2) {  // on its way up
                s.uploaded = false, s.uploading = chance(0.7), s.percentUploaded = anyPercent();
            } else if (kind == 3) {  // strange: no transfer state at all
                s.downloadingStatus = chance(0.5) ? SimulatedDownloadingStatus::NotDownloaded
                                                  : SimulatedDownloadingStatus::Downloaded;
                s.uploaded = false, s.percentDownloaded = s.percentUploaded = 0;
            }
            s.hasUnresolvedConflicts = chance(0.05);  // a flag no conflict version backs
            // Kept: broken when nothing is on the disk there.
            cloud->setItem(url, s,
                           kind == 4 ? SimulatedLocalCopy::Keep : SimulatedLocalCopy::FollowStatus);
        } else if (what == 1) {
            cloud->updateItem(url, changes[pick(6)]);  // the disk is left alone
        } else if (what == 2) {
            cloud->removeItem(url,
                              chance(0.5) ? SimulatedLocalCopy::Remove : SimulatedLocalCopy::Keep);
        } else if (what == 3) {  // a real conflict, or the cloud's contents: invalid once local
            cloud->addConflictVersion(
                url, chance(0.4) ? state->contents : fmt::format("conflict {}", step),
                Date(anyDate()));
        } else if (what == 4) {
            for (const auto& version : cloud->otherVersionsOfItem(url)) {
                cloud->setVersionResolved(url, version.identifier, true, nullptr);
            }
        } else {
            what == 5 ? cloud->startDownloading(url, nullptr) : cloud->evict(url, nullptr);
        }
    }

    // A real file operation under Documents, then the presenter's upkeep for it.
    void changeLocally() {
        const auto items = diskItems();
        const std::string outside = home.pathOf(fmt::format("Outside/{}", step));
        fs::create_directories(home.pathOf("Outside"));
        const bool folder = chance(0.4), move = chance(0.5);
        const std::string& to = any(folder ? kLocalFolders : kLocalFiles);
        const std::string& from = items.empty() ? to : any(items);
        const std::size_t what = items.empty() ? 0 : pick(5);
        if (what == 0 && !onDisk(to)) {  // a new local file is downloaded and not yet uploaded
            fs::create_directories(folder ? fs::path(abs(to)) : fs::path(abs(to)).parent_path());
            if (!folder) {
                writeFile(abs(to), fmt::format("w{}", step), anyDate());
            }
            presenter->updateCacheAfterCreationOfItemAtPath(abs(to));
            create(to, folder ? std::nullopt : std::optional(fromDisk(to, false)));
        } else if (what == 1) {  // removed, or moved out of Documents
            move ? fs::rename(abs(from), outside) : (void)fs::remove_all(abs(from));
            move ? presenter->updateCacheAfterMovingOfItemAtPath(abs(from), outside)
                 : presenter->updateCacheAfterRemovalOfItemAtPath(abs(from));
            removeTree(from);
        } else if (what == 2 && !onDisk(to)) {  // moved or copied in, read from the disk
            fs::create_directories(folder ? outside + "/sub" : home.pathOf("Outside"));
            writeFile(folder ? outside + "/sub/b.txt" : outside, "in", anyDate());
            fs::create_directories(fs::path(abs(to)).parent_path());
            move ? fs::rename(outside, abs(to))
                 : fs::copy(outside, abs(to), fs::copy_options::recursive);
            setModificationDate(abs(to), anyDate());
            move ? presenter->updateCacheAfterMovingOfItemAtPath(outside, abs(to))
                 : presenter->updateCacheAfterCopyingOfItemAtPath(outside, abs(to));
            // The files inside are described by the top item, as the recursive creation reads.
            const Snapshot top = fromDisk(to, false);
            create(folder ? to + "/sub/b.txt" : to, top);
            create(to, folder ? std::nullopt : std::optional(top));
        } else if (what == 3) {  // moved (folders renamed where they are) or copied within
            const bool isFolder = fs::is_directory(abs(from));
            const std::string& dest = any(isFolder ? kLocalFolders : kLocalFiles);
            const std::string parent = parentOf(dest);
            // Moves the cache deliberately handles oddly (to an uncached folder, renaming a
            // folder's contents on the way) are left to its own tests.
            if (onDisk(dest) || model.contains(dest) || dest.starts_with(from + "/") ||
                (move &&
                 (isFolder ? parent != parentOf(from)
                           : !parent.empty() && (!model.contains(parent) || !onDisk(parent))))) {
                return;
            }
            fs::create_directories(fs::path(abs(dest)).parent_path());
            move ? fs::rename(abs(from), abs(dest))
                 : fs::copy(abs(from), abs(dest), fs::copy_options::recursive);
            move ? presenter->updateCacheAfterMovingOfItemAtPath(abs(from), abs(dest))
                 : presenter->updateCacheAfterCopyingOfItemAtPath(abs(from), abs(dest));
            if (!model.contains(from) && !move) {
                create(dest, std::nullopt);  // an uncached source copies as a folder
            }
            for (auto [rel, snapshot] : subtree(from)) {
                if (move) {
                    model.erase(rel);
                } else if (snapshot) {
                    snapshot->uploaded = false;  // a copy is not in the cloud
                }
                create(dest + rel.substr(from.size()), snapshot);
            }
        } else if (what == 4 && fs::is_regular_file(abs(from))) {  // written
            writeFile(abs(from), fmt::format("w{}", step), anyDate());
            presenter->updateCacheAfterUpdateOfItemAtPath(abs(from));
            if (auto found = model.find(from); found != model.end() && found->second) {
                found->second->uploaded = false;
                found->second->date = fromDisk(from, false).date;
            }
        }
    }

    void updateMetadata() {
        const std::string rel = !model.empty() && chance(0.9)
                                    ? std::next(model.begin(), pick(model.size()))->first
                                    : any(kLocalFiles);
        const int type = 1 + static_cast<int>(pick(9));
        const bool notify = chance(0.7), flag = chance(0.5);
        const double number = type == 9 ? anyDate() : anyPercent();
        presenter->updateMetadataItemForPath(abs(rel),
                                             type == 3 || type == 6 ? Value(number)
                                             : type == 9            ? Value(Date(number))
                                                                    : Value(flag),
                                             static_cast<QNiCloudFileChangeType>(type), notify);
        const auto found = model.find(rel);
        if (found == model.end() || !found->second) {
            return;
        }
        Snapshot& s = *found->second;
        bool* flags[] = {&s.downloaded, &s.downloading, nullptr,      &s.uploaded,
                         &s.uploading,  nullptr,        &s.conflicts, &s.conflicts};
        const bool changed = type == 3   ? std::exchange(s.percentDownloaded, number) != number
                             : type == 6 ? std::exchange(s.percentUploaded, number) != number
                             : type == 9 ? std::exchange(s.date, number) != number
                                         : std::exchange(*flags[type - 1], flag) != flag;
        if (changed && notify) {
            expected[rel].push_back(std::to_string(type));
        }
    }

    // The cache, its index and the step's notifications against the model.
    void expectModel() {
        const auto cache = presenter->cache();
        auto paths = cache->allSubpathsOfEntryAtPath(documents);
        std::sort(paths.begin(), paths.end());
        std::string actual, wanted;
        for (const auto& rel : paths) {
            const auto entry = cache->entryForPath(abs(rel));
            actual += rel + ": " +
                      (entry ? describe(entry->metadataItem().get()) : std::string("lost")) + "\n";
        }
        for (const auto& [rel, snapshot] : model) {
            wanted += rel + ": " + describe(snapshot) + "\n";
        }
        EXPECT_EQ(actual, wanted) << "after step " << step;
        if (!model.empty() || cache->count() != 0) {
            EXPECT_EQ(cache->count(), model.size() + 1) << "stray index records";
        }
        std::map<std::string, std::vector<std::string>> told;
        for (const auto& [notification, onMainThread] : received) {
            const auto& info = notification.userInfo;
            const std::string* path = info.stringForKey(QNiCloudSourcePathKey);
            const auto type = info.int64ForKey(QNiCloudFileChangeTypeKey);
            const std::string sign = notification.name == QNiCloudFileDidAppearNotification    ? "+"
                                     : notification.name == QNiCloudFileWasRemovedNotification ? "-"
                                                                                               : "";
            if (path != nullptr && (type || !sign.empty())) {
                EXPECT_TRUE(onMainThread);
                const bool folder = info.boolForKey(QNiCloudIsDirectoryKey).value_or(false);
                told[path->substr(std::min(path->size(), documents.size() + 1))].push_back(
                    type ? std::to_string(*type) : sign + (folder ? "folder" : ""));
            }
        }
        EXPECT_EQ(fmt::format("{}", told), fmt::format("{}", expected)) << "after step " << step;
    }

    std::mt19937_64 rng;
    Tree model;
    std::map<std::string, std::vector<std::string>> expected;  // relative path: its notifications
    int step = 0;
};

TEST_P(QNiCloudCacheSynchronisationRandomTest, CacheFollowsTheCloudAndLocalChanges) {
    SCOPED_TRACE(fmt::format("QN_RANDOM_SYNC_SEED={}", GetParam()));
    rng.seed(GetParam());
    installCloud("alice@example.com");
    for (int i = 0; i < 15; ++i) {
        changeCloud();
    }
    startPresenter();
    initialise();
    expectModel();
    const auto steps = static_cast<int>(fromEnvironment("QN_RANDOM_SYNC_STEPS", 600));
    for (step = 1; step <= steps && !HasFailure(); ++step) {
        received.clear(), expected.clear(), log.clear();
        const std::size_t choice = pick(100);
        if (choice < 40) {
            changeCloud();
        } else if (choice < 70) {
            changeLocally();
        } else if (choice < 78) {
            updateMetadata();
        } else {
            deliverChanges();
        }
        expectModel();
    }
}

INSTANTIATE_TEST_SUITE_P(
    Seeds, QNiCloudCacheSynchronisationRandomTest,
    ::testing::ValuesIn(std::getenv("QN_RANDOM_SYNC_SEED") != nullptr
                            ? std::vector{fromEnvironment("QN_RANDOM_SYNC_SEED", 1)}
                            : std::vector<std::uint64_t>{1, 2, 3, 4}));

}  // namespace
}  // namespace qn::test
