// Log archives and their copies: what is in them, that no path leads out of the directories, and what is left behind
// when one is given up.
#include "host/answer/unit.h"

TARN_UNIT()

#include "types/tarnd.h"

#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <atomic>
#include <map>
#include <set>

#include "tests/host/daemon_kit.h"
#include "tests/host/small_disk.h"

namespace {

using namespace std::chrono_literals;
using DaemonTest = kit::DaemonTest<Unit>;

// The files of an archive and what is in them.
std::map<std::string, std::string> ReadArchive(const std::filesystem::path &path) {
    std::map<std::string, std::string> files;
    const std::unique_ptr<archive, int (*)(archive *)> reader(archive_read_new(), archive_read_free);
    archive_read_support_format_zip(reader.get());
    EXPECT_EQ(archive_read_open_filename(reader.get(), path.c_str(), 4096), ARCHIVE_OK) << path;
    for (archive_entry *entry; archive_read_next_header(reader.get(), &entry) == ARCHIVE_OK;) {
        std::string text(static_cast<size_t>(archive_entry_size(entry)), 0);
        EXPECT_EQ(archive_read_data(reader.get(), text.data(), text.size()), static_cast<la_ssize_t>(text.size()));
        files[archive_entry_pathname(entry)] = text;
    }
    return files;
}

class ArchiveTest : public DaemonTest {
protected:
    void SetUp() override {
        DaemonTest::SetUp();
        std::filesystem::create_directories(logs_ / "app" / "old");
        std::ofstream(logs_ / "app" / "a.log") << "first\n";
        std::ofstream(logs_ / "app" / "old" / "b.log") << big_;
        std::ofstream(logs_ / "system.log") << "system\n";
        std::ofstream(dir_.Path() / "secret") << "secret\n";
        std::filesystem::create_symlink(dir_.Path() / "secret", logs_ / "app" / "link.log");
        std::filesystem::create_directory_symlink(dir_.Path(), logs_ / "out");
        ASSERT_EQ(mkfifo((logs_ / "app" / "fifo").c_str(), 0600), 0);
    }

    uint32_t Zip(const std::string &what, const std::string &where, const std::string &name, uint32_t option = 0) {
        Tarn_sys_diag_ZiploginfoInput request{};
        kit::Set(request.szLogPath, what);
        kit::Set(request.szZipPath, where);
        kit::Set(request.szZipName, name);
        request.uiZipOption = option;
        const auto answer = Call<Tarn_sys_diag_Result>("ZipLogFile", request);
        EXPECT_EQ(answer.Status(), 0) << answer.Text();
        return answer->uiResult;
    }

    // How often the daemon has a file open.
    size_t FilesOpen(const std::filesystem::path &path) {
        size_t count = 0;
        std::error_code ignored;
        for (const auto &fd :
             std::filesystem::directory_iterator("/proc/" + std::to_string(daemon_->Pid()) + "/fd", ignored)) {
            count += std::filesystem::read_symlink(fd.path(), ignored) == path;
        }
        return count;
    }

    std::vector<std::string> Names(const std::filesystem::path &directory) {
        std::vector<std::string> names;
        for (const auto &entry : std::filesystem::directory_iterator(directory)) {
            names.push_back(entry.path().filename());
        }
        return names;
    }

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

TEST_F(ArchiveTest, RefusesPathsOutsideTheLogDirectory) {
    for (const char *const path :
         {"..", "../secret", "app/../../secret", "/etc", "/", "app/./../..", "out", "out/logs", "app/link.log"}) {
        SCOPED_TRACE(path);
        EXPECT_EQ(Zip(path, "", "x.zip"), EACCES);
        EXPECT_EQ(Zip("system.log", path, "x.zip"), EACCES);
    }
    EXPECT_EQ(Zip(dir_.Path() / "logs-of-another", "", "x.zip"), EACCES) << "a longer name that starts alike";
    for (const char *const name : {"", ".", "..", "../x.zip", "a/b.zip", "/tmp/x.zip"}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(Zip("app", "", name), EINVAL);
    }
    EXPECT_EQ(Zip("app", "", "x.zip", 2), EINVAL);
    EXPECT_EQ(Zip("none", "", "x.zip"), ENOENT);
    EXPECT_EQ(Zip("app", "system.log", "x.zip"), ENOTDIR);
    EXPECT_FALSE(std::filesystem::exists(logs_ / "x.zip"));
    EXPECT_FALSE(std::filesystem::exists(dir_.Path() / "x.zip"));
}

TEST_F(ArchiveTest, LeavesNothingBehindWhenItFails) {
    std::filesystem::create_directory(logs_ / "taken.zip");
    EXPECT_EQ(Zip("app", "", "taken.zip"), EISDIR);
    for (const std::string &name : Names(logs_)) {
        EXPECT_EQ(name.find(".partial"), std::string::npos) << name;
    }
}

TEST_F(ArchiveTest, TakesNothingButFilesAndDirectories) {
    EXPECT_EQ(Zip("app/fifo", "", "x.zip"), EINVAL);
    EXPECT_TRUE(Logged("szLogPath is \"app/fifo\", expected a directory, or a file that is not the archive"));
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
}

TEST_F(ArchiveTest, TellsThatDirectoriesAreTooDeep) {
    std::filesystem::path path = logs_ / "deep";
    for (int depth = 1; depth < 32; ++depth) {
        path /= "d";
    }
    std::filesystem::create_directories(path);
    std::ofstream(path / "file") << "deep";
    ASSERT_EQ(Zip("deep", "", "deep.zip"), 0);
    EXPECT_EQ(ReadArchive(logs_ / "deep.zip").size(), 1);
    std::filesystem::create_directories(path / "d");
    EXPECT_EQ(Zip("deep", "", "deeper.zip"), ENAMETOOLONG);
    EXPECT_TRUE(Logged("more than 32 directories deep"));
    EXPECT_FALSE(std::filesystem::exists(logs_ / "deeper.zip"));
}

// A directory on the way turns into a link that leads out, and back, and files come and go.
TEST_F(ArchiveTest, StaysWithinTheLogDirectoryWhenItChanges) {
    const std::filesystem::path outside = dir_.Path() / "outside", old = logs_ / "app" / "old";
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
    constexpr size_t kSize = 256 << 20;
    const std::filesystem::path file = logs_ / "changing.log";
    for (const size_t becomes : {size_t{0}, kSize + 5}) {
        SCOPED_TRACE(becomes);
        std::ofstream(file) << "start";
        std::filesystem::resize_file(file, kSize);
        std::thread change([&] {
            EXPECT_TRUE(kit::Eventually([&] { return FilesOpen(file) != 0; }));
            std::filesystem::resize_file(file, becomes);
        });
        EXPECT_EQ(Zip("changing.log", "", "changing.zip"), 0);
        change.join();
        const auto files = ReadArchive(logs_ / "changing.zip");
        ASSERT_EQ(files.size(), 1);
        EXPECT_EQ(files.begin()->second.size(), kSize);
        EXPECT_EQ(files.begin()->second.substr(0, 5), "start");
    }
}

using DeniedArchiveTest = kit::Denied<ArchiveTest>;

TEST_F(DeniedArchiveTest, LeavesOutWhatMayNotBeRead) {
    std::filesystem::create_directories(logs_ / "mixed" / "closed");
    std::ofstream(logs_ / "mixed" / "open.log") << "open\n";
    for (const std::filesystem::path &file :
         {logs_ / "mixed" / "closed" / "within.log", logs_ / "mixed" / "hidden.log"}) {
        std::ofstream(file) << "hidden\n";
        std::filesystem::permissions(file, std::filesystem::perms::none);
    }
    std::filesystem::permissions(logs_ / "mixed" / "closed", std::filesystem::perms::none);
    ASSERT_EQ(Zip("mixed", "", "mixed.zip"), 0);
    const std::map<std::string, std::string> expected{{"mixed/open.log", "open\n"}};
    EXPECT_EQ(ReadArchive(logs_ / "mixed.zip"), expected);
    EXPECT_TRUE(Logged("left out of the archive: hidden.log: Permission denied"));
    EXPECT_TRUE(Logged("left out of the archive: closed: Permission denied"));
    EXPECT_EQ(Zip("mixed/hidden.log", "", "x.zip"), EACCES);
    EXPECT_EQ(Zip("mixed/closed/within.log", "", "x.zip"), EACCES);
    EXPECT_EQ(Zip("mixed/open.log", "mixed/closed", "x.zip"), EACCES);
    std::filesystem::permissions(logs_ / "mixed" / "closed", std::filesystem::perms::owner_all);
}

class CopyTest : public ArchiveTest {
protected:
    void SetUp() override {
        std::filesystem::create_directories(usb_ / "reports");
        ArchiveTest::SetUp();
        ASSERT_EQ(Zip("app", "", "app.zip"), 0);
    }
    std::vector<std::string> Options() const override {
        return {"--copy-target", "usb=" + usb_.string(), "--copy-target", "other=" + (dir_.Path() / "other").string()};
    }

    struct How {
        std::string target = "usb";
        std::string replace = "";
        std::string move = "";
    };
    uint32_t Copy(const std::string &from, const std::string &to, const How &how) {
        Tarn_sys_diag_CopyloginfoInput request{};
        kit::Set(request.szCopyTarget, how.target);
        kit::Set(request.szCopyParam1, how.replace);
        kit::Set(request.szCopyParam2, how.move);
        kit::Set(request.szSrcPath, from);
        kit::Set(request.szDstPath, to);
        const auto answer = Call<Tarn_sys_diag_Result>("CopyZipLogFile", request);
        EXPECT_EQ(answer.Status(), 0) << answer.Text();
        return answer->uiResult;
    }
    uint32_t Copy(const std::string &from, const std::string &to) { return Copy(from, to, {}); }

    const std::filesystem::path usb_ = dir_.Path() / "usb";
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

TEST_F(CopyTest, ExplainsWhatItDoesNotTake) {
    EXPECT_EQ(Copy("app.zip", "", {.target = "tape"}), EINVAL);
    EXPECT_TRUE(Logged("szCopyTarget is \"tape\", expected one of other, usb"));
    EXPECT_EQ(Copy("app.zip", "", {.target = "other"}), ENOENT) << "its directory is not there";
    EXPECT_EQ(Copy("app.zip", "", {.replace = "maybe"}), EINVAL);
    EXPECT_EQ(Copy("app.zip", "", {.move = "maybe"}), EINVAL);
    EXPECT_EQ(Copy("", ""), EINVAL);
    EXPECT_EQ(Copy("none.zip", ""), ENOENT);
    EXPECT_EQ(Copy("app.zip", "none/"), ENOENT);
    EXPECT_EQ(Copy("app.zip", "reports"), EEXIST);
    for (const char *path : {"system.log", "app", "app/fifo"}) {
        EXPECT_EQ(Copy(path, ""), EINVAL) << path;
    }
    EXPECT_TRUE(Logged("szSrcPath is \"system.log\", expected a ZIP archive"));
    EXPECT_EQ(Names(usb_), std::vector<std::string>{"reports"});
}

TEST_F(CopyTest, StaysWithinItsDirectories) {
    std::filesystem::copy_file(logs_ / "app.zip", dir_.Path() / "secret.zip");
    std::filesystem::create_symlink(dir_.Path() / "secret.zip", logs_ / "link.zip");
    std::filesystem::create_directory_symlink(dir_.Path(), usb_ / "out");
    for (const char *path : {"../secret.zip", "link.zip", "out/secret.zip", "/etc/passwd", "app/../app.zip"}) {
        EXPECT_EQ(Copy(path, ""), EACCES) << path;
    }
    EXPECT_EQ(Copy(dir_.Path() / "secret.zip", ""), EACCES);
    for (const char *path : {"../x.zip", "out/x.zip", "/tmp/x.zip", "reports/../../x.zip", "..", "out/"}) {
        EXPECT_EQ(Copy("app.zip", path), EACCES) << path;
    }
    std::filesystem::create_symlink(dir_.Path() / "secret", usb_ / "app.zip");
    EXPECT_EQ(Copy("app.zip", "", {.replace = "replace"}), 0);
    EXPECT_EQ(kit::TextOfFile(dir_.Path() / "secret"), "secret\n") << "the link was replaced, not followed";
}

// A directory of the target turns into a link, and back, while archives are copied into it.
TEST_F(CopyTest, StaysWithinItsDirectoriesWhenTheyChange) {
    const std::filesystem::path outside = dir_.Path() / "outside";
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
    EXPECT_EQ(daemon_->Stop(), 0);
    StartDaemon(); // which sees the disk
    std::ofstream(usb_ / "app.zip") << "older";
    disk.Fill();
    EXPECT_EQ(Copy("app.zip", "", {.replace = "replace", .move = "move"}), ENOSPC);
    EXPECT_EQ(kit::TextOfFile(usb_ / "app.zip"), "older");
    EXPECT_EQ(Names(usb_).size(), 2);
    EXPECT_TRUE(std::filesystem::exists(logs_ / "app.zip"));
    disk.Empty();
    EXPECT_EQ(Copy("app.zip", "", {.replace = "replace"}), 0) << "what failed holds no space";
}

TEST_F(CopyTest, RemovesAtStartWhatAKilledDaemonLeft) {
    EXPECT_EQ(daemon_->Stop(), 0);
    for (const std::filesystem::path &directory : {logs_, logs_ / "app" / "old", usb_ / "reports"}) {
        std::ofstream(directory / ".a.zip.4711.0.partial") << "PK";
    }
    const std::filesystem::path living = logs_ / "app" / ".b.zip.4711.1.partial";
    const int fd = open(living.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_EQ(flock(fd, LOCK_EX), 0);
    StartDaemon();
    EXPECT_FALSE(std::filesystem::exists(logs_ / ".a.zip.4711.0.partial"));
    EXPECT_FALSE(std::filesystem::exists(logs_ / "app" / "old" / ".a.zip.4711.0.partial"));
    EXPECT_FALSE(std::filesystem::exists(usb_ / "reports" / ".a.zip.4711.0.partial"));
    EXPECT_TRUE(std::filesystem::exists(living)) << "its owner is at work";
    close(fd);
}

TEST(CopyTarget, IsANameAndADirectory) {
    const kit::TempDir dir;
    for (const char *target : {"usb", "=dir", "usb="}) {
        kit::Process daemon(dir.Path(), {TARND, "--run-dir", dir.Path(), "--copy-target", target});
        EXPECT_NE(daemon.Wait(), 0);
        EXPECT_NE(daemon.Err().find("expected NAME=DIR"), std::string::npos) << daemon.Err();
    }
}

// An archive that would take minutes.
class LongArchiveTest : public ArchiveTest {
protected:
    void SetUp() override {
        ArchiveTest::SetUp();
        std::ofstream(logs_ / "huge.log");
        std::filesystem::resize_file(logs_ / "huge.log", 64ULL << 30);
    }
    std::vector<uint8_t> Request() {
        Tarn_sys_diag_ZiploginfoInput request{};
        kit::Set(request.szLogPath, "huge.log");
        kit::Set(request.szZipName, "huge.zip");
        return kit::Encode<Unit>(request);
    }
    // Starts one, and returns when the daemon is at it.
    void Start(host::Client &client, std::chrono::milliseconds deadline) {
        client.CallAsync({.service = "TarnSysdiagTarnd",
                          .method = "ZipLogFile",
                          .requestHash = velto::kTypeHash<Tarn_sys_diag_ZiploginfoInput>,
                          .request = Request(),
                          .deadline = deadline},
                         [this](host::CallOutcome &&outcome) {
                             errCode_ = outcome.errCode;
                             ended_ = true;
                         });
        ASSERT_TRUE(kit::Eventually([this] { return IsAtIt(); }));
    }
    bool IsAtIt() { return FilesOpen(logs_ / "huge.log") != 0; }
    void ExpectNothingLeft() {
        const std::vector<std::string> names = Names(logs_);
        EXPECT_EQ(std::set<std::string>(names.begin(), names.end()),
                  (std::set<std::string>{"app", "huge.log", "out", "system.log"}));
    }

    std::atomic<bool> ended_ = false;
    std::atomic<uint32_t> errCode_ = 0;
};

TEST_F(LongArchiveTest, TellsItsProgressAndEndsAtTheDeadline) {
    host::Client client{{.runDir = dir_.Path()}};
    Start(client, 3s);
    EXPECT_TRUE(Logged("MiB so far"));
    EXPECT_TRUE(kit::Eventually([this] { return ended_.load(); }));
    EXPECT_EQ(errCode_, ETIMEDOUT);
    EXPECT_TRUE(kit::Eventually([this] { return !IsAtIt(); }));
    ExpectNothingLeft();
}

TEST_F(LongArchiveTest, EndsWithItsCaller) {
    {
        host::Client client{{.runDir = dir_.Path()}};
        Start(client, 600s);
    }
    EXPECT_TRUE(kit::Eventually([this] { return !IsAtIt(); }));
    ExpectNothingLeft();
}

TEST_F(LongArchiveTest, EndsWithTheDaemon) {
    host::Client client{{.runDir = dir_.Path()}};
    Start(client, 600s);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(daemon_->Stop(), 0) << daemon_->Err();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 4s) << "it does not wait until it is cut off";
    EXPECT_TRUE(kit::Eventually([this] { return ended_.load(); }));
    ExpectNothingLeft();
    StartDaemon();
}

TEST_F(LongArchiveTest, LeavesNothingThatANewDaemonDoesNotRemove) {
    host::Client client{{.runDir = dir_.Path()}};
    Start(client, 600s);
    daemon_->Signal(SIGKILL);
    daemon_->Wait();
    StartDaemon();
    ExpectNothingLeft();
}

TEST_F(ArchiveTest, LeavesNothingBehindOnAFullDisk) {
    const kit::SmallDisk disk(logs_ / "small", "64k");
    if (!disk.Mounted()) {
        GTEST_SKIP() << "may not mount";
    }
    EXPECT_EQ(daemon_->Stop(), 0);
    StartDaemon(); // which sees the disk
    EXPECT_EQ(Zip("app", "small", "app.zip", 1), ENOSPC);
    EXPECT_TRUE(Logged("app.zip: No space left on device"));
    EXPECT_EQ(Names(logs_ / "small"), std::vector<std::string>{});
    EXPECT_EQ(Zip("system.log", "small", "app.zip", 1), 0) << "what failed holds no space";
}

} // namespace
