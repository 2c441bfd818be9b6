#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "FileOperationsFixture.h"
#include "qn/FileAttributes.h"

namespace qn::test {
namespace {

using Names = std::vector<std::string>;

class QNiCloudDocumentsPresenterListingTest : public FileOperationsFixture {
protected:
    // Each walked path with whether it came with attributes, stopping after `limit` items.
    std::map<std::string, bool> walk(bool attributes, std::size_t limit = 100) {
        std::map<std::string, bool> seen;
        presenter->enumerateDirectoryAtPath(documents, attributes,
                                            [&](const std::string& path, const auto& found) {
                                                seen[path] = found.has_value();
                                                return seen.size() < limit;
                                            });
        return seen;
    }

    // Sorted; the enumerator's URLs as paths.
    static Names sorted(std::vector<Value> objects) {
        Names all;
        for (const Value& object : objects) {
            all.push_back(object.stringValue() ? *object.stringValue() : object.urlValue()->path());
        }
        std::sort(all.begin(), all.end());
        return all;
    }
    static Names sorted(std::optional<Names> names) {
        std::sort(names->begin(), names->end());
        return *names;
    }
};

TEST_F(QNiCloudDocumentsPresenterListingTest, BeforeTheCacheIsReadyTheDiskAnswers) {
    // Only what is on disk: the cloud-only package is missing.
    EXPECT_EQ(presenter->contentsOfDirectoryAtPath(documents), (Names{"Folder", "a.txt"}));
    EXPECT_EQ(presenter->subpathsOfDirectoryAtPath(documents), (Names{"Folder", "a.txt"}));
    Error error;
    EXPECT_EQ(presenter->contentsOfDirectoryAtPath(documentPath("Missing"), &error), std::nullopt);
    EXPECT_EQ(error.code(), NSFileReadNoSuchFileError);
    EXPECT_EQ(walk(true), (std::map<std::string, bool>{{"Folder", true}, {"a.txt", true}}));
    EXPECT_EQ(walk(false), (std::map<std::string, bool>{{"Folder", false}, {"a.txt", false}}));
    EXPECT_EQ(walk(true, 1).size(), 1u);
    EXPECT_EQ(sorted(presenter->enumeratorAtPath(documents)->allObjects()),
              (Names{documentPath("Folder"), documentPath("a.txt")}));

    // A failed coordination is the caller's error; uncoordinated listing does not meet it.
    failCoordination(false);
    error = Error();
    EXPECT_EQ(presenter->subpathsOfDirectoryAtURL(URL::fileURLWithPath(documents), &error),
              std::nullopt);
    EXPECT_EQ(error, coordinationError());
    EXPECT_EQ(presenter->contentsOfDirectoryAtPath(documents, false)->size(), 2u);
    EXPECT_TRUE(walk(false).empty());
}

TEST_F(QNiCloudDocumentsPresenterListingTest, OnceReadyTheCacheAloneAnswers) {
    initialize();
    std::filesystem::create_directories(documentPath("Late"));  // on disk only
    log.clear();
    EXPECT_EQ(sorted(presenter->contentsOfDirectoryAtPath(documents)),
              (Names{"Book.pages", "Folder", "a.txt"}));
    EXPECT_EQ(presenter->contentsOfDirectoryAtURL(documentURL("Folder"), false), Names{"b.txt"});
    EXPECT_EQ(sorted(presenter->subpathsOfDirectoryAtPath(documents)),
              (Names{"Book.pages", "Folder", "Folder/b.txt", "a.txt"}));
    for (const bool subpaths : {false, true}) {
        Error error;
        EXPECT_EQ(subpaths ? presenter->subpathsOfDirectoryAtPath(documentPath("Late"), &error)
                           : presenter->contentsOfDirectoryAtPath(documentPath("Late"), &error),
                  std::nullopt);
        EXPECT_EQ(error.domain(), QNiCloudErrorDomain);
        EXPECT_EQ(error.code(), QNiCloudErrorFileExists);
        EXPECT_EQ(error.localizedDescription(), "The operation couldn't be completed.");
    }

    // A cloud-only item's attributes cannot be read: logged, and walked without them.
    EXPECT_EQ(
        walk(true),
        (std::map<std::string, bool>{
            {"Book.pages", false}, {"Folder", true}, {"Folder/b.txt", false}, {"a.txt", true}}));
    EXPECT_EQ(logCount(LogLevel::Error, fmt::format("Unable to get attribtues of file {}. Error: ",
                                                    documentPath("Folder/b.txt"))),
              1u);
    const std::size_t lines = log.lines().size();
    EXPECT_EQ(walk(false).size(), 4u);
    EXPECT_EQ(log.lines().size(), lines);
    EXPECT_EQ(walk(false, 1).size(), 1u);

    EXPECT_EQ(sorted(presenter->enumeratorAtPath(documents)->allObjects()),
              (Names{"Book.pages", "Folder", "Folder/b.txt", "a.txt"}));
    EXPECT_EQ(
        sorted(presenter
                   ->enumeratorAtPath(documents, NSDirectoryEnumerationSkipsSubdirectoryDescendants)
                   ->allObjects()),
        (Names{"Book.pages", "Folder", "a.txt"}));
    EXPECT_TRUE(presenter->enumeratorAtPath(documentPath("Late"))->allObjects().empty());
}

}  // namespace
}  // namespace qn::test
