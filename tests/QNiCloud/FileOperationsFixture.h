#pragma once

// A registered presenter over a small cloud, for the coordinated file operations: a downloaded
// "a.txt", a cloud-only "Folder/b.txt" (its folder on disk) and a cloud-only package
// "Book.pages". The cache is not initialised until the test calls `initialize()`. Coordination
// can be made to fail, with or without the accessor having run.

#include <memory>

#include "SyncFixture.h"
#include "qn/Error.h"
#include "qn/FileManager.h"
#include "qn/ForwardingFileCoordinator.h"
#include "qn/InProcessFileCoordinator.h"

namespace qn::test {

inline constexpr Date kCloudDate(8e8);

class FileOperationsFixture : public SyncFixture {
protected:
    void SetUp() override {
        SyncFixture::SetUp();
        installCloud("alice@example.com");
        cloud->setItem(documentURL("a.txt"), SimulatedItemState::downloaded("aaa", kCloudDate));
        cloud->setItem(documentURL("Folder/b.txt"),
                       SimulatedItemState::notDownloaded("bbbb", kCloudDate));
        cloud->setItem(documentURL("Book.pages"),
                       SimulatedItemState::notDownloaded("pages", kCloudDate));
        startPresenter();
    }

    void TearDown() override {
        FileCoordinator::setFactory(nullptr);
        FileManager::setDefaultManager(nullptr);
        SyncFixture::TearDown();
    }

    // Every coordinated call then reports `coordinationError`; the accessor still runs first
    // when `accessorRuns` is true, which a real coordinator never does, so that the order in
    // which the two errors count can be seen.
    void failCoordination(bool accessorRuns) {
        FileCoordinator::setFactory([accessorRuns](std::shared_ptr<FilePresenter> presenter) {
            return std::make_shared<FailingCoordinator>(
                std::make_shared<InProcessFileCoordinator>(presenter), accessorRuns);
        });
    }

    static Error coordinationError() { return Error(NSCocoaErrorDomain, NSUserCancelledError); }

private:
    class FailingCoordinator final : public ForwardingFileCoordinator {
    public:
        FailingCoordinator(std::shared_ptr<FileCoordinator> target, bool accessorRuns)
            : ForwardingFileCoordinator(std::move(target)), accessorRuns_(accessorRuns) {}
        void coordinateReadingItemAtURL(const URL& url, FileCoordinatorReadingOptions options,
                                        Error* outError, const Accessor& accessor) override {
            fail(outError,
                 [&] { target()->coordinateReadingItemAtURL(url, options, {}, accessor); });
        }
        void coordinateWritingItemAtURL(const URL& url, FileCoordinatorWritingOptions options,
                                        Error* outError, const Accessor& accessor) override {
            fail(outError,
                 [&] { target()->coordinateWritingItemAtURL(url, options, {}, accessor); });
        }
        void coordinateWritingItemAtURL(const URL& url1, FileCoordinatorWritingOptions options1,
                                        const URL& url2, FileCoordinatorWritingOptions options2,
                                        Error* outError, const PairAccessor& accessor) override {
            fail(outError, [&] {
                target()->coordinateWritingItemAtURL(url1, options1, url2, options2, {}, accessor);
            });
        }

    private:
        template <class Forward>
        void fail(Error* outError, Forward&& forward) {
            if (accessorRuns_) {
                forward();
            }
            setError(outError, coordinationError());
        }
        bool accessorRuns_;
    };
};

}  // namespace qn::test
