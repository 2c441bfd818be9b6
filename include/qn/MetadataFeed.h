#pragma once

#include <memory>
#include <string>
#include <vector>

#include "qn/MetadataItem.h"

namespace qn {

/// What a ubiquity service reports to a running metadata query about the items of its scopes:
/// first the items it holds, in one or more gathering batches, then the end of gathering, then
/// changes as they happen. Items are identified by their path attribute: a changed item replaces
/// the result with the same path. A service may call these from any thread, but calls for one
/// feed never overlap and arrive in the order the service made them.
class MetadataFeedObserver {
public:
    virtual ~MetadataFeedObserver() = default;

    virtual void feedDidGather(std::vector<std::shared_ptr<const MetadataItem>> items) = 0;
    virtual void feedDidFinishGathering() = 0;
    virtual void feedDidChange(std::vector<std::shared_ptr<const MetadataItem>> addedOrChanged,
                               std::vector<std::string> removedPaths) = 0;
};

}  // namespace qn
