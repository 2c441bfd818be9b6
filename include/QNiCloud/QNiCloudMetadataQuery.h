#pragma once

// The live metadata query with two pieces of caller data attached, so that the code handling the
// query's notifications can tell queries apart and keep its place in their results.

#include <cstdint>
#include <memory>
#include <utility>

#include "qn/Dictionary.h"
#include "qn/MetadataQuery.h"

/// A `qn::MetadataQuery` carrying an integer `tag` (0 unless set) and a `userInfo` dictionary
/// (none unless set). The dictionary is held, not copied: whoever made it can keep changing it
/// through their own pointer, and `userInfo()` shows those changes (the cache query keeps its
/// resume index there).
///
/// Create with the factories or `std::make_shared`. Threads: the query's own members are as
/// thread-safe as `qn::MetadataQuery`'s; `tag` and `userInfo` have no lock (their owner guards
/// them, the presenter under its query lock), and neither has the dictionary itself.
class QNiCloudMetadataQuery : public qn::MetadataQuery {
public:
    /// Tag 0, no user info.
    QNiCloudMetadataQuery() = default;
    explicit QNiCloudMetadataQuery(std::uint64_t tag,
                                   std::shared_ptr<qn::Dictionary> userInfo = nullptr);
    /// Tag 0.
    explicit QNiCloudMetadataQuery(std::shared_ptr<qn::Dictionary> userInfo);

    // The factories always make a QNiCloudMetadataQuery.
    static std::shared_ptr<QNiCloudMetadataQuery> query();
    static std::shared_ptr<QNiCloudMetadataQuery> queryWithTag(std::uint64_t tag);
    static std::shared_ptr<QNiCloudMetadataQuery> queryWithUserInfo(
        std::shared_ptr<qn::Dictionary> userInfo);
    static std::shared_ptr<QNiCloudMetadataQuery> queryWithTag(
        std::uint64_t tag, std::shared_ptr<qn::Dictionary> userInfo);

    std::uint64_t tag() const { return tag_; }
    void setTag(std::uint64_t tag) { tag_ = tag; }
    /// The very dictionary last set, or null.
    const std::shared_ptr<qn::Dictionary>& userInfo() const { return userInfo_; }
    void setUserInfo(std::shared_ptr<qn::Dictionary> userInfo) { userInfo_ = std::move(userInfo); }

private:
    std::shared_ptr<qn::Dictionary> userInfo_;
    std::uint64_t tag_ = 0;
};
