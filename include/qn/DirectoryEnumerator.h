#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include "qn/Dictionary.h"
#include "qn/Value.h"

namespace qn {

/// Walks the items below a directory, one per `nextObject()` call: a relative path string for
/// enumerators made from a path, a URL for enumerators made from a URL. Not thread-safe: one
/// thread uses an enumerator at a time.
class DirectoryEnumerator {
public:
    virtual ~DirectoryEnumerator() = default;

    /// The next item, or a null Value when the walk is over.
    virtual Value nextObject() = 0;

    /// Every remaining item.
    std::vector<Value> allObjects() {
        std::vector<Value> objects;
        for (Value object = nextObject(); !object.isNull(); object = nextObject()) {
            objects.push_back(std::move(object));
        }
        return objects;
    }

    /// Do not descend into the item `nextObject()` returned last. Call it before the next call.
    virtual void skipDescendants() = 0;
    void skipDescendents() { skipDescendants(); }

    /// Attributes of the item returned last (keys of qn/FileAttributes.h), or nullopt.
    virtual std::optional<Dictionary> fileAttributes() = 0;
    /// Attributes of the directory being walked, or nullopt.
    virtual std::optional<Dictionary> directoryAttributes() = 0;
    /// Depth of the item returned last: 1 for the directory's own children.
    virtual std::size_t level() = 0;
};

}  // namespace qn
