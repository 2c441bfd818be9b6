#include "StoreErrors.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <charconv>
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

std::optional<Error> uploadRefusal(const StoreIndex& index, std::string_view path,
                                   const DriveStore::Condition& condition) {
    const auto* entry = index.find(path);
    if (auto problem = unmet(entry, condition, path)) {
        return problem;
    }
    if (entry != nullptr && entry->isDirectory) {
        return notAFolder(path, "a folder is in the way of the file");
    }
    if (entry == nullptr && !index.parentIsFolder(path)) {
        return notAFolder(path, "its parent is not a folder in the store");
    }
    return std::nullopt;
}

std::optional<Error> folderRefusal(const StoreIndex& index, std::string_view path,
                                   const DriveStore::Condition& condition,
                                   std::optional<DriveStore::Item>* existing) {
    const auto* entry = index.find(path);
    if (entry != nullptr && !entry->isDirectory) {
        return notAFolder(path, "a file is in the way of the folder");
    }
    if (entry != nullptr && condition.kind != DriveStore::Condition::Kind::AtRevision) {
        *existing = index.item(std::string(path), *entry);  // made twice: no conflict
        return std::nullopt;
    }
    if (auto problem = unmet(entry, condition, path)) {
        return problem;
    }
    if (entry == nullptr && !index.parentIsFolder(path)) {
        return notAFolder(path, "its parent is not a folder in the store");
    }
    return std::nullopt;
}

std::optional<Error> removalRefusal(const StoreIndex& index, std::string_view path,
                                    const DriveStore::Condition& condition) {
    const auto* entry = index.find(path);
    if (entry == nullptr) {
        return noItem(path);
    }
    if (auto problem = unmet(entry, condition, path)) {
        return problem;
    }
    if (entry->isDirectory && index.hasItemsBelow(path)) {
        return storeError(DriveStoreErrorNotEmpty,
                          fmt::format("The folder \"{}\" is not empty.", path), path);
    }
    return std::nullopt;
}

std::optional<Error> moveRefusal(const StoreIndex& index, std::string_view from,
                                 std::string_view to, const DriveStore::Condition& condition) {
    const auto* entry = index.find(from);
    if (entry == nullptr) {
        return noItem(from);
    }
    if (auto problem = unmet(entry, condition, from)) {
        return problem;
    }
    if (const auto* there = index.find(to)) {
        return storeError(
            DriveStoreErrorExists,
            fmt::format("A {} \"{}\" is already in the store.", kindName(there->isDirectory), to),
            to);
    }
    if (to.starts_with(from) && to.size() > from.size() && to[from.size()] == '/') {
        return storeError(DriveStoreErrorInvalidName,
                          fmt::format("\"{}\" cannot move into itself.", from), to);
    }
    if (!index.parentIsFolder(to)) {
        return notAFolder(to, "its parent is not a folder in the store");
    }
    return std::nullopt;
}

bool hasVersion(const StoreIndex::Entry* entry, std::string_view identifier) {
    return entry != nullptr &&
           std::any_of(entry->versions.begin(), entry->versions.end(),
                       [&](const auto& version) { return version.identifier == identifier; });
}

std::optional<std::vector<DriveStore::Version>> versionsIn(const StoreIndex& index,
                                                           std::string_view path, Error* error) {
    const auto* entry = index.find(path);
    if (entry == nullptr) {
        setError(error, noItem(path));
        return std::nullopt;
    }
    std::vector<DriveStore::Version> found;
    for (const auto& version : entry->versions) {
        found.push_back(
            {version.identifier, version.size, version.date, version.device, version.resolved});
    }
    return found;
}

DriveStore::Changes changesAfter(const StoreIndex& index, std::string_view token) {
    DriveStore::Changes changes;
    changes.token = std::to_string(index.endOffset());
    std::optional<std::vector<std::string>> paths;
    std::uint64_t offset = 0;
    const auto [end, failed] = std::from_chars(token.data(), token.data() + token.size(), offset);
    if (!token.empty() && failed == std::errc() && end == token.data() + token.size()) {
        paths = index.pathsChangedAfter(offset);
    }
    if (!paths) {
        changes.reset = true;
        for (const auto& [path, entry] : index.entries()) {
            changes.items.push_back(index.item(path, entry));
        }
        return changes;
    }
    for (const auto& path : *paths) {
        if (const auto* entry = index.find(path)) {
            changes.items.push_back(index.item(path, *entry));
        } else {
            changes.removedPaths.push_back(path);
        }
    }
    return changes;
}

}  // namespace qn::drive
