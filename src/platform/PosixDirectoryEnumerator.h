#pragma once

// The enumerator behind FileManager::enumeratorAtPath and enumeratorAtURL: a depth-first walk of
// a real directory, children in bytewise name order, each directory before its contents,
// symbolic links never followed below the root. Private to the platform layer; one thread at a
// time, like every DirectoryEnumerator.
//
// Each directory's names are read in one go when the walk enters it, so no directory stays open
// between calls and deep trees need no file descriptors.

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "FileSystemCalls.h"
#include "qn/DirectoryEnumerator.h"
#include "qn/FileAttributes.h"
#include "qn/FileManager.h"

namespace qn {

class PosixDirectoryEnumerator final : public DirectoryEnumerator {
public:
    /// Yields relative path strings ("a", "a/b"), descends into packages and skips unreadable
    /// subdirectories silently. Null, with `*errnoValue` set, when `path` (a final symbolic link
    /// followed) cannot be listed.
    static std::unique_ptr<PosixDirectoryEnumerator> forPath(const std::string& path,
                                                             int* errnoValue);

    /// Yields URLs (directories as directory URLs) and honours the NSDirectoryEnumeration...
    /// options. A directory it cannot list, the root included, goes to `errorHandler` (if any)
    /// with a reading error; answering false ends the walk.
    static std::unique_ptr<PosixDirectoryEnumerator> forURL(
        const URL& url, DirectoryEnumerationOptions options,
        FileManager::EnumerationErrorHandler errorHandler);

    Value nextObject() override;
    void skipDescendants() override;
    std::optional<Dictionary> fileAttributes() override;
    std::optional<Dictionary> directoryAttributes() override;
    std::size_t level() override;

private:
    struct Frame {
        std::string relativePath;  // "" for the root
        std::vector<std::string> names;
        std::size_t next = 0;
    };

    PosixDirectoryEnumerator(std::string root, bool yieldsURLs, DirectoryEnumerationOptions options,
                             FileManager::EnumerationErrorHandler errorHandler);

    // Reads the names of the directory at `relativePath` onto the stack; 0 or errno.
    int enter(const std::string& relativePath);
    std::string fullPath(const std::string& relativePath) const;
    // Hands a directory the walk cannot read to the error handler; false ends the walk.
    bool reportUnreadable(const std::string& relativePath, int errnoValue);

    const std::string root_;
    const bool yieldsURLs_;
    const DirectoryEnumerationOptions options_;
    const FileManager::EnumerationErrorHandler errorHandler_;

    std::optional<ItemStatus> rootStatus_;
    int rootError_ = 0;  // reported on the first call, for URL enumerators
    std::vector<Frame> stack_;
    bool finished_ = false;

    // The item returned last.
    std::string currentPath_;
    std::optional<ItemStatus> currentStatus_;
    std::size_t currentLevel_ = 0;
    bool descendIntoCurrent_ = false;
};

}  // namespace qn
