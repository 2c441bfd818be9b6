#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <latch>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "qn/FileCoordinator.h"
#include "qn/ForwardingFileCoordinator.h"
#include "qn/InProcessFileCoordinator.h"

using namespace std::chrono_literals;

namespace {

qn::URL url(const char* path) {
    return qn::URL::fileURLWithPath(path, false);
}

// Long enough for a thread that could enter to have entered; a wrong grant shows up as a
// failure, a slow machine only as a pass that proved less.
constexpr auto kSettle = 50ms;

// Holds a coordinated access on another thread until `release()`.
class Holder {
public:
    Holder(std::function<void(std::function<void()>)> coordinate) {
        thread_ = std::thread([this, coordinate = std::move(coordinate)] {
            coordinate([this] {
                entered_.count_down();
                release_.wait();
            });
        });
        entered_.wait();
    }
    ~Holder() {
        release();
        thread_.join();
    }
    void release() {
        if (!released_.exchange(true)) {
            release_.count_down();
        }
    }

private:
    std::latch entered_{1};
    std::latch release_{1};
    std::atomic<bool> released_{false};
    std::thread thread_;
};

// Runs an access on its own thread and records when its accessor ran.
class Attempt {
public:
    explicit Attempt(std::function<void(std::function<void()>)> coordinate)
        : thread_([this, coordinate = std::move(coordinate)] {
              coordinate([this] { entered_ = true; });
          }) {}
    ~Attempt() { join(); }
    bool entered() const { return entered_; }
    void join() {
        if (thread_.joinable()) {
            thread_.join();
        }
    }

private:
    std::atomic<bool> entered_{false};
    std::thread thread_;
};

auto reading(const char* path) {
    return [path](std::function<void()> inside) {
        qn::FileCoordinator::make(nullptr)->coordinateReadingItemAtURL(
            url(path), 0, nullptr, [&](const qn::URL&) { inside(); });
    };
}

auto writing(const char* path) {
    return [path](std::function<void()> inside) {
        qn::FileCoordinator::make(nullptr)->coordinateWritingItemAtURL(
            url(path), 0, nullptr, [&](const qn::URL&) { inside(); });
    };
}

// The contract every coordinator meets, run against the real one and through a forwarding
// wrapper (which tests derive from to inject faults).
class FileCoordinatorContract : public testing::TestWithParam<qn::FileCoordinator::Factory> {
protected:
    void SetUp() override { qn::FileCoordinator::setFactory(GetParam()); }
    void TearDown() override { qn::FileCoordinator::setFactory(nullptr); }
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
        Holder writer(writing("/c/d/a"));
        Attempt sibling(writing("/c/d/ab"));  // a sibling whose name only starts alike
        Attempt elsewhere(reading("/c/e"));
        sibling.join();
        elsewhere.join();
        EXPECT_TRUE(sibling.entered());
        EXPECT_TRUE(elsewhere.entered());
        Attempt parentWriter(writing("/c/d"));
        Attempt childReader(reading("/c/d/a/b"));
        Attempt sameReader(reading("/c/d/a"));
        std::this_thread::sleep_for(kSettle);
        EXPECT_FALSE(parentWriter.entered());
        EXPECT_FALSE(childReader.entered());
        EXPECT_FALSE(sameReader.entered());
        writer.release();
        parentWriter.join();
        childReader.join();
        sameReader.join();
        EXPECT_TRUE(parentWriter.entered());
        EXPECT_TRUE(childReader.entered());
    }
    {
        Holder reader(reading("/c/d"));
        Attempt otherReader(reading("/c/d/a"));
        otherReader.join();  // readers share, also with a reader above them
        EXPECT_TRUE(otherReader.entered());
        Attempt writerBelow(writing("/c/d/a"));
        std::this_thread::sleep_for(kSettle);
        EXPECT_FALSE(writerBelow.entered());
        // Waiting claims are served in order: a reader that conflicts with the waiting writer
        // queues behind it instead of starving it.
        Attempt laterReader(reading("/c/d/a/b"));
        std::this_thread::sleep_for(kSettle);
        EXPECT_FALSE(laterReader.entered());
        reader.release();
        writerBelow.join();
        laterReader.join();
        EXPECT_TRUE(writerBelow.entered());
        EXPECT_TRUE(laterReader.entered());
    }
}

TEST_P(FileCoordinatorContract,
       ConcurrentWritersOfOneItemNeverOverlapAndOppositeMovesDoNotDeadlock) {
    std::atomic<int> inside{0};
    std::atomic<int> overlaps{0};
    auto body = [&](const qn::URL&, const qn::URL&) {
        if (++inside > 1) {
            ++overlaps;
        }
        std::this_thread::yield();
        --inside;
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            auto coordinator = qn::FileCoordinator::make(nullptr);
            for (int i = 0; i < 300; ++i) {
                // Half the threads move A to B, the other half B to A.
                const auto first = url(t % 2 ? "/m/A" : "/m/B");
                const auto second = url(t % 2 ? "/m/B" : "/m/A");
                coordinator->coordinateWritingItemAtURL(
                    first, qn::NSFileCoordinatorWritingForMoving, second,
                    qn::NSFileCoordinatorWritingForReplacing, nullptr, body);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(overlaps, 0);
}

TEST_P(FileCoordinatorContract, AnAccessorMayCoordinateAgainWithoutWaitingForItself) {
    auto coordinator = qn::FileCoordinator::make(nullptr);
    bool innerRan = false;
    std::optional<Attempt> queued;
    coordinator->coordinateWritingItemAtURL(url("/n/dir/item"), 0, nullptr, [&](const qn::URL&) {
        // Another thread now queues for the directory; the nested read must not wait behind it,
        // since that writer waits for us.
        queued.emplace(writing("/n/dir"));
        std::this_thread::sleep_for(kSettle);
        coordinator->coordinateReadingItemAtURL(url("/n/dir"), 0, nullptr,
                                                [&](const qn::URL&) { innerRan = true; });
        EXPECT_FALSE(queued->entered());
    });
    EXPECT_TRUE(innerRan);
    queued->join();
    EXPECT_TRUE(queued->entered());
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

    std::vector<std::string> events() {
        queue_->waitUntilAllOperationsAreFinished();
        std::lock_guard lock(mutex_);
        return events_;
    }

private:
    void record(std::string event) {
        std::lock_guard lock(mutex_);
        if (qn::OperationQueue::currentQueue() != queue_) {
            event += " (wrong queue)";
        }
        events_.push_back(std::move(event));
    }

    qn::URL url_;
    std::shared_ptr<qn::OperationQueue> queue_;
    std::mutex mutex_;
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
    coordinator->coordinateWritingItemAtURL(url("/docs/a.txt"), 0, nullptr, [](const qn::URL&) {});
    coordinator->coordinateReadingItemAtURL(url("/docs/b.txt"), 0, nullptr, [](const qn::URL&) {});
    coordinator->coordinateWritingItemAtURL(
        url("/docs/a.txt"), qn::NSFileCoordinatorWritingForMoving, url("/docs/c.txt"),
        qn::NSFileCoordinatorWritingForReplacing, nullptr,
        [&](const qn::URL& from, const qn::URL& to) { coordinator->itemAtURL(from, to); });

    EXPECT_TRUE(self->events().empty());
    EXPECT_TRUE(unrelated->events().empty());
    EXPECT_EQ(other->events(), (std::vector<std::string>{
                                   "changed /docs/a.txt",
                                   "moved /docs/a.txt -> /docs/c.txt",
                                   "changed /docs/a.txt",
                                   "changed /docs/c.txt",
                               }));

    qn::FileCoordinator::removeFilePresenter(other.get());
    qn::FileCoordinator::make(nullptr)->coordinateWritingItemAtURL(url("/docs/d"), 0, nullptr,
                                                                   [](const qn::URL&) {});
    EXPECT_EQ(other->events().size(), 4u);
    EXPECT_EQ(self->events(), (std::vector<std::string>{"changed /docs/d"}));
    qn::FileCoordinator::removeFilePresenter(self.get());
    qn::FileCoordinator::removeFilePresenter(unrelated.get());
    EXPECT_TRUE(qn::FileCoordinator::filePresenters().empty());
}

TEST_P(FileCoordinatorContract, CancelFailsWaitingAndLaterCallsWithoutRunningTheirAccessors) {
    auto coordinator = qn::FileCoordinator::make(nullptr);
    Holder holder(writing("/x/item"));
    qn::Error waitingError;
    bool ran = false;
    std::thread waiter([&] {
        coordinator->coordinateReadingItemAtURL(url("/x/item"), 0, &waitingError,
                                                [&](const qn::URL&) { ran = true; });
    });
    std::this_thread::sleep_for(kSettle);
    coordinator->cancel();
    waiter.join();
    EXPECT_FALSE(ran);
    EXPECT_EQ(waitingError.domain(), qn::NSCocoaErrorDomain);
    EXPECT_EQ(waitingError.code(), qn::NSUserCancelledError);

    qn::Error laterError;
    coordinator->coordinateWritingItemAtURL(url("/y"), 0, &laterError,
                                            [&](const qn::URL&) { ran = true; });
    EXPECT_FALSE(ran);
    EXPECT_EQ(laterError.code(), qn::NSUserCancelledError);
}

TEST(FileCoordinatorTest, TestsCanInjectFailuresThroughTheFactory) {
    struct FailingWrites : qn::ForwardingFileCoordinator {
        using ForwardingFileCoordinator::ForwardingFileCoordinator;
        void coordinateWritingItemAtURL(const qn::URL&, qn::FileCoordinatorWritingOptions,
                                        qn::Error* outError, const Accessor&) override {
            qn::setError(outError, qn::Error(qn::NSCocoaErrorDomain, qn::NSFileLockingError));
        }
    };
    qn::FileCoordinator::setFactory([](std::shared_ptr<qn::FilePresenter> presenter) {
        return std::make_shared<FailingWrites>(
            std::make_shared<qn::InProcessFileCoordinator>(presenter));
    });
    auto coordinator = qn::FileCoordinator::make(nullptr);
    qn::FileCoordinator::setFactory(nullptr);

    qn::Error error;
    bool wrote = false;
    bool read = false;
    coordinator->coordinateWritingItemAtURL(url("/f"), 0, &error,
                                            [&](const qn::URL&) { wrote = true; });
    coordinator->coordinateReadingItemAtURL(url("/f"), 0, nullptr,
                                            [&](const qn::URL&) { read = true; });
    EXPECT_FALSE(wrote);
    EXPECT_EQ(error.code(), qn::NSFileLockingError);
    EXPECT_TRUE(read);
    EXPECT_EQ(dynamic_cast<FailingWrites*>(qn::FileCoordinator::make(nullptr).get()), nullptr);
}

TEST_P(FileCoordinatorContract, ResolvingSymbolicLinksGrantsTheLinkDestination) {
    char base[] = "/tmp/qn-coordinator-XXXXXX";
    ASSERT_NE(mkdtemp(base), nullptr);
    const std::string target = std::string(base) + "/target";
    const std::string link = std::string(base) + "/link";
    ASSERT_EQ(mkdir(target.c_str(), 0755), 0);
    ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
    qn::URL granted;
    qn::FileCoordinator::make(nullptr)->coordinateReadingItemAtURL(
        qn::URL::fileURLWithPath(link, true), qn::NSFileCoordinatorReadingResolvesSymbolicLink,
        nullptr, [&](const qn::URL& u) { granted = u; });
    EXPECT_EQ(granted.path(), target);
    unlink(link.c_str());
    rmdir(target.c_str());
    rmdir(base);
}

}  // namespace
