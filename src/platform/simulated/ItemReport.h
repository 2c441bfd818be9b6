#pragma once

// What the simulated cloud reports of an item: its metadata attributes, its downloading status
// and its query scope. Private to the simulated cloud; pure functions, any thread.

#include <memory>
#include <string>
#include <string_view>

#include "qn/MetadataItem.h"
#include "qn/SimulatedCloud.h"

namespace qn::simulated {

/// The NSURLUbiquitousItemDownloadingStatus... value of `status`.
const char* downloadingStatusName(SimulatedDownloadingStatus status);

/// True for an item inside a container's "Documents" folder (`relativePath` as in
/// ItemLocation), which NSMetadataQueryUbiquitousDocumentsScope covers; the folder itself and
/// everything else belong to NSMetadataQueryUbiquitousDataScope.
bool isInDocumentsScope(std::string_view relativePath);

/// The metadata of the item at `path` in `state`: every attribute a query reads, in a fixed
/// order, then the state's overrides, without its omitted attributes.
std::shared_ptr<const MetadataItem> makeReport(const std::string& path,
                                               const SimulatedItemState& state);

/// The path attribute `makeReport` would report ("" when it has none), without making the report.
std::string reportedPath(const std::string& path, const SimulatedItemState& state);

}  // namespace qn::simulated
