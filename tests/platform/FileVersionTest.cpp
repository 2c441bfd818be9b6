#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "qn/FileVersion.h"
#include "qn/FileVersionConflicts.h"
#include "qn/ForwardingFileManager.h"
#include "qn/SimulatedCloud.h"
#include "qn/UbiquityService.h"
#include "qn/util/ContainerHelpers.h"
#include "support/TemporaryDirectory.h"

namespace {

using qn::test::readFile;
using qn::test::TemporaryDirectory;
using VersionList = std::vector<std::shared_ptr<qn::FileVersion>>;
using Strings = std::vector<std::string>;

// A document "Doc.txt" in a simulated cloud container whose drive lives in a temporary directory.
class FileVersionTest : public ::testing::Test {
protected:
    FileVersionTest() {
        qn::setUbiquityDriveDirectory(dir_.path());
        qn::UbiquityService::setCurrent(cloud_);
        folder_ = QNiCloudContainerURLFromIdentifier("iCloud.com.example.App")
                      .URLByAppendingPathComponent("Documents", true);
        item_ = folder_.URLByAppendingPathComponent("Doc.txt");
    }
    ~FileVersionTest() override {
        qn::UbiquityService::setCurrent(nullptr);
        qn::FileManager::setDefaultManager(nullptr);
        qn::setUbiquityDriveDirectory("");
    }

    // The document with `contents` on disk, last modified at `date`.
    void writeItem(const std::string& contents, qn::Date date = qn::Date(1000)) {
        cloud_->setItem(item_, qn::SimulatedItemState::downloaded(contents, date));
    }
    void addVersion(const std::string& contents, qn::Date date, const std::string& computer,
                    bool conflict = true, bool resolved = false) {
        const qn::FileVersionRecord record =
            conflict ? cloud_->addConflictVersion(item_, contents, date, computer)
                     : cloud_->addOlderVersion(item_, contents, date, computer);
        ASSERT_TRUE(!resolved ||
                    cloud_->setVersionResolved(item_, record.identifier, true, nullptr));
    }
    // The file `name` of the document's folder, "" when it cannot be read.
    std::string read(const std::string& name) const { return readFile(urlOf(name).path()); }
    bool exists(const std::string& name) const {
        return std::filesystem::exists(folder_.URLByAppendingPathComponent(name).path());
    }
    qn::URL urlOf(const std::string& name, bool isDirectory = false) const {
        return folder_.URLByAppendingPathComponent(name, isDirectory);
    }
    // Every entry of the document's folder, hidden ones included.
    Strings entries() const {
        Strings names;
        for (const auto& entry : std::filesystem::directory_iterator(folder_.path())) {
            names.push_back(entry.path().filename());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    TemporaryDirectory dir_;
    std::shared_ptr<qn::SimulatedCloud> cloud_ = qn::SimulatedCloud::create("alice@example.com");
    qn::URL folder_;  // set once the drive directory is the test's
    qn::URL item_;
};

// Everything a resolution reported, in order.
struct Reports {
    struct Progress {
        std::shared_ptr<qn::FileVersion> version;
        std::optional<qn::URL> saved;
    };
    std::vector<Progress> progress;
    Strings events;  // "progress", "completion", "error"
    std::vector<qn::URL> saved;
    std::vector<qn::Error> errors;
    std::vector<std::shared_ptr<qn::FileVersion>> askedToRemove;

    void resolve(const qn::URL& url, VersionList save, VersionList remove, const qn::URL& parent,
                 bool allowRemovingCurrent = false) {
        qn::resolveConflictsForItemAtURL(
            url, std::move(save), std::move(remove), parent, nullptr,
            [&](const std::shared_ptr<qn::FileVersion>& current) {
                askedToRemove.push_back(current);
                return allowRemovingCurrent;
            },
            [&](const auto& version, std::size_t, const auto& savedURL, std::size_t) {
                progress.push_back({version, savedURL});
                events.push_back("progress");
            },
            [&](const qn::URL& itemURL, const std::vector<qn::URL>& savedURLs) {
                EXPECT_EQ(itemURL, url);
                saved = savedURLs;
                events.push_back("completion");
            },
            [&](const qn::Error& error) {
                errors.push_back(error);
                events.push_back("error");
            });
    }
};

TEST_F(FileVersionTest, ListsCurrentOtherAndUnresolvedConflictVersions) {
    EXPECT_EQ(qn::FileVersion::currentVersionOfItemAtURL(item_), nullptr);
    EXPECT_EQ(qn::FileVersion::latestVersionOfItemAtURL(item_), nullptr);

    writeItem("mine", qn::Date(1000));
    addVersion("older", qn::Date(500), "", false);
    addVersion("resolved", qn::Date(600), "Anna's Mac", true, true);
    addVersion("theirs", qn::Date(900), "Anna's Mac");

    const auto current = qn::FileVersion::currentVersionOfItemAtURL(item_);
    ASSERT_NE(current, nullptr);
    EXPECT_EQ(current->modificationDate(), qn::Date(1000));
    EXPECT_TRUE(!current->isConflict() && current->isResolved());

    const VersionList unresolved = qn::FileVersion::unresolvedConflictVersionsOfItemAtURL(item_);
    ASSERT_EQ(unresolved.size(), 1u);
    EXPECT_EQ(readFile(unresolved[0]->URL().path()), "theirs");
    EXPECT_EQ(unresolved[0]->localizedNameOfSavingComputer(), "Anna's Mac");

    const VersionList all = qn::FileVersion::allVersionsOfItemAtURL(item_);
    ASSERT_EQ(all.size(), 4u);
    EXPECT_TRUE(all[0]->isEqual(*current));
    EXPECT_TRUE(all[3]->isEqual(*unresolved[0]));
    EXPECT_FALSE(all[2]->isEqual(*all[3]));

    // The current version is the latest; a tie goes to it; a later conflict wins.
    EXPECT_TRUE(qn::FileVersion::latestVersionOfItemAtURL(item_)->isEqual(*current));
    addVersion("same time", qn::Date(1000), "Bob's PC");
    EXPECT_TRUE(qn::FileVersion::latestVersionOfItemAtURL(item_)->isEqual(*current));
    addVersion("newest", qn::Date(2000), "Bob's PC");
    EXPECT_EQ(qn::FileVersion::latestVersionOfItemAtURL(item_)->modificationDate(), qn::Date(2000));
}

TEST_F(FileVersionTest, ReplacesRemovesAndResolvesStoredVersionsButNeverTheCurrentOne) {
    writeItem("mine");
    addVersion("theirs", qn::Date(900), "Anna's Mac");
    addVersion("other", qn::Date(950), "Bob's PC");
    const auto current = qn::FileVersion::currentVersionOfItemAtURL(item_);
    VersionList conflicts = qn::FileVersion::unresolvedConflictVersionsOfItemAtURL(item_);
    ASSERT_EQ(conflicts.size(), 2u);

    qn::Error error;
    EXPECT_EQ(current->replaceItemAtURL(item_, &error), item_);
    EXPECT_EQ(read("Doc.txt"), "mine");
    EXPECT_EQ(conflicts[0]->replaceItemAtURL(item_, &error), item_) << error.description();
    EXPECT_EQ(read("Doc.txt"), "theirs");
    EXPECT_EQ(entries(), Strings{"Doc.txt"});  // no staged copy left behind

    EXPECT_FALSE(qn::removeConflictFileVersion(current, nullptr, &error));
    EXPECT_EQ(error.code(), qn::NSFeatureUnsupportedError);
    EXPECT_FALSE(current->setResolved(true, &error));
    EXPECT_EQ(error.code(), qn::NSFeatureUnsupportedError);
    EXPECT_EQ(read("Doc.txt"), "theirs");

    // A cancelled coordinator grants nothing, so nothing is removed.
    auto cancelled = qn::FileCoordinator::make(nullptr);
    cancelled->cancel();
    EXPECT_FALSE(qn::removeConflictFileVersion(conflicts[0], cancelled, &error));
    EXPECT_EQ(error.code(), qn::NSUserCancelledError);
    EXPECT_EQ(qn::FileVersion::otherVersionsOfItemAtURL(item_).size(), 2u);

    EXPECT_TRUE(qn::removeConflictFileVersion(conflicts[0], nullptr, &error))
        << error.description();
    EXPECT_FALSE(qn::removeConflictFileVersion(conflicts[0], nullptr, &error));  // already gone
    ASSERT_TRUE(conflicts[1]->setResolved(true, &error)) << error.description();
    EXPECT_TRUE(conflicts[1]->isResolved());
    EXPECT_TRUE(qn::FileVersion::unresolvedConflictVersionsOfItemAtURL(item_).empty());
    EXPECT_EQ(qn::FileVersion::otherVersionsOfItemAtURL(item_).size(), 1u);
}

TEST_F(FileVersionTest, ResolvingSavesCopiesUnderFreeNamesDeletesAndResolvesTheRest) {
    writeItem("mine");
    addVersion("theirs A", qn::Date(900), "Anna's Mac");
    addVersion("theirs B", qn::Date(950), "Anna's Mac");
    addVersion("theirs C", qn::Date(990), "");
    std::ofstream(urlOf("Doc (conflict from Anna's Mac).txt").path()) << "taken";
    const auto current = qn::FileVersion::currentVersionOfItemAtURL(item_);
    const VersionList conflicts = qn::FileVersion::unresolvedConflictVersionsOfItemAtURL(item_);

    Reports reports;
    reports.resolve(item_, {current, conflicts[0], conflicts[1]}, {conflicts[0]}, folder_);

    const qn::URL savedA = urlOf("Doc (conflict from Anna's Mac) 2.txt");
    const qn::URL savedB = urlOf("Doc (conflict from Anna's Mac) 3.txt");
    EXPECT_TRUE(reports.errors.empty()) << reports.errors.at(0).description();
    EXPECT_EQ(reports.events,
              (Strings{"progress", "progress", "progress", "progress", "completion"}));
    ASSERT_EQ(reports.progress.size(), 4u);
    EXPECT_EQ(reports.progress[0].saved, std::nullopt);  // the current version is not copied
    EXPECT_TRUE(reports.progress[0].version->isEqual(*current));
    EXPECT_EQ(reports.saved, (std::vector<qn::URL>{savedA, savedB}));
    EXPECT_TRUE(reports.askedToRemove.empty());

    EXPECT_EQ(read("Doc.txt"), "mine");
    EXPECT_EQ(read("Doc (conflict from Anna's Mac).txt"), "taken");
    EXPECT_EQ(read("Doc (conflict from Anna's Mac) 2.txt"), "theirs A");
    EXPECT_EQ(read("Doc (conflict from Anna's Mac) 3.txt"), "theirs B");
    EXPECT_EQ(entries().size(), 4u);  // no staged copy left behind

    // A was deleted; B and C, neither saved nor deleted, are resolved.
    const VersionList others = qn::FileVersion::otherVersionsOfItemAtURL(item_);
    ASSERT_EQ(others.size(), 2u);
    EXPECT_TRUE(others[0]->isEqual(*conflicts[1]));
    EXPECT_TRUE(others[0]->isResolved() && others[1]->isResolved());

    // A computer without a name still gives a readable name.
    std::filesystem::create_directory(urlOf("sub").path());
    Reports third;
    third.resolve(item_, {conflicts[2]}, {}, urlOf("sub", true));
    EXPECT_EQ(third.saved, std::vector<qn::URL>{urlOf("sub/Doc (conflict).txt")});
    EXPECT_EQ(read("sub/Doc (conflict).txt"), "theirs C");
}

// What a test would write to meet a full disk when the copy is moved to its name.
class FullDiskOnMove final : public qn::ForwardingFileManager {
public:
    using ForwardingFileManager::ForwardingFileManager;
    bool moveItemAtURL(const qn::URL& url, const qn::URL&, qn::Error* error) override {
        qn::setError(error, qn::Error(qn::NSCocoaErrorDomain, qn::NSFileWriteOutOfSpaceError,
                                      {{qn::NSFilePathErrorKey, url.path()}}));
        return false;
    }
};

// A handler that declines to delete the current version keeps the document: the presenter's
// conflicts test shows it.
TEST_F(FileVersionTest, ResolvingStopsAtErrorsAndDeletesTheCurrentVersionWhenTheHandlerAgrees) {
    writeItem("mine");
    addVersion("theirs A", qn::Date(900), "Anna's Mac");
    addVersion("theirs B", qn::Date(950), "Anna's Mac");
    const VersionList conflicts = qn::FileVersion::unresolvedConflictVersionsOfItemAtURL(item_);

    qn::FileManager::setDefaultManager(
        std::make_shared<FullDiskOnMove>(qn::FileManager::defaultManager()));
    Reports full;
    full.resolve(item_, conflicts, {conflicts[1]}, folder_);
    EXPECT_EQ(full.events, Strings{"error"});
    EXPECT_EQ(full.errors.at(0).code(), qn::NSFileWriteOutOfSpaceError);
    EXPECT_EQ(entries(), Strings{"Doc.txt"});  // the staged copy is gone
    EXPECT_EQ(qn::FileVersion::unresolvedConflictVersionsOfItemAtURL(item_).size(), 2u);
    qn::FileManager::setDefaultManager(nullptr);

    // A version of another item, no folder to save to: refused, nothing done.
    Reports refused;
    refused.resolve(urlOf("Other.txt"), {}, {conflicts[0]}, folder_);
    EXPECT_EQ(refused.events, Strings{"error"});
    Reports noFolder;
    noFolder.resolve(item_, {conflicts[0]}, {}, qn::URL());
    EXPECT_EQ(noFolder.events, Strings{"error"});
    EXPECT_EQ(qn::FileVersion::unresolvedConflictVersionsOfItemAtURL(item_).size(), 2u);
    EXPECT_EQ(entries(), Strings{"Doc.txt"});

    // Keep their version as a copy, drop mine.
    const auto current = qn::FileVersion::currentVersionOfItemAtURL(item_);
    Reports remove;
    remove.resolve(item_, {conflicts[0]}, {current}, folder_, true);
    ASSERT_EQ(remove.askedToRemove.size(), 1u);
    EXPECT_TRUE(remove.askedToRemove[0]->isEqual(*current));
    EXPECT_EQ(remove.events, (Strings{"progress", "progress", "completion"}));
    EXPECT_FALSE(exists("Doc.txt"));
    EXPECT_EQ(read("Doc (conflict from Anna's Mac).txt"), "theirs A");
}

}  // namespace
