#pragma once

// The state of one account of a directory store, rebuilt by applying its change log in order:
// the items with their revisions and versions, and for each applied record the paths it
// touched, so that a change token (a log offset) can be answered with what changed after it.
// Private to the directory store; not thread-safe (the store guards it).

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "StoreRecord.h"
#include "qn/DriveStore.h"

namespace qn::drive {

class StoreIndex {
public:
    struct Version {
        std::string identifier;
        std::uint64_t size = 0;
        Date date;
        std::string device;
        std::string blob;
        bool resolved = false;
    };
    struct Entry {
        bool isDirectory = false;
        std::uint64_t size = 0;
        std::string revision;
        std::string blob;
        Date date;
        std::string device;
        std::vector<Version> versions;  // oldest first
    };

    /// Applies `record`, which ends at `endOffset` in the log. False, changing nothing, when the
    /// record does not fit the state (the log is damaged). The contents files no item or
    /// version refers to any more are added to `freedBlobs`.
    bool apply(const StoreRecord& record, std::uint64_t endOffset,
               std::vector<std::string>* freedBlobs);

    const Entry* find(std::string_view path) const;
    /// Whether `path` may hold a new item: its parent is a folder (or it is at the top).
    bool parentIsFolder(std::string_view path) const;
    /// Whether any item lies below `path`.
    bool hasItemsBelow(std::string_view path) const;
    DriveStore::Item item(const std::string& path, const Entry& entry) const;
    const std::map<std::string, Entry, std::less<>>& entries() const { return entries_; }

    /// The paths touched by records that end after `offset`, sorted and unique; nullopt when
    /// `offset` is not the end of an applied record (or the start of the log).
    std::optional<std::vector<std::string>> pathsChangedAfter(std::uint64_t offset) const;

    std::uint64_t lastSeq() const { return lastSeq_; }
    std::uint64_t endOffset() const { return endOffset_; }

private:
    std::map<std::string, Entry, std::less<>> entries_;
    std::vector<std::pair<std::uint64_t, std::vector<std::string>>> touched_;  // by end offset
    std::uint64_t lastSeq_ = 0;
    std::uint64_t endOffset_ = 0;
};

}  // namespace qn::drive
