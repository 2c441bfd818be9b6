#include "ItemAttributes.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <limits>
#include <mutex>
#include <unordered_map>

#include "qn/FileAttributes.h"

namespace qn {
namespace {

const char* fileTypeName(mode_t mode) {
    switch (mode & S_IFMT) {
        case S_IFREG:
            return NSFileTypeRegular;
        case S_IFDIR:
            return NSFileTypeDirectory;
        case S_IFLNK:
            return NSFileTypeSymbolicLink;
        case S_IFCHR:
            return NSFileTypeCharacterSpecial;
        case S_IFBLK:
            return NSFileTypeBlockSpecial;
        case S_IFSOCK:
            return NSFileTypeSocket;
        default:
            return NSFileTypeUnknown;  // FIFOs have no name of their own in the design.
    }
}

// getpwuid_r and getgrgid_r share this shape: a caller buffer that may turn out too small.
template <class Entry, class Id, class Lookup, class NameOf>
std::optional<std::string> accountName(Id id, Lookup lookup, NameOf nameOf) {
    std::string buffer(1024, '\0');
    for (;;) {
        Entry entry{};
        Entry* found = nullptr;
        const int result = lookup(id, &entry, buffer.data(), buffer.size(), &found);
        if (result == ERANGE && buffer.size() < (std::size_t{1} << 20)) {
            buffer.resize(buffer.size() * 2);
            continue;
        }
        if (result != 0 || found == nullptr || nameOf(*found) == nullptr) {
            return std::nullopt;
        }
        return std::string(nameOf(*found));
    }
}

// Asking the name service reads and parses the account databases each time, which would cost
// every attribute query more than the stat itself. Names are kept for a few seconds, so a
// renamed account shows its new name soon after. One cache for each kind of account.
template <class Entry, class Id, class Lookup, class NameOf>
std::optional<std::string> rememberedAccountName(Id id, Lookup lookup, NameOf nameOf) {
    using Clock = std::chrono::steady_clock;
    constexpr auto kKeptFor = std::chrono::seconds(10);
    struct Known {
        Clock::time_point askedAt;
        std::optional<std::string> name;
    };
    static std::mutex mutex;  // guards `known`
    static std::unordered_map<Id, Known> known;
    const auto now = Clock::now();
    {
        std::lock_guard lock(mutex);
        if (const auto found = known.find(id);
            found != known.end() && now - found->second.askedAt < kKeptFor) {
            return found->second.name;
        }
    }
    auto name = accountName<Entry>(id, lookup, nameOf);  // not under the lock: it may be slow
    std::lock_guard lock(mutex);
    if (known.size() >= 1024) {
        known.clear();  // a bound, not a policy: real systems show a handful of owners
    }
    known[id] = Known{now, name};
    return name;
}

// An integer ID or permission value: any number but a bool, integral and within [0, max].
std::optional<std::uint64_t> wholeNumber(const Value& value, std::uint64_t max) {
    if (!value.isNumber() || value.type() == Value::Type::Bool) {
        return std::nullopt;
    }
    if (value.type() == Value::Type::Double) {
        const double number = *value.doubleValue();
        if (!(number >= 0.0 && number <= static_cast<double>(max)) ||
            number != static_cast<double>(static_cast<std::uint64_t>(number))) {
            return std::nullopt;
        }
        return static_cast<std::uint64_t>(number);
    }
    if (value.type() == Value::Type::Int64 && *value.int64Value() < 0) {
        return std::nullopt;
    }
    const std::uint64_t number = *value.uint64Value();
    if (number > max) {
        return std::nullopt;
    }
    return number;
}

}  // namespace

Dictionary attributesFromStatus(const ItemStatus& status) {
    Dictionary attributes;
    attributes.set(NSFileType, fileTypeName(status.mode));
    attributes.set(NSFileSize, status.size);
    attributes.set(NSFileModificationDate, Date::fromTimespec(status.modified));
    if (status.created) {
        attributes.set(NSFileCreationDate, Date::fromTimespec(*status.created));
    }
    attributes.set(NSFilePosixPermissions, static_cast<std::int64_t>(status.mode & 07777));
    attributes.set(NSFileOwnerAccountID, static_cast<std::uint64_t>(status.owner));
    attributes.set(NSFileGroupOwnerAccountID, static_cast<std::uint64_t>(status.group));
    if (auto name = rememberedAccountName<struct passwd>(
            status.owner, ::getpwuid_r, [](const passwd& entry) { return entry.pw_name; })) {
        attributes.set(NSFileOwnerAccountName, std::move(*name));
    }
    if (auto name = rememberedAccountName<struct group>(
            status.group, ::getgrgid_r, [](const group& entry) { return entry.gr_name; })) {
        attributes.set(NSFileGroupOwnerAccountName, std::move(*name));
    }
    attributes.set(NSFileReferenceCount, status.linkCount);
    attributes.set(NSFileSystemNumber, status.device);
    attributes.set(NSFileSystemFileNumber, status.inode);
    return attributes;
}

std::optional<AttributeChanges> AttributeChanges::parse(const Dictionary& attributes,
                                                        std::string* problem) {
    AttributeChanges changes;
    // (uid_t)-1 means "leave unchanged" to chown, so it is no valid ID.
    constexpr std::uint64_t kMaxId = std::numeric_limits<uid_t>::max() - 1;
    if (const Value* value = attributes.find(NSFilePosixPermissions)) {
        const auto permissions = wholeNumber(*value, 07777);
        if (!permissions) {
            *problem = fmt::format("{} must be a number from 0 to 07777, not {}.",
                                   NSFilePosixPermissions, value->description());
            return std::nullopt;
        }
        changes.permissions = static_cast<mode_t>(*permissions);
    }
    if (const Value* value = attributes.find(NSFileOwnerAccountID)) {
        const auto owner = wholeNumber(*value, kMaxId);
        if (!owner) {
            *problem = fmt::format("{} must be a user ID, not {}.", NSFileOwnerAccountID,
                                   value->description());
            return std::nullopt;
        }
        changes.owner = static_cast<uid_t>(*owner);
    }
    if (const Value* value = attributes.find(NSFileGroupOwnerAccountID)) {
        const auto group = wholeNumber(*value, kMaxId);
        if (!group) {
            *problem = fmt::format("{} must be a group ID, not {}.", NSFileGroupOwnerAccountID,
                                   value->description());
            return std::nullopt;
        }
        changes.group = static_cast<gid_t>(*group);
    }
    if (const Value* value = attributes.find(NSFileModificationDate)) {
        if (value->dateValue() == nullptr) {
            *problem = fmt::format("{} must be a date, not {}.", NSFileModificationDate,
                                   value->description());
            return std::nullopt;
        }
        changes.modificationDate = *value->dateValue();
    }
    return changes;
}

int AttributeChanges::applyTo(const std::string& path) const {
    if (owner || group) {
        if (::chown(path.c_str(), owner.value_or(static_cast<uid_t>(-1)),
                    group.value_or(static_cast<gid_t>(-1))) != 0) {
            return errno;
        }
    }
    if (permissions && ::chmod(path.c_str(), *permissions) != 0) {
        return errno;
    }
    if (modificationDate) {
        struct timespec times[2]{};
        times[0].tv_nsec = UTIME_OMIT;
        times[1] = modificationDate->toTimespec();
        if (::utimensat(AT_FDCWD, path.c_str(), times, 0) != 0) {
            return errno;
        }
    }
    return 0;
}

}  // namespace qn
