// Documents and the files below them: what is there after a failure, and what becomes of a damaged file.
#include "host/answer/unit.h"

TARN_UNIT()

#include "host/store/store.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <climits>
#include <csignal>
#include <map>
#include <optional>
#include <set>

#include "tests/host/kit.h"
#include "tests/host/small_disk.h"

namespace {

using host::Document;

// Besides the lock.
std::set<std::string> NamesOf(const std::filesystem::path &directory) {
    std::set<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(directory)) {
        names.insert(entry.path().filename());
    }
    names.erase(host::LockFile::kName);
    return names;
}

// What a process that starts now finds.
std::optional<Document> Stored(const std::filesystem::path &directory, const std::string &name, uint32_t version = 1) {
    host::Store store(directory);
    std::optional<Document> found;
    store.Load(name, version, [&](const Document &content) { found = content; });
    return found;
}

int ErrorOf(const std::function<void()> &action) {
    try {
        action();
    } catch (const std::system_error &error) {
        return error.code().value();
    }
    return 0;
}

class StoreTest : public testing::Test {
protected:
    void Write(const std::string &file, const std::string &text) const {
        std::filesystem::create_directories(state_);
        std::ofstream(state_ / file, std::ios::binary) << text;
    }
    // The file of a document, as a store writes it.
    std::string FileOf(const Document &content, uint32_t version = 1) const {
        const kit::TempDir elsewhere;
        host::Store store(elsewhere.Path());
        store.Save("doc", version, content);
        return kit::TextOfFile(elsewhere.Path() / "doc.json");
    }

    const kit::TempDir dir_;
    const std::filesystem::path state_ = dir_.Path() / "a" / "state";
    const Document content_ = Document::Object{
        {"name", "Europe/Berlin"}, {"offset", 60}, {"share", 0.1}, {"list", Document::Array{1, "two", nullptr}}};
};

TEST_F(StoreTest, FindsADocumentAgain) {
    {
        host::Store store(state_);
        EXPECT_FALSE(store.Load("doc", 1, [](const Document &) { FAIL(); }));
        store.Save("doc", 1, Document::Object{{"older", true}});
        store.Save("doc", 1, content_);
        store.Save("other", 1, {});
    }
    EXPECT_EQ(Stored(state_, "doc"), content_);
    EXPECT_EQ(Stored(state_, "other"), Document());
    EXPECT_EQ(NamesOf(state_), (std::set<std::string>{"doc.json", "other.json"})) << "nothing is left aside";
    using std::filesystem::perms;
    EXPECT_EQ(std::filesystem::status(state_ / "doc.json").permissions(), perms::owner_read | perms::owner_write);
}

TEST_F(StoreTest, KeepsDocumentsInMemoryWithoutADirectory) {
    host::Store store;
    store.Save("doc", 1, content_);
    Document found;
    EXPECT_TRUE(store.Load("doc", 1, [&](const Document &content) { found = content; }));
    EXPECT_EQ(found, content_);
    EXPECT_FALSE(store.Load("doc", 1, [](const Document &content) { content.Get<uint32_t>("name"); }));
    EXPECT_FALSE(store.Load("doc", 1, [](const Document &) { FAIL() << "what its owner can't take is gone"; }));
}

mode_t ModeOf(const std::filesystem::path &file) {
    struct stat status {};
    EXPECT_EQ(lstat(file.c_str(), &status), 0) << file;
    return status.st_mode & 07777;
}

TEST_F(StoreTest, IsNobodyElsesToReadOrLock) {
    const mode_t before = umask(0);
    { const host::Store made(state_); }
    umask(before);
    EXPECT_EQ(ModeOf(state_), 0700);
    EXPECT_EQ(ModeOf(state_.parent_path()), 0755);
    ASSERT_EQ(chmod(state_.c_str(), 0755), 0);
    const host::Descriptor directory = host::OpenDirectory(state_); // as anybody could so far
    ASSERT_EQ(flock(directory.Fd(), LOCK_EX), 0);
    EXPECT_EQ(ErrorOf([&] { host::Store{state_}; }), 0);
    EXPECT_EQ(ModeOf(state_), 0700);
    EXPECT_EQ(ModeOf(state_ / host::LockFile::kName), 0600);
}

TEST_F(StoreTest, IsOneProcesss) {
    host::Store store(state_);
    EXPECT_EQ(ErrorOf([&] { host::Store{state_}; }), EBUSY);
}

TEST_F(StoreTest, RefusesNamesThatAreNoFiles) {
    host::Store store(state_);
    for (const char *name : {"", "..", "a/b", "A", "a.json"}) {
        EXPECT_THROW(store.Save(name, 1, {}), std::invalid_argument) << name;
        EXPECT_THROW(store.Load(name, 1, [](const Document &) {}), std::invalid_argument) << name;
    }
}

TEST_F(StoreTest, TakesLettersDigitsAndHyphensInNames) {
    {
        host::Store store(state_);
        store.Save("az-09", 1, content_);
    }
    EXPECT_EQ(Stored(state_, "az-09"), content_);
}

TEST_F(StoreTest, GivesAnOlderVersionToWhoMayKnowIt) {
    Write("doc.json", FileOf(content_, 2));
    host::Store store(state_);
    uint32_t version = 0;
    EXPECT_TRUE(store.Load("doc", 3, [&](const Document &, uint32_t is) { version = is; }));
    EXPECT_EQ(version, 2);
}

TEST_F(StoreTest, SetsANewerVersionAside) {
    const std::string text = FileOf(content_, 2);
    Write("doc.json", text);
    EXPECT_EQ(Stored(state_, "doc", 1), std::nullopt);
    EXPECT_EQ(NamesOf(state_), (std::set<std::string>{"doc.json.newer"}));
    EXPECT_EQ(kit::TextOfFile(state_ / "doc.json.newer"), text);
}

TEST_F(StoreTest, SetsDamagedFilesAside) {
    const std::string good = FileOf(content_);
    Write("doc.json", good);
    ASSERT_EQ(Stored(state_, "doc"), content_);

    std::string changed = good;
    changed[changed.find("Berlin")] = 'M';
    std::string longer = good + "{}";
    std::map<std::string, std::string> damaged{{"empty", ""},
                                               {"garbage", std::string("\x00\xFF\x80{{{", 6)},
                                               {"changed", changed},
                                               {"longer", longer},
                                               {"another document's", good},
                                               {"no envelope", content_.Dump()},
                                               {"deep", std::string(1'000'000, '[')},
                                               {"whole and deep", R"({"document": "doc", "version": 1, "content": )" +
                                                                      std::string(1'000'000, '[') +
                                                                      std::string(1'000'000, ']') + "}"}};
    damaged["another document's"].replace(damaged["another document's"].find("\"doc\""), 5, "\"cod\"");
    for (size_t length = 1; length < good.size() - 1; length += 7) { // without its line feed it is whole
        damaged["cut to " + std::to_string(length)] = good.substr(0, length);
    }
    for (const auto &[what, text] : damaged) {
        SCOPED_TRACE(what);
        Write("doc.json", text);
        EXPECT_EQ(Stored(state_, "doc"), std::nullopt);
        EXPECT_EQ(NamesOf(state_), (std::set<std::string>{"doc.json.damaged"}));
        EXPECT_EQ(kit::TextOfFile(state_ / "doc.json.damaged"), text);
    }
}

TEST_F(StoreTest, SetsAsideWhatIsTooLargeToRead) {
    Write("doc.json", "{");
    std::filesystem::resize_file(state_ / "doc.json", 1ULL << 40); // takes no space, and hours to read
    EXPECT_EQ(Stored(state_, "doc"), std::nullopt);
    EXPECT_EQ(NamesOf(state_), (std::set<std::string>{"doc.json.damaged"}));
}

TEST_F(StoreTest, KeepsNothingThatItWouldNotRead) {
    host::Store store(state_);
    store.Save("doc", 1, content_);
    try {
        store.Save("doc", 1, Document(std::string(17U << 20, 'x')));
        ADD_FAILURE() << "it was kept";
    } catch (const std::system_error &error) {
        EXPECT_EQ(error.code().value(), EFBIG);
        EXPECT_NE(std::string(error.what()).find("expected at most 16777216"), std::string::npos) << error.what();
    }
    store.Load("doc", 1, [&](const Document &content) { EXPECT_EQ(content, content_); });
}

// The digest is that of the content in one line.
TEST_F(StoreTest, WritesTheFormatOfItsFiles) {
    EXPECT_EQ(FileOf(content_, 3), R"({
 "content": {
  "list": [
   1,
   "two",
   null
  ],
  "name": "Europe/Berlin",
  "offset": 60,
  "share": 0.1
 },
 "document": "doc",
 "sha256": "91f0a80b6db7190bd640dc348667b5af35b13a0347b760d93eff6d4c9d56b5d5",
 "version": 3
}
)");
}

TEST_F(StoreTest, SetsAsideWhatItsOwnerCannotTake) {
    Write("doc.json", FileOf(content_));
    host::Store store(state_);
    EXPECT_FALSE(store.Load("doc", 1, [](const Document &content) { content.Get<uint32_t>("name"); }));
    EXPECT_EQ(NamesOf(state_), (std::set<std::string>{"doc.json.damaged"}));
}

TEST_F(StoreTest, SetsAsideWhatIsNoFile) {
    std::filesystem::create_directories(state_);
    ASSERT_EQ(mkfifo((state_ / "doc.json").c_str(), 0600), 0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(Stored(state_, "doc"), std::nullopt);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("not a regular file"), std::string::npos) << log;
    std::filesystem::create_symlink("/etc/passwd", state_ / "doc.json");
    EXPECT_EQ(Stored(state_, "doc"), std::nullopt);
    EXPECT_TRUE(std::filesystem::is_symlink(state_ / "doc.json.damaged"));
}

TEST_F(StoreTest, RefusesWhatIsNoText) {
    host::Store store(state_);
    store.Save("doc", 1, content_);
    EXPECT_EQ(ErrorOf([&] { store.Save("doc", 1, Document::Object{{"name", "\xFF"}}); }), EILSEQ);
    Document found;
    store.Load("doc", 1, [&](const Document &content) { found = content; });
    EXPECT_EQ(found, content_);
}

TEST_F(StoreTest, LeavesTheOlderDocumentWhenAWriteFails) {
    {
        host::Store store(state_);
        store.Save("doc", 1, content_);
        struct rlimit before {};
        getrlimit(RLIMIT_FSIZE, &before);
        const struct rlimit small { 1000, before.rlim_max };
        signal(SIGXFSZ, SIG_IGN);
        setrlimit(RLIMIT_FSIZE, &small);
        EXPECT_EQ(ErrorOf([&] { store.Save("doc", 1, Document::Object{{"long", std::string(2000, 'x')}}); }), EFBIG);
        setrlimit(RLIMIT_FSIZE, &before);
    }
    EXPECT_EQ(Stored(state_, "doc"), content_);
    EXPECT_EQ(NamesOf(state_), (std::set<std::string>{"doc.json"}));
}

TEST_F(StoreTest, LeavesTheOlderDocumentOnAFullDisk) {
    const kit::SmallDisk disk(state_, "64k");
    if (!disk.Mounted()) {
        GTEST_SKIP() << "may not mount";
    }
    host::Store store(state_);
    store.Save("doc", 1, content_);
    disk.Fill();
    EXPECT_EQ(ErrorOf([&] { store.Save("doc", 1, Document::Object{{"long", std::string(9000, 'x')}}); }), ENOSPC);
    EXPECT_EQ(NamesOf(state_), (std::set<std::string>{"doc.json", "filler"}));
    Document found;
    EXPECT_TRUE(store.Load("doc", 1, [&](const Document &content) { found = content; }));
    EXPECT_EQ(found, content_);
    disk.Empty();
    store.Save("doc", 1, Document::Object{{"long", std::string(9000, 'x')}});
}

TEST_F(StoreTest, ReadsFromAReadOnlyDirectory) {
    const kit::SmallDisk disk(state_, "64k");
    if (!disk.Mounted()) {
        GTEST_SKIP() << "may not mount";
    }
    Write("doc.json", FileOf(content_));
    Write("broken.json", "{");
    ASSERT_TRUE(disk.ReadOnly(true));
    host::Store store(state_);
    EXPECT_TRUE(store.Load("doc", 1, [&](const Document &content) { EXPECT_EQ(content, content_); }));
    EXPECT_EQ(ErrorOf([&] { store.Save("doc", 1, {}); }), EROFS);
    EXPECT_FALSE(store.Load("broken", 1, [](const Document &) { FAIL(); }));
    EXPECT_EQ(NamesOf(state_), (std::set<std::string>{"broken.json", "doc.json"}));
    EXPECT_EQ(ErrorOf([&] { host::Store{state_ / "below"}; }), EROFS) << "can't be created";
}

TEST_F(StoreTest, RemovesWhatAKilledProcessLeftAside) {
    Write(".doc.json.1.0.tarn-partial", "{");
    for (const char *name : {"partial", "not.tarn-partial", ".hidden"}) {
        Write(name, "not ours");
    }
    host::Store store(state_);
    EXPECT_EQ(NamesOf(state_), (std::set<std::string>{".hidden", "not.tarn-partial", "partial"}));
}

// A process that saves without pause is killed after some of its saves, in the midst of what it does next: what it
// leaves is whole.
TEST_F(StoreTest, SurvivesBeingKilledWhileItSaves) {
    uint64_t newest = 0;
    for (uint64_t round = 0; round != 500; ++round) {
        int saved[2];
        ASSERT_EQ(pipe2(saved, O_CLOEXEC), 0);
        const host::Descriptor from(saved[0]);
        host::Descriptor to(saved[1]);
        const pid_t pid = fork();
        if (pid == 0) {
            host::Store store(state_);
            for (uint64_t i = newest + 1;; ++i) {
                store.Save("doc", 1, Document::Object{{"number", i}, {"long", std::string(3000, 'x')}});
                host::WriteAll(to, "x", "the pipe");
            }
        }
        to = {}; // else the reads below would wait for a process that has ended
        const uint64_t saves = round % 2;
        char byte;
        for (uint64_t i = 0; i != saves; ++i) {
            EXPECT_EQ(read(from.Fd(), &byte, 1), 1) << "the process ended by itself";
        }
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        const auto found = Stored(state_, "doc");
        const uint64_t number = found ? found->Get<uint64_t>("number") : 0;
        EXPECT_GE(number, newest + saves);
        newest = number;
        for (const std::string &name : NamesOf(state_)) {
            EXPECT_EQ(name, "doc.json");
        }
    }
}

class FileAsideTest : public testing::TestWithParam<host::FileAside::Until> {
protected:
    // The file's text, and that nothing else is in the directory.
    std::string OnlyFile() const {
        EXPECT_EQ(NamesOf(dir_.Path()), std::set<std::string>{"file"});
        return kit::TextOfFile(dir_.Path() / "file");
    }

    const kit::TempDir dir_;
    const host::Descriptor directory_ = host::OpenDirectory(dir_.Path());
};

INSTANTIATE_TEST_SUITE_P(EachWay, FileAsideTest,
                         testing::Values(host::FileAside::Until::kUnnamed, host::FileAside::Until::kHidden));

TEST_P(FileAsideTest, IsInvisibleUntilItIsComplete) {
    {
        host::FileAside aside(directory_, "file", 0640, GetParam());
        host::WriteAll(aside.File(), "half", "file");
        EXPECT_FALSE(std::filesystem::exists(dir_.Path() / "file"));
        for (const std::string &name : NamesOf(dir_.Path())) {
            EXPECT_TRUE(host::IsAside(name)) << name;
        }
        EXPECT_EQ(host::RemoveAbandoned(directory_), 0) << "a living process's";
    }
    EXPECT_EQ(NamesOf(dir_.Path()), std::set<std::string>{});
    host::FileAside aside(directory_, "file", 0640, GetParam());
    host::WriteAll(aside.File(), "whole", "file");
    aside.Commit();
    EXPECT_EQ(OnlyFile(), "whole");
}

TEST_P(FileAsideTest, ReplacesAnOlderFileOrKeepsIt) {
    std::ofstream(dir_.Path() / "file") << "older";
    {
        host::FileAside aside(directory_, "file", 0640, GetParam());
        host::WriteAll(aside.File(), "newer", "file");
        EXPECT_EQ(ErrorOf([&] { aside.Commit(host::FileAside::Older::kKeep); }), EEXIST);
    }
    EXPECT_EQ(OnlyFile(), "older");
    host::FileAside aside(directory_, "file", 0640, GetParam());
    host::WriteAll(aside.File(), "newer", "file");
    aside.Commit();
    EXPECT_EQ(OnlyFile(), "newer");
}

TEST_P(FileAsideTest, TakesAFreeNameWithoutReplacing) {
    host::FileAside aside(directory_, "file", 0640, GetParam());
    host::WriteAll(aside.File(), "new", "file");
    aside.Commit(host::FileAside::Older::kKeep);
    EXPECT_EQ(OnlyFile(), "new");
}

TEST_P(FileAsideTest, TakesTheLongestNameOfAFile) {
    const std::string longest(NAME_MAX, 'x');
    std::ofstream(dir_.Path() / longest) << "older";
    host::FileAside(directory_, longest, 0640, GetParam()).Commit();
    EXPECT_EQ(NamesOf(dir_.Path()), std::set<std::string>{longest});
    EXPECT_EQ(kit::TextOfFile(dir_.Path() / longest), "");
}

TEST_P(FileAsideTest, IsGoneWhereItCantReplace) {
    std::filesystem::create_directory(dir_.Path() / "file");
    {
        host::FileAside aside(directory_, "file", 0640, GetParam());
        EXPECT_EQ(ErrorOf([&] { aside.Commit(); }), EISDIR);
    }
    EXPECT_EQ(NamesOf(dir_.Path()), std::set<std::string>{"file"});
}

TEST_P(FileAsideTest, KnowsItselfAndTheFileThatItReplaces) {
    struct stat older {
    }, other{};
    std::ofstream(dir_.Path() / "file") << "older";
    std::ofstream(dir_.Path() / "other") << "other";
    ASSERT_EQ(stat((dir_.Path() / "file").c_str(), &older), 0);
    ASSERT_EQ(stat((dir_.Path() / "other").c_str(), &other), 0);
    const host::FileAside aside(directory_, "file", 0640, GetParam());
    EXPECT_TRUE(aside.Is(aside.File().Status()));
    EXPECT_TRUE(aside.Is(older));
    EXPECT_FALSE(aside.Is(other));
    ++older.st_dev;
    EXPECT_FALSE(aside.Is(older)) << "one of the same number elsewhere";
}

TEST(Directory, NamesWhatIsInIt) {
    const kit::TempDir dir;
    std::vector<std::string> names;
    for (char letter = 'a'; letter <= 'z'; ++letter) {
        names.emplace_back(1, letter);
    }
    for (const std::string &name : names) {
        std::ofstream(dir.Path() / name) << "";
    }
    EXPECT_EQ(host::NamesIn(host::OpenDirectory(dir.Path())), names);
}

TEST(Directory, TellsWhatWasAbandonedInIt) {
    const kit::TempDir dir;
    for (const char *name : {".a.1.0.tarn-partial", ".b.1.1.tarn-partial", "c"}) {
        std::ofstream(dir.Path() / name) << "";
    }
    EXPECT_EQ(host::RemoveAbandoned(host::OpenDirectory(dir.Path())), 2);
    EXPECT_EQ(NamesOf(dir.Path()), std::set<std::string>{"c"});
}

TEST(Directory, OpensNeitherALinkNorWhatIsNoFile) {
    const kit::TempDir dir;
    const host::Descriptor directory = host::OpenDirectory(dir.Path());
    std::filesystem::create_symlink("/etc/hostname", dir.Path() / "link");
    EXPECT_EQ(ErrorOf([&] { host::OpenIn(directory, "link"); }), EACCES);
    ASSERT_EQ(mknod((dir.Path() / "socket").c_str(), S_IFSOCK | 0600, 0), 0);
    const host::Descriptor socket = host::OpenIn(directory, "socket");
    EXPECT_TRUE(S_ISSOCK(socket.Status().st_mode)) << "can be looked at";
    char byte;
    EXPECT_EQ(read(socket.Fd(), &byte, 1), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(Beneath, LeadsOutOfADirectoryByNoPath) {
    const auto beneath = [](std::string_view path) { return host::NamesBeneath("/var/log", path); };
    using Names = std::vector<std::string>;
    EXPECT_EQ(beneath(""), Names{});
    EXPECT_EQ(beneath("/var/log/"), Names{});
    EXPECT_EQ(beneath("a//./b"), (Names{"a", "b"}));
    EXPECT_EQ(beneath("/var/log/a"), Names{"a"});
    EXPECT_EQ(host::NamesBeneath("/var/log/", "/var/log/a"), Names{"a"});
    EXPECT_EQ(host::NamesBeneath("/", "/a/b"), (Names{"a", "b"}));
    for (const char *path : {"..", "a/../b", "/var", "/var/logs", "/var/log/../x", "/"}) {
        EXPECT_EQ(ErrorOf([&] { beneath(path); }), EACCES) << path;
    }
}

} // namespace
