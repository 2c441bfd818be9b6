#pragma once

// A device's journal of one account: for every item, what the store said of it at the last sync
// (revision, size, date, conflicts), the local file's identity at that moment (inode, size,
// modification time) when a local copy exists, and the work still to do for it. Kept in SQLite
// (write-ahead log), so that a device killed at any point finds on restart exactly what it had
// recorded. Private to the drive.
//
// The engine follows one rule with it: every effect is made first (a temporary file renamed
// into place, a write to the store) and recorded after; work that must survive a crash is
// recorded as pending before the effect, so that a restart can tell a finished effect from one
// that never happened.
//
// Threads: one journal belongs to one engine thread; it is not safe to share.

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qn/Date.h"
#include "qn/Error.h"

namespace qn::drive {

/// Who a local file is, as far as telling a change goes.
struct LocalIdentity {
    std::uint64_t inode = 0;
    std::uint64_t size = 0;
    std::int64_t modifiedNanoseconds = 0;  // since 1970

    bool operator==(const LocalIdentity&) const = default;
};

/// Work recorded for an item and not yet done.
enum class Pending : int {
    None = 0,
    /// The local copy is to be uploaded; `pendingRevision` is the revision it was based on.
    Upload = 1,
    /// The user asked for the contents; `pendingRevision` is the revision being fetched.
    Download = 2,
};

struct JournalEntry {
    std::string path;  // the store path
    bool isDirectory = false;
    std::string revision;  // "" when the store does not hold the item yet
    std::uint64_t size = 0;
    Date modificationDate;
    std::string device;
    std::uint32_t unresolvedConflicts = 0;
    std::optional<LocalIdentity> local;  // the local copy as it was when last synced
    Pending pending = Pending::None;
    std::string pendingRevision;

    bool operator==(const JournalEntry&) const = default;
};

class Journal {
public:
    /// Opens the journal at `file`, creating it when missing. A file that is not a journal or
    /// is damaged is refused with an error that says so; it is never reset.
    static std::unique_ptr<Journal> open(const std::string& file, Error* error);
    ~Journal();

    Journal(const Journal&) = delete;
    Journal& operator=(const Journal&) = delete;

    /// Every entry, in path order.
    std::vector<JournalEntry> entries();
    std::optional<JournalEntry> entry(std::string_view path);

    // Changes. Each is its own transaction unless made inside `transaction`. Failures (a full
    // disk) throw `std::runtime_error` naming the journal: the engine stops rather than go on
    // with a journal that no longer says what happened.

    void put(const JournalEntry& entry);
    /// Removes the entry and every entry below it.
    void remove(std::string_view path);
    /// Moves the entry and every entry below it.
    void move(std::string_view from, std::string_view to);
    /// A setting such as the store's change token; "" when never set.
    std::string value(std::string_view key);
    void setValue(std::string_view key, std::string_view value);
    /// Runs `changes` in one transaction: all of them are recorded or none.
    template <class Changes>
    void transaction(Changes&& changes) {
        begin();
        try {
            changes();
        } catch (...) {
            rollback();
            throw;
        }
        commit();
    }

    const std::string& file() const { return file_; }

private:
    class Statement;
    Journal(sqlite3* database, std::string file);
    void execute(const char* sql);
    void begin();
    void commit();
    void rollback();
    [[noreturn]] void fail(std::string_view what);

    sqlite3* database_;
    std::string file_;
    int depth_ = 0;  // nesting of `transaction`
};

}  // namespace qn::drive
