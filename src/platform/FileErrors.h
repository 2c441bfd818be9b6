#pragma once

// Builds the Cocoa-domain errors the POSIX file manager reports, from errno, in one place, so that
// every operation maps a given failure to the same code. Private to the platform layer.
//
// An error carries the path the failing call worked on under NSFilePathErrorKey, the URL of that
// item under NSURLErrorKey when the operation was handed one for it, and the POSIX error under
// NSUnderlyingErrorKey. The code depends on errno and on whether the failing call was reading or
// writing:
//
//   errno                reading                               writing
//   ENOENT, ENOTDIR      260 NSFileReadNoSuchFileError         4   NSFileNoSuchFileError
//   EACCES, EPERM        257 NSFileReadNoPermissionError       513 NSFileWriteNoPermissionError
//   EEXIST               516 NSFileWriteFileExistsError        516 NSFileWriteFileExistsError
//   ENOSPC, EDQUOT       640 NSFileWriteOutOfSpaceError        640 NSFileWriteOutOfSpaceError
//   EROFS                642 NSFileWriteVolumeReadOnlyError    642 NSFileWriteVolumeReadOnlyError
//   ENAMETOOLONG         258 NSFileReadInvalidFileNameError    514 NSFileWriteInvalidFileNameError
//   EFBIG                263 NSFileReadTooLargeError           512 NSFileWriteUnknownError
//   anything else        256 NSFileReadUnknownError            512 NSFileWriteUnknownError
//
// ENOTDIR from a call on a path means that a component on the way is not a directory, so the
// item does not exist: it maps like ENOENT. When the item itself exists but is not the directory
// the operation needs (listing a regular file), use notADirectoryError instead: 256 / 512 with
// ENOTDIR underlying, as the "anything else" row.
//
// Reading: attributes, resource values, listing, enumerating, loading attributes, and the source
// side of a copy. Writing: creating, moving, removing, replacing, setting attributes, and the
// destination side of a copy.

#include <cstdint>
#include <string>
#include <string_view>

#include "qn/Error.h"
#include "qn/URL.h"

namespace qn {

enum class FileAccess { Reading, Writing };

/// The Cocoa code for a failed call that set `errnoValue`, from the table above.
std::int64_t cocoaCodeForErrno(int errnoValue, FileAccess access);

/// The error for a call on `path` that failed with `errnoValue`. `url`, when given, is stored
/// under NSURLErrorKey.
Error fileError(int errnoValue, FileAccess access, std::string_view path, const URL* url = nullptr);

/// The item at `path` exists but is not a directory, where the operation needs one.
Error notADirectoryError(FileAccess access, std::string_view path, const URL* url = nullptr);

/// A request the manager refuses before touching the disk (a value of the wrong type, a missing
/// out-parameter): 256 / 512 with `description` as NSLocalizedDescriptionKey and EINVAL
/// underlying.
Error invalidRequestError(FileAccess access, std::string_view path, std::string description);

}  // namespace qn
