// Files of tables: whole or not at all, bounded, and set aside where they are damaged.
#include "host/store/database.h"

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "tests/host/error_of.h"
#include "tests/host/temp_dir.h"

namespace {

using host::Database;
using kit::ErrorOf;

constexpr char kSchema[] = "CREATE TABLE words(word TEXT, number INTEGER)";

class DatabaseTest : public testing::Test {
protected:
    Database::Options Options(uint32_t version = 1) const {
        return {.file = file_, .version = version, .schema = kSchema, .mostBytes = 1 << 20};
    }
    static uint64_t CountOf(const Database &database) {
        host::Rows rows = database.Query("SELECT count(*) FROM words");
        return rows.Next() ? rows.Get<uint64_t>(0) : 0;
    }
    void WriteWord() const {
        Database database(Options());
        database.Run("INSERT INTO words VALUES (?, ?)", "one", 1);
    }
    // Opens the file, and returns what was logged.
    std::string Open(uint32_t version, uint64_t words) const {
        testing::internal::CaptureStderr();
        EXPECT_EQ(CountOf(Database(Options(version))), words);
        return testing::internal::GetCapturedStderr();
    }

    const kit::TempDir dir_;
    const std::filesystem::path file_ = dir_.Path() / "words.db";
};

TEST_F(DatabaseTest, KeepsWhatWasWritten) {
    WriteWord();
    const Database database(Options());
    host::Rows rows = database.Query("SELECT word, number, NULL FROM words WHERE number = ?", 1);
    ASSERT_TRUE(rows.Next());
    EXPECT_EQ(rows.Get<std::string>(0), "one");
    EXPECT_EQ(rows.Get<uint32_t>(1), 1);
    EXPECT_TRUE(rows.IsNull(2));
    EXPECT_FALSE(rows.Next());
    struct stat status {};
    ASSERT_EQ(stat(file_.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600);
}

TEST_F(DatabaseTest, KeepsATransactionWholeOrNotAtAll) {
    Database database(Options());
    {
        host::Transaction transaction(database);
        database.Run("INSERT INTO words VALUES ('a', 1)");
    }
    EXPECT_EQ(CountOf(database), 0) << "it was not committed";
    {
        host::Transaction transaction(database);
        database.Run("INSERT INTO words VALUES ('a', 1)");
        transaction.Commit();
    }
    EXPECT_EQ(CountOf(database), 1);
}

TEST_F(DatabaseTest, SetsADamagedFileAside) {
    WriteWord();
    std::ofstream(file_, std::ios::binary) << std::string(5000, 'x');
    const std::string log = Open(1, 0);
    EXPECT_NE(log.find(file_.string() + ": "), std::string::npos) << log;
    EXPECT_NE(log.find("; set aside as words.db.damaged"), std::string::npos) << log;
    EXPECT_EQ(kit::TextOfFile(file_.string() + ".damaged"), std::string(5000, 'x'));
    WriteWord();
    EXPECT_EQ(Open(1, 1), "");
}

TEST_F(DatabaseTest, FindsDamageInTheMiddle) {
    {
        Database database(Options());
        host::Transaction transaction(database);
        for (int i = 0; i < 1000; ++i) {
            database.Run("INSERT INTO words VALUES (?, ?)", std::string(50, 'w'), i);
        }
        transaction.Commit();
    }
    std::fstream file(file_, std::ios::binary | std::ios::in | std::ios::out);
    file.seekp(3 * 4096);
    file << std::string(4096, '\xff');
    file.close();
    EXPECT_NE(Open(1, 0).find("set aside as words.db.damaged"), std::string::npos);
}

TEST_F(DatabaseTest, SetsAFileOfAnotherVersionAside) {
    WriteWord();
    EXPECT_NE(Open(2, 0).find("it has version 1, expected 2; set aside as words.db.damaged"), std::string::npos);
}

TEST_F(DatabaseTest, GrowsNoFurtherThanItMay) {
    Database database(Options());
    const auto fill = [&] {
        host::Transaction transaction(database);
        for (int i = 0; i < 100; ++i) {
            database.Run("INSERT INTO words VALUES (?, ?)", std::string(50'000, 'w'), i);
        }
    };
    EXPECT_EQ(ErrorOf(fill), ENOSPC);
    EXPECT_LE(database.Bytes(), 1U << 20);
    database.Run("INSERT INTO words VALUES ('again', 1)");
    EXPECT_EQ(CountOf(database), 1);
}

TEST_F(DatabaseTest, RefusesWhatItCanNotOpen) {
    std::filesystem::create_directory(file_);
    EXPECT_EQ(ErrorOf([&] { Database{Options()}; }), EISDIR);
    std::filesystem::remove(file_);
    std::filesystem::create_symlink(dir_.Path() / "elsewhere", file_);
    EXPECT_EQ(ErrorOf([&] { Database{Options()}; }), ELOOP);
    EXPECT_FALSE(std::filesystem::exists(dir_.Path() / "elsewhere"));
}

TEST_F(DatabaseTest, RefusesNumbersThatDoNotFit) {
    Database database({.file = {}, .schema = kSchema});
    database.Run("INSERT INTO words VALUES ('', ?)", int64_t{-1});
    host::Rows rows = database.Query("SELECT number FROM words");
    ASSERT_TRUE(rows.Next());
    EXPECT_EQ(ErrorOf([&] { rows.Get<uint32_t>(0); }), EUCLEAN);
    EXPECT_EQ(rows.Get<int64_t>(0), -1);
}

TEST_F(DatabaseTest, KeepsNumbersOf64Bits) {
    Database database({.file = {}, .schema = kSchema});
    for (const uint64_t number : {uint64_t{0}, uint64_t{INT64_MAX}, uint64_t{INT64_MAX} + 1, UINT64_MAX}) {
        database.Run("DELETE FROM words");
        database.Run("INSERT INTO words VALUES ('', ?)", number);
        host::Rows rows = database.Query("SELECT number FROM words");
        ASSERT_TRUE(rows.Next());
        EXPECT_EQ(rows.Get<uint64_t>(0), number);
    }
}

} // namespace
