#include "host/blackbox/reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <exception>
#include <memory>
#include <system_error>
#include <thread>

#include <fmt/format.h>

#include "host/blackbox/box.h"
#include "host/osal/descriptor.h"

namespace host::blackbox {

namespace {

// How long writers have to complete heads that were being written when they were looked at first.
constexpr std::chrono::milliseconds kWriting{20};
// Files that are looked at. There is one for each user who runs agents, but a user may have the ids of thousands.
constexpr size_t kMostFiles = 1024;
// Reasons that are told, of files that are left out.
constexpr size_t kMostReasons = 8;

// The user whose black box has such a name.
std::optional<uint32_t> UserOf(std::string_view name) {
    constexpr std::string_view kPrefix = "blackbox-";
    uint32_t user = 0;
    if (!name.starts_with(kPrefix)) {
        return {};
    }
    std::from_chars(name.data() + kPrefix.size(), name.data() + name.size(), user);
    return FileOf({}, user) == name ? std::optional(user) : std::nullopt;
}

std::vector<uint32_t> UsersWithFiles(const std::filesystem::path &directory, const Check &check) {
    std::vector<uint32_t> users;
    std::error_code none;
    size_t names = 0;
    for (const auto &entry : std::filesystem::directory_iterator(directory, none)) {
        if (names++ % 64 == 0) {
            check();
        }
        if (const auto user = UserOf(entry.path().filename().native())) {
            users.push_back(*user);
        }
    }
    std::ranges::sort(users);
    return users;
}

// What has the name of a black box and is none.
struct NoBlackBox : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class BoxFile {
public:
    // Opens nothing but a file of the user's own.
    BoxFile(const std::filesystem::path &directory, uint32_t user, int flags) : path_(FileOf(directory, user)) {
        struct stat status {};
        if (lstat(path_.c_str(), &status) != 0) {
            Fail(errno, path_.string());
        }
        CheckStatus(status, user);
        file_ = {open(path_.c_str(), flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK), path_.string()};
        CheckStatus(file_.Status(), user);
        CheckHeader();
    }

    // The part of a slot before the stack.
    bool ReadHead(uint32_t slot, FaultSlot &to) const { return Read(&to, offsetof(FaultSlot, stack), slot); }
    bool ReadWhole(uint32_t slot, FaultSlot &to) const { return Read(&to, sizeof to, slot); }

    void Erase(uint32_t slot, uint64_t sequence) const {
        const auto at = Position(slot) + static_cast<off_t>(offsetof(FaultSlot, erased));
        if (pwrite(file_.Fd(), &sequence, sizeof sequence, at) != sizeof sequence) {
            Fail(errno, path_.string());
        }
    }

private:
    static off_t Position(uint32_t slot) { return static_cast<off_t>(sizeof(FileHeader) + slot * sizeof(FaultSlot)); }

    bool Read(void *to, size_t size, uint32_t slot) const {
        return pread(file_.Fd(), to, size, Position(slot)) == static_cast<ssize_t>(size);
    }

    void CheckStatus(const struct stat &status, uint32_t user) const {
        if (!S_ISREG(status.st_mode)) {
            throw NoBlackBox(path_.string() + " is no regular file");
        }
        if (status.st_uid != user) {
            throw NoBlackBox(path_.string() + " belongs to another user");
        }
    }

    void CheckHeader() const {
        FileHeader header;
        if (pread(file_.Fd(), &header, sizeof header, 0) != sizeof header ||
            memcmp(header.magic, kMagic, sizeof kMagic) != 0 || header.slotNum != kSlotNum ||
            header.slotBytes != sizeof(FaultSlot)) {
            throw NoBlackBox(path_.string() + " is no black box");
        }
    }

    const std::filesystem::path path_;
    Descriptor file_;
};

enum class State { kEmpty, kWhole, kDamaged };

State StateOf(const FaultSlot &slot) {
    if (slot.sequence == 0 || slot.sequence == slot.erased) {
        return State::kEmpty;
    }
    return slot.headCheck == CheckOf(slot.sequence, slot.head) ? State::kWhole : State::kDamaged;
}

// Goes through the slots of black boxes that hold something.
class Scan {
public:
    // With the stack unread.
    using Take = std::function<void(const BoxFile &, uint32_t slot, const FaultSlot &, bool whole)>;

    explicit Scan(const Take &take) : take_(take) {}

    void Through(const BoxFile &file) {
        for (uint32_t slot = 0; slot < kSlotNum && file.ReadHead(slot, *read_); ++slot) {
            State state = StateOf(*read_);
            if (state == State::kDamaged && !waited_) {
                std::this_thread::sleep_for(kWriting);
                waited_ = true;
                state = file.ReadHead(slot, *read_) ? StateOf(*read_) : State::kEmpty;
            }
            if (state != State::kEmpty) {
                take_(file, slot, *read_, state == State::kWhole);
            }
        }
    }

private:
    const Take &take_;
    const std::unique_ptr<FaultSlot> read_ = std::make_unique<FaultSlot>();
    bool waited_ = false; // once, however many are damaged
};

// Texts and counts are the writer's word.
void Confine(FaultRecord &record) {
    FaultHead &head = record.head;
    head.registerNum = std::min(head.registerNum, static_cast<uint32_t>(std::size(head.registers)));
    for (CpuRegister &one : head.registers) {
        one.name[sizeof one.name - 1] = 0;
    }
    head.agent[sizeof head.agent - 1] = head.process[sizeof head.process - 1] = 0;
    head.thread[sizeof head.thread - 1] = head.text[sizeof head.text - 1] = 0;
    record.stack.frameNum = std::min(record.stack.frameNum, kFrameNum);
    for (StackFrame &frame : record.stack.frames) {
        frame.buildIdBytes = std::min(frame.buildIdBytes, static_cast<uint8_t>(sizeof frame.buildId));
        frame.function[sizeof frame.function - 1] = frame.module[sizeof frame.module - 1] = 0;
    }
}

bool MayWrite(const std::filesystem::path &directory, uint32_t user) {
    return faccessat(AT_FDCWD, FileOf(directory, user).c_str(), W_OK, AT_EACCESS | AT_SYMLINK_NOFOLLOW) == 0 ||
           errno != EACCES;
}

void LeaveOut(Contents &contents, const std::string &reason) {
    ++contents.filesLeftOut;
    if (contents.reasons.size() < kMostReasons) {
        contents.reasons.push_back(reason);
    }
}

} // namespace

Contents List(const std::filesystem::path &directory, const IsErased &isErased, const Chosen &chosen,
              const Check &check) {
    Contents contents;
    uint32_t user = 0;
    const Scan::Take take = [&](const BoxFile &, uint32_t slot, const FaultSlot &content, bool whole) {
        const RecordPlace place{user, slot, content.sequence, content.head.timeNs};
        if (isErased(place)) {
            return;
        }
        if (!whole) {
            ++contents.damaged;
        } else if (chosen(content.head)) {
            contents.records.push_back(place);
        }
    };
    Scan scan(take);
    size_t files = 0;
    for (const uint32_t one : UsersWithFiles(directory, check)) {
        check();
        user = one;
        try {
            const BoxFile file(directory, user, O_RDONLY);
            if (++files > kMostFiles) {
                throw NoBlackBox(
                    fmt::format("{}: there are more than {}", FileOf(directory, user).string(), kMostFiles));
            }
            scan.Through(file);
        } catch (const std::runtime_error &error) {
            LeaveOut(contents, error.what());
        }
    }
    std::ranges::sort(contents.records, std::ranges::greater(),
                      [](const RecordPlace &place) { return std::pair(place.timeNs, place.sequence); });
    return contents;
}

uint64_t StampOf(const std::filesystem::path &directory) {
    uint64_t stamp = 0;
    const auto add = [&stamp](auto value) { stamp = (stamp ^ static_cast<uint64_t>(value)) * 0x100000001b3; };
    for (const uint32_t user : UsersWithFiles(directory, [] {})) {
        struct stat status {};
        if (lstat(FileOf(directory, user).c_str(), &status) == 0) {
            add(user);
            add(status.st_ino);
            add(status.st_mtim.tv_sec);
            add(status.st_mtim.tv_nsec);
        }
    }
    return stamp;
}

std::optional<FaultRecord> Read(const std::filesystem::path &directory, const RecordPlace &place) {
    try {
        const auto slot = std::make_unique<FaultSlot>();
        const BoxFile file(directory, place.user, O_RDONLY);
        if (!file.ReadWhole(place.slot, *slot) || slot->sequence != place.sequence || StateOf(*slot) != State::kWhole) {
            return {};
        }
        FaultRecord record{slot->stackCheck == CheckOf(slot->sequence, slot->stack), slot->head, slot->stack};
        Confine(record);
        return record;
    } catch (const std::runtime_error &) {
        return {}; // the file has gone
    }
}

Erased Erase(const std::filesystem::path &directory, const Chosen &chosen, bool damaged, const Check &check) {
    Erased erased;
    uint32_t user = 0;
    bool denied = false;
    const Scan::Take take = [&](const BoxFile &file, uint32_t slot, const FaultSlot &content, bool whole) {
        if (!(whole ? chosen(content.head) : damaged)) {
            return;
        }
        if (denied) {
            erased.denied.push_back({user, slot, content.sequence, content.head.timeNs});
        } else {
            file.Erase(slot, content.sequence);
            ++erased.number;
        }
    };
    Scan scan(take);
    std::exception_ptr failure;
    size_t files = 0;
    for (const uint32_t one : UsersWithFiles(directory, check)) {
        check();
        user = one;
        try {
            denied = !MayWrite(directory, user);
            const BoxFile file(directory, user, denied ? O_RDONLY : O_RDWR);
            if (++files > kMostFiles) {
                break;
            }
            scan.Through(file);
        } catch (const NoBlackBox &) {
            continue;
        } catch (...) {
            failure = failure == nullptr ? std::current_exception() : failure;
        }
    }
    if (failure != nullptr) {
        std::rethrow_exception(failure);
    }
    return erased;
}

} // namespace host::blackbox
