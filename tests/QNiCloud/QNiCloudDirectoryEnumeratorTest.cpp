#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "QNiCloud/QNiCloudCache.h"
#include "QNiCloud/QNiCloudDirectoryEnumerator.h"
#include "qn/Exception.h"

namespace {

std::vector<std::string> strings(const std::vector<qn::Value>& values) {
    std::vector<std::string> result;
    for (const qn::Value& value : values) {
        result.push_back(*value.stringValue());
    }
    return result;
}

// Root children, newest first: Doc.pages (with page), .hidden (with h), y, x (with .q and z,
// z with deep).
std::shared_ptr<QNiCloudCache> sampleTree() {
    auto cache = QNiCloudCache::cacheWithCachedDirectoryPath("/home/me/Documents");
    for (const char* path : {"/x/z", "/y", "/.hidden/h", "/Doc.pages/page", "/x/.q", "/x/z/deep"}) {
        cache->createEntryAtRelativePath(path, nullptr);
    }
    return cache;
}

using Paths = std::vector<std::string>;

TEST(QNiCloudDirectoryEnumeratorTest, OptionsChooseWhatIsListed) {
    const auto cache = sampleTree();
    const auto root = cache->entryForRelativePath("/");
    const std::vector<Paths> expected = {
        {"Doc.pages", ".hidden", "y", "x", "Doc.pages/page", ".hidden/h", "x/.q", "x/z",
         "x/z/deep"},
        {"Doc.pages", ".hidden", "y", "x"},
        {"Doc.pages", ".hidden", "y", "x", ".hidden/h", "x/.q", "x/z", "x/z/deep"},
        {"Doc.pages", ".hidden", "y", "x"},
        {"Doc.pages", "y", "x", "Doc.pages/page", "x/z", "x/z/deep"},
        {"Doc.pages", "y", "x"},
        {"Doc.pages", "y", "x", "x/z", "x/z/deep"},
        {"Doc.pages", "y", "x"},
    };
    for (qn::DirectoryEnumerationOptions options = 0; options < 8; ++options) {
        QNiCloudDirectoryEnumerator enumerator(root, options);
        EXPECT_EQ(strings(enumerator.allObjects()), expected[options]) << options;
        EXPECT_TRUE(enumerator.nextObject().isNull());
    }
    // Below another entry, paths are relative to it.
    QNiCloudDirectoryEnumerator below(cache->entryForRelativePath("/x"), 0);
    EXPECT_EQ(strings(below.allObjects()), (Paths{".q", "z", "z/deep"}));
    EXPECT_TRUE(
        QNiCloudDirectoryEnumerator(cache->entryForRelativePath("/y"), 0).nextObject().isNull());
    EXPECT_TRUE(QNiCloudDirectoryEnumerator(nullptr, 0).nextObject().isNull());
}

TEST(QNiCloudDirectoryEnumeratorTest, SkippingDescendantsPrunesTheEntryJustReturned) {
    auto cache = sampleTree();
    // Through the platform interface, as the presenter hands it out.
    std::unique_ptr<qn::DirectoryEnumerator> enumerator =
        std::make_unique<QNiCloudDirectoryEnumerator>(cache->entryForRelativePath("/"), 0);
    Paths listed;
    for (qn::Value next = enumerator->nextObject(); !next.isNull();
         next = enumerator->nextObject()) {
        listed.push_back(*next.stringValue());
        if (listed.back() == "x") {
            enumerator->skipDescendants();
        } else if (listed.back() == "y" || listed.back() == "Doc.pages") {
            enumerator->skipDescendents();  // y has no children: nothing to prune.
        }
    }
    EXPECT_EQ(listed, (Paths{"Doc.pages", ".hidden", "y", "x", ".hidden/h"}));

    // The listing holds what it still has to return, also once the cache is gone.
    QNiCloudDirectoryEnumerator held(cache->entryForRelativePath("/x"), 0);
    EXPECT_EQ(*held.nextObject().stringValue(), ".q");
    EXPECT_EQ(held.mostRecentlyReturnedEntry()->name(), ".q");
    EXPECT_EQ(held.mostRecentlyReturnedEntryRelativePath(), ".q");
    cache.reset();
    EXPECT_EQ(strings(held.allObjects()), (Paths{"z", "z/deep"}));

    try {
        (void)enumerator->fileAttributes();
        ADD_FAILURE() << "not refused";
    } catch (const qn::InternalInconsistencyException& exception) {
        EXPECT_EQ(exception.reason(), "Method is not implemented.");
    }
    EXPECT_THROW((void)enumerator->level(), qn::InternalInconsistencyException);
}

}  // namespace
