#include "qn/DirectoryStore.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <random>
#include <vector>

#include "../FileSystemCalls.h"
#include "StoreErrors.h"
#include "StoreIndex.h"
#include "StoreRecord.h"
#include "qn/FileAttributes.h"

namespace qn {
namespace {

constexpr const char* kMarkerName = "qnicloud-store";
constexpr const char* kMarkerHeading = "qnicloud directory store 1\n";
constexpr std::size_t kCopyChunk = 8 << 20;  // bytes between two progress reports

using drive::StoreRecord;
using namespace drive;  // the shared errors and checks

int openFile(const std::string& path, int flags, mode_t mode = 0666) {
    int fd;
    do {
        fd = ::open(path.c_str(), flags | O_CLOEXEC, mode);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

// Reads a whole small file; nullopt with errno set when it cannot be read.
std::optional<std::string> readSmallFile(const std::string& path) {
    const int fd = openFile(path, O_RDONLY);
    if (fd < 0) {
        return std::nullopt;
    }
    std::string contents;
    char buffer[4096];
    for (;;) {
        const ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            const int saved = errno;
            ::close(fd);
            errno = saved;
            return got == 0 ? std::optional(contents) : std::nullopt;
        }
        contents.append(buffer, static_cast<std::size_t>(got));
    }
}

// Copies `from` (from its offset) to `to` in chunks, telling `progress` after each; the last
// report, with done == total, comes after the last byte. 0, ECANCELED when `progress` stopped
// it, or the errno of the call that failed.
int copyWithProgress(int from, int to, std::uint64_t total, const DriveStore::Progress& progress) {
    std::uint64_t done = 0;
    bool plain = false;  // copy_file_range refused these files: read and write instead
    std::vector<char> buffer;
    for (;;) {
        ssize_t copied = -1;
        if (!plain) {
            copied = ::copy_file_range(from, nullptr, to, nullptr, kCopyChunk, 0);
            if (copied < 0 && (errno == EXDEV || errno == EINVAL || errno == ENOSYS ||
                               errno == EOPNOTSUPP || errno == EBADF)) {
                plain = true;
                buffer.resize(1 << 20);
            }
        }
        if (plain) {
            copied = ::read(from, buffer.data(), buffer.size());
            if (copied > 0 &&
                writeAll(to, {buffer.data(), static_cast<std::size_t>(copied)}) != 0) {
                return errno != 0 ? errno : EIO;
            }
        }
        if (copied < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno;
        }
        done += static_cast<std::uint64_t>(copied);
        if (copied == 0) {
            return progress && !progress(done, std::max(done, total)) ? ECANCELED : 0;
        }
        if (progress && done < total && !progress(done, total)) {
            return ECANCELED;
        }
    }
}

}  // namespace

struct DirectoryStore::Account {
    std::string name;
    std::string directory;
    std::mutex writeMutex;  // writers of this process take turns; before the lock file
    int lockFd = -1;        // flock'ed by writers of every process
    std::mutex mutex;       // guards everything below; after the lock file
    int logFd = -1;
    drive::StoreIndex index;
    std::string partial;  // bytes after the last complete line read

    ~Account() {
        for (const int fd : {lockFd, logFd}) {
            if (fd >= 0) {
                ::close(fd);
            }
        }
    }
    std::string blobPath(std::string_view blob) const {
        return directory + "/blobs/" + std::string(blob);
    }
};

// One change of an account: holds the account's write mutex, its lock file and its state mutex,
// with the state read up to the log's end (a torn last line cut off). Contents files that no
// longer belong to anything are deleted once it is let go.
class DirectoryStore::Writer {
public:
    Writer(DirectoryStore& store, Account& account)
        : store_(store), account_(account), writing_(account.writeMutex) {
        while (::flock(account.lockFd, LOCK_EX) != 0) {
            if (errno != EINTR) {
                error_ = store.failure(errno, "lock the account", account.directory);
                return;
            }
        }
        locked_ = true;
        state_ = std::unique_lock(account.mutex);
        Error error;
        if (!store.catchUpLocked(account, &error)) {
            error_ = std::move(error);
            return;
        }
        if (!account.partial.empty()) {
            // A writer died in the middle of its line: that change never happened.
            if (::ftruncate(account.logFd, static_cast<off_t>(account.index.endOffset())) != 0) {
                error_ = store.failure(errno, "repair the log of", account.directory);
                return;
            }
            account.partial.clear();
        }
        ready_ = true;
    }
    ~Writer() {
        if (state_.owns_lock()) {
            state_.unlock();
        }
        if (locked_) {
            ::flock(account_.lockFd, LOCK_UN);
        }
        for (const auto& blob : freed_) {
            ::unlink(account_.blobPath(blob).c_str());
        }
    }

    /// False, with the error, when the state could not be brought up to date.
    bool ready(Error* error) const {
        if (!ready_) {
            setError(error, error_);
        }
        return ready_;
    }
    drive::StoreIndex& index() { return account_.index; }
    std::uint64_t nextSeq() const { return account_.index.lastSeq() + 1; }

    /// Appends `record` and applies it.
    bool commit(StoreRecord record, Error* error) {
        const std::string line = record.encode();
        if (writeAll(account_.logFd, line) != 0) {
            const int saved = errno;
            // Nothing half-written may stay behind a line that a reader could take as whole.
            [[maybe_unused]] const int ignored =
                ::ftruncate(account_.logFd, static_cast<off_t>(account_.index.endOffset()));
            return fail(error, store_.failure(saved, "record a change in", record.path));
        }
        if (store_.options_.synchronous) {
            ::fdatasync(account_.logFd);
        }
        if (!account_.index.apply(record, account_.index.endOffset() + line.size(), &freed_)) {
            return fail(error, storeError(DriveStoreErrorCorrupt,
                                          "The store's log could not take a change it accepted.",
                                          record.path));
        }
        return true;
    }

private:
    DirectoryStore& store_;
    Account& account_;
    std::lock_guard<std::mutex> writing_;
    std::unique_lock<std::mutex> state_;
    bool locked_ = false;
    bool ready_ = false;
    Error error_;
    std::vector<std::string> freed_;
};

bool DirectoryStore::create(const std::string& root, Error* error) {
    std::error_code ignored;
    std::filesystem::create_directories(root + "/accounts", ignored);
    const std::string marker = root + "/" + kMarkerName;
    if (const auto existing = readSmallFile(marker)) {
        if (existing->starts_with(kMarkerHeading)) {
            return true;
        }
        return fail(
            error,
            storeError(DriveStoreErrorCorrupt,
                       fmt::format("\"{}\" holds something other than a store.", root), root));
    }
    const std::string temporary = marker + "." + randomName();
    const int fd = openFile(temporary, O_WRONLY | O_CREAT | O_EXCL);
    if (fd < 0) {
        return fail(error, storeError(DriveStoreErrorIO,
                                      fmt::format("The store \"{}\" could not be made.", root),
                                      root, errno));
    }
    const int written = writeAll(fd, std::string(kMarkerHeading) + randomName() + "\n");
    ::close(fd);
    // link() refuses to replace a marker another process made meanwhile; its store wins.
    const int linked = written == 0 && ::link(temporary.c_str(), marker.c_str()) != 0 ? errno : 0;
    ::unlink(temporary.c_str());
    if (written != 0 || (linked != 0 && linked != EEXIST)) {
        return fail(error, storeError(DriveStoreErrorIO,
                                      fmt::format("The store \"{}\" could not be made.", root),
                                      root, written != 0 ? written : linked));
    }
    return true;
}

std::shared_ptr<DirectoryStore> DirectoryStore::open(std::string root, Options options) {
    return std::make_shared<DirectoryStore>(Private(), std::move(root), options);
}

DirectoryStore::DirectoryStore(Private, std::string root, Options options)
    : root_(std::move(root)), options_(options) {}

DirectoryStore::~DirectoryStore() = default;

DirectoryStore::Staged::~Staged() {
    if (fd >= 0) {
        ::close(fd);
    }
}

bool DirectoryStore::isReachable() {
    const auto marker = readSmallFile(root_ + "/" + kMarkerName);
    return marker && marker->starts_with(kMarkerHeading);
}

Error DirectoryStore::failure(int errnoValue, std::string_view what, std::string_view path) {
    if (!isReachable()) {
        return storeError(DriveStoreErrorUnreachable,
                          fmt::format("The store \"{}\" cannot be reached.", root_), path,
                          errnoValue);
    }
    return storeError(
        DriveStoreErrorIO,
        fmt::format("Could not {} \"{}\": {}.", what, path, std::strerror(errnoValue)), path,
        errnoValue);
}

std::optional<std::vector<std::string>> DirectoryStore::accounts(Error* error) {
    DIR* directory = ::opendir((root_ + "/accounts").c_str());
    if (directory == nullptr || !isReachable()) {
        if (directory != nullptr) {
            ::closedir(directory);
        }
        setError(error, failure(errno != 0 ? errno : ENOENT, "list the accounts of", root_));
        return std::nullopt;
    }
    std::vector<std::string> names;
    while (const dirent* entry = ::readdir(directory)) {
        const std::string_view name = entry->d_name;
        if (name.starts_with(".")) {
            continue;  // "." and "..", and accounts being made
        }
        if (auto plain = drive::percentUnescaped(name)) {
            names.push_back(std::move(*plain));
        }
    }
    ::closedir(directory);
    std::sort(names.begin(), names.end());
    return names;
}

bool DirectoryStore::addAccount(std::string_view account, Error* error) {
    if (account.empty()) {
        return fail(error, storeError(DriveStoreErrorInvalidName, "An account needs a name.", ""));
    }
    if (!isReachable()) {
        return fail(error, failure(ENOENT, "add an account to", root_));
    }
    const std::string directory = root_ + "/accounts/" + folderName(account);
    struct stat status {};
    if (::stat(directory.c_str(), &status) == 0) {
        return true;
    }
    // Made aside and renamed into place, so that no half-made account is ever seen.
    const std::string making = root_ + "/accounts/." + randomName();
    int result = 0;
    for (const std::string& folder : {making, making + "/blobs", making + "/tmp"}) {
        if (result == 0 && ::mkdir(folder.c_str(), 0777) != 0) {
            result = errno;
        }
    }
    for (const char* file : {"/log", "/lock"}) {
        if (result == 0) {
            const int fd = openFile(making + file, O_WRONLY | O_CREAT | O_EXCL);
            result = fd < 0 ? errno : 0;
            if (fd >= 0) {
                ::close(fd);
            }
        }
    }
    if (result == 0 && ::rename(making.c_str(), directory.c_str()) != 0) {
        result = errno == EEXIST || errno == ENOTEMPTY ? 0 : errno;  // made by someone else
    }
    std::error_code ignored;
    std::filesystem::remove_all(making, ignored);
    if (result != 0) {
        return fail(error, failure(result, "add the account", account));
    }
    return true;
}

std::shared_ptr<DirectoryStore::Account> DirectoryStore::account(std::string_view name,
                                                                 Error* error) {
    std::lock_guard lock(accountsMutex_);
    if (const auto found = accounts_.find(std::string(name)); found != accounts_.end()) {
        if (isReachable()) {
            return found->second;
        }
        setError(error, failure(ENOENT, "reach", root_));
        return nullptr;
    }
    if (!isReachable()) {
        setError(error, failure(ENOENT, "reach", root_));
        return nullptr;
    }
    auto made = std::make_shared<Account>();
    made->name = std::string(name);
    made->directory = root_ + "/accounts/" + folderName(name);
    made->lockFd = openFile(made->directory + "/lock", O_RDWR);
    made->logFd = openFile(made->directory + "/log", O_RDWR | O_APPEND);
    if (made->lockFd < 0 || made->logFd < 0) {
        setError(error,
                 errno == ENOENT
                     ? storeError(DriveStoreErrorNotFound,
                                  fmt::format("The store holds no account \"{}\".", name), "")
                     : failure(errno, "open the account", name));
        return nullptr;
    }
    removeAbandonedUploads(made->directory + "/tmp");
    accounts_.emplace(made->name, made);
    return made;
}

void DirectoryStore::removeAbandonedUploads(const std::string& folder) {
    DIR* directory = ::opendir(folder.c_str());
    if (directory == nullptr) {
        return;
    }
    while (const dirent* entry = ::readdir(directory)) {
        const std::string path = folder + "/" + entry->d_name;
        const int fd = entry->d_name[0] == '.' ? -1 : openFile(path, O_RDONLY);
        if (fd >= 0 && ::flock(fd, LOCK_EX | LOCK_NB) == 0) {
            ::unlink(path.c_str());  // nobody holds it: its uploader is gone
        }
        if (fd >= 0) {
            ::close(fd);
        }
    }
    ::closedir(directory);
}

bool DirectoryStore::catchUpLocked(Account& account, Error* error) {
    char buffer[1 << 16];
    for (;;) {
        // Complete lines first, also those a failed call left: a damaged line keeps failing
        // every call rather than being taken for a torn one.
        std::size_t start = 0;
        for (std::size_t end; (end = account.partial.find('\n', start)) != std::string::npos;
             start = end + 1) {
            const std::string_view line(account.partial.data() + start, end - start);
            const auto record = StoreRecord::decode(line);
            const std::uint64_t lineEnd = account.index.endOffset() + line.size() + 1;
            if (!record || !account.index.apply(*record, lineEnd, nullptr)) {
                account.partial.erase(0, start);
                return fail(error,
                            storeError(DriveStoreErrorCorrupt,
                                       fmt::format("The log of account \"{}\" is damaged at byte "
                                                   "{}; nothing was changed.",
                                                   account.name, account.index.endOffset()),
                                       account.directory + "/log"));
            }
        }
        account.partial.erase(0, start);
        const auto offset = static_cast<off_t>(account.index.endOffset() + account.partial.size());
        const ssize_t got = ::pread(account.logFd, buffer, sizeof buffer, offset);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            return fail(error, failure(errno, "read the log of", account.directory));
        }
        if (got == 0) {
            return true;
        }
        account.partial.append(buffer, static_cast<std::size_t>(got));
    }
}

std::optional<DriveStore::Changes> DirectoryStore::changesSince(std::string_view name,
                                                                std::string_view token,
                                                                Error* error) {
    const auto account = this->account(name, error);
    if (account == nullptr) {
        return std::nullopt;
    }
    std::lock_guard lock(account->mutex);
    if (!catchUpLocked(*account, error)) {
        return std::nullopt;
    }
    return changesAfter(account->index, token);
}

std::optional<DriveStore::Item> DirectoryStore::itemAtPath(std::string_view name,
                                                           std::string_view path, Error* error) {
    const auto account = this->account(name, error);
    if (account == nullptr) {
        return std::nullopt;
    }
    std::lock_guard lock(account->mutex);
    if (!catchUpLocked(*account, error)) {
        return std::nullopt;
    }
    if (const auto* entry = account->index.find(path)) {
        return account->index.item(std::string(path), *entry);
    }
    setError(error, noItem(path));
    return std::nullopt;
}

std::optional<std::string> DirectoryStore::read(std::string_view name, std::string_view path,
                                                std::string_view revision, std::uint64_t offset,
                                                std::size_t length, Error* error) {
    const auto account = this->account(name, error);
    if (account == nullptr) {
        return std::nullopt;
    }
    std::string blob;
    {
        std::lock_guard lock(account->mutex);
        if (!catchUpLocked(*account, error)) {
            return std::nullopt;
        }
        const auto* entry = account->index.find(path);
        if (entry == nullptr || entry->isDirectory || entry->revision != revision) {
            setError(error, noRevision(path, revision));
            return std::nullopt;
        }
        blob = entry->blob;
    }
    const int fd = openFile(account->blobPath(blob), O_RDONLY);
    if (fd < 0) {
        // Replaced since it was looked up.
        setError(error,
                 errno == ENOENT ? noRevision(path, revision) : failure(errno, "read", path));
        return std::nullopt;
    }
    std::string bytes(length, '\0');
    std::size_t filled = 0;
    while (filled < length) {
        const ssize_t got = ::pread(fd, bytes.data() + filled, length - filled,
                                    static_cast<off_t>(offset + filled));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            const int saved = errno;
            ::close(fd);
            setError(error, failure(saved, "read", path));
            return std::nullopt;
        }
        if (got == 0) {
            break;
        }
        filled += static_cast<std::size_t>(got);
    }
    ::close(fd);
    bytes.resize(filled);
    return bytes;
}

bool DirectoryStore::copyBlob(Account& account, const std::string& blob, std::string_view path,
                              int fd, const Progress& progress, Error* error) {
    const int from = openFile(account.blobPath(blob), O_RDONLY);
    if (from < 0) {
        return fail(
            error,
            errno == ENOENT
                ? storeError(DriveStoreErrorNotFound,
                             fmt::format("\"{}\" was replaced while it was read.", path), path)
                : failure(errno, "read", path));
    }
    struct stat status {};
    ::fstat(from, &status);
    const int result =
        copyWithProgress(from, fd, static_cast<std::uint64_t>(status.st_size), progress);
    ::close(from);
    if (result == ECANCELED) {
        return fail(error,
                    storeError(DriveStoreErrorCancelled,
                               fmt::format("The download of \"{}\" was stopped.", path), path));
    }
    if (result != 0) {
        return fail(error, storeError(DriveStoreErrorIO,
                                      fmt::format("Could not download \"{}\": {}.", path,
                                                  std::strerror(result)),
                                      path, result));
    }
    return true;
}

bool DirectoryStore::download(std::string_view name, std::string_view path,
                              std::string_view revision, int fd, const Progress& progress,
                              Error* error) {
    const auto account = this->account(name, error);
    if (account == nullptr) {
        return false;
    }
    std::string blob;
    {
        std::lock_guard lock(account->mutex);
        if (!catchUpLocked(*account, error)) {
            return false;
        }
        const auto* entry = account->index.find(path);
        if (entry == nullptr || entry->isDirectory || entry->revision != revision) {
            return fail(error, noRevision(path, revision));
        }
        blob = entry->blob;
    }
    return copyBlob(*account, blob, path, fd, progress, error);
}

std::optional<DirectoryStore::Staged> DirectoryStore::stage(Account& account, int fd,
                                                            std::string_view path,
                                                            const Progress& progress,
                                                            Error* error) {
    struct stat source {};
    if (::fstat(fd, &source) != 0) {
        setError(error, storeError(DriveStoreErrorIO,
                                   fmt::format("Could not read what to upload to \"{}\".", path),
                                   path, errno));
        return std::nullopt;
    }
    const off_t start = ::lseek(fd, 0, SEEK_CUR);
    const std::uint64_t total = start >= 0 && source.st_size > start
                                    ? static_cast<std::uint64_t>(source.st_size - start)
                                    : 0;
    const std::string temporary = account.directory + "/tmp/" + randomName();
    const int to = openFile(temporary, O_WRONLY | O_CREAT | O_EXCL, 0444);
    if (to < 0) {
        setError(error, failure(errno, "upload", path));
        return std::nullopt;
    }
    // Locked while it is worked on, so that a writer that finds it unlocked knows that its
    // uploader died and may remove it.
    ::flock(to, LOCK_EX);
    int result = copyWithProgress(fd, to, total, progress);
    if (result == 0 && options_.synchronous && ::fdatasync(to) != 0) {
        result = errno;
    }
    struct stat staged {};
    ::fstat(to, &staged);
    if (result != 0) {
        ::close(to);
        ::unlink(temporary.c_str());
        setError(error,
                 result == ECANCELED
                     ? storeError(DriveStoreErrorCancelled,
                                  fmt::format("The upload of \"{}\" was stopped.", path), path)
                     : failure(result, "upload", path));
        return std::nullopt;
    }
    return Staged{temporary, static_cast<std::uint64_t>(staged.st_size), to};
}

namespace {}  // namespace

std::optional<DriveStore::Item> DirectoryStore::upload(std::string_view name, std::string_view path,
                                                       int fd, const Condition& condition,
                                                       Date modificationDate,
                                                       std::string_view device,
                                                       const Progress& progress, Error* error) {
    if (auto invalid = validatePath(path)) {
        setError(error, std::move(*invalid));
        return std::nullopt;
    }
    Item item;
    const auto committed = commitContents(
        name, path, fd, progress,
        [&](const drive::StoreIndex& index) { return uploadRefusal(index, path, condition); },
        [&](StoreRecord& record) {
            record.kind = StoreRecord::Kind::Item;
            record.revision = record.blob;
            record.date = modificationDate;
            record.device = std::string(device);
        },
        &item, error);
    if (!committed) {
        return std::nullopt;
    }
    return item;
}

std::optional<DriveStore::Item> DirectoryStore::makeDirectory(
    std::string_view name, std::string_view path, const Condition& condition, Date modificationDate,
    std::string_view device, Error* error) {
    if (auto invalid = validatePath(path)) {
        setError(error, std::move(*invalid));
        return std::nullopt;
    }
    const auto account = this->account(name, error);
    if (account == nullptr) {
        return std::nullopt;
    }
    Writer writer(*this, *account);
    if (!writer.ready(error)) {
        return std::nullopt;
    }
    std::optional<Item> existing;
    if (auto refusal = folderRefusal(writer.index(), path, condition, &existing)) {
        setError(error, std::move(*refusal));
        return std::nullopt;
    }
    if (existing) {
        return existing;
    }
    StoreRecord record;
    record.seq = writer.nextSeq();
    record.kind = StoreRecord::Kind::Item;
    record.path = std::string(path);
    record.flag = true;
    record.revision = std::to_string(record.seq);
    record.date = modificationDate;
    record.device = std::string(device);
    if (!writer.commit(record, error)) {
        return std::nullopt;
    }
    return writer.index().item(record.path, *writer.index().find(path));
}

bool DirectoryStore::remove(std::string_view name, std::string_view path,
                            const Condition& condition, Error* error) {
    const auto account = this->account(name, error);
    if (account == nullptr) {
        return false;
    }
    Writer writer(*this, *account);
    if (!writer.ready(error)) {
        return false;
    }
    if (auto refusal = removalRefusal(writer.index(), path, condition)) {
        return fail(error, std::move(*refusal));
    }
    StoreRecord record;
    record.seq = writer.nextSeq();
    record.kind = StoreRecord::Kind::Remove;
    record.path = std::string(path);
    return writer.commit(record, error);
}

std::optional<DriveStore::Item> DirectoryStore::move(std::string_view name, std::string_view from,
                                                     std::string_view to,
                                                     const Condition& condition, Error* error) {
    if (auto invalid = validatePath(to)) {
        setError(error, std::move(*invalid));
        return std::nullopt;
    }
    const auto account = this->account(name, error);
    if (account == nullptr) {
        return std::nullopt;
    }
    Writer writer(*this, *account);
    if (!writer.ready(error)) {
        return std::nullopt;
    }
    if (auto refusal = moveRefusal(writer.index(), from, to, condition)) {
        setError(error, std::move(*refusal));
        return std::nullopt;
    }
    StoreRecord record;
    record.seq = writer.nextSeq();
    record.kind = StoreRecord::Kind::Move;
    record.path = std::string(from);
    record.target = std::string(to);
    if (!writer.commit(record, error)) {
        return std::nullopt;
    }
    return writer.index().item(record.target, *writer.index().find(to));
}

std::optional<DriveStore::Version> DirectoryStore::addConflictVersion(std::string_view name,
                                                                      std::string_view path, int fd,
                                                                      Date modificationDate,
                                                                      std::string_view device,
                                                                      Error* error) {
    const auto committed = commitContents(
        name, path, fd, nullptr,
        [&](const drive::StoreIndex& index) -> std::optional<Error> {
            const auto* entry = index.find(path);
            if (entry == nullptr || entry->isDirectory) {
                return storeError(DriveStoreErrorNotFound,
                                  fmt::format("There is no file \"{}\" in the store.", path), path);
            }
            return std::nullopt;
        },
        [&](StoreRecord& record) {
            record.kind = StoreRecord::Kind::Version;
            record.identifier = record.blob;
            record.date = modificationDate;
            record.device = std::string(device);
        },
        nullptr, error);
    if (!committed) {
        return std::nullopt;
    }
    const StoreRecord& record = *committed;
    return Version{record.identifier, record.size, record.date, record.device, false};
}

std::optional<drive::StoreRecord> DirectoryStore::commitContents(
    std::string_view name, std::string_view path, int fd, const Progress& progress,
    const std::function<std::optional<Error>(const drive::StoreIndex&)>& check,
    const std::function<void(drive::StoreRecord&)>& describe, Item* item, Error* error) {
    const auto account = this->account(name, error);
    if (account == nullptr) {
        return std::nullopt;
    }
    const auto staged = stage(*account, fd, path, progress, error);
    if (!staged) {
        return std::nullopt;
    }
    const auto discard = [&](Error made) {
        ::unlink(staged->path.c_str());
        setError(error, std::move(made));
        return std::nullopt;
    };
    Writer writer(*this, *account);
    Error failed;
    if (!writer.ready(&failed)) {
        return discard(failed);
    }
    if (auto problem = check(writer.index())) {
        return discard(*problem);
    }
    StoreRecord record;
    record.seq = writer.nextSeq();
    record.path = std::string(path);
    record.size = staged->size;
    record.blob = std::to_string(record.seq);
    describe(record);
    if (::rename(staged->path.c_str(), account->blobPath(record.blob).c_str()) != 0) {
        return discard(failure(errno, "store the contents of", path));
    }
    if (!writer.commit(record, error)) {
        ::unlink(account->blobPath(record.blob).c_str());
        return std::nullopt;
    }
    if (item != nullptr) {
        *item = writer.index().item(record.path, *writer.index().find(record.path));
    }
    return record;
}

std::optional<std::vector<DriveStore::Version>> DirectoryStore::versions(std::string_view name,
                                                                         std::string_view path,
                                                                         Error* error) {
    const auto account = this->account(name, error);
    if (account == nullptr) {
        return std::nullopt;
    }
    std::lock_guard lock(account->mutex);
    if (!catchUpLocked(*account, error)) {
        return std::nullopt;
    }
    return versionsIn(account->index, path, error);
}

bool DirectoryStore::downloadVersion(std::string_view name, std::string_view path,
                                     std::string_view identifier, int fd, Error* error) {
    const auto account = this->account(name, error);
    if (account == nullptr) {
        return false;
    }
    std::string blob;
    {
        std::lock_guard lock(account->mutex);
        if (!catchUpLocked(*account, error)) {
            return false;
        }
        if (const auto* entry = account->index.find(path)) {
            for (const auto& version : entry->versions) {
                if (version.identifier == identifier) {
                    blob = version.blob;
                }
            }
        }
    }
    if (blob.empty()) {
        return fail(error, noVersion(path, identifier));
    }
    return copyBlob(*account, blob, path, fd, nullptr, error);
}

bool DirectoryStore::setVersionResolved(std::string_view name, std::string_view path,
                                        std::string_view identifier, bool resolved, Error* error) {
    return changeVersion(name, path, identifier, true, resolved, error);
}

bool DirectoryStore::removeVersion(std::string_view name, std::string_view path,
                                   std::string_view identifier, Error* error) {
    return changeVersion(name, path, identifier, false, false, error);
}

bool DirectoryStore::changeVersion(std::string_view name, std::string_view path,
                                   std::string_view identifier, bool resolve, bool resolved,
                                   Error* error) {
    const auto account = this->account(name, error);
    if (account == nullptr) {
        return false;
    }
    Writer writer(*this, *account);
    if (!writer.ready(error)) {
        return false;
    }
    if (!hasVersion(writer.index().find(path), identifier)) {
        return fail(error, noVersion(path, identifier));
    }
    StoreRecord record;
    record.seq = writer.nextSeq();
    record.kind = resolve ? StoreRecord::Kind::Resolve : StoreRecord::Kind::RemoveVersion;
    record.path = std::string(path);
    record.identifier = std::string(identifier);
    record.flag = resolved;
    return writer.commit(record, error);
}

}  // namespace qn
