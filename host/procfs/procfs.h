// Processes and threads as /proc shows them. A process that is not there, or may not be seen, is an error, never an
// empty answer: what reads throws std::system_error with ESRCH or EACCES and says which file it wanted.
#pragma once

#include <cerrno>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

namespace host::procfs {

// A process or one of its threads, from a stat file.
struct Task {
    uint32_t id = 0;
    std::string name;
    char state = 0; // the kernel's letter: R running, S sleeping, D waiting for a device, T stopped, Z zombie, ...
    uint32_t parent = 0;
    uint32_t session = 0; // the process that leads it
    bool ofKernel = false;
    uint64_t userTicks = 0;
    uint64_t systemTicks = 0;
    uint64_t childTicks = 0;  // of children that have ended and were waited for, and of theirs
    uint64_t minorFaults = 0; // page faults that needed no disk
    uint64_t majorFaults = 0; // those that did
    int32_t nice = 0;
    uint32_t threadNum = 0;  // of the process; the kernel says 0 of a thread that has ended
    uint64_t startTicks = 0; // since the system started
    uint32_t lastCpu = 0;
    uint32_t realTimePriority = 0;
    uint32_t policy = 0; // SCHED_OTHER, SCHED_FIFO, ...
    uint64_t residentKb = 0;

    uint64_t CpuTicks() const { return userTicks + systemTicks; }
    // A process whose first thread has ended goes on with its others.
    bool HasEnded() const { return (state == 'Z' || state == 'X' || state == 'x') && threadNum <= 1; }
};

// What the scheduler has counted of one thread.
struct SchedulerCount {
    uint64_t runNs = 0;
    uint64_t waitNs = 0; // ready, but not on a CPU
    uint64_t sliceNum = 0;
};

// The text of a file whose size the kernel does not tell in advance, of /sys for example.
std::string ReadText(const std::string &path);

// The number behind "Key:" in files such as meminfo and status; throws EPROTO when there is none.
uint64_t FieldOf(std::string_view text, std::string_view key);
std::optional<uint64_t> FindField(std::string_view text, std::string_view key);

// A stat line. A name may hold blanks and brackets.
Task ParseStat(std::string_view line);

// The directory that shows them: the kernel's, or a copy made by hand.
class Procfs {
public:
    explicit Procfs(std::string root = "/proc") : root_(std::move(root)) {}

    // "/proc/meminfo", "/proc/17/status"
    std::string Path(std::string_view file) const;
    std::string Path(uint32_t pid, std::string_view file) const;
    std::string Read(std::string_view file) const;
    std::string Read(uint32_t pid, std::string_view file) const;

    // Throws what a call on a file below the directory failed with: where a process has gone, ESRCH.
    [[noreturn]] void Fail(int error, const std::string &path) const;

    // The leading thread of a process. The id of another thread is no process.
    Task ReadProcess(uint32_t pid) const;

    // The numbers of a process, from here down to the innermost of its namespaces, where it calls itself by the last.
    std::vector<uint32_t> NumbersOf(uint32_t pid) const;
    uint32_t OwnNumberOf(uint32_t pid) const { return NumbersOf(pid).back(); }

    // Whether the process that started then is still there, and no other has got its id: one that may not be seen has.
    bool Runs(uint32_t pid, uint64_t startTicks) const;

    // Whether a user is one of the process's: real, effective, saved or of file access.
    bool HasUser(uint32_t pid, uint32_t user) const;

    // Whether the kernel shows a user with that group what is in the process: all its users and groups are these, and
    // it has had no more rights than they give. False as well for a process that is not there.
    bool IsShownTo(uint32_t pid, uint32_t user, uint32_t group) const;

    Task ReadThread(uint32_t pid, uint32_t tid) const;
    SchedulerCount ReadSchedulerCount(uint32_t pid, uint32_t tid) const;

    // The threads of a process in rising order of their ids; one that ends while it is being read is left out.
    std::vector<uint32_t> ThreadIds(uint32_t pid) const;
    std::vector<Task> ReadThreads(uint32_t pid) const;

    // The processes that may be seen.
    std::vector<uint32_t> ProcessIds() const;

private:
    bool Hides(const std::string &path) const;
    std::string ReadFile(const std::string &path) const;

    std::string root_;
};

uint64_t TicksPerSecond();

// "S (sleeping)"
std::string StateText(char state);

// "SCHED_OTHER nice 5", "SCHED_FIFO 50"
std::string SchedulingText(const Task &task);

// Runs a function about one thread or process, of several, that may end meanwhile.
template <class Function>
void SkipEnded(Function function) {
    try {
        function();
    } catch (const std::system_error &error) {
        if (error.code().value() != ESRCH) {
            throw;
        }
    }
}

// Why a thread or process of several is left out where those that may not be seen are too.
inline bool IsEndedOrHidden(const std::system_error &error) {
    return error.code().value() == ESRCH || error.code().value() == EACCES;
}

// Leaves out those as well.
template <class Function>
void SkipHidden(Function function) {
    try {
        function();
    } catch (const std::system_error &error) {
        if (!IsEndedOrHidden(error)) {
            throw;
        }
    }
}

} // namespace host::procfs
