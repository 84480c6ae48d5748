#include "host/store/database.h"

#include <fcntl.h>
#include <sqlite3.h>

#include <array>

#include "host/osal/attempt.h"
#include "host/osal/descriptor.h"
#include "host/osal/error.h"
#include "host/osal/log.h"

namespace host {

namespace {

// What the file system says of a failure is errno's; the others are told apart by what they mean for the caller.
int ErrorOf(sqlite3 *database, int code) {
    const int system = database == nullptr ? 0 : sqlite3_system_errno(database);
    switch (code & 0xff) {
    case SQLITE_FULL:
        return ENOSPC;
    case SQLITE_NOMEM:
        return ENOMEM;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
        return EBUSY;
    case SQLITE_READONLY:
        return EROFS;
    default:
        return system != 0 ? system : EIO;
    }
}

[[noreturn]] void Throw(sqlite3 *database, int code, const std::string &what) {
    const std::string text = fmt::format("{}: {}", what, sqlite3_errstr(code));
    if ((code & 0xff) == SQLITE_CORRUPT || (code & 0xff) == SQLITE_NOTADB) {
        throw DatabaseDamage(text);
    }
    Fail(ErrorOf(database, code), text);
}

void Require(sqlite3 *database, int code, const std::string &what) {
    if (code != SQLITE_OK) {
        Throw(database, code, what);
    }
}

// The write-ahead log is cut to this when its content is in the file.
constexpr int64_t kLogBytes = 1 << 20;

} // namespace

// --- Rows

void Rows::Finalize::operator()(sqlite3_stmt *statement) const {
    sqlite3_finalize(statement);
}

Rows::Rows(sqlite3 *database, const char *statement) : database_(database) {
    sqlite3_stmt *prepared = nullptr;
    Require(database, sqlite3_prepare_v2(database, statement, -1, &prepared, nullptr), statement);
    statement_.reset(prepared);
}

bool Rows::Next() {
    const int code = sqlite3_step(statement_.get());
    if (code != SQLITE_ROW && code != SQLITE_DONE) {
        Throw(database_, code, sqlite3_sql(statement_.get()));
    }
    return code == SQLITE_ROW;
}

bool Rows::IsNull(int column) const {
    return sqlite3_column_type(statement_.get(), column) == SQLITE_NULL;
}

int64_t Rows::Number(int column) const {
    return sqlite3_column_int64(statement_.get(), column);
}

std::string Rows::Text(int column) const {
    const auto *const bytes = static_cast<const char *>(sqlite3_column_blob(statement_.get(), column));
    const int size = sqlite3_column_bytes(statement_.get(), column);
    return bytes == nullptr ? std::string() : std::string(bytes, static_cast<size_t>(size));
}

void Rows::BindNumber(int place, int64_t number) {
    Require(database_, sqlite3_bind_int64(statement_.get(), place, number), "a number of a statement");
}

void Rows::BindText(int place, std::string_view text) {
    const int code = sqlite3_bind_text64(statement_.get(), place, text.data() == nullptr ? "" : text.data(),
                                         text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
    Require(database_, code, "a text of a statement");
}

void Rows::BindText(int place, const std::optional<std::string> &text) {
    if (text.has_value()) {
        BindText(place, std::string_view(*text));
    }
}

// --- The file

void Database::Close::operator()(sqlite3 *database) const {
    sqlite3_close(database);
}

Database::Database(Options options) : options_(std::move(options)) {
    try {
        Open();
    } catch (const DatabaseDamage &damage) {
        SetAside(ReasonOf(damage));
    }
}

void Database::SetAside(const std::string &reason) {
    database_.reset();
    const std::string &file = options_.file.native();
    if (!file.empty()) {
        Log().error("{}: {}; set aside as {}.damaged", file, reason, options_.file.filename().native());
        for (const char *const suffix : {"", "-wal"}) { // the latter belongs to the former
            if (rename((file + suffix).c_str(), (file + ".damaged" + suffix).c_str()) != 0 && errno != ENOENT) {
                Fail(errno, fmt::format("{}{}: can't be set aside", file, suffix));
            }
        }
    }
    Open();
}

void Database::Open() {
    const std::string &file = options_.file.native();
    if (!file.empty()) { // with the rights that the log beside it has then, too
        const Descriptor made(open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
        if (!made) {
            Fail(errno, file);
        }
    }
    sqlite3 *opened = nullptr;
    const int code = sqlite3_open_v2(file.empty() ? ":memory:" : file.c_str(), &opened,
                                     SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
    database_.reset(opened);
    Require(opened, code, file);
    try {
        Prepare();
    } catch (...) {
        database_.reset();
        throw;
    }
}

// Nobody else opens the file: with its lock kept, there is no memory to share with others either.
void Database::Prepare() {
    sqlite3_extended_result_codes(database_.get(), 1);
    Script("PRAGMA locking_mode = EXCLUSIVE; PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL;"
           "PRAGMA trusted_schema = OFF; PRAGMA cell_size_check = ON");
    Run(fmt::format("PRAGMA journal_size_limit = {}", kLogBytes).c_str());
    Rows check = Query("PRAGMA quick_check(1)");
    if (const std::string found = check.Next() ? check.Get<std::string>(0) : "no answer"; found != "ok") {
        throw DatabaseDamage(found);
    }
    const int64_t version = Pragma("PRAGMA user_version");
    if (version != 0 && version != options_.version) {
        throw DatabaseDamage(fmt::format("it has version {}, expected {}", version, options_.version));
    }
    if (options_.mostBytes != 0) {
        const auto page = static_cast<uint64_t>(Pragma("PRAGMA page_size"));
        Run(fmt::format("PRAGMA max_page_count = {}", options_.mostBytes / page).c_str());
    }
    if (version == 0) {
        Transaction transaction(*this);
        Script(options_.schema);
        Run(fmt::format("PRAGMA user_version = {}", options_.version).c_str());
        transaction.Commit();
    }
}

void Database::Script(const char *statements) {
    Require(database_.get(), sqlite3_exec(database_.get(), statements, nullptr, nullptr, nullptr), statements);
}

int64_t Database::Pragma(const char *statement) const {
    Rows rows = Query(statement);
    return rows.Next() ? rows.Get<int64_t>(0) : 0;
}

uint64_t Database::LastRow() const {
    return static_cast<uint64_t>(sqlite3_last_insert_rowid(database_.get()));
}

uint64_t Database::Bytes() const {
    return static_cast<uint64_t>(Pragma("PRAGMA page_count") * Pragma("PRAGMA page_size"));
}

// --- Transactions

Transaction::Transaction(Database &database) : database_(database) {
    database_.Script("BEGIN IMMEDIATE");
}

Transaction::~Transaction() {
    if (open_ && database_.database_ != nullptr) {
        sqlite3_exec(database_.database_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
    }
}

void Transaction::Commit() {
    database_.Script("COMMIT");
    open_ = false;
}

} // namespace host
