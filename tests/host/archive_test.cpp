// Log archives and their copies: what is in them, that no path leads out of the directories, and what is left behind
// when one is given up.
#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <locale.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <atomic>
#include <map>
#include <set>

#include "host/answer/unit.h"
#include "host/daemon/files/entry_times.h"
#include "host/store/files.h"
#include "tarn_sysdiag/server/tarnd.h"
#include "tests/host/kit.h"
#include "tests/host/method_kit.h"
#include "tests/host/nobody.h"
#include "tests/host/simulated_daemon.h"
#include "tests/host/small_disk.h"

namespace {

using namespace std::chrono_literals;

// The files of an archive and what is in them.
std::map<std::string, std::string> ReadArchive(const std::filesystem::path &path) {
    static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    uselocale(utf8);
    std::map<std::string, std::string> files;
    const std::unique_ptr<archive, int (*)(archive *)> reader(archive_read_new(), archive_read_free);
    archive_read_support_format_zip(reader.get());
    EXPECT_EQ(archive_read_open_filename(reader.get(), path.c_str(), 4096), ARCHIVE_OK) << path;
    for (archive_entry *entry; archive_read_next_header(reader.get(), &entry) == ARCHIVE_OK;) {
        std::string text(static_cast<size_t>(archive_entry_size(entry)), 0);
        EXPECT_EQ(archive_read_data(reader.get(), text.data(), text.size()), static_cast<la_ssize_t>(text.size()));
        files[archive_entry_pathname(entry)] = text;
    }
    uselocale(LC_GLOBAL_LOCALE);
    return files;
}

// Bit 11 of the flags, 24 bytes before a file's name in its local header.
bool IsMarkedAsUtf8(const std::string &archive, const std::string &name) {
    const size_t at = archive.find(name);
    EXPECT_TRUE(at != archive.npos && at >= 24) << name;
    return (archive.at(at - 23) & 8) != 0;
}

// The time of an archive's first file.
int64_t TimeOfFirst(const std::filesystem::path &path) {
    const std::unique_ptr<archive, int (*)(archive *)> reader(archive_read_new(), archive_read_free);
    archive_read_support_format_zip(reader.get());
    EXPECT_EQ(archive_read_open_filename(reader.get(), path.c_str(), 4096), ARCHIVE_OK) << path;
    archive_entry *entry = nullptr;
    EXPECT_EQ(archive_read_next_header(reader.get(), &entry), ARCHIVE_OK);
    return tarnd::ModifiedAt(entry);
}

mode_t ModeOf(const std::filesystem::path &path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

struct Directories {
    Directories() {
        std::filesystem::create_directories(logs / "app" / "old");
        std::filesystem::create_directories(usb / "reports");
    }
    const kit::TempDir place;
    const std::filesystem::path logs = place.Path() / "logs";
    const std::filesystem::path usb = place.Path() / "usb";
};

class ArchiveTest : public testing::Test, protected Directories, protected kit::SimulatedDaemon {
protected:
    ArchiveTest() : SimulatedDaemon(Placed(*this)) {
        std::ofstream(logs_ / "app" / "a.log") << "first\n";
        std::ofstream(logs_ / "app" / "old" / "b.log") << big_;
        std::ofstream(logs_ / "system.log") << "system\n";
        std::ofstream(place.Path() / "secret") << "secret\n";
        std::filesystem::create_symlink(place.Path() / "secret", logs_ / "app" / "link.log");
        std::filesystem::create_directory_symlink(place.Path(), logs_ / "out");
        EXPECT_EQ(mkfifo((logs_ / "app" / "fifo").c_str(), 0600), 0);
    }

    static tarnd::Options Placed(const Directories &directories) {
        tarnd::Options options;
        options.logDirectory = directories.logs;
        options.copyTargets = {{"usb", directories.usb}, {"other", directories.place.Path() / "other"}};
        return options;
    }

    auto ZipAnswer(const std::string &what, const std::string &where, const std::string &name, uint32_t option = 0) {
        Tarn_sys_diag_ZiploginfoInput request{};
        kit::Set(request.szLogPath, what);
        kit::Set(request.szZipPath, where);
        kit::Set(request.szZipName, name);
        request.uiZipOption = option;
        return kit::CallMethod<Tarn_sys_diag_Result>(ZipLogFile, request);
    }
    uint32_t Zip(const std::string &what, const std::string &where, const std::string &name, uint32_t option = 0) {
        return ZipAnswer(what, where, name, option)->uiResult;
    }

    std::vector<std::string> Names(const std::filesystem::path &directory) {
        std::vector<std::string> names;
        for (const auto &entry : std::filesystem::directory_iterator(directory)) {
            names.push_back(entry.path().filename());
        }
        return names;
    }

    const std::filesystem::path &logs_ = logs;
    const std::filesystem::path &usb_ = usb;
    const std::string big_ = [] {
        std::string text;
        for (int i = 0; i < 50000; ++i) {
            text += "line " + std::to_string(i) + "\n";
        }
        return text;
    }();
};

TEST_F(ArchiveTest, PacksADirectory) {
    ASSERT_EQ(Zip("app", "", "app.zip"), 0);
    const std::map<std::string, std::string> expected{{"app/a.log", "first\n"}, {"app/old/b.log", big_}};
    EXPECT_EQ(ReadArchive(logs_ / "app.zip"), expected);
    EXPECT_LT(std::filesystem::file_size(logs_ / "app.zip"), big_.size() / 2);

    ASSERT_EQ(Zip("app", "", "stored.zip", 1), 0);
    EXPECT_EQ(ReadArchive(logs_ / "stored.zip"), expected);
    EXPECT_GT(std::filesystem::file_size(logs_ / "stored.zip"), big_.size());
}

TEST_F(ArchiveTest, KeepsTheTimesOfFilesAndIsNotForEveryone) {
    const timespec times[2]{{1'600'000'000, 0}, {1'600'000'000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, (logs_ / "system.log").c_str(), times, 0), 0);
    const mode_t before = umask(0);
    EXPECT_EQ(Zip("system.log", "", "one.zip"), 0);
    umask(before);
    EXPECT_EQ(TimeOfFirst(logs_ / "one.zip"), 1'600'000'000);
    EXPECT_EQ(ModeOf(logs_ / "one.zip"), 0640U);
}

TEST_F(ArchiveTest, PacksAFileGivenByItsAbsolutePath) {
    ASSERT_EQ(Zip(logs_ / "system.log", logs_ / "app" / "old", "one.zip"), 0);
    const std::map<std::string, std::string> expected{{"system.log", "system\n"}};
    EXPECT_EQ(ReadArchive(logs_ / "app" / "old" / "one.zip"), expected);
}

TEST_F(ArchiveTest, ReplacesAnOlderArchiveAndLeavesItOut) {
    ASSERT_EQ(Zip("app", "app", "logs.zip"), 0);
    std::ofstream(logs_ / "app" / "a.log") << "second\n";
    ASSERT_EQ(Zip("app", "app", "logs.zip"), 0);
    const std::map<std::string, std::string> expected{{"app/a.log", "second\n"}, {"app/old/b.log", big_}};
    EXPECT_EQ(ReadArchive(logs_ / "app" / "logs.zip"), expected);
}

TEST_F(ArchiveTest, LeavesOutWhatIsBeingWrittenAside) {
    std::ofstream(logs_ / "app" / ".other.zip.4711.0.tarn-partial") << "PK";
    ASSERT_EQ(Zip("app", "", "app.zip"), 0);
    EXPECT_EQ(ReadArchive(logs_ / "app.zip").size(), 2);
}

TEST_F(ArchiveTest, RefusesPathsOutsideTheLogDirectory) {
    for (const char *const path :
         {"..", "../secret", "app/../../secret", "/etc", "/", "app/./../..", "out", "out/logs", "app/link.log"}) {
        SCOPED_TRACE(path);
        EXPECT_EQ(Zip(path, "", "x.zip"), EACCES);
        EXPECT_EQ(Zip("system.log", path, "x.zip"), EACCES);
    }
    EXPECT_EQ(Zip(place.Path() / "logs-of-another", "", "x.zip"), EACCES) << "a longer name that starts alike";
    for (const char *const name : {".", "..", "../x.zip", "a/b.zip", "/tmp/x.zip"}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(Zip("app", "", name), EINVAL);
    }
    EXPECT_EQ(Zip("none", "", "x.zip"), ENOENT);
    EXPECT_EQ(Zip("app", "system.log", "x.zip"), ENOTDIR);
    EXPECT_FALSE(std::filesystem::exists(logs_ / "x.zip"));
    EXPECT_FALSE(std::filesystem::exists(place.Path() / "x.zip"));
}

TEST_F(ArchiveTest, SaysWhatItExpects) {
    EXPECT_EQ(ZipAnswer("app", "", "").Reason(), "name (szZipName) is empty, expected a text");
    EXPECT_EQ(ZipAnswer("app", "", "a/b.zip").Reason(),
              "name (szZipName) is \"a/b.zip\", expected a file name without a directory");
    EXPECT_EQ(ZipAnswer("app", "", "x.zip", 2).Reason(),
              "compression (uiZipOption) is 2, expected compressed (0) or stored (1)");
}

TEST_F(ArchiveTest, LeavesNothingBehindWhenItFails) {
    std::filesystem::create_directory(logs_ / "taken.zip");
    EXPECT_EQ(Zip("app", "", "taken.zip"), EEXIST);
    for (const std::string &name : Names(logs_)) {
        EXPECT_FALSE(host::IsAside(name)) << name;
    }
}

TEST_F(ArchiveTest, TakesNothingButFilesAndDirectories) {
    const auto refused = ZipAnswer("app/fifo", "", "x.zip");
    EXPECT_EQ(refused->uiResult, EINVAL);
    EXPECT_NE(refused.Reason().find(
                  "source (szLogPath) is \"app/fifo\", expected a directory, or a file that is not the archive"),
              std::string::npos)
        << refused.Reason();
    EXPECT_EQ(Zip("app", "app/fifo", "x.zip"), ENOTDIR);
    EXPECT_FALSE(std::filesystem::exists(logs_ / "x.zip"));

    ASSERT_EQ(Zip("app", "", "app.zip"), 0);
    const std::string archive = kit::TextOfFile(logs_ / "app.zip");
    EXPECT_EQ(Zip("app.zip", "", "app.zip"), EINVAL) << "it would pack nothing, and be gone";
    EXPECT_EQ(kit::TextOfFile(logs_ / "app.zip"), archive);
}

// Were a FIFO opened, its writer would go on, and be ended by a signal when nobody reads.
TEST_F(ArchiveTest, LeavesTheWriterOfAFifoWaiting) {
    const std::string fifo = logs_ / "app" / "fifo";
    std::atomic<pid_t> tid = 0;
    std::atomic<bool> opened = false;
    signal(SIGPIPE, SIG_IGN);
    std::thread writer([&] {
        tid = gettid();
        const int fd = open(fifo.c_str(), O_WRONLY | O_CLOEXEC);
        opened = true;
        EXPECT_EQ(write(fd, "line", 4), 4);
        close(fd);
    });
    EXPECT_TRUE(kit::Eventually([&] {
        return kit::TextOfFile("/proc/self/task/" + std::to_string(tid) + "/stat").find(") S ") != std::string::npos;
    }));
    EXPECT_EQ(Zip("app", "", "app.zip"), 0);
    EXPECT_EQ(Zip("app/fifo", "", "x.zip"), EINVAL);
    EXPECT_FALSE(opened);
    const int fd = open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC); // lets it go
    writer.join();
    char line[8];
    EXPECT_EQ(read(fd, line, sizeof line), 4);
    close(fd);
}

TEST_F(ArchiveTest, KeepsNamesAsTheyAre) {
    std::map<std::string, std::string> expected;
    for (const std::string &name : {std::string("\xFF\xFE.log"), std::string("line\nfeed"), std::string("\xC3\xA4"),
                                    std::string("back\\slash"), std::string(255, 'x')}) {
        std::filesystem::create_directory(logs_ / "names");
        std::ofstream(logs_ / "names" / name) << name;
        expected["names/" + name] = name;
    }
    ASSERT_EQ(Zip("names", "", "names.zip"), 0);
    EXPECT_EQ(ReadArchive(logs_ / "names.zip"), expected);
    const std::string bytes = kit::TextOfFile(logs_ / "names.zip");
    EXPECT_TRUE(IsMarkedAsUtf8(bytes, "names/\xC3\xA4"));
    EXPECT_FALSE(IsMarkedAsUtf8(bytes, "names/\xFF\xFE.log")) << "which it is not";
}

TEST_F(ArchiveTest, HasEmptyDirectories) {
    std::filesystem::create_directories(logs_ / "some" / "empty");
    std::ofstream(logs_ / "some" / "file") << "text";
    const auto answer = ZipAnswer("some", "", "some.zip");
    const std::map<std::string, std::string> expected{{"some/empty/", ""}, {"some/file", "text"}};
    EXPECT_EQ(ReadArchive(logs_ / "some.zip"), expected);
    EXPECT_EQ(answer.Reason(), "");
}

TEST_F(ArchiveTest, HasEarlierArchivesOnlyWhenTheyAreAskedFor) {
    ASSERT_EQ(Zip("system.log", "app", "earlier.zip"), 0);
    std::ofstream(logs_ / "app" / "others.zip") << "PK";
    std::filesystem::remove(logs_ / "app" / "link.log"); // which is left out as well
    const auto answer = ZipAnswer("app", "", "app.zip");
    const std::map<std::string, std::string> expected{
        {"app/a.log", "first\n"}, {"app/old/b.log", big_}, {"app/others.zip", "PK"}};
    EXPECT_EQ(ReadArchive(logs_ / "app.zip"), expected);
    EXPECT_EQ(answer.Reason(),
              "1 left out, the first of them app/earlier.zip: an archive, which is packed only when it "
              "is asked for itself");
    ASSERT_EQ(Zip("app/earlier.zip", "", "again.zip"), 0);
    EXPECT_EQ(ReadArchive(logs_ / "again.zip").count("earlier.zip"), 1);
}

TEST_F(ArchiveTest, LeavesOutDirectoriesThatAreTooDeep) {
    std::filesystem::path path = logs_ / "deep";
    for (int depth = 1; depth < 32; ++depth) {
        path /= "d";
    }
    std::filesystem::create_directories(path / "d");
    std::ofstream(path / "file") << "deep";
    std::ofstream(path / "d" / "file") << "deeper";
    const auto answer = ZipAnswer("deep", "", "deep.zip");
    EXPECT_EQ(answer->uiResult, 0) << "nobody's directories keep the others out of an archive";
    EXPECT_EQ(ReadArchive(logs_ / "deep.zip").size(), 1);
    EXPECT_TRUE(answer.Reason().starts_with("1 left out, the first of them deep/d/d/")) << answer.Reason();
    EXPECT_TRUE(answer.Reason().ends_with("/d: more than 32 directories deep")) << answer.Reason();
}

TEST_F(ArchiveTest, LeavesOutFilesThatAreTooLarge) {
    std::filesystem::create_directory(logs_ / "large");
    std::ofstream(logs_ / "large" / "endless");
    std::filesystem::resize_file(logs_ / "large" / "endless", 1ULL << 40);
    std::ofstream(logs_ / "large" / "holes");
    std::filesystem::resize_file(logs_ / "large" / "holes", 1ULL << 30);
    std::ofstream(logs_ / "large" / "some holes");
    std::filesystem::resize_file(logs_ / "large" / "some holes", 1ULL << 20);
    testing::internal::CaptureStderr();
    const auto answer = ZipAnswer("large", "", "large.zip");
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(answer->uiResult, 0);
    EXPECT_EQ(answer.Reason(), "2 left out, the first of them large/endless: too large, 1099511627776 bytes");
    EXPECT_NE(log.find("left out of the archive: large/holes: too large, 1073741824 bytes with holes"), log.npos)
        << log;
    const auto files = ReadArchive(logs_ / "large.zip");
    ASSERT_EQ(files.size(), 1);
    EXPECT_EQ(files.begin()->second, std::string(1 << 20, 0));
}

TEST_F(ArchiveTest, HasRoomForSoMuch) {
    std::filesystem::create_directory(logs_ / "many");
    for (int i = 0; i != 50; ++i) {
        std::ofstream(logs_ / "many" / std::to_string(10 + i)) << std::string(100, 'x');
    }
    const auto packed = [&](const tarnd::ArchiveLimits &limits) {
        const tarnd::Archives archives(logs_, {}, clocks, limits);
        return archives.Pack({.source = "many", .directory = "", .name = "many.zip"}, [] {});
    };
    EXPECT_EQ(packed({.entries = 50}), "");
    EXPECT_TRUE(packed({.entries = 30}).ends_with(" and what follows: too many files"));
    EXPECT_EQ(ReadArchive(logs_ / "many.zip").size(), 30);
    testing::internal::CaptureStderr();
    EXPECT_EQ(packed({.bytes = 1050}), "40 left out, the first of them many/20: too large, 100 bytes");
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("many/39: too large"), log.npos) << log;
    EXPECT_EQ(log.find("many/40: too large"), log.npos) << "the first are named: " << log;
    EXPECT_EQ(ReadArchive(logs_ / "many.zip").size(), 10);
}

// To open a file that its owner has a lease on would wait for him.
TEST_F(ArchiveTest, WaitsForNoLease) {
    signal(SIGIO, SIG_IGN);
    const int fd = open((logs_ / "app" / "a.log").c_str(), O_RDWR | O_CLOEXEC);
    if (fcntl(fd, F_SETLEASE, F_WRLCK) != 0) {
        close(fd);
        GTEST_SKIP() << "a file system without leases";
    }
    const auto answer = ZipAnswer("app", "", "app.zip");
    EXPECT_EQ(answer->uiResult, 0);
    EXPECT_NE(answer.Reason().find("a.log: Resource temporarily unavailable"), std::string::npos) << answer.Reason();
    EXPECT_EQ(ReadArchive(logs_ / "app.zip").size(), 1);
    close(fd);
}

TEST_F(ArchiveTest, ReplacesNothingButArchivesOfItsOwn) {
    const auto expectStays = [&](const std::string &name) {
        SCOPED_TRACE(name);
        const std::string before = kit::TextOfFile(logs_ / name);
        const auto answer = ZipAnswer("app", "", name);
        EXPECT_EQ(answer->uiResult, EEXIST);
        EXPECT_NE(answer.Reason().find(name + " is there, and no archive that the daemon made"), std::string::npos)
            << answer.Reason();
        EXPECT_EQ(kit::TextOfFile(logs_ / name), before);
    };
    expectStays("system.log");
    ASSERT_EQ(Zip("app", "", "own.zip"), 0);
    std::ofstream(logs_ / "foreign.zip") << std::string("PK\5\6") + std::string(18, 0);
    expectStays("foreign.zip");
    std::filesystem::create_symlink(logs_ / "own.zip", logs_ / "link.zip");
    expectStays("link.zip");
    std::filesystem::create_symlink("nowhere", logs_ / "dangling.zip");
    EXPECT_EQ(Zip("app", "", "dangling.zip"), EEXIST);
    if (geteuid() == 0) {
        std::filesystem::copy_file(logs_ / "own.zip", logs_ / "others.zip");
        ASSERT_EQ(chown((logs_ / "others.zip").c_str(), kit::Nobody::kId, kit::Nobody::kId), 0);
        expectStays("others.zip");
    }
    EXPECT_EQ(Zip("app", "", "own.zip"), 0);
}

// A directory on the way turns into a link that leads out, and back, and files come and go.
TEST_F(ArchiveTest, StaysWithinTheLogDirectoryWhenItChanges) {
    const std::filesystem::path outside = place.Path() / "outside", old = logs_ / "app" / "old";
    std::filesystem::create_directory(outside);
    std::ofstream(outside / "secret") << "secret\n";
    std::filesystem::create_directory_symlink(outside, logs_ / "app" / "other");
    std::atomic<bool> stop = false;
    std::thread changes([&] {
        while (!stop) {
            renameat2(AT_FDCWD, old.c_str(), AT_FDCWD, (logs_ / "app" / "other").c_str(), RENAME_EXCHANGE);
            std::ofstream(logs_ / "app" / "fleeting") << "here";
            std::filesystem::remove(logs_ / "app" / "fleeting");
        }
    });
    std::map<uint32_t, int> results;
    EXPECT_TRUE(kit::Eventually([&] {
        for (int i = 0; i != 20; ++i) {
            ++results[Zip("app/old", "", "old.zip")];
            EXPECT_EQ(Zip("app", "", "app.zip"), 0);
            for (const auto &[name, text] : ReadArchive(logs_ / "app.zip")) {
                EXPECT_EQ(name.find("secret"), std::string::npos) << name;
            }
        }
        return results[0] != 0 && results[EACCES] != 0; // seen both ways
    }));
    stop = true;
    changes.join();
    EXPECT_EQ(results.size(), 2);
    EXPECT_EQ(ReadArchive(logs_ / "old.zip").begin()->first, "old/b.log");
}

// A file whose size changes while it is packed has the one that it had.
TEST_F(ArchiveTest, PacksAFileThatChangesMeanwhile) {
    constexpr size_t kSize = 1 << 20;
    const std::filesystem::path file = logs_ / "changing.log";
    for (const size_t becomes : {size_t{0}, size_t{100'000}, kSize + 5}) {
        SCOPED_TRACE(becomes);
        std::ofstream(file) << std::string(kSize, 'x');
        daemon->archives.Pack({.source = "changing.log", .directory = "", .name = "changing.zip"},
                              [&] { std::filesystem::resize_file(file, becomes); }); // after the first 64 KiB
        const auto files = ReadArchive(logs_ / "changing.zip");
        ASSERT_EQ(files.size(), 1);
        const size_t read = std::max(size_t{65536}, std::min(becomes, kSize));
        EXPECT_EQ(files.begin()->second, std::string(read, 'x') + std::string(kSize - read, '\0'));
    }
}

TEST_F(ArchiveTest, LeavesOutWhatMayNotBeRead) {
    std::filesystem::create_directories(logs_ / "mixed" / "closed");
    std::ofstream(logs_ / "mixed" / "open.log") << "open\n";
    for (const std::filesystem::path &file :
         {logs_ / "mixed" / "closed" / "within.log", logs_ / "mixed" / "hidden.log"}) {
        std::ofstream(file) << "hidden\n";
        std::filesystem::permissions(file, std::filesystem::perms::none);
    }
    std::filesystem::permissions(logs_ / "mixed" / "closed", std::filesystem::perms::none);
    if (geteuid() == 0) {
        EXPECT_EQ(chown(place.Path().c_str(), kit::Nobody::kId, kit::Nobody::kId), 0);
        EXPECT_EQ(chown(logs_.c_str(), kit::Nobody::kId, kit::Nobody::kId), 0);
    }
    {
        const kit::Nobody nobody;
        testing::internal::CaptureStderr();
        EXPECT_EQ(Zip("mixed", "", "mixed.zip"), 0);
        const std::string log = testing::internal::GetCapturedStderr();
        EXPECT_NE(log.find("left out of the archive: hidden.log: Permission denied"), log.npos) << log;
        EXPECT_NE(log.find("left out of the archive: closed: Permission denied"), log.npos) << log;
        EXPECT_EQ(Zip("mixed/hidden.log", "", "x.zip"), EACCES);
        EXPECT_EQ(Zip("mixed/closed/within.log", "", "x.zip"), EACCES);
        EXPECT_EQ(Zip("mixed/open.log", "mixed/closed", "x.zip"), EACCES);
    }
    const std::map<std::string, std::string> expected{{"mixed/open.log", "open\n"}};
    EXPECT_EQ(ReadArchive(logs_ / "mixed.zip"), expected);
    std::filesystem::permissions(logs_ / "mixed" / "closed", std::filesystem::perms::owner_all);
}

class CopyTest : public ArchiveTest {
protected:
    CopyTest() { EXPECT_EQ(Zip("app", "", "app.zip"), 0); }

    struct How {
        std::string target = "usb";
        std::string replace = "";
        std::string move = "";
    };
    auto CopyAnswer(const std::string &from, const std::string &to, const How &how) {
        Tarn_sys_diag_CopyloginfoInput request{};
        kit::Set(request.szCopyTarget, how.target);
        kit::Set(request.szCopyParam1, how.replace);
        kit::Set(request.szCopyParam2, how.move);
        kit::Set(request.szSrcPath, from);
        kit::Set(request.szDstPath, to);
        return kit::CallMethod<Tarn_sys_diag_Result>(CopyZipLogFile, request);
    }
    uint32_t Copy(const std::string &from, const std::string &to, const How &how) {
        return CopyAnswer(from, to, how)->uiResult;
    }
    uint32_t Copy(const std::string &from, const std::string &to) { return Copy(from, to, {}); }
    void ExpectReason(const std::string &reason, const std::string &from, const How &how) {
        const auto answer = CopyAnswer(from, "", how);
        EXPECT_EQ(answer->uiResult, EINVAL);
        EXPECT_NE(answer.Reason().find(reason), std::string::npos) << answer.Reason();
    }
};

TEST_F(CopyTest, CopiesToATarget) {
    const std::string archive = kit::TextOfFile(logs_ / "app.zip");
    ASSERT_EQ(Copy("app.zip", ""), 0);
    EXPECT_EQ(kit::TextOfFile(usb_ / "app.zip"), archive);
    ASSERT_EQ(Copy(logs_ / "app.zip", "reports/"), 0);
    EXPECT_EQ(kit::TextOfFile(usb_ / "reports" / "app.zip"), archive);
    ASSERT_EQ(Copy("app.zip", usb_ / "reports" / "today.zip"), 0);
    EXPECT_EQ(kit::TextOfFile(usb_ / "reports" / "today.zip"), archive);
    EXPECT_EQ(Names(usb_).size(), 2) << "nothing else";
}

TEST_F(CopyTest, ReplacesAnOlderFileOnlyWhenToldTo) {
    std::ofstream(usb_ / "app.zip") << "older";
    EXPECT_EQ(Copy("app.zip", ""), EEXIST);
    EXPECT_EQ(kit::TextOfFile(usb_ / "app.zip"), "older");
    EXPECT_EQ(Names(usb_).size(), 2);
    EXPECT_EQ(Copy("app.zip", "", {.replace = "replace"}), 0);
    EXPECT_EQ(kit::TextOfFile(usb_ / "app.zip"), kit::TextOfFile(logs_ / "app.zip"));
}

TEST_F(CopyTest, MovesWhenToldTo) {
    const std::string archive = kit::TextOfFile(logs_ / "app.zip");
    std::ofstream(usb_ / "app.zip") << "older";
    EXPECT_EQ(Copy("app.zip", "", {.move = "move"}), EEXIST);
    EXPECT_EQ(kit::TextOfFile(logs_ / "app.zip"), archive) << "what was not copied stays";
    EXPECT_EQ(Copy("app.zip", "", {.replace = "replace", .move = "move"}), 0);
    EXPECT_EQ(kit::TextOfFile(usb_ / "app.zip"), archive);
    EXPECT_FALSE(std::filesystem::exists(logs_ / "app.zip"));
}

// The source is replaced while it is copied: what has its name then was not copied.
TEST_F(CopyTest, LeavesAnotherFileThatHasTheNameOfWhatItMoves) {
    daemon->archives.Copy({.source = "app.zip", .target = "usb", .destination = "", .move = true}, [&] {
        std::ofstream(logs_ / "newer") << "newer";
        std::filesystem::rename(logs_ / "newer", logs_ / "app.zip");
    });
    EXPECT_EQ(kit::TextOfFile(logs_ / "app.zip"), "newer");
    EXPECT_EQ(ReadArchive(usb_ / "app.zip").size(), 2);
}

TEST_F(CopyTest, CopiesAnEmptyArchiveForItsGroupAndTellsSo) {
    std::filesystem::create_directory(logs_ / "empty");
    std::filesystem::create_symlink("nowhere", logs_ / "empty" / "left out");
    ASSERT_EQ(Zip("empty", "", "empty.zip"), 0);
    testing::internal::CaptureStderr();
    const mode_t before = umask(0);
    EXPECT_EQ(Copy("empty.zip", ""), 0);
    umask(before);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("copy of empty.zip as empty.zip in " + usb_.string() + ": 1 files, 44 bytes, 0 ms"), log.npos)
        << log;
    EXPECT_EQ(ModeOf(usb_ / "empty.zip"), 0640U);
}

TEST_F(CopyTest, ExplainsWhatItDoesNotTake) {
    ExpectReason("target (szCopyTarget) is \"tape\", expected one of other, usb", "app.zip", {.target = "tape"});
    EXPECT_EQ(Copy("app.zip", "", {.target = "other"}), ENOENT) << "its directory is not there";
    ExpectReason("target (szCopyTarget) is empty, expected a text", "app.zip", {.target = ""});
    ExpectReason("if-exists (szCopyParam1) is \"maybe\", expected nothing (", "app.zip", {.replace = "maybe"});
    ExpectReason(") or \"replace\"", "app.zip", {.replace = "maybe"});
    ExpectReason("mode (szCopyParam2) is \"maybe\", expected nothing (the archive stays) or \"move\"", "app.zip",
                 {.move = "maybe"});
    ExpectReason("archive (szSrcPath) is empty, expected a text", "", {});
    ExpectReason("archive (szSrcPath) is \".\", expected an archive in the log directory, not the directory itself",
                 ".", {});
    EXPECT_EQ(Copy("none.zip", ""), ENOENT);
    EXPECT_EQ(Copy("app.zip", "none/"), ENOENT);
    EXPECT_EQ(Copy("app.zip", "reports"), EEXIST);
    for (const char *path : {"system.log", "app", "app/fifo"}) {
        EXPECT_EQ(Copy(path, ""), EINVAL) << path;
    }
    ExpectReason("archive (szSrcPath) is \"system.log\", expected a ZIP archive", "system.log", {});
    EXPECT_EQ(Names(usb_), std::vector<std::string>{"reports"});
}

TEST_F(CopyTest, StaysWithinItsDirectories) {
    std::filesystem::copy_file(logs_ / "app.zip", place.Path() / "secret.zip");
    std::filesystem::create_symlink(place.Path() / "secret.zip", logs_ / "link.zip");
    std::filesystem::create_directory_symlink(place.Path(), usb_ / "out");
    for (const char *path : {"../secret.zip", "link.zip", "out/secret.zip", "/etc/passwd", "app/../app.zip"}) {
        EXPECT_EQ(Copy(path, ""), EACCES) << path;
    }
    EXPECT_EQ(Copy(place.Path() / "secret.zip", ""), EACCES);
    for (const char *path : {"../x.zip", "out/x.zip", "/tmp/x.zip", "reports/../../x.zip", "..", "out/"}) {
        EXPECT_EQ(Copy("app.zip", path), EACCES) << path;
    }
    std::filesystem::create_symlink(place.Path() / "secret", usb_ / "app.zip");
    EXPECT_EQ(Copy("app.zip", "", {.replace = "replace"}), 0);
    EXPECT_EQ(kit::TextOfFile(place.Path() / "secret"), "secret\n") << "the link was replaced, not followed";
}

// A directory of the target turns into a link, and back, while archives are copied into it.
TEST_F(CopyTest, StaysWithinItsDirectoriesWhenTheyChange) {
    const std::filesystem::path outside = place.Path() / "outside";
    std::filesystem::create_directory(outside);
    std::filesystem::create_directory_symlink(outside, usb_ / "link");
    std::atomic<bool> stop = false;
    std::thread changes([&] {
        while (!stop) {
            renameat2(AT_FDCWD, (usb_ / "reports").c_str(), AT_FDCWD, (usb_ / "link").c_str(), RENAME_EXCHANGE);
        }
    });
    std::map<uint32_t, int> results;
    EXPECT_TRUE(kit::Eventually([&] {
        for (int i = 0; i != 100; ++i) {
            ++results[Copy("app.zip", "reports/x.zip", {.replace = "replace"})];
        }
        return results[0] != 0 && results[EACCES] != 0; // seen both ways
    }));
    stop = true;
    changes.join();
    EXPECT_EQ(Names(outside), std::vector<std::string>{});
    for (const auto &[result, count] : results) {
        EXPECT_TRUE(result == 0 || result == EACCES) << result;
    }
}

TEST_F(CopyTest, LeavesNothingBehindOnAFullDisk) {
    const kit::SmallDisk disk(usb_, "300k");
    if (!disk.Mounted()) {
        GTEST_SKIP() << "may not mount";
    }
    std::ofstream(usb_ / "app.zip") << "older";
    disk.Fill();
    EXPECT_EQ(Copy("app.zip", "", {.replace = "replace", .move = "move"}), ENOSPC);
    EXPECT_EQ(kit::TextOfFile(usb_ / "app.zip"), "older");
    EXPECT_EQ(Names(usb_).size(), 2);
    EXPECT_TRUE(std::filesystem::exists(logs_ / "app.zip"));
    disk.Empty();
    EXPECT_EQ(Copy("app.zip", "", {.replace = "replace"}), 0) << "what failed holds no space";
}

TEST_F(CopyTest, RemovesWhatAKilledDaemonLeftAndNothingElse) {
    const std::string partial = ".a.zip.4711.0.tarn-partial";
    for (const std::filesystem::path &directory : {logs_, logs_ / "app" / "old", usb_, usb_ / "reports"}) {
        std::ofstream(directory / partial) << "PK";
        std::ofstream(directory / ".others.partial") << "of another program";
    }
    std::filesystem::create_directory(logs_ / ".directory.tarn-partial");
    const std::filesystem::path living = logs_ / ".b.zip.4711.1.tarn-partial", others = usb_ / ".c.tarn-partial";
    const int fd = open(living.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_EQ(flock(fd, LOCK_EX), 0);
    std::ofstream(others) << "of another user";
    const bool isRoot = chown(others.c_str(), kit::Nobody::kId, kit::Nobody::kId) == 0;
    Restart();
    EXPECT_FALSE(std::filesystem::exists(logs_ / partial));
    EXPECT_FALSE(std::filesystem::exists(usb_ / partial));
    EXPECT_TRUE(std::filesystem::exists(living)) << "its owner is at work";
    EXPECT_TRUE(std::filesystem::exists(logs_ / ".directory.tarn-partial"));
    EXPECT_EQ(std::filesystem::exists(others), isRoot);
    EXPECT_TRUE(std::filesystem::exists(logs_ / "app" / "old" / partial)) << "a start goes into no other directory";
    EXPECT_EQ(Zip("system.log", "app/old", "one.zip"), 0);
    EXPECT_EQ(Copy("app.zip", "reports/"), 0);
    EXPECT_FALSE(std::filesystem::exists(logs_ / "app" / "old" / partial)) << "before the next archive";
    EXPECT_FALSE(std::filesystem::exists(usb_ / "reports" / partial));
    for (const std::filesystem::path &directory : {logs_, logs_ / "app" / "old", usb_, usb_ / "reports"}) {
        EXPECT_TRUE(std::filesystem::exists(directory / ".others.partial")) << directory;
    }
    close(fd);
}

// Two archives change places again and again while one is moved: only the one that was copied goes.
TEST_F(CopyTest, MovesNoFileButTheOneThatItCopied) {
    ASSERT_EQ(Zip("system.log", "", "other.zip"), 0);
    const std::string texts[] = {kit::TextOfFile(logs_ / "app.zip"), kit::TextOfFile(logs_ / "other.zip")};
    for (int round = 0; round != 100; ++round) {
        std::ofstream(logs_ / "one.zip") << texts[0];
        std::ofstream(logs_ / "two.zip") << texts[1];
        std::atomic<bool> stop = false;
        std::thread changes([&] {
            while (!stop) {
                renameat2(AT_FDCWD, (logs_ / "one.zip").c_str(), AT_FDCWD, (logs_ / "two.zip").c_str(),
                          RENAME_EXCHANGE);
            }
        });
        EXPECT_EQ(Copy("one.zip", "", {.replace = "replace", .move = "move"}), 0);
        stop = true;
        changes.join();
        const bool copiedFirst = kit::TextOfFile(usb_ / "one.zip") == texts[0];
        const std::string &stays = texts[copiedFirst ? 1 : 0];
        EXPECT_TRUE(kit::TextOfFile(logs_ / "one.zip") == stays || kit::TextOfFile(logs_ / "two.zip") == stays);
    }
}

// An archive that would take minutes is given up when its answer is no longer wanted.
TEST_F(ArchiveTest, TellsItsProgressAndIsGivenUp) {
    std::ofstream(logs_ / "huge.log");
    std::filesystem::resize_file(logs_ / "huge.log", 64ULL << 30);
    const auto names = [this] {
        const std::vector<std::string> list = Names(logs_);
        return std::set<std::string>(list.begin(), list.end());
    };
    const std::set<std::string> before = names();
    int checks = 0;
    const auto check = [&] {
        clocks.Advance(1999ms);
        if (++checks == 34) {
            host::Fail(ETIMEDOUT, "the test");
        }
    };
    testing::internal::CaptureStderr();
    const tarnd::Archives archives(logs_, {}, clocks, {.bytes = 1ULL << 40, .holeBytes = 1ULL << 40});
    EXPECT_THROW(archives.Pack({.source = "huge.log", .directory = "", .name = "huge.zip"}, check), std::system_error);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("archive huge.zip: 0 files and 2 MiB so far"), log.npos) << log;
    size_t told = 0;
    for (size_t at = 0; (at = log.find("so far\n", at)) != log.npos; ++at) {
        ++told;
    }
    EXPECT_EQ(told, 16) << "every two seconds at most\n" << log;
    EXPECT_EQ(checks, 34);
    EXPECT_EQ(names(), before);
    const Tarn_sys_diag_ZiploginfoInput request{"app", "", "app.zip", 0};
    EXPECT_EQ(kit::CallMethod<Tarn_sys_diag_Result>(ZipLogFile, request, ESHUTDOWN)->uiResult, ESHUTDOWN);
    EXPECT_EQ(names(), before);
}

TEST_F(ArchiveTest, IsGivenUpAmongEmptyDirectories) {
    for (int i = 0; i < 10; ++i) {
        std::filesystem::create_directories(logs_ / "empty" / std::to_string(i));
    }
    int checks = 0;
    daemon->archives.Pack({.source = "empty", .directory = "", .name = "empty.zip"}, [&] { ++checks; });
    EXPECT_EQ(checks, 10 + 1) << "at each, and before the archive gets its name";
}

TEST_F(ArchiveTest, TellsItsProgressEveryTwoSeconds) {
    testing::internal::CaptureStderr();
    daemon->archives.Pack({.source = "app/a.log", .directory = "", .name = "a.zip"}, [&] { clocks.Advance(1s); });
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("archive a.zip: 1 files and 0 MiB so far"), log.npos) << log;
}

TEST_F(ArchiveTest, TellsWhatItDid) {
    testing::internal::CaptureStderr();
    daemon->archives.Pack({.source = "app/a.log", .directory = "", .name = "a.zip"}, [&] { clocks.Advance(300ms); });
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("archive a.zip: 1 files, 6 bytes, 600 ms"), log.npos) << log;
}

TEST_F(CopyTest, IsGivenUp) {
    Tarn_sys_diag_CopyloginfoInput request{};
    kit::Set(request.szCopyTarget, "usb");
    kit::Set(request.szSrcPath, "app.zip");
    EXPECT_EQ(kit::CallMethod<Tarn_sys_diag_Result>(CopyZipLogFile, request, ECANCELED)->uiResult, ECANCELED);
    EXPECT_EQ(Names(usb_), std::vector<std::string>{"reports"});
}

TEST_F(ArchiveTest, LeavesNothingBehindOnAFullDisk) {
    const kit::SmallDisk disk(logs_ / "small", "64k");
    if (!disk.Mounted()) {
        GTEST_SKIP() << "may not mount";
    }
    const auto full = ZipAnswer("app", "small", "app.zip", 1);
    EXPECT_EQ(full->uiResult, ENOSPC);
    EXPECT_NE(full.Reason().find("app.zip"), std::string::npos) << full.Reason();
    EXPECT_EQ(Names(logs_ / "small"), std::vector<std::string>{});
    EXPECT_EQ(Zip("system.log", "small", "app.zip", 1), 0) << "what failed holds no space";
}

} // namespace
