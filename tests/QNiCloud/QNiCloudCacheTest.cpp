#include <gtest/gtest.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "CacheTestSupport.h"
#include "QNiCloud/QNiCloudCache.h"
#include "qn/util/PathNormalization.h"

namespace {

using qn::test::childNames;
using qn::test::indexRecords;
using qn::test::snapshot;
using Entry = std::shared_ptr<QNiCloudCacheEntry>;

constexpr const char* kBase = "/Users/me/Library/Mobile Documents/Docs";

std::string utf8(UChar32 cp) {
    std::string s;
    return icu::UnicodeString(cp).toUTF8String(s);
}

TEST(QNiCloudCacheTest, PathHashIsFnv1OverLowercaseComposedBytes) {
    // The fixed points pin the reference below: the offset basis held signed, multiply before
    // xor, the composed lower-case bytes.
    EXPECT_EQ(QNiCloudCache::hashForPath(""), -2128831035);
    EXPECT_EQ(QNiCloudCache::hashForPath("/a"), 578204401);
    EXPECT_EQ(QNiCloudCache::hashForPath("/E\u0301TE\u0301"), -1948582108);  // bytes of "/été"
    // Every route (inline ASCII, the Latin table, ICU per component) against the definition:
    // each character up to U+02FF alone and before combining marks, then random text mixing
    // decomposed letters, expanding and context-dependent case mappings and invalid UTF-8.
    std::vector<std::string> corpus;
    for (UChar32 cp = 0x41; cp < 0x300; ++cp) {
        corpus.push_back("/Dir/x" + utf8(cp) + "Y/" + utf8(cp) + "\u0327\u0301");
    }
    const std::vector<std::string> pieces = {"/",      "A",      "z",      ".",      "\u00C9",
                                             "\u00E9", "e",      "\u0301", "\u0327", "\u0130",
                                             "\u03A3", "\u00DF", "\u4E2D", "\u0178", "\xE9",
                                             "J",      "\u030C", "\u212A", "\u01C5"};
    std::mt19937 random(7);
    for (int i = 0; i < 3000; ++i) {
        std::string text;
        for (unsigned k = random() % 12; k > 0; --k) {
            text += pieces[random() % pieces.size()];
        }
        corpus.push_back(text);
    }
    for (const std::string& text : corpus) {
        EXPECT_EQ(QNiCloudCache::hashForPath(text), qn::test::referencePathHash(text)) << text;
    }
}

// The cache cuts absolute paths itself when it can; every spelling must give what the utility
// functions give (the cached directory itself naming the root). Case variants, "." and ".." and
// decomposed names below an ASCII base are the move and copy test's random walk; here, the bases
// it does not use and spellings of the base itself.
TEST(QNiCloudCacheTest, AbsolutePathsAreCutAsTheUtilitiesCutThem) {
    for (const std::string base : {"/", kBase, "/Users/Jos\u00E9/Docs", "/Users/Jose\u0301/Docs"}) {
        SCOPED_TRACE(base);
        auto cache = QNiCloudCache::cacheWithCachedDirectoryPath(base + "/");
        auto viaUtilities = QNiCloudCache::cacheWithCachedDirectoryPath(base);
        const std::string& stored = cache->cachedDirectoryPath();
        std::vector<std::string> spellings = {stored, stored + "/", "/elsewhere/a", "relative/a",
                                              ""};
        for (const std::string relative : {"/a/B/c.txt", "/\u00C9t\u00E9/R\u00E9sum\u00E9"}) {
            const std::string path = stored == "/" ? relative : stored + relative;
            std::string upper = path;
            std::transform(upper.begin(), upper.end(), upper.begin(),
                           [](char c) { return c >= 'a' && c <= 'z' ? c - 32 : c; });
            spellings.insert(spellings.end(), {path + "/", upper, stored + "//" + relative,
                                               stored + "/q/.." + relative, path + "\u0301"});
        }
        for (const std::string& path : spellings) {
            std::string cut = qn::stringByDeletingBeginningOfPath(path, stored);
            cut = cut.empty() && !path.empty() ? "/" : cut;
            cache->createEntryAtPath(path, nullptr);
            viaUtilities->createEntryAtRelativePath(cut, nullptr);
            EXPECT_EQ(cache->entryForPath(path), cache->entryForRelativePath(cut)) << path;
            const std::string normalized = qn::stringByNormalizingPath(path);
            std::string normalizedCut =
                qn::stringByDeletingBeginningOfNormalizedPath(normalized, stored);
            normalizedCut = normalizedCut.empty() && !path.empty() ? "/" : normalizedCut;
            EXPECT_EQ(cache->entryForNormalizedPath(normalized),
                      cache->entryForRelativePath(normalizedCut))
                << path;
        }
        EXPECT_EQ(indexRecords(*cache), indexRecords(*viaUtilities));
    }
}

// Lists, links, snapshots, case variants and colliding paths are compared with the literal
// algorithms by the move and copy test's random walk; here, what that walk does not reach: the
// cached directory's own spelling, absolute paths, entries outside the tree, removed subtrees and
// the descriptions.
TEST(QNiCloudCacheTest, CreationLookupAndRemovalFollowTheTree) {
    EXPECT_EQ(QNiCloudCache::cacheWithCachedDirectoryPath(""), nullptr);
    auto cache = QNiCloudCache::cacheWithCachedDirectoryPath("/Users/me//Docs/");
    EXPECT_EQ(cache->cachedDirectoryPath(), "/Users/me/Docs");
    EXPECT_EQ(cache->entryForRelativePath("/"), nullptr);
    EXPECT_EQ(cache->entryForRelativePath(""), nullptr);
    // The cached directory itself is the root, which is never its own child.
    cache->createEntryAtPath("/Users/me/Docs", nullptr);
    ASSERT_EQ(cache->count(), 1u);
    const Entry root = cache->entryForRelativePath("/");
    EXPECT_EQ(root->firstChild(), nullptr);

    const auto item = snapshot();
    cache->createEntryAtRelativePath("/a/b", nullptr);
    cache->createEntryAtPath("/Users/me/Docs/a/c", item);
    const Entry a = cache->entryForRelativePath("/a");
    const Entry b = cache->entryForPath("/Users/me/Docs/A/B");
    const Entry c = cache->entryForNormalizedPath("/Users/me/Docs/a/C");
    ASSERT_TRUE(a && b && c);
    EXPECT_EQ(root->name(), "/");
    EXPECT_EQ(a->parent(), root);
    EXPECT_EQ(cache->relativePathForEntry(root), "/");
    EXPECT_EQ(cache->relativePathForEntry(nullptr), std::nullopt);
    EXPECT_EQ(cache->absolutePathForEntry(b), "/Users/me/Docs/a/b");
    EXPECT_EQ(cache->absolutePathForEntry(root), "/Users/me/Docs");
    EXPECT_EQ(cache->entryForPath("/Users/me/Docs/"), root);

    // Without the leading separator: a top-level entry outside the tree.
    cache->createEntryAtRelativePath("loose", snapshot());
    EXPECT_EQ(cache->entryForRelativePath("loose")->parent(), nullptr);
    EXPECT_EQ(cache->relativePathForEntry(cache->entryForRelativePath("loose")), "/loose");
    cache->removeEntryAtRelativePathFromEntriesTree("loose");

    cache->removeEntryAtPath("/Users/me/Docs/a");
    EXPECT_EQ(cache->count(), 1u);
    EXPECT_EQ(cache->entryForRelativePath("/a/c"), nullptr);
    // The removed subtree stays linked below the removed entry, for whoever holds it.
    EXPECT_EQ(childNames(a), (std::vector<std::string>{"c", "b"}));
    EXPECT_EQ(cache->relativePathForEntry(b), "/a/b");

    EXPECT_EQ(b->description(),
              fmt::format("<QNiCloudCacheEntry: {};\n    parent = {};\n    firstChild = ;\n"
                          "    next = ;\n    prev = {};\n    name = b;\n"
                          "    metadataItem = (null);\n>\n",
                          fmt::ptr(b.get()), a->shortDescription(), c->shortDescription()));
    EXPECT_EQ(
        c->shortDescription(),
        fmt::format("<QNiCloudCacheEntry: {}; parent = {}, firstChild = 0x0, next = {}, "
                    "prev = 0x0, name = c, metadata item = {}>",
                    fmt::ptr(c.get()), fmt::ptr(a.get()), fmt::ptr(b.get()), item->description()));
}

// `count` paths below `directory` whose hashes all differ: FNV-1 collides far more often than
// chance on numbered names (about 1,400 pairs among "/wide/f0" to "/wide/f999999"), and a lone
// colliding entry is trusted, so creating the second path would only replace a snapshot.
std::vector<std::string> distinctlyHashedPaths(const std::string& directory, std::size_t count) {
    std::vector<std::string> paths;
    std::set<std::int32_t> seen;
    for (std::size_t i = 0; paths.size() < count; ++i) {
        std::string path = directory + "/f" + std::to_string(i);
        if (seen.insert(QNiCloudCache::hashForPath(path)).second) {
            paths.push_back(std::move(path));
        }
    }
    return paths;
}

// Dropping, removing or clearing a very wide or very deep tree must not take one stack frame per
// sibling or per level (the sanitizer builds have the largest frames).
TEST(QNiCloudCacheTest, HugeTreesGoAwayWithoutRecursion) {
    auto cache = QNiCloudCache::cacheWithCachedDirectoryPath(kBase);
    // A chain 100,000 levels deep whose every prefix hashes apart, so creation builds it whole.
    std::string deep;
    std::set<std::int32_t> prefixes;
    for (std::uint32_t h = 2166136261u; prefixes.size() < 100000;) {
        for (char c = '0'; c <= '9'; ++c) {
            const std::uint32_t next = (((h * 16777619u) ^ '/') * 16777619u) ^ c;
            if (prefixes.insert(static_cast<std::int32_t>(next)).second) {
                deep.append({'/', c});
                h = next;
                break;
            }
        }
    }
    cache->createEntryAtRelativePath(deep, snapshot());
    ASSERT_EQ(cache->count(), 100001u);
    const std::weak_ptr<QNiCloudCacheEntry> leaf = cache->entryForRelativePath(deep);
    cache->removeEntryRecursivelyAtRelativePath(deep.substr(0, 2));
    EXPECT_EQ(cache->count(), 1u);
    EXPECT_TRUE(leaf.expired());

    const std::vector<std::string> children = distinctlyHashedPaths("/wide", 1000000);
    for (const std::string& child : children) {
        cache->createEntryAtRelativePath(child, nullptr);
    }
    ASSERT_EQ(cache->count(), 1000002u);
    Entry wide = cache->entryForRelativePath("/wide");
    const std::weak_ptr<QNiCloudCacheEntry> last = wide->firstChild();
    cache->removeEntryRecursively(wide);
    EXPECT_EQ(cache->count(), 1u);
    EXPECT_FALSE(last.expired());  // Held through the removed entry.
    wide.reset();
    EXPECT_TRUE(last.expired());

    cache->createEntryAtRelativePath(deep, snapshot());
    for (std::size_t i = 0; i < 300000; ++i) {
        cache->createEntryAtRelativePath(children[i], nullptr);
    }
    cache->removeAll();
    EXPECT_EQ(cache->count(), 0u);
    // Entries outlive the cache, with their subtrees.
    cache->createEntryAtRelativePath(deep, snapshot());
    const Entry top = cache->entryForRelativePath(deep.substr(0, 2));
    cache.reset();
    EXPECT_EQ(top->parent(), nullptr);
    EXPECT_EQ(top->firstChild()->firstChild()->parent()->parent(), top);
}

}  // namespace
