// A file of tables, for what grows and is asked for by parts; what is small and read whole is a document (store.h).
//
//   host::Database database({.file = directory / "history.db", .version = 1, .schema = "CREATE TABLE ..."});
//   database.Run("INSERT INTO minutes VALUES (?, ?)", time, busy);
//   for (host::Rows rows = database.Query("SELECT busy FROM minutes WHERE time > ?", since); rows.Next();) {
//       rows.Get<uint32_t>(0);
//   }
//
// What is written becomes a part of the file at the end of a transaction, whole or not at all. For one thread at a
// time.
#pragma once

#include <concepts>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

struct sqlite3;
struct sqlite3_stmt;

namespace host {

// The file is not as it should be: EUCLEAN, and what was found.
class DatabaseDamage : public std::system_error {
public:
    explicit DatabaseDamage(const std::string &what) : std::system_error(EUCLEAN, std::generic_category(), what) {}
};

// The rows that a statement yields, one after the other.
class Rows {
public:
    // False behind the last.
    bool Next();

    // Of this row. A number that the type can't hold is damage; one of 64 bits is what was put in, also beyond
    // INT64_MAX, though statements then see it as negative.
    template <std::integral T>
    T Get(int column) const {
        const int64_t number = Number(column);
        if (sizeof(T) < sizeof(number) && !std::in_range<T>(number)) {
            throw DatabaseDamage("a number is out of its range: " + std::to_string(number));
        }
        return static_cast<T>(number);
    }
    template <std::same_as<std::string> T>
    T Get(int column) const {
        return Text(column);
    }
    bool IsNull(int column) const;

private:
    friend class Database;
    Rows(sqlite3 *database, const char *statement);
    template <class First, class... Others>
    void Bind(int place, const First &first, const Others &...others) {
        if constexpr (std::integral<First>) {
            BindNumber(place, static_cast<int64_t>(first));
        } else {
            BindText(place, first);
        }
        Bind(place + 1, others...);
    }
    void Bind(int) {}
    void BindNumber(int place, int64_t number);
    void BindText(int place, const std::optional<std::string> &text); // none: null
    void BindText(int place, std::string_view text);
    void BindText(int place, const std::string &text) { BindText(place, std::string_view(text)); }
    void BindText(int place, const char *text) { BindText(place, std::string_view(text)); }
    int64_t Number(int column) const;
    std::string Text(int column) const;

    struct Finalize {
        void operator()(sqlite3_stmt *statement) const;
    };
    sqlite3 *database_;
    std::unique_ptr<sqlite3_stmt, Finalize> statement_;
};

class Database {
public:
    struct Options {
        std::filesystem::path file; // empty: in memory
        uint32_t version = 1;       // of the schema
        const char *schema = "";    // statements that make an empty file's tables
        uint64_t mostBytes = 0;     // that the file may have
    };

    // Makes the file where there is none. One that is damaged is reported, and set aside with ".damaged" behind its
    // name; so is one of another version. Throws std::system_error when the system refuses.
    explicit Database(Options options);
    Database(const Database &) = delete;
    Database &operator=(const Database &) = delete;

    // Sets aside a file that turned out to be damaged, and begins a new one.
    void SetAside(const std::string &reason);

    template <class... Values>
    Rows Query(const char *statement, const Values &...values) const {
        Rows rows(database_.get(), statement);
        rows.Bind(1, values...);
        return rows;
    }
    template <class... Values>
    void Run(const char *statement, const Values &...values) {
        Rows rows = Query(statement, values...);
        while (rows.Next()) {
        }
    }

    // The row that was put in last.
    uint64_t LastRow() const;
    uint64_t Bytes() const; // that the file has, without what has been written since its last checkpoint

private:
    friend class Transaction;
    struct Close {
        void operator()(sqlite3 *database) const;
    };
    void Open();
    void Prepare(); // an open file for its use
    void Script(const char *statements);
    int64_t Pragma(const char *statement) const;

    const Options options_;
    std::unique_ptr<sqlite3, Close> database_;
};

// What is written while it lives counts when it is committed, and not otherwise.
class Transaction {
public:
    explicit Transaction(Database &database);
    Transaction(const Transaction &) = delete;
    Transaction &operator=(const Transaction &) = delete;
    ~Transaction();
    void Commit();

private:
    Database &database_;
    bool open_ = true;
};

} // namespace host
