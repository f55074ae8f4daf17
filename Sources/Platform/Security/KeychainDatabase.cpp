#include "Security/KeychainDatabase.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <utility>

#include "Kernel/FileDescriptor.h"
#include "Security/SecKeychain.h"

namespace Security::detail {

namespace {

namespace fs = std::filesystem;
using Foundation::PropertyList;

constexpr int schemaVersion = 2;
constexpr int busyTimeoutMilliseconds = 10000;

constexpr const char* passwordTable = R"(
CREATE TABLE genp (
    rowid INTEGER PRIMARY KEY,
    svce TEXT NOT NULL,
    acct TEXT NOT NULL,
    agrp TEXT NOT NULL,
    labl TEXT,
    data BLOB,
    cdat INTEGER NOT NULL,
    mdat INTEGER NOT NULL,
    UNIQUE (svce, acct, agrp)
) STRICT;
)";

// Version 1 had tables of these names that nothing wrote; opening such a file
// replaces them (under the write lock of the set-up) with these.
constexpr const char* version1Tables = "DROP TABLE cert; DROP TABLE tset;";
constexpr const char* certificateTables = R"(
CREATE TABLE cert (
    rowid INTEGER PRIMARY KEY,
    ctyp INTEGER NOT NULL,
    issr BLOB NOT NULL,
    slnr BLOB NOT NULL,
    agrp TEXT NOT NULL,
    subj BLOB NOT NULL,
    labl TEXT,
    hash BLOB NOT NULL,
    data BLOB NOT NULL,
    cdat INTEGER NOT NULL,
    mdat INTEGER NOT NULL,
    UNIQUE (ctyp, issr, slnr, agrp)
) STRICT;
CREATE INDEX cert_hash ON cert (hash);
CREATE TABLE tset (
    domain INTEGER NOT NULL,
    hash BLOB NOT NULL,
    data BLOB NOT NULL,
    mdat INTEGER NOT NULL,
    PRIMARY KEY (domain, hash)
) STRICT, WITHOUT ROWID;
PRAGMA user_version = 2;
)";

int64_t now() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

OSStatus statusForErrno(int error) {
    switch (error) {
    case ENOENT:
    case ENOTDIR: return errSecNoSuchKeychain;
    case EACCES:
    case EPERM: return errSecNotAvailable;
    case EROFS: return errSecReadOnly;
    case ENOSPC:
    case EDQUOT: return errSecDiskFull;
    case ELOOP:
    case EISDIR: return errSecInvalidKeychain;
    case ENOMEM: return errSecAllocate;
    default: return errSecIO;
    }
}

OSStatus statusForSqlite(int code) {
    switch (code) {
    case SQLITE_CONSTRAINT_UNIQUE:
    case SQLITE_CONSTRAINT_PRIMARYKEY: return errSecDuplicateItem;
    }
    switch (code & 0xff) {
    case SQLITE_OK:
    case SQLITE_ROW:
    case SQLITE_DONE: return errSecSuccess;
    case SQLITE_BUSY:
    case SQLITE_LOCKED: return errSecInteractionNotAllowed;
    case SQLITE_FULL: return errSecDiskFull;
    case SQLITE_READONLY: return errSecReadOnly;
    case SQLITE_CANTOPEN:
    case SQLITE_PERM:
    case SQLITE_AUTH: return errSecNotAvailable;
    case SQLITE_NOMEM: return errSecAllocate;
    case SQLITE_TOOBIG: return errSecDataTooLarge;
    case SQLITE_IOERR: return errSecIO;
    default: return errSecInvalidKeychain;  // not a database, damaged, or tables not ours
    }
}

/// Whether the connection should be dropped after a call ended with status:
/// anything but the item's own outcome or a passing condition.
bool dropsConnection(OSStatus status) {
    return status != errSecSuccess && status != errSecDuplicateItem && status != errSecInteractionNotAllowed &&
           status != errSecDataTooLarge && status != errSecDiskFull && status != errSecAllocate;
}

class Connection {
public:
    /// Owns db; file is a descriptor of the database file opened with O_PATH,
    /// which neither reads nor locks it (and whose closing, unlike any other
    /// descriptor's, keeps this process's SQLite locks on the file).
    Connection(sqlite3* db, Kernel::FileDescriptor file) : db_(db), file_(std::move(file)) {}
    ~Connection() {
        for (auto& [key, statement] : statements_) sqlite3_finalize(statement);
        sqlite3_close_v2(db_);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    sqlite3* db() const { return db_; }
    /// Whether the file was removed or replaced at its path (it has no link
    /// left). One fstat, no path lookup.
    bool fileIsGone() const {
        struct stat info {};
        return ::fstat(file_.get(), &info) != 0 || info.st_nlink == 0;
    }

    /// The prepared statement for key, made from sql() on first use; null with
    /// code set when it does not compile. Caller holds mutex.
    template <class Sql>
    sqlite3_stmt* statement(uint32_t key, const Sql& sql, int& code) {
        if (auto found = statements_.find(key); found != statements_.end()) return found->second;
        sqlite3_stmt* statement = nullptr;
        const std::string text = sql();
        code = sqlite3_prepare_v3(db_, text.c_str(), -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
        if (code != SQLITE_OK) {
            sqlite3_finalize(statement);
            return nullptr;
        }
        statements_.emplace(key, statement);
        return statement;
    }

    std::mutex mutex;  // serialises every use of db and the statements

private:
    sqlite3* db_;
    Kernel::FileDescriptor file_;
    std::unordered_map<uint32_t, sqlite3_stmt*> statements_;  // guarded by mutex
};

struct Connections {
    std::mutex mutex;
    // By effective user, then path: a connection is only used by the user
    // that could open its file.
    std::map<uid_t, std::map<std::string, std::shared_ptr<Connection>>> open;  // guarded by mutex
    // A forked child's copies of its parent's connections: SQLite must not
    // use or close them there (closing could checkpoint and delete the WAL
    // under the parent), so they are kept, unused, until the process ends.
    std::vector<std::shared_ptr<Connection>> inherited;  // guarded by mutex
};

// Never destroyed: keychain calls may still run on other threads while the
// process exits. fork() waits for the mutex, so that the child starts with
// it free and with none of the parent's connections in use.
Connections* allConnections = nullptr;

Connections& connections() {
    static std::once_flag once;
    std::call_once(once, [] {
        allConnections = new Connections;
        ::pthread_atfork([] { allConnections->mutex.lock(); }, [] { allConnections->mutex.unlock(); },
                         [] {
                             for (auto& [user, files] : allConnections->open)
                                 for (auto& [file, connection] : files)
                                     allConnections->inherited.push_back(std::move(connection));
                             allConnections->open.clear();
                             allConnections->mutex.unlock();
                         });
    });
    return *allConnections;
}

/// Runs one statement without results (or ignoring them).
int execute(sqlite3* db, const char* sql) { return sqlite3_exec(db, sql, nullptr, nullptr, nullptr); }

/// The first column of the first row of sql as text, or nothing.
std::optional<std::string> firstText(sqlite3* db, const char* sql, int& code) {
    sqlite3_stmt* statement = nullptr;
    code = sqlite3_prepare_v2(db, sql, -1, &statement, nullptr);
    std::optional<std::string> text;
    if (code == SQLITE_OK) {
        code = sqlite3_step(statement);
        if (code == SQLITE_ROW) {
            const auto* bytes = sqlite3_column_text(statement, 0);
            text = bytes ? std::string(reinterpret_cast<const char*>(bytes), sqlite3_column_bytes(statement, 0))
                         : std::string();
            code = SQLITE_OK;
        } else if (code == SQLITE_DONE) {
            code = SQLITE_OK;
        }
    }
    sqlite3_finalize(statement);
    return text;
}

/// Puts the file in WAL mode (a no-op once it is) and answers the mode it is
/// in. The switch reads the file's header, then asks for the write lock; as
/// for any read that turns into a write, SQLite answers SQLITE_BUSY at once,
/// without the busy handler, when another connection holds that lock (as
/// another process setting up the same new file does). It is tried again, as
/// that handler would, until the busy timeout has passed.
std::optional<std::string> switchToWal(sqlite3* db, int& code) {
    using namespace std::chrono;
    static constexpr int delays[] = {1, 2, 5, 10, 15, 20, 25, 25, 25, 50, 50, 100};  // milliseconds
    const auto deadline = steady_clock::now() + milliseconds(busyTimeoutMilliseconds);
    for (size_t attempt = 0;; ++attempt) {
        auto mode = firstText(db, "PRAGMA journal_mode = WAL", code);
        const auto left = duration_cast<milliseconds>(deadline - steady_clock::now()).count();
        if ((code & 0xff) != SQLITE_BUSY || left <= 0) return mode;
        sqlite3_sleep(int(std::min<int64_t>(delays[std::min(attempt, std::size(delays) - 1)], left)));
    }
}

/// Makes an empty file a keychain and checks that any other is one of ours.
OSStatus setUp(sqlite3* db) {
    sqlite3_extended_result_codes(db, 1);
    sqlite3_busy_timeout(db, busyTimeoutMilliseconds);
    sqlite3_db_config(db, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    sqlite3_db_config(db, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
    sqlite3_db_config(db, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
    sqlite3_db_config(db, SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);

    // Under the write lock, so that of several processes opening a new file
    // at once one sets it up and the others find it done.
    int code = execute(db, "BEGIN IMMEDIATE");
    if (code != SQLITE_OK) return statusForSqlite(code);
    auto version = firstText(db, "PRAGMA user_version", code);
    std::optional<std::string> objects;
    if (code == SQLITE_OK) objects = firstText(db, "SELECT count(*) FROM sqlite_schema", code);
    OSStatus status = statusForSqlite(code);
    if (status == errSecSuccess) {
        if (version == "0" && objects == "0") {
            code = execute(db, passwordTable);
            if (code == SQLITE_OK) code = execute(db, certificateTables);
            status = statusForSqlite(code);
        } else if (version == "0" || !version || !objects) {
            status = errSecInvalidKeychain;  // some other database
        } else if (version == "1") {
            code = execute(db, version1Tables);
            if (code == SQLITE_OK) code = execute(db, certificateTables);
            status = statusForSqlite(code);
        } else if (*version != std::to_string(schemaVersion)) {
            status = errSecWrongSecVersion;
        }
    }
    code = execute(db, status == errSecSuccess ? "COMMIT" : "ROLLBACK");
    if (status != errSecSuccess) return status;
    if (code != SQLITE_OK) return statusForSqlite(code);

    auto mode = switchToWal(db, code);
    if (code != SQLITE_OK) return statusForSqlite(code);
    if (mode != "wal") return errSecNotAvailable;
    if ((code = execute(db, "PRAGMA synchronous = FULL; PRAGMA secure_delete = ON")) != SQLITE_OK)
        return statusForSqlite(code);
    auto check = firstText(db, "PRAGMA quick_check", code);
    if (code != SQLITE_OK) return statusForSqlite(code);
    return check == "ok" ? errSecSuccess : errSecInvalidKeychain;
}

/// Makes the missing folders of folder, each with mode (whatever the umask).
OSStatus makeFolders(const fs::path& folder, mode_t mode) {
    struct stat info {};
    if (::stat(folder.c_str(), &info) == 0) return S_ISDIR(info.st_mode) ? errSecSuccess : errSecNotAvailable;
    if (errno != ENOENT) return statusForErrno(errno);
    if (folder.has_parent_path() && folder.parent_path() != folder) {
        if (OSStatus status = makeFolders(folder.parent_path(), mode); status != errSecSuccess) return status;
    }
    if (::mkdir(folder.c_str(), mode) != 0) {
        if (errno == EEXIST) return errSecSuccess;  // made by someone else meanwhile
        return errno == ENOENT ? errSecNotAvailable : statusForErrno(errno);
    }
    return ::chmod(folder.c_str(), mode) == 0 ? errSecSuccess : statusForErrno(errno);
}

struct Acquired {
    OSStatus status = errSecSuccess;
    std::shared_ptr<Connection> connection;  // null with status 0: no items there
};

Acquired open(const fs::path& file, MissingKeychain missing) {
    if (missing == MissingKeychain::isCreated) {
        if (OSStatus status = makeFolders(file.parent_path(), SecKeychain::folderMode(file)); status != errSecSuccess)
            return {status, nullptr};
        // Exclusive: the descriptor only ever refers to a file no connection
        // has open (closing it drops no SQLite lock of this process).
        int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
        if (fd >= 0) {
            ::close(fd);
        } else if (errno != EEXIST) {
            return {statusForErrno(errno), nullptr};
        }
    }
    Kernel::FileDescriptor handle(::open(file.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat info {};
    if (!handle || ::fstat(handle.get(), &info) != 0) {
        if (missing == MissingKeychain::isEmpty && (errno == ENOENT || errno == ENOTDIR)) return {};
        return {statusForErrno(errno), nullptr};
    }
    if (!S_ISREG(info.st_mode)) return {errSecInvalidKeychain, nullptr};
    if (::faccessat(AT_FDCWD, file.c_str(), R_OK | W_OK, AT_EACCESS) != 0) {
        if (missing == MissingKeychain::isEmpty && (errno == EACCES || errno == EPERM)) return {};
        return {statusForErrno(errno), nullptr};
    }

    sqlite3* db = nullptr;
    int code = sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_NOFOLLOW,
                               nullptr);
    if (db == nullptr) return {errSecAllocate, nullptr};
    auto connection = std::make_shared<Connection>(db, std::move(handle));
    if (code != SQLITE_OK) return {statusForSqlite(code), nullptr};
    if (OSStatus status = setUp(db); status != errSecSuccess) return {status, nullptr};
    return {errSecSuccess, std::move(connection)};
}

/// This process's connection to the keychain at file (see the header).
Acquired acquire(const fs::path& file, MissingKeychain missing) {
    Connections& all = connections();
    std::lock_guard guard(all.mutex);
    auto& files = all.open[::geteuid()];
    auto cached = files.find(file.native());
    if (cached != files.end()) {
        if (!cached->second->fileIsGone()) return {errSecSuccess, cached->second};
        files.erase(cached);
    }
    Acquired opened = open(file, missing);
    if (opened.connection) files.emplace(file.native(), opened.connection);
    return opened;
}

/// Ends a call on connection with the status of SQLite's code, dropping the
/// connection when the file failed (the next call opens it afresh).
OSStatus finish(const std::shared_ptr<Connection>& connection, int code) {
    const OSStatus status = statusForSqlite(code);
    if (dropsConnection(status)) {
        Connections& all = connections();
        std::lock_guard guard(all.mutex);
        for (auto& [user, files] : all.open) {
            std::erase_if(files, [&](const auto& entry) { return entry.second == connection; });
        }
    }
    return status;
}

// Statement keys: the operation, then bit masks of the attributes used.
enum Operation : uint32_t {
    findItems = 1,
    addItem,
    updateItems,
    removeItems,
    findCertificateItems,
    addCertificateItem,
    removeCertificateItems,
    findTrustSettings,
    setTrustSettingsItem,
    findTrustedCertificates,
};
constexpr const char* columns[] = {"svce", "acct", "agrp", "labl", "data"};
constexpr int filterParameter = 1;   // ?1 ... ?4: the filter's values, in column order
constexpr int timeParameter = 10;    // ?10: now
constexpr int changeParameter = 11;  // ?11 ... ?15: the new values, in column order

uint32_t maskOf(const GenericPasswordFilter& filter) {
    return (filter.service ? 1u : 0u) | (filter.account ? 2u : 0u) | (filter.accessGroup ? 4u : 0u) |
           (filter.label ? 8u : 0u);
}

uint32_t maskOf(const GenericPasswordChanges& changes) {
    return (changes.service ? 1u : 0u) | (changes.account ? 2u : 0u) | (changes.accessGroup ? 4u : 0u) |
           (changes.label ? 8u : 0u) | (changes.data ? 16u : 0u);
}

std::string whereClause(uint32_t mask) {
    std::string clause;
    for (int column = 0; column < 4; ++column) {
        if (!(mask & (1u << column))) continue;
        clause += clause.empty() ? " WHERE " : " AND ";
        clause += std::string(columns[column]) + " = ?" + std::to_string(filterParameter + column);
    }
    return clause;
}

// The bind functions bind without copying (SQLITE_STATIC): the values must
// live until the statement is reset.
int bindText(sqlite3_stmt* statement, int index, const std::string& text) {
    return sqlite3_bind_text64(statement, index, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
}

int bindText(sqlite3_stmt* statement, int index, const std::optional<std::string>& text) {
    return text ? bindText(statement, index, *text) : sqlite3_bind_null(statement, index);
}

int bindBytes(sqlite3_stmt* statement, int index, const std::vector<uint8_t>& bytes) {
    if (bytes.empty()) return sqlite3_bind_zeroblob(statement, index, 0);  // empty, not NULL
    return sqlite3_bind_blob64(statement, index, bytes.data(), bytes.size(), SQLITE_STATIC);
}

int bindBytes(sqlite3_stmt* statement, int index, const std::optional<std::vector<uint8_t>>& bytes) {
    return bytes ? bindBytes(statement, index, *bytes) : sqlite3_bind_null(statement, index);
}

int bindFilter(sqlite3_stmt* statement, const GenericPasswordFilter& filter) {
    const std::optional<std::string>* values[] = {&filter.service, &filter.account, &filter.accessGroup,
                                                  &filter.label};
    for (int column = 0; column < 4; ++column) {
        if (!*values[column]) continue;
        if (int code = bindText(statement, filterParameter + column, **values[column]); code != SQLITE_OK)
            return code;
    }
    return SQLITE_OK;
}

std::string textColumn(sqlite3_stmt* statement, int column) {
    const auto* bytes = sqlite3_column_text(statement, column);
    return bytes ? std::string(reinterpret_cast<const char*>(bytes), sqlite3_column_bytes(statement, column))
                 : std::string();
}

GenericPassword readItem(sqlite3_stmt* statement, bool attributes) {
    GenericPassword item;
    if (!attributes) {
        if (sqlite3_column_type(statement, 0) != SQLITE_NULL) {
            const auto* bytes = static_cast<const uint8_t*>(sqlite3_column_blob(statement, 0));
            const int size = sqlite3_column_bytes(statement, 0);
            item.data = bytes ? std::vector<uint8_t>(bytes, bytes + size) : std::vector<uint8_t>();
        }
        return item;
    }
    item.rowid = sqlite3_column_int64(statement, 0);
    item.service = textColumn(statement, 1);
    item.account = textColumn(statement, 2);
    item.accessGroup = textColumn(statement, 3);
    if (sqlite3_column_type(statement, 4) != SQLITE_NULL) item.label = textColumn(statement, 4);
    if (sqlite3_column_type(statement, 5) != SQLITE_NULL) {
        const auto* bytes = static_cast<const uint8_t*>(sqlite3_column_blob(statement, 5));
        const int size = sqlite3_column_bytes(statement, 5);
        item.data = bytes ? std::vector<uint8_t>(bytes, bytes + size) : std::vector<uint8_t>();
    }
    item.created = sqlite3_column_int64(statement, 6);
    item.modified = sqlite3_column_int64(statement, 7);
    return item;
}

/// Runs one statement of an open connection: prepares it (cached under key)
/// from sql(), lets bind set its parameters, steps it to the end, handing
/// each row to row (which returns false to stop), and resets it. SQLite's
/// final code.
template <class Sql, class Bind, class Row>
int run(Connection& connection, uint32_t key, const Sql& sql, const Bind& bind, const Row& row) {
    int code = SQLITE_OK;
    sqlite3_stmt* statement = connection.statement(key, sql, code);
    if (!statement) return code;
    code = bind(statement);
    if (code == SQLITE_OK) {
        while ((code = sqlite3_step(statement)) == SQLITE_ROW) {
            if (!row(statement)) {
                code = SQLITE_DONE;
                break;
            }
        }
    }
    sqlite3_reset(statement);
    sqlite3_clear_bindings(statement);
    return code == SQLITE_DONE ? SQLITE_OK : code;
}

/// For statements without rows.
bool noRows(sqlite3_stmt*) { return false; }

std::vector<uint8_t> blobColumn(sqlite3_stmt* statement, int column) {
    const auto* bytes = static_cast<const uint8_t*>(sqlite3_column_blob(statement, column));
    return bytes ? std::vector<uint8_t>(bytes, bytes + sqlite3_column_bytes(statement, column))
                 : std::vector<uint8_t>();
}

// Certificate filters: ?1 the label, ?2 the access group, ?3 the hash.
uint32_t maskOf(const CertificateFilter& filter) {
    return (filter.label ? 1u : 0u) | (filter.accessGroup ? 2u : 0u) | (filter.hash ? 4u : 0u);
}

std::string certificateWhereClause(uint32_t mask) {
    static constexpr const char* filtered[] = {"labl = ?1", "agrp = ?2", "hash = ?3"};
    std::string clause;
    for (int column = 0; column < 3; ++column) {
        if (!(mask & (1u << column))) continue;
        clause += clause.empty() ? " WHERE " : " AND ";
        clause += filtered[column];
    }
    return clause;
}

int bindFilter(sqlite3_stmt* statement, const CertificateFilter& filter) {
    int code = SQLITE_OK;
    if (filter.label) code = bindText(statement, 1, *filter.label);
    if (code == SQLITE_OK && filter.accessGroup) code = bindText(statement, 2, *filter.accessGroup);
    if (code == SQLITE_OK && filter.hash) code = bindBytes(statement, 3, filter.hash);
    return code;
}

/// Stored trust settings: a binary property list holding an array of
/// dictionaries.
std::optional<PropertyList::Array> trustSettingsOf(const std::vector<uint8_t>& stored) {
    auto value = PropertyList::fromData(std::string_view(reinterpret_cast<const char*>(stored.data()), stored.size()));
    const auto* array = value ? value->get<PropertyList::Array>() : nullptr;
    if (!array) return std::nullopt;
    for (const auto& entry : *array)
        if (!entry.is<PropertyList::Dictionary>()) return std::nullopt;
    return *array;
}

}  // namespace

OSStatus KeychainDatabase::find(const fs::path& file, MissingKeychain missing, const GenericPasswordFilter& filter,
                                size_t limit, bool attributes, std::vector<GenericPassword>& found) {
    auto [status, connection] = acquire(file, missing);
    if (!connection) return status;
    const uint32_t mask = maskOf(filter);
    size_t count = 0;
    std::lock_guard guard(connection->mutex);
    int code = run(
        *connection, findItems << 16 | (attributes ? 1u << 8 : 0u) | mask,
        [&] {
            // The primary key's order: the unique index gives it without sorting.
            return std::string(attributes ? "SELECT rowid, svce, acct, agrp, labl, data, cdat, mdat"
                                          : "SELECT data") +
                   " FROM genp" + whereClause(mask) + " ORDER BY svce, acct, agrp";
        },
        [&](sqlite3_stmt* statement) { return bindFilter(statement, filter); },
        [&](sqlite3_stmt* statement) {
            found.push_back(readItem(statement, attributes));
            return limit == 0 || ++count < limit;
        });
    return finish(connection, code);
}

OSStatus KeychainDatabase::add(const fs::path& file, MissingKeychain missing, const GenericPassword& item) {
    auto [status, connection] = acquire(file, missing);
    if (!connection) return status == errSecSuccess ? errSecNoSuchKeychain : status;
    std::lock_guard guard(connection->mutex);
    int code = run(
        *connection, addItem << 16,
        [] {
            return std::string("INSERT INTO genp (svce, acct, agrp, labl, data, cdat, mdat) "
                               "VALUES (?11, ?12, ?13, ?14, ?15, ?10, ?10)");
        },
        [&](sqlite3_stmt* statement) {
            int code = sqlite3_bind_int64(statement, timeParameter, now());
            if (code == SQLITE_OK) code = bindText(statement, changeParameter, item.service);
            if (code == SQLITE_OK) code = bindText(statement, changeParameter + 1, item.account);
            if (code == SQLITE_OK) code = bindText(statement, changeParameter + 2, item.accessGroup);
            if (code == SQLITE_OK) code = bindText(statement, changeParameter + 3, item.label);
            if (code == SQLITE_OK) code = bindBytes(statement, changeParameter + 4, item.data);
            return code;
        },
        noRows);
    return finish(connection, code);
}

OSStatus KeychainDatabase::update(const fs::path& file, MissingKeychain missing, const GenericPasswordFilter& filter,
                                  const GenericPasswordChanges& changes, int64_t& updated) {
    auto [status, connection] = acquire(file, missing);
    if (!connection) return status;
    const uint32_t filterMask = maskOf(filter), changeMask = maskOf(changes);
    std::lock_guard guard(connection->mutex);
    int code = run(
        *connection, updateItems << 16 | changeMask << 8 | filterMask,
        [&] {
            std::string sql = "UPDATE genp SET mdat = ?" + std::to_string(timeParameter);
            for (int column = 0; column < 5; ++column) {
                if (changeMask & (1u << column))
                    sql += std::string(", ") + columns[column] + " = ?" + std::to_string(changeParameter + column);
            }
            return sql + whereClause(filterMask);
        },
        [&](sqlite3_stmt* statement) {
            int code = sqlite3_bind_int64(statement, timeParameter, now());
            const std::optional<std::string>* texts[] = {&changes.service, &changes.account, &changes.accessGroup,
                                                         &changes.label};
            for (int column = 0; column < 4 && code == SQLITE_OK; ++column) {
                if (*texts[column]) code = bindText(statement, changeParameter + column, **texts[column]);
            }
            if (code == SQLITE_OK && changes.data) code = bindBytes(statement, changeParameter + 4, changes.data);
            return code == SQLITE_OK ? bindFilter(statement, filter) : code;
        },
        noRows);
    if (code == SQLITE_OK) updated += sqlite3_changes64(connection->db());
    return finish(connection, code);
}

OSStatus KeychainDatabase::remove(const fs::path& file, MissingKeychain missing, const GenericPasswordFilter& filter,
                                  int64_t& removed) {
    auto [status, connection] = acquire(file, missing);
    if (!connection) return status;
    const uint32_t mask = maskOf(filter);
    std::lock_guard guard(connection->mutex);
    int code = run(
        *connection, removeItems << 16 | mask, [&] { return "DELETE FROM genp" + whereClause(mask); },
        [&](sqlite3_stmt* statement) { return bindFilter(statement, filter); }, noRows);
    if (code == SQLITE_OK) removed += sqlite3_changes64(connection->db());
    return finish(connection, code);
}

OSStatus KeychainDatabase::findCertificates(const fs::path& file, MissingKeychain missing,
                                            const CertificateFilter& filter, size_t limit,
                                            std::vector<CertificateItem>& found) {
    auto [status, connection] = acquire(file, missing);
    if (!connection) return status;
    const uint32_t mask = maskOf(filter);
    size_t count = 0;
    std::lock_guard guard(connection->mutex);
    int code = run(
        *connection, findCertificateItems << 16 | mask,
        [&] {
            return "SELECT rowid, ctyp, issr, slnr, agrp, subj, labl, hash, data, cdat, mdat FROM cert" +
                   certificateWhereClause(mask) + " ORDER BY ctyp, issr, slnr, agrp";
        },
        [&](sqlite3_stmt* statement) { return bindFilter(statement, filter); },
        [&](sqlite3_stmt* statement) {
            CertificateItem item;
            item.rowid = sqlite3_column_int64(statement, 0);
            item.type = sqlite3_column_int64(statement, 1);
            item.issuer = blobColumn(statement, 2);
            item.serialNumber = blobColumn(statement, 3);
            item.accessGroup = textColumn(statement, 4);
            item.subject = blobColumn(statement, 5);
            if (sqlite3_column_type(statement, 6) != SQLITE_NULL) item.label = textColumn(statement, 6);
            item.hash = blobColumn(statement, 7);
            item.data = blobColumn(statement, 8);
            item.created = sqlite3_column_int64(statement, 9);
            item.modified = sqlite3_column_int64(statement, 10);
            found.push_back(std::move(item));
            return limit == 0 || ++count < limit;
        });
    return finish(connection, code);
}

OSStatus KeychainDatabase::addCertificate(const fs::path& file, MissingKeychain missing, const CertificateItem& item) {
    auto [status, connection] = acquire(file, missing);
    if (!connection) return status == errSecSuccess ? errSecNoSuchKeychain : status;
    std::lock_guard guard(connection->mutex);
    int code = run(
        *connection, addCertificateItem << 16,
        [] {
            return std::string("INSERT INTO cert (ctyp, issr, slnr, agrp, subj, labl, hash, data, cdat, mdat) "
                               "VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?10, ?10)");
        },
        [&](sqlite3_stmt* statement) {
            int code = sqlite3_bind_int64(statement, timeParameter, now());
            if (code == SQLITE_OK) code = sqlite3_bind_int64(statement, 1, item.type);
            if (code == SQLITE_OK) code = bindBytes(statement, 2, item.issuer);
            if (code == SQLITE_OK) code = bindBytes(statement, 3, item.serialNumber);
            if (code == SQLITE_OK) code = bindText(statement, 4, item.accessGroup);
            if (code == SQLITE_OK) code = bindBytes(statement, 5, item.subject);
            if (code == SQLITE_OK) code = bindText(statement, 6, item.label);
            if (code == SQLITE_OK) code = bindBytes(statement, 7, item.hash);
            if (code == SQLITE_OK) code = bindBytes(statement, 8, item.data);
            return code;
        },
        noRows);
    return finish(connection, code);
}

OSStatus KeychainDatabase::removeCertificates(const fs::path& file, MissingKeychain missing,
                                              const CertificateFilter& filter, int64_t& removed) {
    auto [status, connection] = acquire(file, missing);
    if (!connection) return status;
    const uint32_t mask = maskOf(filter);
    std::lock_guard guard(connection->mutex);
    int code = run(
        *connection, removeCertificateItems << 16 | mask,
        [&] { return "DELETE FROM cert" + certificateWhereClause(mask); },
        [&](sqlite3_stmt* statement) { return bindFilter(statement, filter); }, noRows);
    if (code == SQLITE_OK) removed += sqlite3_changes64(connection->db());
    return finish(connection, code);
}

OSStatus KeychainDatabase::copyTrustSettings(const fs::path& file, MissingKeychain missing, int64_t domain,
                                             const std::vector<uint8_t>& hash, PropertyList::Array& settings) {
    auto [status, connection] = acquire(file, missing);
    if (!connection) return status == errSecSuccess ? errSecItemNotFound : status;
    std::optional<std::vector<uint8_t>> stored;
    std::lock_guard guard(connection->mutex);
    int code = run(
        *connection, findTrustSettings << 16,
        [] { return std::string("SELECT data FROM tset WHERE domain = ?1 AND hash = ?2"); },
        [&](sqlite3_stmt* statement) {
            int code = sqlite3_bind_int64(statement, 1, domain);
            return code == SQLITE_OK ? bindBytes(statement, 2, hash) : code;
        },
        [&](sqlite3_stmt* statement) {
            stored = blobColumn(statement, 0);
            return false;
        });
    if (OSStatus status = finish(connection, code); status != errSecSuccess) return status;
    if (!stored) return errSecItemNotFound;
    auto array = trustSettingsOf(*stored);
    if (!array) return errSecInvalidTrustSettings;
    settings = std::move(*array);
    return errSecSuccess;
}

OSStatus KeychainDatabase::setTrustSettings(const fs::path& file, MissingKeychain missing, int64_t domain,
                                            const std::vector<uint8_t>& hash, const PropertyList::Array& settings) {
    const std::string text = PropertyList(settings).data(PropertyList::Format::binary);
    if (text.empty()) return errSecParam;  // holds a string that cannot be stored
    const std::vector<uint8_t> data(text.begin(), text.end());
    auto [status, connection] = acquire(file, missing);
    if (!connection) return status == errSecSuccess ? errSecNoSuchKeychain : status;
    std::lock_guard guard(connection->mutex);
    int code = run(
        *connection, setTrustSettingsItem << 16,
        [] { return std::string("INSERT OR REPLACE INTO tset (domain, hash, data, mdat) VALUES (?1, ?2, ?3, ?10)"); },
        [&](sqlite3_stmt* statement) {
            int code = sqlite3_bind_int64(statement, timeParameter, now());
            if (code == SQLITE_OK) code = sqlite3_bind_int64(statement, 1, domain);
            if (code == SQLITE_OK) code = bindBytes(statement, 2, hash);
            if (code == SQLITE_OK) code = bindBytes(statement, 3, data);
            return code;
        },
        noRows);
    return finish(connection, code);
}

OSStatus KeychainDatabase::certificatesWithTrustSettings(const fs::path& file, MissingKeychain missing,
                                                         int64_t domain, std::vector<std::vector<uint8_t>>& found) {
    auto [status, connection] = acquire(file, missing);
    if (!connection) return status;
    std::lock_guard guard(connection->mutex);
    int code = run(
        *connection, findTrustedCertificates << 16,
        [] {
            return std::string("SELECT cert.data FROM tset JOIN cert ON cert.hash = tset.hash "
                               "WHERE tset.domain = ?1 GROUP BY tset.hash ORDER BY tset.hash");
        },
        [&](sqlite3_stmt* statement) { return sqlite3_bind_int64(statement, 1, domain); },
        [&](sqlite3_stmt* statement) {
            found.push_back(blobColumn(statement, 0));
            return true;
        });
    return finish(connection, code);
}

}  // namespace Security::detail
