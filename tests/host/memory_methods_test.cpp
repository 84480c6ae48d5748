// What the daemon reads of memory, in a /proc that the test has written.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cstring>

#include "host/daemon/memory/largest.h"
#include "host/daemon/memory/memory_files.h"
#include "host/daemon/memory/process_memory.h"
#include "tarn_sysdiag/server/tarnd.h"
#include "tests/host/method_kit.h"
#include "tests/host/nobody.h"
#include "tests/host/simulated_daemon.h"

namespace {

using namespace std::chrono_literals;
using kit::kFakePid;

// A directory of the test's on a file system in memory.
struct MemoryDirectory {
    MemoryDirectory() { std::filesystem::create_directory(path); }
    ~MemoryDirectory() { std::filesystem::remove_all(path); }
    const std::filesystem::path path = fmt::format("/dev/shm/tarn-test-{}", getpid());
};

struct Directories {
    const kit::TempDir system;
    const MemoryDirectory memory;
};

class MemoryMethodsTest : public testing::Test, protected Directories, protected kit::SimulatedDaemon {
protected:
    MemoryMethodsTest() : SimulatedDaemon(Placed(*this)) {
        daemon->clock.SetZone({"UTC", 0}, tarnd::Source::kClient);
        proc.Write("uptime", "170.25 300.00\n");
    }

    static tarnd::Options Placed(const Directories &directories) {
        tarnd::Options options;
        options.systemDirectory = directories.system.Path();
        options.sharedMemoryDirectory = directories.memory.path;
        return options;
    }

    // A process with memory, whose sizes are its number and those that follow.
    void AddProcess(uint32_t pid, const std::string &name, uint32_t uid = 4'000'001) {
        host::procfs::Task task = kit::FakeProc::MakeTask(pid, name);
        task.threadNum = 3;
        task.minorFaults = 71;
        task.majorFaults = 72;
        task.startTicks = 100 * host::procfs::TicksPerSecond();
        proc.SetThread(pid, task);
        std::string status = fmt::format("Name:\t{0}\nTgid:\t{1}\nPid:\t{1}\nPPid:\t77\nUid:\t4000000\t{2}\t1\t1\n"
                                         "Gid:\t4000000\t4000002\t1\t1\n",
                                         name, pid, uid);
        for (size_t i = 0; i < std::size(kKeys); ++i) {
            status += fmt::format("{}:\t{:>8} kB\n", kKeys[i], pid - kFakePid + i);
        }
        proc.Write(fmt::format("{}/status", pid), status);
        proc.Write(fmt::format("{}/wchan", pid), "do_wait");
        proc.Write(fmt::format("{}/oom_score", pid), "666\n");
        proc.Write(fmt::format("{}/smaps_rollup", pid),
                   "5000-6000 ---p 00000000 00:00 0 [rollup]\nRss: 1 kB\nPss: 31 kB\nShared_Clean: 32 kB\n"
                   "Shared_Dirty: 33 kB\nPrivate_Clean: 34 kB\nPrivate_Dirty: 35 kB\nSwapPss: 36 kB\n");
        std::filesystem::create_symlink("/usr/bin/the-program", proc.Proc().Path(pid, "exe"));
    }

    template <class Record>
    static std::vector<uint32_t> SizesOf(const Record &record) {
        return {record.uiVmPeak,  record.uiVmSize,  record.uiVmLck,    record.uiVmHwm,  record.uiVmRss,
                record.uiRssAnon, record.uiRssFile, record.uiRssShmem, record.uiVmData, record.uiVmStk,
                record.uiVmExe,   record.uiVmLib,   record.uiVmPte,    record.uiVmSwap, record.uiHugetlb};
    }
    template <class Record>
    static void ExpectCommon(const Record &record, uint32_t pid, const std::string &name) {
        EXPECT_EQ(record.uiPid, pid);
        EXPECT_EQ(record.uiPpid, 77);
        EXPECT_EQ(std::string(record.szProcName), name);
        EXPECT_EQ(std::string(record.szExeName), "the-program");
        EXPECT_EQ(std::string(record.szUserName), "4000001");
        EXPECT_EQ(record.uiThreadNum, 3);
        const std::vector<uint32_t> sizes = SizesOf(record);
        for (uint32_t i = 0; i < sizes.size(); ++i) {
            EXPECT_EQ(sizes[i], pid - kFakePid + i) << kKeys[i];
        }
    }
    static constexpr const char *kKeys[] = {"VmPeak",  "VmSize",  "VmLck",    "VmHWM",  "VmRSS",
                                            "RssAnon", "RssFile", "RssShmem", "VmData", "VmStk",
                                            "VmExe",   "VmLib",   "VmPTE",    "VmSwap", "HugetlbPages"};

    auto Statistics(std::string_view which, std::string_view user = "") {
        Tarn_sys_diag_PositionStr request{};
        which.copy(request.acPosition1, sizeof request.acPosition1);
        user.copy(request.acPosition2, sizeof request.acPosition2);
        return kit::CallMethod<Tarn_sys_diag_SysMemStatisProResult>(GetSysMemStatisPro, request);
    }
    std::vector<uint32_t> Selected(std::string_view which, std::string_view user = "") {
        const auto answer = Statistics(which, user);
        std::vector<uint32_t> pids;
        for (uint32_t i = 0; i < answer->uiRecordNum; ++i) {
            pids.push_back(answer->pstRecord[i].uiPid - kFakePid);
        }
        return pids;
    }
    auto Details(uint32_t pid) {
        return kit::CallMethod<Tarn_sys_diag_SysOsMemInfoResult>(GetOsProcessMemInfo,
                                                                 Tarn_sys_diag_SysOsMemInfoInput{pid});
    }
    auto Mappings(uint32_t pid) {
        return kit::CallMethod<Tarn_sys_diag_SysProOsResult>(GetOsProcessMapsInfo, Tarn_sys_diag_SysProOsInput{pid});
    }
    auto MappedFiles(uint32_t cancelled = 0) {
        return kit::CallMethod<Tarn_sys_diag_SysMemStatisFileResult>(GetSysMemStatisFile, Tarn_sys_diag_None{},
                                                                     cancelled);
    }
    auto Shared(uint32_t cancelled = 0) {
        return kit::CallMethod<Tarn_sys_diag_SysMemStatisShareResult>(GetSysMemStatisShare, Tarn_sys_diag_None{},
                                                                      cancelled);
    }
    auto Files(uint32_t leastKib, uint32_t cancelled = 0) {
        return kit::CallMethod<Tarn_sys_diag_SysOsMemFileResult>(GetSysOsMemFileList,
                                                                 Tarn_sys_diag_SysOsMemFileInput{leastKib}, cancelled);
    }
    auto Dump(uint32_t pid, uint64_t address, uint64_t length) {
        return kit::CallMethod<Tarn_sys_diag_DumpOsProcMemValueResult>(
            DumpOsProcMemValue, Tarn_sys_diag_DumpOsProcMemValueInput{pid, address, length});
    }
    static std::string Smaps(const std::string &head, uint32_t first) {
        return fmt::format("{}\nSize: 4 kB\nRss: {} kB\nPss: {} kB\nPrivate_Dirty: {} kB\nSwap: {} kB\nVmFlags: rd\n",
                           head, first, first + 1, first + 2, first + 3);
    }
};

TEST_F(MemoryMethodsTest, SumUpProcesses) {
    proc.Write("meminfo", "MemTotal: 123456 kB\n");
    AddProcess(kFakePid + 100, "small");
    AddProcess(kFakePid + 300, "large");
    AddProcess(kFakePid + 200, "other", 4'000'005);
    const auto answer = Statistics(std::to_string(kFakePid + 100));
    EXPECT_EQ(answer->uiMemTotal, 123456);
    ASSERT_EQ(answer->uiRecordNum, 1);
    ExpectCommon(answer->pstRecord[0], kFakePid + 100, "small");
    const Tarn_sys_diag_Systime start = daemon->clock.LocalTime(clocks.WallNow() - 70'250ms);
    EXPECT_EQ(answer->pstRecord[0].stStartTime.ucSecond, start.ucSecond);
    EXPECT_EQ(answer->pstRecord[0].stStartTime.ucMinute, start.ucMinute);
    EXPECT_EQ(answer->pstRecord[0].stStartTime.uiMillisecond, start.uiMillisecond);

    EXPECT_EQ(Selected(""), (std::vector<uint32_t>{300, 200, 100})) << "the largest first";
    EXPECT_EQ(Selected("*l*"), (std::vector<uint32_t>{300, 100}));
    EXPECT_EQ(Selected("*", "4000001"), (std::vector<uint32_t>{300, 100}));
    EXPECT_EQ(Selected("", "4000000"), (std::vector<uint32_t>{})) << "the real user does not count";
    EXPECT_EQ(Selected(std::to_string(kFakePid + 200), "4000001"), (std::vector<uint32_t>{}));
    AddProcess(kFakePid + 400, "roots", 0);
    EXPECT_EQ(Selected("", "0"), std::vector<uint32_t>{400});
    EXPECT_EQ(Selected("", "root"), std::vector<uint32_t>{400});
    proc.RemoveProcess(kFakePid + 400);
    EXPECT_EQ(Statistics(std::to_string(kFakePid)).Status(), ESRCH);
    EXPECT_EQ(Statistics("4294967295").Status(), ESRCH);
    EXPECT_EQ(Selected("4294967296"), (std::vector<uint32_t>{})) << "a name";
    EXPECT_EQ(Selected(std::string(50, 'x'), "4294967295"), (std::vector<uint32_t>{}));
    EXPECT_EQ(Statistics("", "nobody-of-this-name").Reason(),
              "user (acPosition2) is \"nobody-of-this-name\", expected the name of a user of the system, or a number");
    proc.Remove(fmt::format("{}/exe", kFakePid + 300));
    proc.Remove(fmt::format("{}/stat", kFakePid + 300)); // it has just ended
    EXPECT_EQ(Selected(""), (std::vector<uint32_t>{200, 100}));
}

TEST_F(MemoryMethodsTest, GoIntoDetail) {
    AddProcess(kFakePid + 100, "app");
    AddProcess(kFakePid + 200, "other");
    const auto answer = Details(kFakePid + 100);
    ASSERT_EQ(answer->uiProcNum, 1);
    const Tarn_sys_diag_SysOsMemInfo &record = answer->pstProc[0];
    ExpectCommon(record, kFakePid + 100, "app");
    EXPECT_EQ(std::string(record.szGroupName), "4000002");
    EXPECT_EQ(std::string(record.szState), "S (sleeping)");
    EXPECT_EQ(std::string(record.szWaitChannel), "do_wait");
    EXPECT_EQ(record.uiPss, 31);
    EXPECT_EQ(record.uiSharedClean, 32);
    EXPECT_EQ(record.uiSharedDirty, 33);
    EXPECT_EQ(record.uiPrivateClean, 34);
    EXPECT_EQ(record.uiPrivateDirty, 35);
    EXPECT_EQ(record.uiSwapPss, 36);
    EXPECT_EQ(record.ullMinorFaults, 71);
    EXPECT_EQ(record.ullMajorFaults, 72);
    EXPECT_EQ(record.uiOomScore, 666);
    EXPECT_EQ(Details(kFakePid).Status(), ESRCH);
    EXPECT_EQ(Details(0)->uiProcNum, 2);
    proc.Remove(fmt::format("{}/wchan", kFakePid + 200)); // it has just ended
    EXPECT_EQ(Details(0)->uiProcNum, 1);
}

TEST_F(MemoryMethodsTest, GoIntoDetailWhereWhatIsSharedMayNotBeRead) {
    AddProcess(kFakePid + 100, "app");
    std::filesystem::permissions(proc.Proc().Path(kFakePid + 100, "smaps_rollup"), std::filesystem::perms::none);
    std::filesystem::permissions(proc.Proc().Path(""), std::filesystem::perms(0755));
    const kit::Nobody nobody;
    for (const uint32_t pid : {kFakePid + 100, 0U}) {
        const auto answer = Details(pid);
        ASSERT_EQ(answer->uiProcNum, 1);
        ExpectCommon(answer->pstProc[0], kFakePid + 100, "app");
        EXPECT_EQ(answer->pstProc[0].uiPss, 0);
        EXPECT_EQ(answer->pstProc[0].uiOomScore, 666);
        EXPECT_EQ(answer.Reason(), fmt::format("what processes share and have for themselves may not be read of 1 of "
                                               "them, process {} first: 0 stands for it",
                                               kFakePid + 100));
    }
}

TEST_F(MemoryMethodsTest, TellWhatProcessesWithoutMemoryHave) {
    proc.SetThread(kFakePid, kit::FakeProc::MakeTask(kFakePid, "kthread"));
    proc.Write(fmt::format("{}/status", kFakePid),
               fmt::format("Tgid:\t{}\nPPid:\t2\nUid:\t0\t0\t0\t0\nGid:\t0\t0\t0\t0\n", kFakePid));
    proc.Write(fmt::format("{}/wchan", kFakePid), "0");
    proc.Write(fmt::format("{}/oom_score", kFakePid), "0\n");
    const auto answer = Details(kFakePid);
    ASSERT_EQ(answer.Status(), 0) << answer.Reason();
    EXPECT_EQ(std::string(answer->pstProc[0].szExeName), "");
    EXPECT_EQ(answer->pstProc[0].uiVmSize, 0);
    EXPECT_EQ(answer->pstProc[0].uiPss, 0);
    EXPECT_EQ(Mappings(kFakePid)->uiMapNum, 0);
}

TEST(NumberIn, IsAllOfAText) {
    EXPECT_EQ(tarnd::NumberIn("17"), 17);
    EXPECT_EQ(tarnd::NumberIn("4294967295\n"), UINT32_MAX);
    for (const char *const text : {"", "\n", "17 ", "1x", "-1", "4294967296", "17\n\n"}) {
        EXPECT_EQ(tarnd::NumberIn(text), std::nullopt) << text;
    }
}

TEST_F(MemoryMethodsTest, ListMappings) {
    AddProcess(kFakePid, "app");
    proc.Write(fmt::format("{}/smaps", kFakePid),
               Smaps("10000-12000 r-xp 00000000 fe:01 17     /usr/lib/a b.so (deleted)", 10) +
                   Smaps("20000-120000000000 rw-p 00000000 00:00 0      [heap]", 20));
    const auto answer = Mappings(kFakePid);
    ASSERT_EQ(answer->uiMapNum, 2);
    const Tarn_sys_diag_SysProOs &file = answer->pstMap[0], &heap = answer->pstMap[1];
    EXPECT_EQ(file.uiPid, kFakePid);
    EXPECT_EQ(std::string(file.szAddrRange), "10000-12000");
    EXPECT_EQ(std::string(file.szPerms), "r-xp");
    EXPECT_EQ(file.uiSize, 8);
    EXPECT_EQ(file.uiRss, 10);
    EXPECT_EQ(file.uiPss, 11);
    EXPECT_EQ(file.uiPrivateDirty, 12);
    EXPECT_EQ(file.uiSwap, 13);
    EXPECT_EQ(std::string(file.szDevInode), "fe:01 17");
    EXPECT_EQ(std::string(file.szMapName), "a b.so (deleted)");
    EXPECT_EQ(std::string(heap.szMapName), "[heap]");
    EXPECT_EQ(heap.uiSize, UINT32_MAX) << "more than a member holds";
    EXPECT_EQ(Mappings(kFakePid + 1).Status(), ESRCH);
}

TEST_F(MemoryMethodsTest, TellTheWholeRangeOfAddressesOf16Digits) {
    AddProcess(kFakePid, "app");
    proc.Write(fmt::format("{}/smaps", kFakePid),
               Smaps("7ffd01234000-7ffd01256000 rw-p 00000000 00:00 0 [stack]", 10) +
                   Smaps("ffffffffff600000-ffffffffff601000 --xp 00000000 00:00 0 [vsyscall]", 20));
    const auto answer = Mappings(kFakePid);
    ASSERT_EQ(answer->uiMapNum, 2);
    EXPECT_EQ(std::string(answer->pstMap[0].szAddrRange), "7ffd01234000-7ffd01256000");
    EXPECT_EQ(std::string(answer->pstMap[1].szAddrRange), "ffffffffff600000+1000");
}

TEST_F(MemoryMethodsTest, ListOnlySoManyMappings) {
    AddProcess(kFakePid, "app");
    using host::meaning::mappings::kMost;
    std::string maps;
    for (uint32_t i = 0; i < kMost; ++i) {
        maps += "10000-12000 r-xp 00000000 fe:01 17 /lib\n";
    }
    proc.Write(fmt::format("{}/smaps", kFakePid), maps);
    EXPECT_EQ(Mappings(kFakePid)->uiMapNum, kMost);
    proc.Write(fmt::format("{}/smaps", kFakePid), maps + "10000-12000 r-xp 00000000 fe:01 17 /lib\n");
    EXPECT_EQ(Mappings(kFakePid).Status(), EMSGSIZE);
}

TEST_F(MemoryMethodsTest, CountMappedFiles) {
    AddProcess(kFakePid, "first");
    AddProcess(kFakePid + 1, "second");
    proc.Write(fmt::format("{}/smaps", kFakePid), Smaps("1000-2000 r-xp 00000000 fe:01 17 /lib/a.so", 9) +
                                                      Smaps("2000-3000 rw-p 00000000 fe:01 17 /lib/a.so", 19) +
                                                      Smaps("3000-4000 rw-p 00000000 00:00 0 [heap]", 1000) +
                                                      Smaps("4000-5000 rw-p 00000000 fe:01 18 /lib/b.so", 99));
    proc.Write(fmt::format("{}/smaps", kFakePid + 1), Smaps("1000-2000 r-xp 00000000 fe:01 17 /lib/a.so", 30) +
                                                          Smaps("2000-3000 r-xp 00000000 fe:02 17 /lib/a.so", 49));
    const auto answer = MappedFiles();
    ASSERT_EQ(answer->uiFileNum, 3);
    const Tarn_sys_diag_SysMemStatisFile &b = answer->pstFile[0], &a = answer->pstFile[1], &other = answer->pstFile[2];
    EXPECT_EQ(std::string(b.acFileName), "/lib/b.so");
    EXPECT_EQ(b.uiValue1, 100);
    EXPECT_EQ(b.uiValue2, 1);
    EXPECT_EQ(std::string(b.acValue3), fmt::format("first ({})", kFakePid));
    EXPECT_EQ(std::string(b.acValue4), "fe:01 18");
    EXPECT_EQ(std::string(a.acFileName), "/lib/a.so");
    EXPECT_EQ(a.uiValue1, 10 + 20 + 31);
    EXPECT_EQ(a.uiValue2, 2) << "processes, not mappings";
    EXPECT_EQ(std::string(a.acValue3), fmt::format("second ({})", kFakePid + 1));
    EXPECT_EQ(std::string(other.acValue4), "fe:02 17");
    EXPECT_EQ(MappedFiles(ETIMEDOUT).Status(), ETIMEDOUT);
}

TEST_F(MemoryMethodsTest, ListSharedMemory) {
    EXPECT_EQ(Shared()->uiShareNum, 0) << "a kernel without System V memory";
    const std::string head = "key shmid perms size cpid lpid nattch uid gid cuid cgid atime dtime ctime rss swap\n";
    proc.Write("sysvipc/shm", head + "42 7 1640 10241 1 2 5 4000001 2 4000003 4 5 6 7 4097 9\n"
                                     "-1 8 607 1 1 2 0 4000001 2 3 4 5 6 7 0 9\n");
    const std::filesystem::path file = memory.path / "sub" / "name";
    std::filesystem::create_directory(file.parent_path());
    std::ofstream(file) << std::string(9000, 'x');
    std::filesystem::permissions(file, std::filesystem::perms(0640));
    struct stat status {};
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    const std::string mapped = fmt::format("1000-2000 rw-s 00000000 {:02x}:{:02x} {} {}\n", major(status.st_dev),
                                           minor(status.st_dev), status.st_ino, file.string());
    AddProcess(kFakePid, "first");
    AddProcess(kFakePid + 1, "second");
    AddProcess(kFakePid + 2, "third");
    proc.Write(fmt::format("{}/maps", kFakePid), mapped + mapped);
    proc.Write(fmt::format("{}/maps", kFakePid + 1), mapped);
    proc.Write(fmt::format("{}/maps", kFakePid + 2), "1000-2000 rw-s 00000000 00:00 0 [heap]\n");
    const auto answer = Shared();
    ASSERT_EQ(answer->uiShareNum, 3);
    const Tarn_sys_diag_SysMemStatisShare &posix = answer->pstShare[0], &sysv = answer->pstShare[1],
                                          &none = answer->pstShare[2];
    EXPECT_EQ(posix.uiValue1, static_cast<uint32_t>(status.st_ino));
    EXPECT_EQ(posix.uiValue2, 9);
    EXPECT_EQ(posix.uiValue3, 12) << "three pages";
    EXPECT_EQ(posix.uiValue4, 2) << "processes, not mappings";
    EXPECT_EQ(std::string(posix.acName), "/sub/name");
    EXPECT_TRUE(std::string(posix.acValue5).starts_with("posix 0640 ")) << posix.acValue5;
    EXPECT_EQ(sysv.uiValue1, 7);
    EXPECT_EQ(sysv.uiValue2, 11);
    EXPECT_EQ(sysv.uiValue3, 5);
    EXPECT_EQ(sysv.uiValue4, 5);
    EXPECT_EQ(std::string(sysv.acName), "key 0x0000002a");
    EXPECT_EQ(std::string(sysv.acValue5), "sysv 0640 4000001 removed");
    EXPECT_EQ(std::string(none.acName), "key 0xffffffff");
    EXPECT_EQ(std::string(none.acValue5), "sysv 0607 4000001");
    EXPECT_EQ(Shared(ECANCELED).Status(), ECANCELED);
    proc.Write("sysvipc/shm", head + "42 7 1640\n");
    EXPECT_EQ(Shared().Status(), EPROTO);
}

TEST_F(MemoryMethodsTest, ListFilesInMemory) {
    const std::string directory = memory.path;
    proc.Write("self/mounts", fmt::format("none /nowhere tmpfs rw 0 0\nproc /proc proc rw 0 0\n"
                                          "tmpfs {0} tmpfs rw 0 0\nagain {0} tmpfs rw 0 0\n",
                                          directory));
    std::ofstream(memory.path / "small") << std::string(4097, 'x');
    std::ofstream(memory.path / "large") << std::string(9000, 'x');
    std::filesystem::permissions(memory.path / "large", std::filesystem::perms(0640));
    const timespec times[2] = {{0, 0}, {1'700'000'000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, (memory.path / "large").c_str(), times, 0), 0);
    std::filesystem::create_hard_link(memory.path / "large", memory.path / "large too");
    std::filesystem::create_symlink("/", memory.path / "link");
    const auto answer = Files(0);
    ASSERT_EQ(answer.Status(), 0) << answer.Reason();
    ASSERT_EQ(answer->uiFileNum, 2);
    const Tarn_sys_diag_SysOsMemFile &large = answer->pstFile[0];
    EXPECT_TRUE(std::string(large.acFileName).starts_with(directory + "/large")) << large.acFileName;
    EXPECT_EQ(std::string(large.acValue1), "2023-11-14 22:13:20");
    EXPECT_EQ(std::string(large.acValue3), "-rw-r-----");
    EXPECT_NE(std::string(large.acValue2).find(':'), std::string::npos);
    EXPECT_EQ(large.uiValue4, 12);
    EXPECT_EQ(std::string(answer->pstFile[1].acFileName), directory + "/small");
    EXPECT_EQ(answer->pstFile[1].uiValue4, 8);
    EXPECT_GE(answer->uiValue1, 20) << "all that the file system takes, in KiB";
    EXPECT_LT(answer->uiValue1, UINT32_MAX);
    EXPECT_EQ(Files(8)->uiFileNum, 2);
    EXPECT_EQ(Files(9)->uiFileNum, 1);
    EXPECT_EQ(Files(0, ECANCELED).Status(), ECANCELED);
    proc.Remove("self/mounts");
    EXPECT_EQ(Files(0).Status(), ENOENT);
}

TEST_F(MemoryMethodsTest, TellTheEndOfALongPath) {
    proc.Write("self/mounts", fmt::format("tmpfs {} tmpfs rw 0 0\n", memory.path.string()));
    const std::filesystem::path file = memory.path / std::string(200, 'd') / std::string(200, 'f');
    std::filesystem::create_directory(file.parent_path());
    std::ofstream(file) << "x";
    const auto answer = Files(0);
    ASSERT_EQ(answer->uiFileNum, 1);
    const std::string told = answer->pstFile[0].acFileName;
    EXPECT_EQ(told.size(), std::min(sizeof answer->pstFile[0].acFileName - 1, file.string().size()));
    EXPECT_TRUE(file.string().ends_with(told)) << told;
}

TEST_F(MemoryMethodsTest, ListFilesOfAnyTime) {
    proc.Write("self/mounts", fmt::format("tmpfs {} tmpfs rw 0 0\n", memory.path.string()));
    std::ofstream(memory.path / "file") << "x";
    const auto changed = [&](int64_t seconds) {
        const timespec times[2] = {{0, 0}, {seconds, 0}};
        EXPECT_EQ(utimensat(AT_FDCWD, (memory.path / "file").c_str(), times, 0), 0);
        return std::string(Files(0)->pstFile[0].acValue1);
    };
    EXPECT_TRUE(changed(10'000'000'000'000).starts_with("2169-")) << "the latest that is told";
    EXPECT_TRUE(changed(-10'000'000'000'000).starts_with("1769-")) << "the earliest";
}

// Files that others made: so many that one directory takes longer than a call may.
TEST_F(MemoryMethodsTest, GiveUpWithinADirectory) {
    for (int i = 0; i < 1000; ++i) {
        std::ofstream(memory.path / std::to_string(i));
    }
    int checks = 0;
    size_t taken = 0;
    const auto take = [&](const std::string &, const struct stat &) { ++taken; };
    tarnd::ForEachFile(
        memory.path, [&] { ++checks; }, take);
    EXPECT_EQ(taken, 1000);
    EXPECT_GE(checks, 1000 / 64);
    taken = 0;
    const auto giveUp = [&] { checks-- == 0 ? host::Fail(ETIMEDOUT, "the test") : void(); };
    checks = 3;
    EXPECT_THROW(tarnd::ForEachFile(memory.path, giveUp, take), std::system_error);
    EXPECT_LE(taken, 3 * 64);
}

TEST_F(MemoryMethodsTest, GiveUpAmongEmptyDirectories) {
    std::filesystem::path deep = memory.path;
    for (int i = 0; i < 300; ++i) {
        deep /= "d"; // none of them is held open
    }
    std::filesystem::create_directories(deep);
    std::ofstream(deep / "file") << "x";
    int checks = 0;
    std::vector<std::string> files;
    tarnd::ForEachFile(
        memory.path, [&] { ++checks; }, [&](const std::string &path, const struct stat &) { files.push_back(path); });
    EXPECT_EQ(files, std::vector<std::string>{deep / "file"});
    EXPECT_GE(checks, 300 / 64);
}

TEST(ModeText, IsThatOfAListing) {
    EXPECT_EQ(tarnd::ModeText(0), "----------");
    EXPECT_EQ(tarnd::ModeText(0777), "-rwxrwxrwx");
    EXPECT_EQ(tarnd::ModeText(0421), "-r---w---x");
    EXPECT_EQ(tarnd::ModeText(07777), "-rwsrwsrwt");
    EXPECT_EQ(tarnd::ModeText(07000), "---S--S--T");
}

TEST(Largest, KeepsTheLargestOfAnyNumber) {
    tarnd::Largest<std::string> largest(3);
    for (uint64_t i = 0; i < 100; ++i) {
        const uint64_t size = i * 37 % 101;
        largest.Add(size, std::to_string(size));
    }
    EXPECT_EQ(largest.Take(), (std::vector<std::string>{"100", "99", "98"}));
}

TEST_F(MemoryMethodsTest, SumUpNodes) {
    const auto numbers = [](const std::string &prefix, uint32_t first) {
        std::string text;
        for (const char *const key :
             {"MemTotal", "MemFree", "Active", "Inactive", "AnonPages", "Shmem", "SReclaimable", "SUnreclaim",
              "KernelStack", "PageTables", "HugePages_Total", "FilePages", "Cached", "Buffers", "SwapCached"}) {
            text += fmt::format("{}{}: {} kB\n", prefix, key, first);
            first -= 3;
        }
        return text;
    };
    const auto write = [&](const std::string &file, const std::string &text) {
        std::filesystem::create_directories((system.Path() / file).parent_path());
        std::ofstream(system.Path() / file) << text;
    };
    const auto nodes = [] {
        return kit::CallMethod<Tarn_sys_diag_SysMemUseInfoResult>(GetSysMemUseInfo, Tarn_sys_diag_None{});
    };
    const auto expectNode = [](const Tarn_sys_diag_SysMemUseInfo &node, uint32_t first) {
        const std::vector<uint32_t> values{node.uiMemTotal,        node.uiMemFree,           node.uiActive,
                                           node.uiInactive,        node.uiAnonPages,         node.uiShmem,
                                           node.uiSlabReclaimable, node.uiSlabUnreclaimable, node.uiKernelStack,
                                           node.uiPageTables,      node.uiHugePagesTotal};
        for (const uint32_t value : values) {
            EXPECT_EQ(value, first);
            first -= 3;
        }
        EXPECT_EQ(node.uiMemUsed, 3);
    };
    proc.Write("meminfo", numbers("", 1000));
    write("cpu/online", "0-3\n");
    const auto whole = nodes();
    ASSERT_EQ(whole->uiNodeNum, 1);
    EXPECT_EQ(std::string(whole->pstNode[0].szNodeName), "system");
    EXPECT_EQ(std::string(whole->pstNode[0].szCpuList), "0-3");
    expectNode(whole->pstNode[0], 1000);
    EXPECT_EQ(whole->pstNode[0].uiFilePages, 964 + 961 + 958);

    write("node/node10/meminfo", numbers("Node 10 ", 2000));
    write("node/node10/cpulist", "2-3\n");
    write("node/node2/meminfo", numbers("Node 2 ", 3000));
    write("node/node2/cpulist", "0,1\n");
    write("node/node/meminfo", "");
    write("node/node3x/meminfo", "");
    write("node/online", "2,10\n");
    const auto answer = nodes();
    ASSERT_EQ(answer.Status(), 0) << answer.Reason();
    ASSERT_EQ(answer->uiNodeNum, 2);
    EXPECT_EQ(answer->pstNode[0].uiNodeId, 2);
    EXPECT_EQ(std::string(answer->pstNode[0].szNodeName), "node2");
    EXPECT_EQ(std::string(answer->pstNode[0].szCpuList), "0,1");
    expectNode(answer->pstNode[0], 3000);
    EXPECT_EQ(answer->pstNode[0].uiFilePages, 3000 - 33);
    EXPECT_EQ(answer->pstNode[1].uiNodeId, 10);
    expectNode(answer->pstNode[1], 2000);
    EXPECT_EQ(whole.Reason(), "");
    EXPECT_EQ(answer.Reason(), "the nodes have 5000 KiB together, the system 1000 KiB (MemTotal)");
    proc.Write("meminfo", "MemTotal: 5020 kB\n");
    EXPECT_EQ(nodes().Reason(), "") << "a little more is nobody's node";
}

TEST_F(MemoryMethodsTest, CountHugePages) {
    proc.Write("meminfo", "HugePages_Total:      12\nHugePages_Free:        5\n");
    const auto answer = kit::CallMethod<Tarn_sys_diag_HugePagesOutput>(GetHugePagesInfo, Tarn_sys_diag_None{});
    EXPECT_EQ(answer->uiValue1, 12);
    EXPECT_EQ(answer->uiValue2, 5);
}

TEST_F(MemoryMethodsTest, DumpMemoryOfProcesses) {
    const auto at = reinterpret_cast<uintptr_t>(this);
    EXPECT_EQ(Dump(static_cast<uint32_t>(getpid()), at, 16).Status(), ESRCH) << "/proc has no such process";
    proc.SetThread(kFakePid, kit::FakeProc::MakeTask(kFakePid, "ended"));
    EXPECT_EQ(Dump(kFakePid, at, 16).Status(), ESRCH) << "it has ended since";
}

TEST_F(MemoryMethodsTest, DumpMemoryAroundWhatCanNotBeRead) {
    const auto self = static_cast<uint32_t>(getpid());
    proc.SetThread(self, kit::FakeProc::MakeTask(self, "test"));
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void *const map = mmap(nullptr, 4 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(map, MAP_FAILED);
    const auto at = reinterpret_cast<uintptr_t>(map);
    ASSERT_EQ(mprotect(reinterpret_cast<void *>(at + page), page, PROT_NONE), 0);
    ASSERT_EQ(mprotect(reinterpret_cast<void *>(at + 3 * page), page, PROT_NONE), 0);
    memset(map, 'a', page);
    memset(reinterpret_cast<void *>(at + 2 * page), 'b', page);
    const auto answer = Dump(self, at + page - 8, 2 * page + 16);
    ASSERT_EQ(answer.Status(), 0) << answer.Reason();
    EXPECT_EQ(answer->uiValue1, 8 + page);
    const std::string text = answer->szValue;
    EXPECT_TRUE(text.starts_with(fmt::format("{:x}  61 61 61 61 61 61 61 61                          aaaaaaaa\n"
                                             "{:x}-{:x} can't be read\n"
                                             "{:x}  62 62 ",
                                             at + page - 8, at + page, at + 2 * page, at + 2 * page)))
        << text;
    EXPECT_TRUE(text.ends_with(fmt::format("bbbb\n{:x}-{:x} can't be read\n", at + 3 * page, at + 3 * page + 8)))
        << text;
    munmap(map, 4 * page);
}

TEST_F(MemoryMethodsTest, DumpMemory) {
    const auto self = static_cast<uint32_t>(getpid());
    proc.SetThread(self, kit::FakeProc::MakeTask(self, "test"));
    alignas(64) const char text[40] = "Bytes to be found\n\x01\xFF ~\x7F"; // within a page
    const auto at = reinterpret_cast<uintptr_t>(text);
    const auto answer = Dump(self, at, 23);
    ASSERT_EQ(answer.Status(), 0) << answer.Reason();
    EXPECT_EQ(answer->uiValue1, 23);
    EXPECT_EQ(std::string(answer->szValue),
              fmt::format("{:x}  42 79 74 65 73 20 74 6f 20 62 65 20 66 6f 75 6e  Bytes to be foun\n"
                          "{:x}  64 0a 01 ff 20 7e 7f                             d... ~.\n",
                          at, at + 16));
    EXPECT_EQ(Dump(self, UINT64_MAX - 1, 1).Status(), EFAULT);
    EXPECT_EQ(Dump(self, 0, 16).Status(), EFAULT);
    EXPECT_EQ(Dump(kFakePid, at, 16).Status(), ESRCH);
}

TEST_F(MemoryMethodsTest, SayWhatTheyExpect) {
    const auto application = [](uint32_t process, uint32_t view) {
        return kit::CallMethod<Tarn_sys_diag_AppMemInfoOutput>(AppMemInfo,
                                                               Tarn_sys_diag_AppMemInfoInput{process, view});
    };
    EXPECT_EQ(Dump(1, 4096, 0).Reason(), "length (ullLength) is 0 B, expected 1 to 65536");
    EXPECT_EQ(Dump(1, 4096, 65537).Reason(), "length (ullLength) is 65537 B, expected 1 to 65536");
    EXPECT_EQ(Dump(1, UINT64_MAX, 1).Reason(),
              "address (ullAddress) is 0xffffffffffffffff, expected an address with the whole range behind it");
    EXPECT_EQ(application(0, 0).Reason(), "process (uiValue1) is 0, expected at least 1");
    EXPECT_EQ(application(1, 4).Reason(),
              "view (uiValue2) is 4, expected units (0), details (1), modules (2) or holders (3)");
}

} // namespace
