#include "ItemReport.h"

#include <algorithm>
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

std::shared_ptr<const MetadataItem> makeReport(const std::string& path,
                                               const SimulatedItemState& state) {
    const std::string name = lastPathComponent(path);
    std::vector<std::pair<std::string, Value>> computed{
        {NSMetadataItemPathKey, path},
        {NSMetadataItemFSNameKey, name},
        {NSMetadataItemDisplayNameKey, name},
        {NSMetadataItemURLKey, URL::fileURLWithPath(path, state.isDirectory)},
        {NSMetadataItemFSSizeKey, state.reportedSize()},
        {NSMetadataItemFSCreationDateKey, state.creationDate},
        {NSMetadataItemFSContentChangeDateKey, state.contentChangeDate},
        {NSMetadataItemIsUbiquitousKey, true},
        {NSMetadataUbiquitousItemHasUnresolvedConflictsKey, state.hasUnresolvedConflicts},
        {NSURLUbiquitousItemDownloadingStatusKey, downloadingStatusName(state.downloadingStatus)},
        {NSMetadataUbiquitousItemIsDownloadedKey, state.isDownloaded()},
        {NSMetadataUbiquitousItemIsDownloadingKey, state.downloading},
        {NSMetadataUbiquitousItemIsUploadedKey, state.uploaded},
        {NSMetadataUbiquitousItemIsUploadingKey, state.uploading},
        {NSMetadataUbiquitousItemPercentDownloadedKey, state.percentDownloaded},
        {NSMetadataUbiquitousItemPercentUploadedKey, state.percentUploaded},
    };
    std::vector<std::string> names;
    Dictionary values;
    for (auto& [name, value] : computed) {
        names.push_back(name);
        values.set(std::move(name), std::move(value));
    }
    for (const auto& [name, value] : state.attributeOverrides) {
        if (!values.contains(name)) {
            names.push_back(name);
        }
        values.set(name, value);
    }
    for (const std::string& omitted : state.omittedAttributes) {
        std::erase(names, omitted);
        values.erase(omitted);
    }
    return std::make_shared<const MetadataItem>(std::move(names), std::move(values));
}

}  // namespace qn::simulated
