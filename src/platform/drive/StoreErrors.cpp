#include "StoreErrors.h"

#include <fmt/format.h>

#include <cctype>
#include <random>

namespace qn::drive {

Error storeError(DriveStoreError code, std::string description, std::string_view path,
                 int errnoValue) {
    Dictionary userInfo{{NSLocalizedDescriptionKey, std::move(description)}};
    if (!path.empty()) {
        userInfo.set(NSFilePathErrorKey, std::string(path));
    }
    if (errnoValue != 0) {
        userInfo.set(NSUnderlyingErrorKey, Error(NSPOSIXErrorDomain, errnoValue, {}));
    }
    return Error(QNDriveStoreErrorDomain, code, std::move(userInfo));
}

std::string folderName(std::string_view account) {
    std::string name;
    const bool dots = account.find_first_not_of('.') == std::string_view::npos;
    for (const char c : account) {
        const auto byte = static_cast<unsigned char>(c);
        if (std::isalnum(byte) != 0 ||
            (!dots && (c == '.' || c == '_' || c == '@' || c == '+' || c == '-'))) {
            name += c;
        } else {
            name += fmt::format("%{:02X}", byte);
        }
    }
    return name;
}

std::string randomName() {
    static thread_local std::mt19937_64 random{std::random_device{}()};
    return fmt::format("{:016x}", random());
}

Error noItem(std::string_view path) {
    return storeError(DriveStoreErrorNotFound,
                      fmt::format("There is no item \"{}\" in the store.", path), path);
}

Error noRevision(std::string_view path, std::string_view revision) {
    return storeError(DriveStoreErrorNotFound,
                      fmt::format("The store holds no revision {} of \"{}\".", revision, path),
                      path);
}

Error noVersion(std::string_view path, std::string_view identifier) {
    return storeError(DriveStoreErrorNotFound,
                      fmt::format("\"{}\" has no version {}.", path, identifier), path);
}

bool fail(Error* error, Error made) {
    setError(error, std::move(made));
    return false;
}

const char* kindName(bool isDirectory) {
    return isDirectory ? "folder" : "file";
}

std::optional<Error> unmet(const StoreIndex::Entry* entry, const DriveStore::Condition& condition,
                           std::string_view path) {
    using Kind = DriveStore::Condition::Kind;
    const std::string current = entry != nullptr ? entry->revision : std::string();
    const bool met = condition.kind == Kind::Any ||
                     (condition.kind == Kind::Absent && entry == nullptr) ||
                     (condition.kind == Kind::AtRevision && entry != nullptr &&
                      entry->revision == condition.revision);
    if (met) {
        return std::nullopt;
    }
    auto error = storeError(
        DriveStoreErrorRevisionMismatch,
        entry == nullptr ? fmt::format("\"{}\" was removed from the store meanwhile.", path)
                         : fmt::format("\"{}\" was changed in the store meanwhile (revision {}).",
                                       path, current),
        path);
    Dictionary userInfo = error.userInfo();
    userInfo.set(DriveStoreCurrentRevisionKey, current);
    return Error(error.domain(), error.code(), std::move(userInfo));
}

Error notAFolder(std::string_view path, std::string_view what) {
    return storeError(DriveStoreErrorNotAFolder, fmt::format("\"{}\": {}.", path, what), path);
}

}  // namespace qn::drive
