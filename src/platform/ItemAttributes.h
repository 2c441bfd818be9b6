#pragma once

// Conversions between an item's status and the attribute dictionaries of qn/FileAttributes.h, in
// both directions: reading (attributesOfItemAtPath, enumerators) and applying (setAttributes and
// the attributes given to the creating calls). Private to the platform layer; any thread.

#include <sys/types.h>

#include <optional>
#include <string>

#include "FileSystemCalls.h"
#include "qn/Date.h"
#include "qn/Dictionary.h"

namespace qn {

/// The attribute dictionary of an item: type, size, dates, permissions, owner and group (IDs
/// and, when the account databases know them, names), link count, file-system and file numbers.
/// NSFileCreationDate only when the file system records birth times.
Dictionary attributesFromStatus(const ItemStatus& status);

/// The changes an attribute dictionary asks for. Keys the manager cannot apply are ignored.
struct AttributeChanges {
    std::optional<mode_t> permissions;
    std::optional<uid_t> owner;
    std::optional<gid_t> group;
    std::optional<Date> modificationDate;

    bool empty() const { return !permissions && !owner && !group && !modificationDate; }

    /// Reads the supported keys of `attributes`. A value of the wrong type or out of range makes
    /// it return nullopt with `problem` saying which key and why.
    static std::optional<AttributeChanges> parse(const Dictionary& attributes,
                                                 std::string* problem);

    /// Applies the changes to the item at `path` (a final symbolic link is followed): owner and
    /// group first, since changing them may clear set-ID bits, then permissions, then the
    /// modification date (the access time is kept). Stops at the first failure.
    int applyTo(const std::string& path) const;
};

}  // namespace qn
