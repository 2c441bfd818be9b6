#include "qn/DriveStore.h"

#include <fmt/format.h>

#include "../FileSystemCalls.h"

namespace qn {
namespace {

constexpr std::size_t kMaxPathBytes = 1024;
constexpr std::size_t kMaxComponentBytes = 255;
constexpr std::size_t kReadChunk = 4 << 20;

Error invalidName(std::string_view path, std::string_view why) {
    return Error(QNDriveStoreErrorDomain, DriveStoreErrorInvalidName,
                 {{NSLocalizedDescriptionKey,
                   fmt::format("The store cannot hold the name \"{}\": {}.", path, why)},
                  {NSFilePathErrorKey, std::string(path)}});
}

// The length of the UTF-8 sequence at the start of `text`, or 0 when it is not one (overlong
// forms, surrogates and values beyond U+10FFFF included).
std::size_t utf8Length(std::string_view text) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(0);
    std::size_t length = 0;
    std::uint32_t value = 0;
    if (lead < 0x80) {
        return 1;
    } else if (lead >= 0xc2 && lead < 0xe0) {
        length = 2;
        value = lead & 0x1f;
    } else if (lead >= 0xe0 && lead < 0xf0) {
        length = 3;
        value = lead & 0x0f;
    } else if (lead >= 0xf0 && lead < 0xf5) {
        length = 4;
        value = lead & 0x07;
    } else {
        return 0;
    }
    if (text.size() < length) {
        return 0;
    }
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xc0) != 0x80) {
            return 0;
        }
        value = (value << 6) | (byte(i) & 0x3f);
    }
    const bool overlong = (length == 3 && value < 0x800) || (length == 4 && value < 0x10000);
    const bool surrogate = value >= 0xd800 && value <= 0xdfff;
    return overlong || surrogate || value > 0x10ffff ? 0 : length;
}

}  // namespace

std::optional<Error> DriveStore::validatePath(std::string_view path) {
    if (path.empty()) {
        return invalidName(path, "it is empty");
    }
    if (path.size() > kMaxPathBytes) {
        return invalidName(path, fmt::format("it is longer than {} bytes", kMaxPathBytes));
    }
    for (std::size_t i = 0; i < path.size();) {
        const auto byte = static_cast<unsigned char>(path[i]);
        if (byte < 0x20 || byte == 0x7f) {
            return invalidName(path, "it holds a control character");
        }
        const std::size_t length = utf8Length(path.substr(i));
        if (length == 0) {
            return invalidName(path, "it is not UTF-8");
        }
        i += length;
    }
    for (std::size_t start = 0;;) {
        const std::size_t slash = path.find('/', start);
        const std::string_view component = path.substr(start, slash - start);
        if (component.empty()) {
            return invalidName(path, "it has an empty component");
        }
        if (component == "." || component == "..") {
            return invalidName(path, "it has a \".\" or \"..\" component");
        }
        if (component.size() > kMaxComponentBytes) {
            return invalidName(
                path, fmt::format("a component is longer than {} bytes", kMaxComponentBytes));
        }
        if (slash == std::string_view::npos) {
            return std::nullopt;
        }
        start = slash + 1;
    }
}

bool DriveStore::download(std::string_view account, std::string_view path,
                          std::string_view revision, int fd, const Progress& progress,
                          Error* error) {
    const auto item = itemAtPath(account, path, error);
    if (!item) {
        return false;
    }
    std::uint64_t done = 0;
    for (;;) {
        const auto bytes = read(account, path, revision, done, kReadChunk, error);
        if (!bytes) {
            return false;
        }
        if (!bytes->empty() && writeAll(fd, *bytes) != 0) {
            setError(error, Error(QNDriveStoreErrorDomain, DriveStoreErrorIO,
                                  {{NSLocalizedDescriptionKey,
                                    fmt::format("Could not write the download of \"{}\".", path)},
                                   {NSFilePathErrorKey, std::string(path)},
                                   {NSUnderlyingErrorKey, Error(NSPOSIXErrorDomain, errno, {})}}));
            return false;
        }
        done += bytes->size();
        const bool last = bytes->size() < kReadChunk;
        if (progress && !progress(done, last ? done : std::max(done, item->size))) {
            setError(error, Error(QNDriveStoreErrorDomain, DriveStoreErrorCancelled,
                                  {{NSLocalizedDescriptionKey,
                                    fmt::format("The download of \"{}\" was stopped.", path)},
                                   {NSFilePathErrorKey, std::string(path)}}));
            return false;
        }
        if (last) {
            return true;
        }
    }
}

}  // namespace qn
