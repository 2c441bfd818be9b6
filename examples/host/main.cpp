// A minimal host program: it drives the main queue the way a desktop application's event loop
// does, hands work to a serial operation queue, and receives the results as notifications on the
// main thread. It also shows how the library sums up what changed about a document between two
// snapshots of its cloud state.

#include <fmt/core.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "QNiCloud/QNiCloudMetadataItem.h"
#include "qn/Dictionary.h"
#include "qn/Logger.h"
#include "qn/MainQueue.h"
#include "qn/MetadataAttributes.h"
#include "qn/MetadataItem.h"
#include "qn/NotificationCenter.h"
#include "qn/OperationQueue.h"

namespace {

constexpr const char* kWorkDidFinishNotification = "ExampleWorkDidFinishNotification";

const char* changeName(QNiCloudFileChangeType change) {
    static constexpr const char* kNames[] = {"none",
                                             "downloaded",
                                             "downloading started",
                                             "download progress",
                                             "uploaded",
                                             "uploading started",
                                             "upload progress",
                                             "conflict appeared",
                                             "conflict resolved",
                                             "content changed"};
    return change < std::size(kNames) ? kNames[change] : "unknown";
}

// A document on disk, and what a metadata query then reports about it: the cloud has a copy
// (uploaded) and is bringing the local one up to date, 40 % done, then 75 %.
void showSnapshotComparison() {
    const auto path = (std::filesystem::temp_directory_path() / "qnicloud-example.txt").string();
    std::ofstream(path) << "Hello, cloud.\n";
    const auto cached = QNiCloudMetadataItem::metadataItemWithPath(path, false, true);

    for (const double percent : {40.0, 75.0}) {
        const auto reported = QNiCloudMetadataItem::metadataItemWithMetadataItem(
            std::make_shared<qn::MetadataItem>(qn::Dictionary{
                {qn::NSMetadataItemPathKey, path},
                {qn::NSMetadataItemFSContentChangeDateKey,
                 cached->fsContentChangeDate().value_or(qn::Date::now())},
                {qn::NSMetadataUbiquitousItemIsDownloadingKey, true},
                {qn::NSMetadataUbiquitousItemPercentDownloadedKey, percent},
                {qn::NSMetadataUbiquitousItemIsUploadedKey, true},
            }),
            false);
        const QNiCloudFileChangeType change = cached->compareWithMetadataItem(*reported);
        fmt::print("{} ({} bytes)\n  query reports {}\n  change: {}\n", cached->description(),
                   cached->contentSize(), reported->description(), changeName(change));
        cached->updateStateUsingMetadataItem(*reported);  // as the cache keeps itself current
    }
    std::filesystem::remove(path);
}

}  // namespace

int main() {
    showSnapshotComparison();

    auto& log = qn::Logger::named("example");
    auto& center = qn::NotificationCenter::defaultCenter();

    int finished = 0;
    auto observation = center.addObserver(
        kWorkDidFinishNotification, nullptr, [&](const qn::Notification& notification) {
            const auto item = notification.userInfo.int64ForKey("item").value_or(-1);
            fmt::print("main thread: item {} finished (on main thread: {})\n", item,
                       qn::MainQueue::isMainThread());
            ++finished;
        });

    auto queue = qn::OperationQueue::create("example.serial", 1);
    constexpr int kItems = 5;
    for (int i = 0; i < kItems; ++i) {
        queue->addOperationWithBlock([i, &center] {
            qn::Dictionary userInfo{{"item", qn::Value(i)}};
            qn::MainQueue::async([userInfo, &center] {
                center.post(kWorkDidFinishNotification, nullptr, userInfo);
            });
        });
    }

    const bool allDone =
        qn::MainQueue::runUntil([&] { return finished == kItems; }, std::chrono::seconds(10));
    log.info("Example host finished {} of {} items.", finished, kItems);
    return allDone ? 0 : 1;
}
