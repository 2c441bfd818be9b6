#include "Journal.h"

#include <fmt/format.h>

#include <stdexcept>

namespace qn::drive {
namespace {

constexpr const char* kSchemaVersion = "1";

constexpr const char* kSchema = R"(
CREATE TABLE IF NOT EXISTS settings(key TEXT PRIMARY KEY, value TEXT NOT NULL) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS items(
    path TEXT PRIMARY KEY,
    is_directory INTEGER NOT NULL,
    revision TEXT NOT NULL,
    size INTEGER NOT NULL,
    date REAL NOT NULL,
    device TEXT NOT NULL,
    conflicts INTEGER NOT NULL,
    local_inode INTEGER,
    local_size INTEGER,
    local_mtime INTEGER,
    pending INTEGER NOT NULL,
    pending_revision TEXT NOT NULL) WITHOUT ROWID;
)";

constexpr const char* kColumns =
    "path, is_directory, revision, size, date, device, conflicts, local_inode, local_size, "
    "local_mtime, pending, pending_revision";

// The entry and everything below it: "path" itself, then "path/..." (the keys from "path/" up to
// "path0", '0' being the character after '/').
constexpr const char* kSubtree = "(path = ?1 OR (path >= ?1 || '/' AND path < ?1 || '0'))";

}  // namespace

// A prepared statement, finalized with the object.
class Journal::Statement {
public:
    Statement(Journal& journal, const std::string& sql) : journal_(journal) {
        if (sqlite3_prepare_v2(journal.database_, sql.c_str(), -1, &statement_, nullptr) !=
            SQLITE_OK) {
            journal.fail("prepare a statement of");
        }
    }
    ~Statement() { sqlite3_finalize(statement_); }

    Statement& bind(int index, std::string_view text) {
        check(sqlite3_bind_text(statement_, index, text.data(), static_cast<int>(text.size()),
                                SQLITE_TRANSIENT));
        return *this;
    }
    Statement& bind(int index, std::int64_t value) {
        check(sqlite3_bind_int64(statement_, index, value));
        return *this;
    }
    Statement& bind(int index, double value) {
        check(sqlite3_bind_double(statement_, index, value));
        return *this;
    }
    Statement& bindNull(int index) {
        check(sqlite3_bind_null(statement_, index));
        return *this;
    }
    /// True while a row is there to read.
    bool step() {
        const int result = sqlite3_step(statement_);
        if (result == SQLITE_ROW) {
            return true;
        }
        if (result != SQLITE_DONE) {
            journal_.fail("use");
        }
        return false;
    }
    std::string text(int column) const {
        const auto* bytes = sqlite3_column_text(statement_, column);
        return bytes == nullptr
                   ? std::string()
                   : std::string(
                         reinterpret_cast<const char*>(bytes),
                         static_cast<std::size_t>(sqlite3_column_bytes(statement_, column)));
    }
    std::int64_t integer(int column) const { return sqlite3_column_int64(statement_, column); }
    double real(int column) const { return sqlite3_column_double(statement_, column); }
    bool isNull(int column) const { return sqlite3_column_type(statement_, column) == SQLITE_NULL; }

    JournalEntry entry() const {
        JournalEntry entry;
        entry.path = text(0);
        entry.isDirectory = integer(1) != 0;
        entry.revision = text(2);
        entry.size = static_cast<std::uint64_t>(integer(3));
        entry.modificationDate = Date(real(4));
        entry.device = text(5);
        entry.unresolvedConflicts = static_cast<std::uint32_t>(integer(6));
        if (!isNull(7)) {
            entry.local = LocalIdentity{static_cast<std::uint64_t>(integer(7)),
                                        static_cast<std::uint64_t>(integer(8)), integer(9)};
        }
        entry.pending = static_cast<Pending>(integer(10));
        entry.pendingRevision = text(11);
        return entry;
    }

private:
    void check(int result) {
        if (result != SQLITE_OK) {
            journal_.fail("use");
        }
    }

    Journal& journal_;
    sqlite3_stmt* statement_ = nullptr;
};

std::unique_ptr<Journal> Journal::open(const std::string& file, Error* error) {
    sqlite3* database = nullptr;
    const int opened = sqlite3_open_v2(file.c_str(), &database,
                                       SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    const auto refuse = [&](std::string why) -> std::unique_ptr<Journal> {
        setError(error, Error(NSCocoaErrorDomain, NSFileReadCorruptFileError,
                              {{NSLocalizedDescriptionKey,
                                fmt::format("The drive's journal \"{}\" cannot be used: {}. It was "
                                            "left as it is.",
                                            file, why)},
                               {NSFilePathErrorKey, file}}));
        sqlite3_close(database);
        return nullptr;
    };
    if (opened != SQLITE_OK) {
        return refuse(database != nullptr ? sqlite3_errmsg(database) : sqlite3_errstr(opened));
    }
    sqlite3_busy_timeout(database, 5000);
    // A damaged file shows here: as "not a database", or in the quick check.
    sqlite3_stmt* check = nullptr;
    std::string verdict;
    if (sqlite3_prepare_v2(database, "PRAGMA quick_check", -1, &check, nullptr) == SQLITE_OK &&
        sqlite3_step(check) == SQLITE_ROW) {
        verdict = reinterpret_cast<const char*>(sqlite3_column_text(check, 0));
    } else {
        verdict = sqlite3_errmsg(database);
    }
    sqlite3_finalize(check);
    if (verdict != "ok") {
        return refuse(verdict);
    }
    char* message = nullptr;
    if (sqlite3_exec(database, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;", nullptr,
                     nullptr, &message) != SQLITE_OK ||
        sqlite3_exec(database, kSchema, nullptr, nullptr, &message) != SQLITE_OK) {
        std::string why = message != nullptr ? message : "unknown error";
        sqlite3_free(message);
        return refuse(why);
    }
    std::unique_ptr<Journal> journal(new Journal(database, file));
    database = nullptr;  // closed by the journal from here on
    std::string schema;
    try {
        schema = journal->value("schema");
        if (schema.empty()) {
            journal->setValue("schema", kSchemaVersion);
        }
    } catch (const std::runtime_error& failure) {
        // A damaged file can pass the quick check and still refuse to be read or written.
        return refuse(failure.what());
    }
    if (!schema.empty() && schema != kSchemaVersion) {
        setError(error, Error(NSCocoaErrorDomain, NSFileReadCorruptFileError,
                              {{NSLocalizedDescriptionKey,
                                fmt::format("The drive's journal \"{}\" has version {}, which "
                                            "this program does not know. It was left as it is.",
                                            file, schema)},
                               {NSFilePathErrorKey, file}}));
        return nullptr;
    }
    return journal;
}

Journal::Journal(sqlite3* database, std::string file)
    : database_(database), file_(std::move(file)) {}

Journal::~Journal() {
    sqlite3_close(database_);
}

void Journal::fail(std::string_view what) {
    throw std::runtime_error(fmt::format("Could not {} the drive's journal \"{}\": {}.", what,
                                         file_, sqlite3_errmsg(database_)));
}

void Journal::execute(const char* sql) {
    if (sqlite3_exec(database_, sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
        fail("write");
    }
}

void Journal::begin() {
    if (depth_++ == 0) {
        execute("BEGIN IMMEDIATE");
    }
}

void Journal::commit() {
    if (--depth_ == 0) {
        execute("COMMIT");
    }
}

void Journal::rollback() {
    if (--depth_ == 0) {
        sqlite3_exec(database_, "ROLLBACK", nullptr, nullptr, nullptr);
    }
}

std::vector<JournalEntry> Journal::entries() {
    Statement select(*this, fmt::format("SELECT {} FROM items ORDER BY path", kColumns));
    std::vector<JournalEntry> found;
    while (select.step()) {
        found.push_back(select.entry());
    }
    return found;
}

std::optional<JournalEntry> Journal::entry(std::string_view path) {
    Statement select(*this, fmt::format("SELECT {} FROM items WHERE path = ?1", kColumns));
    select.bind(1, path);
    if (!select.step()) {
        return std::nullopt;
    }
    return select.entry();
}

void Journal::put(const JournalEntry& entry) {
    Statement insert(*this, fmt::format("INSERT OR REPLACE INTO items({}) VALUES "
                                        "(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12)",
                                        kColumns));
    insert.bind(1, entry.path)
        .bind(2, std::int64_t{entry.isDirectory ? 1 : 0})
        .bind(3, entry.revision)
        .bind(4, static_cast<std::int64_t>(entry.size))
        .bind(5, entry.modificationDate.timeIntervalSinceReferenceDate())
        .bind(6, entry.device)
        .bind(7, static_cast<std::int64_t>(entry.unresolvedConflicts))
        .bind(11, static_cast<std::int64_t>(entry.pending))
        .bind(12, entry.pendingRevision);
    if (entry.local) {
        insert.bind(8, static_cast<std::int64_t>(entry.local->inode))
            .bind(9, static_cast<std::int64_t>(entry.local->size))
            .bind(10, entry.local->modifiedNanoseconds);
    } else {
        insert.bindNull(8).bindNull(9).bindNull(10);
    }
    insert.step();
}

void Journal::remove(std::string_view path) {
    Statement erase(*this, fmt::format("DELETE FROM items WHERE {}", kSubtree));
    erase.bind(1, path).step();
}

void Journal::move(std::string_view from, std::string_view to) {
    Statement rename(*this,
                     fmt::format("UPDATE items SET path = ?2 || substr(path, length(?1) + 1) "
                                 "WHERE {}",
                                 kSubtree));
    rename.bind(1, from).bind(2, to).step();
}

std::string Journal::value(std::string_view key) {
    Statement select(*this, "SELECT value FROM settings WHERE key = ?1");
    select.bind(1, key);
    return select.step() ? select.text(0) : std::string();
}

void Journal::setValue(std::string_view key, std::string_view value) {
    Statement insert(*this, "INSERT OR REPLACE INTO settings(key, value) VALUES (?1, ?2)");
    insert.bind(1, key).bind(2, value).step();
}

}  // namespace qn::drive
