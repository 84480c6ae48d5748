// A directory that shows the processes that a test puts there, as /proc does.
#pragma once

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include <fmt/format.h>

#include "host/procfs/procfs.h"
#include "tests/host/temp_dir.h"

namespace kit {

// The kernel hands out no such process id: what is not in the directory is not on the machine either.
constexpr uint32_t kFakePid = 5'000'000;

class FakeProc {
public:
    const host::procfs::Procfs &Proc() const { return proc_; }
    operator const host::procfs::Procfs &() const { return proc_; }

    void Write(const std::filesystem::path &file, const std::string &text) const {
        const std::filesystem::path path = dir_.Path() / file;
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << text;
    }
    void Link(const std::filesystem::path &file, const std::string &target) const {
        std::filesystem::create_symlink(target, dir_.Path() / file);
    }
    void Remove(const std::filesystem::path &file) const { std::filesystem::remove_all(dir_.Path() / file); }

    // A thread, or what of it is new. The first thread of a process has its id and makes the process.
    void SetThread(uint32_t pid, const host::procfs::Task &task, const host::procfs::SchedulerCount &count = {}) const {
        const std::string thread = fmt::format("{}/task/{}/", pid, task.id);
        Write(thread + "stat", StatLine(task));
        Write(thread + "schedstat", fmt::format("{} {} {}\n", count.runNs, count.waitNs, count.sliceNum));
        if (task.id == pid) {
            Write(fmt::format("{}/stat", pid), StatLine(task));
            SetUser(pid, 0, 0);
        }
    }
    void SetUser(uint32_t pid, uint32_t real, uint32_t effective) const {
        Write(fmt::format("{}/status", pid),
              fmt::format("Tgid:\t{0}\nPid:\t{0}\nUid:\t{1}\t{2}\t{2}\t{2}\nGid:\t{1}\t{1}\t{1}\t{1}\n", pid, real,
                          effective));
    }
    // A process of that user and group, whose memory the kernel shows its user; where the test runs as root.
    void SetOwner(uint32_t pid, uint32_t user) const {
        SetUser(pid, user, user);
        Write(fmt::format("{}/mem", pid), "");
        if (chown((dir_.Path() / fmt::format("{}/mem", pid)).c_str(), user, user) != 0) {
            throw std::system_error(errno, std::generic_category(), "chown");
        }
    }
    void RemoveThread(uint32_t pid, uint32_t tid) const { Remove(fmt::format("{}/task/{}", pid, tid)); }
    void RemoveProcess(uint32_t pid) const { Remove(std::to_string(pid)); }

    // The id is a process's and a thread's.
    static host::procfs::Task MakeTask(uint32_t id, std::string name, char state = 'S') {
        host::procfs::Task task;
        task.id = id;
        task.name = std::move(name);
        task.state = state;
        task.threadNum = 1;
        return task;
    }

private:
    static std::string StatLine(const host::procfs::Task &task) {
        constexpr uint32_t kOfKernel = 0x00200000;
        const uint64_t pages = task.residentKb * 1024 / static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
        return fmt::format(
            "{} ({}) {} {} 0 {} 0 -1 {} {} 0 {} 0 {} {} {} 0 20 {} {} 0 {} 0 {} 0 0 0 0 0 0 0 0 0 0 0 0 0 "
            "17 {} {} {} 0 0 0 0 0 0 0 0 0 0 0\n",
            task.id, task.name, task.state, task.parent, task.session, task.ofKernel ? kOfKernel : 0, task.minorFaults,
            task.majorFaults, task.userTicks, task.systemTicks, task.childTicks, task.nice, task.threadNum,
            task.startTicks, pages, task.lastCpu, task.realTimePriority, task.policy);
    }

    const TempDir dir_;
    const host::procfs::Procfs proc_{dir_.Path()};
};

} // namespace kit
