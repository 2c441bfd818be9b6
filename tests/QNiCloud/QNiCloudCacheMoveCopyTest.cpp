#include <gtest/gtest.h>
#include <unicode/normalizer2.h>
#include <unicode/unistr.h>

#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "CacheTestSupport.h"
#include "QNiCloud/QNiCloudCache.h"
#include "qn/PathString.h"
#include "qn/util/PathNormalization.h"

namespace {

using qn::stringByAppendingPathComponent;
using qn::stringByDeletingBeginningOfPath;
using qn::stringByDeletingLastPathComponent;
using qn::test::childNames;
using qn::test::indexRecords;
using qn::test::IndexRecords;
using qn::test::snapshot;
using Entry = std::shared_ptr<QNiCloudCacheEntry>;
using Lines = std::vector<std::string>;

constexpr const char* kBase = "/home/me/Documents";

std::string nfc(const std::string& text) {
    UErrorCode status = U_ZERO_ERROR;
    std::string result;
    icu::Normalizer2::getNFCInstance(status)
        ->normalize(icu::UnicodeString::fromUTF8(text), status)
        .toUTF8String(result);
    return result;
}

// The cache's algorithms transcribed literally onto integer links, every path computed through
// the utility functions. Weak links to entries nothing holds any more read as none.
struct Model {
    struct Node {
        std::string name;
        int parent = -1, firstChild = -1, next = -1, prev = -1;
        bool item = false, uploaded = false, alive = true;
    };
    std::string base = kBase;
    std::vector<Node> n;
    std::map<std::int32_t, std::vector<int>> index;

    int live(int id) const { return id >= 0 && n[id].alive ? id : -1; }
    // What the absolute-path operations make of `path` below the cached directory.
    std::string relative(const std::string& path) const {
        const std::string rest = nfc(stringByDeletingBeginningOfPath(base + path, base));
        return rest.empty() ? "/" : rest;
    }
    std::string relpath(int id) const {
        std::string s;
        for (int e = id; e >= 0; e = live(n[e].parent)) {
            if (n[e].name.starts_with('/') && !s.empty()) {
                break;
            }
            s = (n[e].name.starts_with('/') ? "" : "/") + n[e].name + s;
        }
        return s;
    }
    std::string absolute(int id) const { return stringByAppendingPathComponent(base, relpath(id)); }
    std::vector<int>* bucket(const std::string& path) {
        const auto it = path.empty() ? index.end() : index.find(qn::test::referencePathHash(path));
        return it == index.end() || it->second.empty() ? nullptr : &it->second;
    }
    int lookup(const std::string& path) {
        std::vector<int>* b = bucket(path);
        for (std::size_t i = 0; b != nullptr && i < b->size(); ++i) {
            if (b->size() == 1 ||
                qn::isEqualToPath(qn::lowercasePath(relpath((*b)[i])), qn::lowercasePath(path))) {
                return (*b)[i];
            }
        }
        return -1;
    }
    void store(int id, const std::string& path) {
        index[qn::test::referencePathHash(path)].push_back(id);
    }
    void removeIndex(const std::string& path) {
        std::vector<int>* b = bucket(path);
        std::size_t i = 0;
        while (b != nullptr && b->size() > 1 && i < b->size() &&
               !qn::isEqualToPath(relpath((*b)[i]), path)) {
            ++i;
        }
        if (b != nullptr && i == b->size()) {
            throw std::out_of_range("no such path in the bucket");
        }
        if (b != nullptr) {
            b->erase(b->begin() + static_cast<std::ptrdiff_t>(i));
        }
    }
    void linkAtHead(int child, int parent) {
        if (n[parent].firstChild >= 0) {
            n[child].next = n[parent].firstChild;
            n[n[parent].firstChild].prev = child;
        }
        n[parent].firstChild = child;
        n[child].parent = parent;
    }
    void unlink(int e) {
        const int parent = live(n[e].parent), prev = live(n[e].prev), next = n[e].next;
        if (parent >= 0 && n[parent].firstChild == e) {
            n[parent].firstChild = next;
        }
        if (next >= 0) {
            n[next].prev = prev;
        }
        if (prev >= 0) {
            n[prev].next = next;
        }
    }
    int make(const std::string& path) {
        n.push_back(Node{qn::lastPathComponent(path)});
        store(static_cast<int>(n.size()) - 1, path);
        return static_cast<int>(n.size()) - 1;
    }
    void create(const std::string& path, std::optional<bool> uploaded) {
        if (path.empty()) {
            return;
        }
        int child = lookup(path);
        const bool exists = child >= 0;
        child = exists ? child : make(path);
        n[child].item = uploaded.has_value();
        n[child].uploaded = uploaded.value_or(false);
        std::string parentPath =
            exists || path.size() == 1 ? "" : stringByDeletingLastPathComponent(path);
        while (!parentPath.empty()) {
            int parent = lookup(parentPath);
            const bool created = parent < 0;
            parent = created ? make(parentPath) : parent;
            linkAtHead(child, parent);
            parentPath = !created || parentPath.size() == 1
                             ? ""
                             : stringByDeletingLastPathComponent(parentPath);
            child = parent;
        }
    }
    // Breadth-first by sibling list; `visit(id, sub-path)` answers whether to go on.
    void walk(int e, bool queueFirst,
              const std::function<bool(int, std::optional<std::string>)>& visit) {
        if (e < 0 || n[e].firstChild < 0) {
            return;
        }
        const std::string top = absolute(e);
        for (std::deque<int> queue{n[e].firstChild}; !queue.empty(); queue.pop_front()) {
            const int parent = live(n[queue.front()].parent);
            std::optional<std::string> prefix;
            if (parent >= 0) {
                prefix = nfc(stringByDeletingBeginningOfPath(absolute(parent), top));
            }
            for (int s = queue.front(); s >= 0; s = n[s].next) {
                std::optional<std::string> sub;
                if (prefix) {
                    sub = stringByAppendingPathComponent(*prefix, n[s].name);
                    sub = !prefix->empty() && sub->starts_with('/') ? sub->substr(1) : *sub;
                }
                if (queueFirst && n[s].firstChild >= 0) {
                    queue.push_back(n[s].firstChild);
                }
                const bool goOn = visit(s, sub);
                if (!queueFirst && n[s].firstChild >= 0) {
                    queue.push_back(n[s].firstChild);
                }
                if (!goOn) {
                    return;
                }
            }
        }
    }
    void removeRecursively(int e, const std::string& path) {
        unlink(e);
        walk(e, false, [&](int, const std::optional<std::string>& sub) {
            if (sub) {
                removeIndex(stringByAppendingPathComponent(path, *sub));
            }
            return true;
        });
        removeIndex(path);
    }
    void move(const std::string& source, const std::string& destination) {
        const int e = lookup(source);
        if (e < 0) {
            return;
        }
        const int newParent = lookup(stringByDeletingLastPathComponent(destination));
        std::string oldPrefix = source, newPrefix = destination;
        if (live(n[e].parent) != newParent) {
            unlink(e);
            n[e].next = n[e].prev = n[e].parent = -1;
            if (newParent >= 0) {
                linkAtHead(e, newParent);
            }
            oldPrefix = stringByDeletingLastPathComponent(source);
            newPrefix = stringByDeletingLastPathComponent(destination);
        }
        n[e].name = qn::lastPathComponent(destination);
        removeIndex(source);
        store(e, destination);
        walk(e, true, [&](int d, auto) {
            const std::string newPath = relpath(d);
            removeIndex(stringByAppendingPathComponent(
                oldPrefix, nfc(stringByDeletingBeginningOfPath(newPath, newPrefix))));
            store(d, newPath);
            return true;
        });
    }
    void copy(const std::string& source, const std::string& destination) {
        const int e = lookup(source);
        auto copied = [&](int id) {
            return n[id].item ? std::optional<bool>(false) : std::nullopt;
        };
        create(destination, e >= 0 ? copied(e) : std::nullopt);
        walk(e, true, [&](int d, auto) {
            create(stringByAppendingPathComponent(
                       destination, nfc(stringByDeletingBeginningOfPath(relpath(d), source))),
                   copied(d));
            return true;
        });
    }
    // Entries no index record reaches through strong links are gone.
    void sweep() {
        std::vector<char> reached(n.size());
        std::vector<int> pending;
        for (const auto& [key, ids] : index) {
            pending.insert(pending.end(), ids.begin(), ids.end());
        }
        while (!pending.empty()) {
            const int id = pending.back();
            pending.pop_back();
            if (id >= 0 && !reached[id]) {
                reached[id] = 1;
                pending.insert(pending.end(), {n[id].firstChild, n[id].next});
            }
        }
        for (std::size_t i = 0; i < n.size(); ++i) {
            n[i].alive = n[i].alive && reached[i];
        }
    }
    IndexRecords records() const {
        IndexRecords result;
        for (const auto& [key, ids] : index) {
            result.emplace_back(key, Lines{});
            for (const int id : ids) {
                result.back().second.push_back(relpath(id));
            }
        }
        return result;
    }
    // The walk below `e`: each entry's path, snapshot state and previous sibling, then the
    // sub-paths.
    Lines view(int e) {
        Lines result;
        walk(e, true, [&](int d, auto) {
            result.push_back(relpath(d) + (n[d].item ? (n[d].uploaded ? " U" : " F") : " D") +
                             " prev=" + (live(n[d].prev) >= 0 ? relpath(n[d].prev) : ""));
            return true;
        });
        walk(e, false, [&](int, const std::optional<std::string>& sub) {
            result.push_back(sub.value_or("<none>"));
            return true;
        });
        return result;
    }
};

Lines view(const QNiCloudCache& cache, const Entry& entry) {
    Lines result;
    cache.enumerateSubentriesOfEntry(entry, [&](const Entry& d) {
        const auto& item = d->metadataItem();
        result.push_back(*cache.relativePathForEntry(d) +
                         (item ? (item->isUploaded() ? " U" : " F") : " D") +
                         " prev=" + (d->prev() ? *cache.relativePathForEntry(d->prev()) : ""));
        return true;
    });
    cache.enumerateSubpathsOfEntry(entry, [&](std::optional<std::string_view> sub) {
        result.emplace_back(sub.value_or("<none>"));
        return true;
    });
    return result;
}

// What the random comparison below cannot show: the absolute-path walks and counts, stopping a
// walk early, what a copy's snapshots keep, and moves or copies into an entry's own subtree
// (which the comparison leaves out).
TEST(QNiCloudCacheMoveCopyTest, WalksMovesAndCopiesOfTheSmallTree) {
    auto cache = QNiCloudCache::cacheWithCachedDirectoryPath(kBase);
    const std::string base = kBase;
    cache->createEntryAtRelativePath("/d/x", nullptr);
    cache->createEntryAtRelativePath("/d/y", snapshot());
    cache->createEntryAtRelativePath("/d/x/z", snapshot());
    cache->createEntryAtRelativePath("/f", nullptr);
    EXPECT_EQ(cache->allSubpathsOfEntryAtPath(base + "/d"), (Lines{"y", "x", "x/z"}));
    EXPECT_EQ(cache->numberOfSubentriesForEntryAtPath(base + "/d"), 3u);
    EXPECT_EQ(cache->numberOfSubentriesForEntryAtPath(base + "/nope"), 0u);
    EXPECT_TRUE(cache->allSubpathsOfEntryAtPath(base + "/d/y").empty());
    int calls = 0;
    cache->enumerateSubentriesOfEntryAtPath(base + "/d", [&](const Entry&) { return ++calls > 5; });
    cache->enumerateSubpathsOfEntryAtPath(base + "/d", [&](auto) { return ++calls > 5; });
    EXPECT_EQ(calls, 2);

    // The copies' order, links and upload state are compared with the model below.
    cache->copyEntryAtPath(base + "/d", base + "/g");
    EXPECT_FALSE(cache->entryForRelativePath("/g/x/z")->metadataItem()->fileName().has_value());

    // Into its own subtree a move does nothing and a copy copies the tree as it was.
    const std::uint64_t settled = cache->count();
    cache->moveEntryAtRelativePath("/d", "/D/x/d");
    cache->moveEntryAtRelativePath("/", "/x");
    EXPECT_EQ(cache->count(), settled);
    EXPECT_EQ(childNames(cache->entryForRelativePath("/d")), (Lines{"y", "x"}));
    cache->copyEntryAtRelativePath("/d", "/d/x/c");
    EXPECT_EQ(cache->allSubpathsOfEntryAtPath(base + "/d/x/c"), (Lines{"x", "y", "x/z"}));
    EXPECT_EQ(cache->count(), settled + 4);
}

// Random operations on the cache and on the literal model, compared after every step: the tree
// in walk order with each entry's snapshot state and previous sibling, the sub-paths, and every
// index record. Names include case variants, decomposed text, "." and "..", and paths whose
// hashes collide, so trusted buckets, scans, stale records and out-of-range removals all happen.
TEST(QNiCloudCacheMoveCopyTest, RandomOperationsMatchTheLiteralModel) {
    for (const auto& [first, second] : qn::test::kCollidingPaths) {
        ASSERT_EQ(QNiCloudCache::hashForPath(first), QNiCloudCache::hashForPath(second));
    }
    const Lines names = {"a", "A",  "b",      "Docs", "docs", "\u00C9t\u00E9", "E\u0301te\u0301",
                         ".", "..", "x.pages"};
    for (unsigned seed = 1; seed <= 16; ++seed) {
        std::mt19937 random(seed);
        auto pick = [&](std::size_t size) { return static_cast<std::size_t>(random() % size); };
        auto randomPath = [&] {
            const auto& colliding = qn::test::kCollidingPaths[pick(4)];
            std::string path = pick(6) == 0 ? (pick(2) ? colliding.first : colliding.second) : "";
            for (std::size_t depth = path.empty() ? 1 + pick(3) : pick(2); depth > 0; --depth) {
                path += "/" + names[pick(names.size())];
            }
            return path;
        };
        auto cache = QNiCloudCache::cacheWithCachedDirectoryPath(kBase);
        Model model;
        for (int step = 0; step < 400; ++step) {
            const std::string a = randomPath(), b = randomPath();
            // Create, remove, remove by entry, remove from the index, move, copy, remove all.
            const std::size_t operation = std::discrete_distribution<std::size_t>(
                {8.0, 2.0, 1.0, 1.0, 3.0, 3.0, step % 7 == 0 ? 1.0 : 0.0})(random);
            const std::string ra = operation == 4 ? model.relative(a) : a;
            const std::string rb = operation == 4 ? model.relative(b) : b;
            // Moves and copies into their own subtree would loop forever.
            const int source = model.lookup(ra);
            std::vector<char> below(model.n.size());
            if (source >= 0) {
                below[source] = 1;
                model.walk(source, true, [&](int d, auto) { return below[d] = 1; });
            }
            bool intoItself = false;
            for (std::string p = rb; !p.empty() && source >= 0;
                 p = p.size() == 1 ? "" : stringByDeletingLastPathComponent(p)) {
                const int e = model.lookup(p);
                intoItself = intoItself || (e >= 0 && below[e]);
            }
            // Copies double trees quickly; past a few hundred entries they wait for removals. A
            // move onto the cached directory itself would give an entry the root's name.
            if (((operation == 4 || operation == 5) && intoItself) ||
                (operation == 5 && cache->count() > 300) || (operation == 4 && rb == "/")) {
                continue;
            }
            const std::optional<bool> uploaded =
                pick(3) == 0 ? std::nullopt : std::optional<bool>(pick(2) == 0);
            const int found = model.lookup(a);
            const std::vector<std::pair<std::function<void()>, std::function<void()>>> operations =
                {
                    {[&] { model.create(model.relative(a), uploaded); },
                     [&] {
                         cache->createEntryAtPath(kBase + a,
                                                  uploaded ? snapshot(*uploaded) : nullptr);
                     }},
                    {[&] { found >= 0 ? model.removeRecursively(found, a) : void(); },
                     [&] { cache->removeEntryRecursivelyAtRelativePath(a); }},
                    {[&] {
                         found >= 0 ? model.removeRecursively(found, model.relpath(found)) : void();
                     },
                     [&] { cache->removeEntryRecursively(cache->entryForRelativePath(a)); }},
                    {[&] { model.removeIndex(a); },
                     [&] { cache->removeEntryAtRelativePathFromEntriesTree(a); }},
                    {[&] { model.move(ra, rb); },
                     [&] { cache->moveEntryAtPath(kBase + a, kBase + b); }},
                    {[&] { model.copy(a, b); }, [&] { cache->copyEntryAtRelativePath(a, b); }},
                    {[&] { model.index.clear(); }, [&] { cache->removeAll(); }},
                };
            bool threw[2] = {false, false};
            for (int side = 0; side < 2; ++side) {
                try {
                    side == 0 ? operations[operation].first() : operations[operation].second();
                } catch (const std::out_of_range&) {
                    threw[side] = true;
                }
            }
            model.sweep();
            SCOPED_TRACE(testing::Message() << "seed " << seed << " step " << step << " operation "
                                            << operation << " " << a << " " << b);
            ASSERT_EQ(threw[0], threw[1]);
            ASSERT_EQ(indexRecords(*cache), model.records());
            ASSERT_EQ(view(*cache, cache->entryForRelativePath("/")),
                      model.view(model.lookup("/")));
        }
    }
}

}  // namespace
