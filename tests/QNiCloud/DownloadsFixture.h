#pragma once

// A registered presenter on the simulated cloud whose downloads progress only when the test
// advances them, and a recorder for the downloads manager's callbacks.

#include <fmt/format.h>

#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "QNiCloud/QNiCloudDownloadsManager.h"
#include "SyncFixture.h"

namespace qn::test {

// What the handlers heard, in order, as short texts naming items by their last component.
struct Calls {
    std::vector<std::string> events;
    int offMainThread = 0;

    void add(std::string event) {
        offMainThread += MainQueue::isMainThread() ? 0 : 1;
        events.push_back(std::move(event));
    }
    std::size_t count(const std::string& event) const {
        return static_cast<std::size_t>(std::count(events.begin(), events.end(), event));
    }
};

class DownloadsFixture : public SyncFixture {
protected:
    // Registered and initialised over the items set up so far; the cache's own automatic
    // downloads are kept out of the way, downloads are progressive and the limit is `limit`.
    void start(std::uint64_t limit = 3) {
        installCloud("alice@example.com");
        for (const auto& [name, state] : items) {
            cloud->setItem(documentURL(name), state);
        }
        startPresenter();
        presenter->setExtensionsAllowedForAutomaticDownload(std::set<std::string>{"auto"});
        cloud->setDefaultDownloadBehavior(SimulatedDownloadBehavior::progressive());
        initialize();
        manager->setMaxSimultaneousFileDownloadsCount(limit);
    }

    // Waits until the manager's queue is idle and the main thread has run what it was handed.
    void settle() {
        for (int round = 0; round < 2; ++round) {
            MainQueue::runUntil(
                [&] { return manager->downloadOperationQueue()->operationCount() == 0; },
                std::chrono::seconds(10));
            settleMainQueue();
        }
    }

    // Moves the download on and lets the presenter and the manager hear of it.
    void advance(const std::string& name, double percent) {
        cloud->advanceDownload(documentURL(name), percent);
        deliver();
        settle();
    }

    std::vector<std::string> names(
        const std::vector<QNiCloudDownloadsManager::FileDownloadPointer>& records) const {
        std::vector<std::string> found;
        for (const auto& record : records) {
            found.push_back(URL::fileURLWithPath(record->path()).lastPathComponent());
        }
        return found;
    }

    QNiCloudFileDownloadProgressHandler progress() {
        return
            [calls = calls](const QNBackgroundOperationPointer&, const URL& url, std::uint64_t size,
                            std::uint64_t downloaded, std::uint64_t previous, double percent) {
                calls->add(fmt::format("P {} {} {} {} {:.0f}", url.lastPathComponent(), size,
                                       downloaded, previous, percent));
            };
    }
    QNiCloudFileDownloadCompletionHandler completion() {
        return [calls = calls](const QNBackgroundOperationPointer&, const URL& url,
                               std::uint64_t size, std::uint64_t downloaded) {
            calls->add(fmt::format("C {} {} {}", url.lastPathComponent(), size, downloaded));
        };
    }
    QNiCloudDownloadErrorHandler failure() {
        return [calls = calls](const QNBackgroundOperationPointer& token, const Error& error) {
            calls->add(fmt::format("E {} {}{}", error.code(), error.localizedDescription(),
                                   token == nullptr ? " (no token)" : ""));
        };
    }
    QNiCloudDownloadsProgressHandler batchProgress() {
        return [calls = calls](const QNBackgroundOperationPointer&, std::uint64_t total,
                               std::uint64_t downloaded,
                               double) { calls->add(fmt::format("BP {} {}", total, downloaded)); };
    }
    QNiCloudDownloadsCompletionHandler batchCompletion() {
        return [calls = calls](const QNBackgroundOperationPointer&) { calls->add("BC"); };
    }

    std::vector<std::pair<std::string, SimulatedItemState>> items;
    const std::shared_ptr<QNiCloudDownloadsManager>& manager =
        QNiCloudDownloadsManager::sharedManager();
    // Shared with the handlers, which may outlive the test body.
    std::shared_ptr<Calls> calls = std::make_shared<Calls>();
};

}  // namespace qn::test
