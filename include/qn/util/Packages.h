#pragma once

// Package detection: a package is a directory that the user sees as one document (an app bundle,
// a rich-text directory, ...). It is recognised by its path extension, from a set of package
// extensions that has sensible defaults and that the host can replace. The library asks whether
// an item is a package when it decides what to present as a document. Any thread: reads of the
// set may run concurrently with a replacement, and see either the old or the new set.

#include <string>
#include <string_view>
#include <unordered_set>

#include "qn/URL.h"

/// True when `extension` (without the dot, any letter case) is a package extension.
bool QNIsPackageFileExtension(std::string_view extension);
/// True when `path` names an existing directory (following symbolic links) whose extension
/// (see qn::pathExtension) is a package extension. Asks the file system only when the extension
/// matches.
bool QNIsPackageFilePath(std::string_view path);
/// QNIsPackageFilePath for the URL's path.
bool QNIsPackageFileURL(const qn::URL& url);
/// True when `path` names an existing regular file or a package (following symbolic links).
/// Plain directories, devices, sockets and missing items are neither.
bool QNIsPackageOrFilePath(std::string_view path);

namespace qn {

/// Replaces the set of package extensions. Entries are compared without regard to letter case
/// and a leading "." is ignored, so {"Pages", ".key"} works as {"pages", "key"}; empty entries
/// are dropped. Any thread.
void setPackageFileExtensions(std::unordered_set<std::string> extensions);
/// The built-in set (lower-case, without dots), in force until the host replaces it.
std::unordered_set<std::string> defaultPackageFileExtensions();

}  // namespace qn
