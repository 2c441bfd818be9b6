#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <optional>
#include <thread>
#include <vector>

#include "qn/FileCoordinator.h"
#include "qn/ForwardingFileCoordinator.h"
#include "qn/InProcessFileCoordinator.h"
#include "support/TemporaryDirectory.h"

using namespace std::chrono_literals;

namespace {

qn::URL url(const char* path) {
    return qn::URL::fileURLWithPath(path, false);
}

// Long enough for a thread that could enter to have entered; a wrong grant shows up as a
// failure, a slow machine only as a pass that proved less.
constexpr auto kSettle = 50ms;
constexpr bool kRead = false;
constexpr bool kWrite = true;
constexpr bool kHold = true;

// A coordinated access on its own thread. A held one waits inside its accessor until released
// (the constructor returns once it is inside); any other one just records that it got in.
class Access {
public:
    Access(bool write, const char* path, bool hold = false) {
        thread_ = std::jthread([=, this] {
            auto inside = [&](const qn::URL&) {
                entered_ = true;
                if (hold) {
                    release_.wait();
                }
            };
            auto coordinator = qn::FileCoordinator::make(nullptr);
            write ? coordinator->coordinateWritingItemAtURL(url(path), 0, nullptr, inside)
                  : coordinator->coordinateReadingItemAtURL(url(path), 0, nullptr, inside);
        });
        while (hold && !entered_) {
            std::this_thread::yield();
        }
    }
    ~Access() { release(); }  // then the thread is joined
    bool entered() const { return entered_; }
    void release() { release_.try_wait() ? void() : release_.count_down(); }
    // Waits for the access to end; whether it got in.
    bool finished() {
        if (thread_.joinable()) {
            thread_.join();
        }
        return entered_;
    }

private:
    std::atomic<bool> entered_{false};
    std::latch release_{1};
    std::jthread thread_;  // last, so that it is joined before the latch goes
};

// The contract every coordinator meets, run against the real one and through a forwarding
// wrapper (which tests derive from to inject faults). What make() gives is the factory's until
// the factory is reset.
class FileCoordinatorContract : public testing::TestWithParam<qn::FileCoordinator::Factory> {
protected:
    void SetUp() override {
        qn::FileCoordinator::setFactory(GetParam());
        EXPECT_EQ(madeForwarding(), GetParam() != nullptr);
    }
    void TearDown() override {
        qn::FileCoordinator::setFactory(nullptr);
        EXPECT_FALSE(madeForwarding());
    }
    static bool madeForwarding() {
        return dynamic_cast<qn::ForwardingFileCoordinator*>(
                   qn::FileCoordinator::make(nullptr).get()) != nullptr;
    }
};

INSTANTIATE_TEST_SUITE_P(Coordinators, FileCoordinatorContract,
                         testing::Values(nullptr,
                                         [](std::shared_ptr<qn::FilePresenter> presenter)
                                             -> std::shared_ptr<qn::FileCoordinator> {
                                             return std::make_shared<qn::ForwardingFileCoordinator>(
                                                 std::make_shared<qn::InProcessFileCoordinator>(
                                                     presenter));
                                         }),
                         [](const auto& info) { return info.param ? "Forwarding" : "InProcess"; });

TEST_P(FileCoordinatorContract, AWriterExcludesItsItemItsContentsAndItsAncestorsButReadersShare) {
    {
        Access writer(kWrite, "/c/d/a", kHold);
        Access sibling(kWrite, "/c/d/ab");  // a sibling whose name only starts alike
        Access elsewhere(kRead, "/c/e");
        EXPECT_TRUE(sibling.finished() && elsewhere.finished());
        Access parentWriter(kWrite, "/c/d");
        Access childReader(kRead, "/c/d/a/b");
        Access sameReader(kRead, "/c/d/a");
        std::this_thread::sleep_for(kSettle);
        EXPECT_FALSE(parentWriter.entered() || childReader.entered() || sameReader.entered());
        writer.release();
        EXPECT_TRUE(parentWriter.finished() && childReader.finished() && sameReader.finished());
    }
    {
        Access reader(kRead, "/c/d", kHold);
        Access otherReader(kRead, "/c/d/a");
        EXPECT_TRUE(otherReader.finished());  // readers share, also with a reader above them
        Access writerBelow(kWrite, "/c/d/a");
        std::this_thread::sleep_for(kSettle);
        EXPECT_FALSE(writerBelow.entered());
        // Waiting claims are served in order: a reader that conflicts with the waiting writer
        // queues behind it instead of starving it.
        Access laterReader(kRead, "/c/d/a/b");
        std::this_thread::sleep_for(kSettle);
        EXPECT_FALSE(laterReader.entered());
        reader.release();
        EXPECT_TRUE(writerBelow.finished() && laterReader.finished());
    }
}

TEST_P(FileCoordinatorContract,
       ConcurrentWritersOfOneItemNeverOverlapAndOppositeMovesDoNotDeadlock) {
    std::atomic<int> inside{0};
    std::atomic<int> overlaps{0};
    auto body = [&](const qn::URL&, const qn::URL&) {
        overlaps += ++inside > 1 ? 1 : 0;
        std::this_thread::yield();
        --inside;
    };
    std::vector<std::jthread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            auto coordinator = qn::FileCoordinator::make(nullptr);
            for (int i = 0; i < 300; ++i) {
                // Half the threads move A to B, the other half B to A.
                coordinator->coordinateWritingItemAtURL(
                    url(t % 2 ? "/m/A" : "/m/B"), qn::NSFileCoordinatorWritingForMoving,
                    url(t % 2 ? "/m/B" : "/m/A"), qn::NSFileCoordinatorWritingForReplacing, nullptr,
                    body);
            }
        });
    }
    threads.clear();  // joins them
    EXPECT_EQ(overlaps, 0);
}

TEST_P(FileCoordinatorContract, AnAccessorMayCoordinateAgainWithoutWaitingForItself) {
    auto coordinator = qn::FileCoordinator::make(nullptr);
    bool innerRan = false;
    std::optional<Access> queued;
    coordinator->coordinateWritingItemAtURL(url("/n/dir/item"), 0, nullptr, [&](const qn::URL&) {
        // Another thread now queues for the directory; the nested read must not wait behind it,
        // since that writer waits for us.
        queued.emplace(kWrite, "/n/dir");
        std::this_thread::sleep_for(kSettle);
        coordinator->coordinateReadingItemAtURL(url("/n/dir"), 0, nullptr,
                                                [&](const qn::URL&) { innerRan = true; });
        EXPECT_FALSE(queued->entered());
    });
    EXPECT_TRUE(innerRan && queued->finished());
}

// A write of `path` through `coordinator` that changes nothing.
void touch(const std::shared_ptr<qn::FileCoordinator>& coordinator, const char* path) {
    coordinator->coordinateWritingItemAtURL(url(path), 0, nullptr, [](const qn::URL&) {});
}

class RecordingPresenter : public qn::FilePresenter {
public:
    explicit RecordingPresenter(const char* path)
        : url_(qn::URL::fileURLWithPath(path, true)), queue_(qn::OperationQueue::create("p", 1)) {}

    std::optional<qn::URL> presentedItemURL() const override { return url_; }
    std::shared_ptr<qn::OperationQueue> presentedItemOperationQueue() const override {
        return queue_;
    }
    void presentedSubitemDidChangeAtURL(const qn::URL& url) override {
        record("changed " + url.path());
    }
    void presentedSubitemAtURL(const qn::URL& oldURL, const qn::URL& newURL) override {
        record("moved " + oldURL.path() + " -> " + newURL.path());
    }

    // Only ever touched on the presenter's serial queue, which is drained before reading.
    std::vector<std::string> events() {
        queue_->waitUntilAllOperationsAreFinished();
        return events_;
    }

private:
    void record(std::string event) {
        events_.push_back(qn::OperationQueue::currentQueue() == queue_ ? event : "wrong queue");
    }

    qn::URL url_;
    std::shared_ptr<qn::OperationQueue> queue_;
    std::vector<std::string> events_;
};

TEST_P(FileCoordinatorContract, PresentersAboveAWrittenItemHearOfItOnTheirQueueButNeverOfTheirOwn) {
    auto self = std::make_shared<RecordingPresenter>("/docs");
    auto other = std::make_shared<RecordingPresenter>("/docs");
    auto unrelated = std::make_shared<RecordingPresenter>("/elsewhere");
    for (const auto& p : {self, other, unrelated, other}) {
        qn::FileCoordinator::addFilePresenter(p);
    }

    auto coordinator = qn::FileCoordinator::make(self);
    touch(coordinator, "/docs/a.txt");
    coordinator->coordinateReadingItemAtURL(url("/docs/b.txt"), 0, nullptr, [](const qn::URL&) {});
    coordinator->coordinateWritingItemAtURL(
        url("/docs/a.txt"), qn::NSFileCoordinatorWritingForMoving, url("/docs/c.txt"),
        qn::NSFileCoordinatorWritingForReplacing, nullptr,
        [&](const qn::URL& from, const qn::URL& to) { coordinator->itemAtURL(from, to); });

    EXPECT_TRUE(self->events().empty() && unrelated->events().empty());
    EXPECT_EQ(other->events(), (std::vector<std::string>{
                                   "changed /docs/a.txt",
                                   "moved /docs/a.txt -> /docs/c.txt",
                                   "changed /docs/a.txt",
                                   "changed /docs/c.txt",
                               }));

    qn::FileCoordinator::removeFilePresenter(other.get());
    touch(qn::FileCoordinator::make(nullptr), "/docs/d");
    EXPECT_EQ(other->events().size(), 4u);
    EXPECT_EQ(self->events(), (std::vector<std::string>{"changed /docs/d"}));

    // A presenter that goes away is neither kept alive nor told.
    auto gone = std::make_shared<RecordingPresenter>("/docs");
    qn::FileCoordinator::addFilePresenter(gone);
    const std::weak_ptr<RecordingPresenter> watch = gone;
    gone.reset();
    EXPECT_TRUE(watch.expired());
    touch(qn::FileCoordinator::make(nullptr), "/docs/e");
    qn::FileCoordinator::removeFilePresenter(self.get());
    qn::FileCoordinator::removeFilePresenter(unrelated.get());
    EXPECT_TRUE(qn::FileCoordinator::filePresenters().empty());
}

TEST_P(FileCoordinatorContract, CancelFailsWaitingAndLaterCallsWithoutRunningTheirAccessors) {
    auto coordinator = qn::FileCoordinator::make(nullptr);
    Access holder(kWrite, "/x/item", kHold);
    qn::Error waitingError;
    bool ran = false;
    std::thread waiter([&] {
        coordinator->coordinateReadingItemAtURL(url("/x/item"), 0, &waitingError,
                                                [&](const qn::URL&) { ran = true; });
    });
    std::this_thread::sleep_for(kSettle);
    coordinator->cancel();
    waiter.join();
    EXPECT_EQ(waitingError.code(), qn::NSUserCancelledError);

    qn::Error laterError;
    coordinator->coordinateWritingItemAtURL(url("/y"), 0, &laterError,
                                            [&](const qn::URL&) { ran = true; });
    EXPECT_FALSE(ran) << "neither accessor may run";
    EXPECT_EQ(laterError.code(), qn::NSUserCancelledError);
}

TEST_P(FileCoordinatorContract, ResolvingSymbolicLinksGrantsTheLinkDestination) {
    const qn::test::TemporaryDirectory dir;
    dir.symlink("link", dir.mkdir("target"));
    qn::URL granted;
    qn::FileCoordinator::make(nullptr)->coordinateReadingItemAtURL(
        dir.urlOf("link", true), qn::NSFileCoordinatorReadingResolvesSymbolicLink, nullptr,
        [&](const qn::URL& u) { granted = u; });
    EXPECT_EQ(granted.path(), dir.pathOf("target"));
}

}  // namespace
