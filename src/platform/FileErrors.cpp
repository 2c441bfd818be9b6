#include "FileErrors.h"

#include <cerrno>
#include <utility>

namespace qn {
namespace {

std::int64_t unknownCode(FileAccess access) {
    return access == FileAccess::Reading ? NSFileReadUnknownError : NSFileWriteUnknownError;
}

Dictionary userInfoFor(std::string_view path, const URL* url, int errnoValue) {
    Dictionary userInfo;
    userInfo.set(NSFilePathErrorKey, path);
    if (url != nullptr && !url->isEmpty()) {
        userInfo.set(NSURLErrorKey, *url);
    }
    userInfo.set(NSUnderlyingErrorKey, Error::posixError(errnoValue));
    return userInfo;
}

}  // namespace

std::int64_t cocoaCodeForErrno(int errnoValue, FileAccess access) {
    const bool reading = access == FileAccess::Reading;
    switch (errnoValue) {
        case ENOENT:
        case ENOTDIR:
            return reading ? NSFileReadNoSuchFileError : NSFileNoSuchFileError;
        case EACCES:
        case EPERM:
            return reading ? NSFileReadNoPermissionError : NSFileWriteNoPermissionError;
        case EEXIST:
            return NSFileWriteFileExistsError;
        case ENOSPC:
        case EDQUOT:
            return NSFileWriteOutOfSpaceError;
        case EROFS:
            return NSFileWriteVolumeReadOnlyError;
        case ENAMETOOLONG:
            return reading ? NSFileReadInvalidFileNameError : NSFileWriteInvalidFileNameError;
        case EFBIG:
            return reading ? NSFileReadTooLargeError : NSFileWriteUnknownError;
        default:
            return unknownCode(access);
    }
}

Error fileError(int errnoValue, FileAccess access, std::string_view path, const URL* url) {
    return Error(NSCocoaErrorDomain, cocoaCodeForErrno(errnoValue, access),
                 userInfoFor(path, url, errnoValue));
}

Error notADirectoryError(FileAccess access, std::string_view path, const URL* url) {
    return Error(NSCocoaErrorDomain, unknownCode(access), userInfoFor(path, url, ENOTDIR));
}

Error invalidRequestError(FileAccess access, std::string_view path, std::string description) {
    Dictionary userInfo = userInfoFor(path, nullptr, EINVAL);
    userInfo.set(NSLocalizedDescriptionKey, std::move(description));
    return Error(NSCocoaErrorDomain, unknownCode(access), std::move(userInfo));
}

}  // namespace qn
