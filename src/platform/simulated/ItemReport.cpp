#include "ItemReport.h"

#include <algorithm>
#include <iterator>
#include <utility>
#include <vector>

#include "qn/FileAttributes.h"
#include "qn/MetadataAttributes.h"
#include "qn/PathString.h"
#include "qn/util/PathNormalization.h"

namespace qn::simulated {

const char* downloadingStatusName(SimulatedDownloadingStatus status) {
    switch (status) {
        case SimulatedDownloadingStatus::NotDownloaded:
            return NSURLUbiquitousItemDownloadingStatusNotDownloaded;
        case SimulatedDownloadingStatus::Downloaded:
            return NSURLUbiquitousItemDownloadingStatusDownloaded;
        case SimulatedDownloadingStatus::Current:
            break;
    }
    return NSURLUbiquitousItemDownloadingStatusCurrent;
}

bool isInDocumentsScope(std::string_view relativePath) {
    const std::size_t slash = relativePath.find('/');
    return slash != std::string_view::npos && slash + 1 < relativePath.size() &&
           lowercaseNFC(relativePath.substr(0, slash)) == "documents";
}

namespace {

// The attributes of every report, in the order a report lists them.
constexpr const char* kReportedAttributes[] = {
    NSMetadataItemPathKey,
    NSMetadataItemFSNameKey,
    NSMetadataItemDisplayNameKey,
    NSMetadataItemURLKey,
    NSMetadataItemFSSizeKey,
    NSMetadataItemFSCreationDateKey,
    NSMetadataItemFSContentChangeDateKey,
    NSMetadataItemIsUbiquitousKey,
    NSMetadataUbiquitousItemHasUnresolvedConflictsKey,
    NSURLUbiquitousItemDownloadingStatusKey,
    NSMetadataUbiquitousItemIsDownloadedKey,
    NSMetadataUbiquitousItemIsDownloadingKey,
    NSMetadataUbiquitousItemIsUploadedKey,
    NSMetadataUbiquitousItemIsUploadingKey,
    NSMetadataUbiquitousItemPercentDownloadedKey,
    NSMetadataUbiquitousItemPercentUploadedKey,
};

// Shared by every report that lists exactly those attributes, which is nearly every report.
const std::shared_ptr<const MetadataItem::Layout>& reportLayout() {
    static const auto layout = std::make_shared<const MetadataItem::Layout>(
        std::vector<std::string>(std::begin(kReportedAttributes), std::end(kReportedAttributes)));
    return layout;
}

}  // namespace

std::shared_ptr<const MetadataItem> makeReport(const std::string& path,
                                               const SimulatedItemState& state) {
    std::string name = lastPathComponent(path);
    std::vector<Value> values;
    values.reserve(std::size(kReportedAttributes));
    values.emplace_back(path);
    values.emplace_back(name);
    values.emplace_back(std::move(name));
    values.emplace_back(URL::fileURLWithPath(path, state.isDirectory));
    values.emplace_back(state.reportedSize());
    values.emplace_back(state.creationDate);
    values.emplace_back(state.contentChangeDate);
    values.emplace_back(true);
    values.emplace_back(state.hasUnresolvedConflicts);
    values.emplace_back(downloadingStatusName(state.downloadingStatus));
    values.emplace_back(state.isDownloaded());
    values.emplace_back(state.downloading);
    values.emplace_back(state.uploaded);
    values.emplace_back(state.uploading);
    values.emplace_back(state.percentDownloaded);
    values.emplace_back(state.percentUploaded);

    const auto& layout = reportLayout();
    bool ownLayout = !state.omittedAttributes.empty();
    for (const auto& [key, value] : state.attributeOverrides) {
        if (const std::size_t index = layout->indexOf(key); index != MetadataItem::Layout::npos) {
            values[index] = value;
        } else {
            ownLayout = true;  // an attribute of its own
        }
    }
    if (!ownLayout) {
        return std::make_shared<const MetadataItem>(layout, std::move(values));
    }
    std::vector<std::string> names(std::begin(kReportedAttributes), std::end(kReportedAttributes));
    Dictionary dictionary;
    for (std::size_t i = 0; i < names.size(); ++i) {
        dictionary.set(names[i], std::move(values[i]));
    }
    for (const auto& [key, value] : state.attributeOverrides) {
        if (!dictionary.contains(key)) {
            names.push_back(key);
        }
        dictionary.set(key, value);
    }
    for (const std::string& omitted : state.omittedAttributes) {
        std::erase(names, omitted);
        dictionary.erase(omitted);
    }
    return std::make_shared<const MetadataItem>(std::move(names), std::move(dictionary));
}

std::string reportedPath(const std::string& path, const SimulatedItemState& state) {
    const auto& omitted = state.omittedAttributes;
    if (std::find(omitted.begin(), omitted.end(), NSMetadataItemPathKey) != omitted.end()) {
        return {};
    }
    if (const Value* override = state.attributeOverrides.find(NSMetadataItemPathKey)) {
        const std::string* text = override->stringValue();
        return text != nullptr ? *text : std::string();
    }
    return path;
}

}  // namespace qn::simulated
