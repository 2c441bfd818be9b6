#include "CloudState.h"

#include <utility>

#include "ItemReport.h"
#include "qn/PathString.h"

namespace qn::simulated {

std::string CloudState::localPath(const std::string& drive, const ItemRecord& item) {
    return stringByAppendingPathComponent(stringByAppendingPathComponent(drive, item.folder),
                                          item.relativePath);
}

void CloudState::reportChange(const std::string& drive, ItemRecord& item) {
    const bool inDocuments = isInDocumentsScope(item.relativePath);
    std::shared_ptr<const MetadataItem> report;
    std::string path;
    for (const auto& [id, feed] : feeds) {
        if (!feed->covers(inDocuments)) {
            continue;
        }
        if (report == nullptr) {
            report = makeReport(localPath(drive, item), item.state);
            path = report->path();
        }
        if (!item.reportedPath.empty() && item.reportedPath != path) {
            // An override moved the item's path: to the feed that is another result.
            feed->queueRemoval(item.reportedPath);
        }
        feed->queueChange(report);
        queued(*feed);
    }
    // No feed to tell (a cloud being filled before any query runs): only the path is needed.
    item.reportedPath =
        report != nullptr ? std::move(path) : reportedPath(localPath(drive, item), item.state);
}

void CloudState::reportRemoval(const ItemRecord& item) {
    if (item.reportedPath.empty()) {
        return;  // reported without a path: nothing identifies it
    }
    const bool inDocuments = isInDocumentsScope(item.relativePath);
    for (const auto& [id, feed] : feeds) {
        if (feed->covers(inDocuments)) {
            feed->queueRemoval(item.reportedPath);
            queued(*feed);
        }
    }
}

void CloudState::queued(Feed& feed) {
    if (automaticDelivery && !feed.automaticScheduled) {
        feed.automaticScheduled = true;
        feedsToSchedule.push_back(feed.id);
    }
}

}  // namespace qn::simulated
