#pragma once

// A drive store kept in a directory: the embedded default server of the cloud drive. Devices on
// one machine, or on several machines sharing a network file system, use the same directory.

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "qn/DriveStore.h"

namespace qn {

namespace drive {
class StoreIndex;
struct StoreRecord;
}  // namespace drive

/// The store's directory holds a marker file naming the store, and one folder per account with
/// its change log, its contents files (one per revision or version, never changed once
/// written) and a folder for uploads in progress. `docs/drive.md` describes the layout.
///
/// Every change is made the same way: the contents are copied to a temporary file first,
/// without any lock; then, holding the account's lock file (so writers in every process take
/// turns), the log is read up to its end, the change's condition is checked against it, the
/// temporary file is renamed into place and one line is appended to the log. The appended line
/// is the commit: a writer killed before it leaves only a temporary file behind, one killed
/// during it leaves a torn line that the next writer cuts off. Readers take no lock; they read
/// the log from where they stopped.
///
/// A store that has gone away (its marker is missing) is unreachable: every member fails with
/// DriveStoreErrorUnreachable until it is back.
///
/// Threads: any. Each account's state in this process is guarded by its own mutex; writers of
/// one account in this process also take turns through a second mutex, taken before the lock
/// file, which is taken before the state mutex.
class DirectoryStore final : public DriveStore {
public:
    struct Options {
        /// Flush contents and log to the disk before a change is reported done, so that a
        /// change survives a power cut and not only a crash of the process. Off by default, as
        /// in other file-sync tools: it costs a disk flush per change.
        bool synchronous = false;
    };

    /// Makes the store's directory (and the folders above it) and its marker when they are
    /// missing; an existing store is left as it is. False when the directory holds something
    /// else.
    static bool create(const std::string& root, Error* error);
    /// The store at `root`. Opening never fails: a missing store is unreachable until it exists.
    static std::shared_ptr<DirectoryStore> open(std::string root, Options options);
    static std::shared_ptr<DirectoryStore> open(std::string root) { return open(root, {}); }

    ~DirectoryStore() override;

    const std::string& root() const { return root_; }

    bool isReachable() override;
    std::optional<std::vector<std::string>> accounts(Error* error) override;
    bool addAccount(std::string_view account, Error* error) override;

    std::optional<Changes> changesSince(std::string_view account, std::string_view token,
                                        Error* error) override;
    std::optional<Item> itemAtPath(std::string_view account, std::string_view path,
                                   Error* error) override;
    std::optional<std::string> read(std::string_view account, std::string_view path,
                                    std::string_view revision, std::uint64_t offset,
                                    std::size_t length, Error* error) override;
    /// Copies with copy_file_range where the file systems allow it.
    bool download(std::string_view account, std::string_view path, std::string_view revision,
                  int fd, const Progress& progress, Error* error) override;
    std::optional<Item> upload(std::string_view account, std::string_view path, int fd,
                               const Condition& condition, Date modificationDate,
                               std::string_view device, const Progress& progress,
                               Error* error) override;
    std::optional<Item> makeDirectory(std::string_view account, std::string_view path,
                                      const Condition& condition, Date modificationDate,
                                      std::string_view device, Error* error) override;
    bool remove(std::string_view account, std::string_view path, const Condition& condition,
                Error* error) override;
    std::optional<Item> move(std::string_view account, std::string_view from, std::string_view to,
                             const Condition& condition, Error* error) override;

    std::optional<Version> addConflictVersion(std::string_view account, std::string_view path,
                                              int fd, Date modificationDate,
                                              std::string_view device, Error* error) override;
    std::optional<std::vector<Version>> versions(std::string_view account, std::string_view path,
                                                 Error* error) override;
    bool downloadVersion(std::string_view account, std::string_view path,
                         std::string_view identifier, int fd, Error* error) override;
    bool setVersionResolved(std::string_view account, std::string_view path,
                            std::string_view identifier, bool resolved, Error* error) override;
    bool removeVersion(std::string_view account, std::string_view path, std::string_view identifier,
                       Error* error) override;

private:
    struct Private {
        explicit Private() = default;
    };

public:
    /// Use `open`.
    DirectoryStore(Private, std::string root, Options options);

private:
    struct Account;
    class Writer;

    // The account's state in this process, opened on first use; null (with the error) when
    // the store is unreachable or holds no such account.
    std::shared_ptr<Account> account(std::string_view name, Error* error);
    // Reads the log from where `account` stopped; false (with the error) for a damaged log.
    // Call with the account's mutex held.
    bool catchUpLocked(Account& account, Error* error);
    // The error for a failed call on the store: unreachable when the marker has gone.
    Error failure(int errnoValue, std::string_view what, std::string_view path);
    // A temporary file holding an upload's contents, locked while its descriptor is open.
    struct Staged {
        std::string path;
        std::uint64_t size = 0;
        int fd = -1;
        Staged(std::string p, std::uint64_t s, int f) : path(std::move(p)), size(s), fd(f) {}
        Staged(Staged&& other) noexcept
            : path(std::move(other.path)), size(other.size), fd(std::exchange(other.fd, -1)) {}
        Staged& operator=(Staged&&) = delete;
        ~Staged();
    };
    // Copies `fd` from its offset to a new temporary file of the account, telling `progress`.
    std::optional<Staged> stage(Account& account, int fd, std::string_view path,
                                const Progress& progress, Error* error);
    // Removes the temporary files in `folder` whose uploaders died.
    static void removeAbandonedUploads(const std::string& folder);
    // Stages the contents of `fd`, then, under the account's lock, lets `check` refuse the change
    // and `describe` fill in the record (its sequence number, path, size and contents file are
    // set), puts the contents in place and commits the record; `item`, when given, gets the item
    // at the path as the commit left it.
    std::optional<drive::StoreRecord> commitContents(
        std::string_view account, std::string_view path, int fd, const Progress& progress,
        const std::function<std::optional<Error>(const drive::StoreIndex&)>& check,
        const std::function<void(drive::StoreRecord&)>& describe, Item* item, Error* error);
    // Resolves (`resolve`) or removes one version of an item.
    bool changeVersion(std::string_view account, std::string_view path, std::string_view identifier,
                       bool resolve, bool resolved, Error* error);
    bool copyBlob(Account& account, const std::string& blob, std::string_view path, int fd,
                  const Progress& progress, Error* error);

    const std::string root_;
    const Options options_;
    std::mutex accountsMutex_;  // guards accounts_; taken before any account's mutexes
    std::unordered_map<std::string, std::shared_ptr<Account>> accounts_;
};

}  // namespace qn
