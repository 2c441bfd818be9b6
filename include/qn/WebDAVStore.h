#pragma once

// A drive store on a WebDAV server (Apache's mod_dav, rclone's `serve webdav`, file-sync suites,
// network storage boxes), so that devices on different machines share documents through a
// server their user already runs.

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "qn/DriveStore.h"

namespace qn {

namespace drive {
class DavClient;
class StoreIndex;
struct StoreRecord;
}  // namespace drive

/// Each account is a collection at the store's URL holding the account's items at their own
/// paths, so that the server shows the documents as they are; the store's own records live in
/// the account's hidden ".qnicloud" collection, and an item's conflict versions in a hidden
/// ".qnicloud-versions" collection beside it. `docs/drive.md` describes the layout.
///
/// Not every server honours conditional requests (rclone ignores ETags in If-Match, Apache's
/// ETags are weak for a second after a write), so a device checks each change's condition
/// itself: it holds the account's WebDAV lock, reads the account's change records up to the
/// last, checks the condition against them and against the item's ETag on the server, puts the
/// contents (uploaded beforehand into the hidden collection) in place with MOVE, and writes the
/// change's record. The record is the commit; a device that dies before it leaves only an
/// upload in the hidden collection, and its lock expires. Changes that other WebDAV clients make
/// to the files are found by a walk of the collections (PROPFIND, depth 1) that `changesSince`
/// makes now and then, and recorded as changes made by "WebDAV".
///
/// Revisions are the change records' numbers; an item's ETag is kept beside its revision to
/// tell the server's file from another client's edit, and a download whose ETag no longer
/// matches finds its revision replaced.
///
/// Failures: no answer (after retries with back-off), refused credentials and a server
/// certificate that does not verify make DriveStoreErrorUnreachable with a description that
/// says which; "507 Insufficient Storage" and other refusals make DriveStoreErrorIO; a "412
/// Precondition Failed" makes DriveStoreErrorRevisionMismatch.
///
/// Threads: any; each account's state in this process is guarded by its own mutex, and its
/// writers take turns through a second one, taken before the state mutex and before the
/// server's lock is asked for.
class WebDAVStore final : public DriveStore {
public:
    struct Options {
        /// The collection that holds the store: "https://host/dav/qnicloud".
        std::string url;
        std::string user;
        std::string password;
        /// A PEM file of certificates to trust besides the system's.
        std::string certificateAuthority;
        /// Accept a server certificate that does not verify: only ever on the user's word.
        bool allowUnverifiedCertificate = false;
        std::chrono::milliseconds connectTimeout{10'000};
        /// A transfer that moves no byte for this long is given up (and resumed, for downloads).
        std::chrono::seconds stallTimeout{30};
        /// Tries after the first for requests that may be sent again.
        int retries = 3;
        /// How long the server keeps a writer's lock when the writer dies.
        std::chrono::seconds lockTimeout{120};
        /// How often `changesSince` also walks the collections for other clients' changes.
        std::chrono::seconds walkInterval{30};
    };

    /// Makes the store's collection (and those above it) and its marker when missing; an
    /// existing store is left as it is. False when the collection holds something else or the
    /// server refuses.
    static bool create(const Options& options, Error* error);
    /// The store at `options.url`. Opening never fails: a store that cannot be reached is
    /// unreachable until it can.
    static std::shared_ptr<WebDAVStore> open(Options options);

    ~WebDAVStore() override;

    const std::string& url() const { return options_.url; }

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
    /// One GET, resumed by range from where it stopped when the connection drops.
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
    WebDAVStore(Private, Options options);

private:
    struct Account;
    class Writer;

    std::shared_ptr<Account> account(std::string_view name, Error* error);
    // Reads the change records after the last one read; call with the account's mutex held.
    bool catchUpLocked(Account& account, Error* error);
    // Walks the account's collections when the walk interval has passed and records what other
    // clients changed.
    bool walkIfDue(Account& account, Error* error);
    // Uploads `fd` from its offset into the account's hidden collection; its path there.
    std::optional<std::string> stage(Account& account, int fd, std::string_view path,
                                     const Progress& progress, Error* error);
    std::optional<Item> commitContents(std::string_view account, std::string_view path, int fd,
                                       const Condition* condition, Date modificationDate,
                                       std::string_view device, const Progress& progress,
                                       Error* error);
    bool changeVersion(std::string_view account, std::string_view path, std::string_view identifier,
                       bool resolve, bool resolved, Error* error);
    // GETs `remote` into `fd`, resuming by range after a dropped connection; refuses contents
    // whose ETag is not `etag` (when both are known) as replaced.
    bool fetch(const std::string& remote, std::string_view path, std::string_view etag, int fd,
               const Progress& progress, Error* error);
    // The error for an answer that is not the one hoped for.
    Error refusal(int status, std::string_view what, std::string_view path);

    const Options options_;
    const std::unique_ptr<drive::DavClient> client_;
    std::mutex accountsMutex_;  // guards accounts_; taken before any account's mutexes
    std::unordered_map<std::string, std::shared_ptr<Account>> accounts_;
};

}  // namespace qn
