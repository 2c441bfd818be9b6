#pragma once

// The recursive operations of the file manager: copying and removing whole trees (asking a
// delegate per item) and comparing two trees. Private to the platform layer; any thread, as long
// as the delegate may be called from it.

#include <string>
#include <vector>

#include "FileSystemCalls.h"
#include "qn/Error.h"
#include "qn/FileManagerDelegate.h"
#include "qn/URL.h"

namespace qn {

/// An item a copy created: where it lies below the top item ("" for the top item itself) and
/// the status its source had when it was copied.
struct CopiedItem {
    std::string relativePath;
    ItemStatus source;
};

/// Which tree `removeCopiedItems` removes from.
enum class CopySide { Source, Copy };

/// Copies the item at `source` to `destination`: directories recursively, symbolic links as
/// links, regular files by contents; permissions and access and modification dates are kept,
/// ownership is not. Fails with 260 when `source` is missing and with 516 when `destination`
/// exists. With a `delegate`, asks `shouldCopyItemAtURL(item, destinationOfItem)` for the top item
/// and then for each item below it, each directory before its contents; a declined item is left
/// out with everything below it and the copy still succeeds. Directories reach the delegate as
/// directory URLs. On failure the partial copy is removed again. `copied`, when given, receives
/// the items created, each directory before its contents (empty after a failure).
bool copyItemTree(const URL& source, const URL& destination, FileManagerDelegate* delegate,
                  Error* error, std::vector<CopiedItem>* copied = nullptr);

/// Undoes one side of a copy: removes the `copied` items from the tree at `root`, contents
/// before their directory, and nothing else, so that whatever appeared there since the copy
/// stays. On the Source side an item is removed only while it is still the one copied (same file,
/// and for other than directories the same size and modification date); on the Copy side the
/// copy's directories are first made owner-writable, so that the permissions they were given
/// cannot keep their contents in. Goes on past failures and reports the first: an item changed
/// since it was copied fails with EBUSY, a directory that still holds something with ENOTEMPTY.
bool removeCopiedItems(const std::string& root, const std::vector<CopiedItem>& copied,
                       CopySide side, Error* error);

/// Removes the item at `item` and, for a directory, everything below it, never following
/// symbolic links. Fails with 4 when the item is missing. With a `delegate`, first asks
/// `shouldRemoveItemAtURL` for the top item and every item below it, each directory before its
/// contents (directories as directory URLs), and only then removes what was accepted, contents
/// before their directory. A declined item stays with everything below it, and so does every
/// directory that still holds one; the removal still succeeds. A failure while asking removes
/// nothing; a failure while removing stops there.
bool removeItemTree(const URL& item, FileManagerDelegate* delegate, Error* error);

/// True when both items exist, are of the same type and hold the same: regular files the same
/// bytes, directories the same names with equal items under them, symbolic links the same text,
/// device files the same device. Symbolic links are compared, not followed.
bool itemTreesEqual(const std::string& path, const std::string& otherPath);

}  // namespace qn
