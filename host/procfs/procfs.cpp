#include "host/procfs/procfs.h"

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>
#include <memory>
#include <system_error>

namespace host::procfs {

namespace {

[[noreturn]] void Throw(int error, const std::string &what) {
    throw std::system_error(error, std::generic_category(), what);
}

// 0, or what reading failed with.
int TryRead(const std::string &path, std::string &text) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return errno;
    }
    char buffer[4096];
    ssize_t length = 0;
    do {
        length = read(fd, buffer, sizeof buffer);
        text.append(buffer, static_cast<size_t>(std::max<ssize_t>(length, 0)));
    } while (length > 0 || (length < 0 && errno == EINTR));
    const int error = length < 0 ? errno : 0;
    close(fd);
    return error;
}

std::string ThreadFile(uint32_t tid, const char *file) {
    return "task/" + std::to_string(tid) + "/" + file;
}

uint64_t PageKb() {
    static const auto kb = static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) / 1024;
    return kb;
}

// The numbers that follow a thread's name and state.
std::vector<int64_t> Numbers(std::string_view text) {
    std::vector<int64_t> numbers;
    const char *at = text.data();
    const char *const end = at + text.size();
    while (at < end) {
        at = std::find_if(at, end, [](char c) { return c != ' ' && c != '\n'; });
        if (at == end) {
            break;
        }
        uint64_t value = 0;
        const bool negative = *at == '-';
        const auto [next, error] = std::from_chars(negative ? at + 1 : at, end, value);
        if (error != std::errc{}) {
            Throw(EPROTO, "a number in a stat line");
        }
        numbers.push_back(static_cast<int64_t>(negative ? 0 - value : value));
        at = next;
    }
    return numbers;
}

// The ids behind a line's name in a status file: real, effective, saved, of file access.
std::vector<int64_t> IdsOf(std::string_view status, std::string_view line) {
    const size_t at = status.find(line);
    if (at == status.npos) {
        Throw(EPROTO, "no line" + std::string(line));
    }
    const size_t begin = at + line.size();
    std::string ids(status.substr(begin, status.find('\n', begin) - begin));
    std::ranges::replace(ids, '\t', ' ');
    return Numbers(ids);
}

// 0, or what opening the directory failed with.
int TryNumericNames(const std::string &path, std::vector<uint32_t> &ids) {
    const std::unique_ptr<DIR, int (*)(DIR *)> directory(opendir(path.c_str()), closedir);
    if (directory == nullptr) {
        return errno;
    }
    while (const dirent *entry = readdir(directory.get())) {
        const std::string_view name = entry->d_name;
        uint32_t id = 0;
        const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), id);
        if (error == std::errc{} && end == name.data() + name.size()) {
            ids.push_back(id);
        }
    }
    std::sort(ids.begin(), ids.end());
    return 0;
}

} // namespace

std::string ReadText(const std::string &path) {
    std::string text;
    if (const int error = TryRead(path, text); error != 0) {
        Throw(error == EPERM ? EACCES : error, path);
    }
    return text;
}

std::optional<uint64_t> FindField(std::string_view text, std::string_view key) {
    for (size_t at = 0; at < text.size();) {
        const std::string_view line = text.substr(at, text.find('\n', at) - at);
        at += line.size() + 1;
        if (!line.starts_with(key) || line.substr(key.size(), 1) != ":") {
            continue;
        }
        const size_t digit = line.find_first_of("0123456789", key.size());
        uint64_t value = 0;
        if (digit != line.npos &&
            std::from_chars(line.data() + digit, line.data() + line.size(), value).ec == std::errc{}) {
            return value;
        }
        break;
    }
    return std::nullopt;
}

uint64_t FieldOf(std::string_view text, std::string_view key) {
    const std::optional<uint64_t> value = FindField(text, key);
    if (!value.has_value()) {
        Throw(EPROTO, "no number for \"" + std::string(key) + "\"");
    }
    return *value;
}

Task ParseStat(std::string_view line) {
    const size_t open = line.find('(');
    const size_t closed = line.rfind(')');
    if (open == line.npos || closed == line.npos || closed < open || closed + 4 > line.size()) {
        Throw(EPROTO, "a stat line without name and state");
    }
    constexpr size_t kFirst = 4; // what the manual calls field 4 is the first number behind the state
    const std::vector<int64_t> numbers = Numbers(line.substr(closed + 3));
    if (numbers.size() < 41 - kFirst + 1) {
        Throw(EPROTO, "a stat line with fewer than 41 fields");
    }
    constexpr int64_t kKernelThread = 0x00200000; // PF_KTHREAD
    const auto field = [&](size_t number) { return numbers[number - kFirst]; };
    Task task;
    std::from_chars(line.data(), line.data() + open, task.id);
    task.name = line.substr(open + 1, closed - open - 1);
    task.state = line[closed + 2];
    task.parent = static_cast<uint32_t>(field(4));
    task.session = static_cast<uint32_t>(field(6));
    task.ofKernel = (field(9) & kKernelThread) != 0;
    task.minorFaults = static_cast<uint64_t>(field(10));
    task.majorFaults = static_cast<uint64_t>(field(12));
    task.userTicks = static_cast<uint64_t>(field(14));
    task.systemTicks = static_cast<uint64_t>(field(15));
    task.childTicks = static_cast<uint64_t>(field(16)) + static_cast<uint64_t>(field(17));
    task.nice = static_cast<int32_t>(field(19));
    task.threadNum = static_cast<uint32_t>(field(20));
    task.startTicks = static_cast<uint64_t>(field(22));
    task.residentKb = static_cast<uint64_t>(field(24)) * PageKb();
    task.lastCpu = static_cast<uint32_t>(field(39));
    task.realTimePriority = static_cast<uint32_t>(field(40));
    task.policy = static_cast<uint32_t>(field(41));
    return task;
}

std::string Procfs::Path(std::string_view file) const {
    return root_ + "/" + std::string(file);
}

std::string Procfs::Path(uint32_t pid, std::string_view file) const {
    return Path(std::to_string(pid) + "/" + std::string(file));
}

std::string Procfs::Read(std::string_view file) const {
    return ReadFile(Path(file));
}

std::string Procfs::Read(uint32_t pid, std::string_view file) const {
    return ReadFile(Path(pid, file));
}

std::string Procfs::ReadFile(const std::string &path) const {
    std::string text;
    if (const int error = TryRead(path, text); error != 0) {
        Fail(error, path);
    }
    return text;
}

// A process that went away shows as a missing file, or as ESRCH once its file is open. So does one that /proc hides,
// but it refuses a signal.
void Procfs::Fail(int error, const std::string &path) const {
    const size_t name = root_.size() + 1;
    const bool ofProcess =
        path.starts_with(root_ + "/") && path.size() > name && path[name] >= '0' && path[name] <= '9';
    if (ofProcess && error == ENOENT) {
        error = Hides(path) ? EACCES : ESRCH;
    } else if (error == EPERM) {
        error = EACCES;
    }
    Throw(error, path);
}

bool Procfs::Hides(const std::string &path) const {
    pid_t pid = 0;
    std::from_chars(path.data() + root_.size() + 1, path.data() + path.size(), pid);
    return pid > 0 && access(Path(std::to_string(pid)).c_str(), F_OK) != 0 && kill(pid, 0) != 0 && errno == EPERM;
}

Task Procfs::ReadProcess(uint32_t pid) const {
    if (FieldOf(Read(pid, "status"), "Tgid") != pid) {
        Throw(ESRCH, std::to_string(pid) + " is a thread, not a process");
    }
    return ParseStat(Read(pid, "stat"));
}

std::vector<uint32_t> Procfs::NumbersOf(uint32_t pid) const {
    const std::string status = Read(pid, "status");
    constexpr std::string_view kLine = "\nNSpid:";
    std::vector<uint32_t> numbers;
    if (const size_t line = status.find(kLine); line != status.npos) {
        const char *at = status.data() + line + kLine.size();
        const char *const end = status.data() + status.size();
        for (uint32_t number = 0; at < end && *at == '\t'; numbers.push_back(number)) {
            at = std::from_chars(at + 1, end, number).ptr;
        }
    }
    return numbers.empty() ? std::vector{pid} : numbers; // a kernel without namespaces
}

bool Procfs::Runs(uint32_t pid, uint64_t startTicks) const {
    bool runs = false;
    SkipHidden([&] {
        const Task process = ReadProcess(pid);
        runs = process.startTicks == startTicks && !process.HasEnded();
    });
    return runs;
}

bool Procfs::HasUser(uint32_t pid, uint32_t user) const {
    return std::ranges::count(IdsOf(Read(pid, "status"), "\nUid:"), user) != 0;
}

bool Procfs::IsShownTo(uint32_t pid, uint32_t user, uint32_t group) const {
    struct stat memory {};
    if (stat(Path(pid, "mem").c_str(), &memory) != 0 || memory.st_uid != user) { // else the kernel says root
        return false;
    }
    bool isShown = false;
    SkipHidden([&] {
        const std::string status = Read(pid, "status");
        isShown = std::ranges::all_of(IdsOf(status, "\nUid:"), [user](int64_t id) { return id == user; }) &&
                  std::ranges::all_of(IdsOf(status, "\nGid:"), [group](int64_t id) { return id == group; });
    });
    return isShown;
}

Task Procfs::ReadThread(uint32_t pid, uint32_t tid) const {
    return ParseStat(Read(pid, ThreadFile(tid, "stat")));
}

SchedulerCount Procfs::ReadSchedulerCount(uint32_t pid, uint32_t tid) const {
    const std::string file = ThreadFile(tid, "schedstat");
    const std::vector<int64_t> numbers = Numbers(Read(pid, file));
    if (numbers.size() < 3) {
        Throw(EPROTO, Path(pid, file) + ": fewer than 3 numbers");
    }
    return {static_cast<uint64_t>(numbers[0]), static_cast<uint64_t>(numbers[1]), static_cast<uint64_t>(numbers[2])};
}

std::vector<uint32_t> Procfs::ThreadIds(uint32_t pid) const {
    ReadProcess(pid);
    const std::string path = Path(pid, "task");
    std::vector<uint32_t> ids;
    if (const int error = TryNumericNames(path, ids); error != 0) {
        Fail(error, path);
    }
    return ids;
}

std::vector<Task> Procfs::ReadThreads(uint32_t pid) const {
    std::vector<Task> threads;
    for (const uint32_t tid : ThreadIds(pid)) {
        SkipEnded([&] { threads.push_back(ReadThread(pid, tid)); });
    }
    return threads;
}

std::vector<uint32_t> Procfs::ProcessIds() const {
    std::vector<uint32_t> ids;
    if (const int error = TryNumericNames(root_, ids); error != 0) {
        Fail(error, root_);
    }
    return ids;
}

uint64_t TicksPerSecond() {
    static const auto ticks = static_cast<uint64_t>(sysconf(_SC_CLK_TCK));
    return ticks;
}

std::string StateText(char state) {
    const char *text = "unknown";
    switch (state) {
    case 'R':
        text = "running";
        break;
    case 'S':
        text = "sleeping";
        break;
    case 'D':
        text = "waiting for a device";
        break;
    case 'T':
        text = "stopped";
        break;
    case 't':
        text = "traced";
        break;
    case 'Z':
        text = "zombie";
        break;
    case 'X':
    case 'x':
        text = "dead";
        break;
    case 'I':
        text = "idle";
        break;
    default:
        break;
    }
    return std::string(1, state) + " (" + text + ")";
}

std::string SchedulingText(const Task &task) {
    const auto realTime = [&](const char *policy) { return policy + (" " + std::to_string(task.realTimePriority)); };
    const auto shared = [&](const char *policy) { return policy + (" nice " + std::to_string(task.nice)); };
    switch (task.policy) {
    case SCHED_FIFO:
        return realTime("SCHED_FIFO");
    case SCHED_RR:
        return realTime("SCHED_RR");
    case SCHED_OTHER:
        return shared("SCHED_OTHER");
    case SCHED_BATCH:
        return shared("SCHED_BATCH");
    case SCHED_IDLE:
        return shared("SCHED_IDLE");
    default:
        return "policy " + std::to_string(task.policy);
    }
}

} // namespace host::procfs
