#include "host/blackbox/reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <exception>
#include <memory>
#include <string>
#include <system_error>
#include <thread>

#include "host/blackbox/box.h"
#include "host/osal/descriptor.h"

namespace host::blackbox {

namespace {

// How long a writer has to complete a head that was being written when it was looked at first.
constexpr std::chrono::milliseconds kWriting{20};

// An open black box. It belongs to the user in its name, or it is none.
class BoxFile {
public:
    BoxFile(std::filesystem::path path, int flags)
        : path_(std::move(path)),
          descriptor_(open(path_.c_str(), flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK), path_.string()) {
        CheckHeader();
    }

    bool ReadSlot(uint32_t index, FaultSlot &slot) const {
        return pread(descriptor_.Fd(), &slot, sizeof slot, Position(index)) == static_cast<ssize_t>(sizeof slot);
    }

    void Erase(uint32_t index, uint64_t sequence) const {
        const auto at = Position(index) + static_cast<off_t>(offsetof(FaultSlot, erased));
        if (pwrite(descriptor_.Fd(), &sequence, sizeof sequence, at) != sizeof sequence) {
            Fail(errno, path_.string());
        }
    }

    const std::filesystem::path &Path() const { return path_; }

private:
    static off_t Position(uint32_t index) { return static_cast<off_t>(sizeof(FileHeader) + index * sizeof(FaultSlot)); }

    void CheckHeader() const {
        struct stat status {};
        FileHeader header;
        if (fstat(descriptor_.Fd(), &status) != 0 || !S_ISREG(status.st_mode)) {
            Fail(EINVAL, path_.string() + " is no regular file");
        }
        if (path_ != FileOf(path_.parent_path(), status.st_uid)) {
            Fail(EPERM, path_.string() + " belongs to another user");
        }
        if (pread(descriptor_.Fd(), &header, sizeof header, 0) != sizeof header ||
            memcmp(header.magic, kMagic, sizeof kMagic) != 0 || header.slotNum != kSlotNum ||
            header.slotBytes != sizeof(FaultSlot)) {
            Fail(EBADMSG, path_.string() + " is no black box");
        }
    }

    const std::filesystem::path path_;
    const Descriptor descriptor_;
};

enum class State { kEmpty, kWhole, kDamaged };

State StateOf(const FaultSlot &slot) {
    if (slot.sequence == 0 || slot.sequence == slot.erased) {
        return State::kEmpty;
    }
    return slot.headCheck == CheckOf(slot.sequence, slot.head) ? State::kWhole : State::kDamaged;
}

// Texts and counts are the writer's word: a user may write what he likes into his file.
void Confine(FaultRecord &record) {
    FaultHead &head = record.head;
    head.registerNum = std::min(head.registerNum, static_cast<uint32_t>(std::size(head.registers)));
    for (CpuRegister &one : head.registers) {
        one.name[sizeof one.name - 1] = 0;
    }
    head.agent[sizeof head.agent - 1] = head.process[sizeof head.process - 1] = 0;
    head.thread[sizeof head.thread - 1] = head.text[sizeof head.text - 1] = 0;
    record.stack.frameNum = std::min<uint64_t>(record.stack.frameNum, std::size(record.stack.frames));
    for (StackFrame &frame : record.stack.frames) {
        frame.function[sizeof frame.function - 1] = frame.module[sizeof frame.module - 1] = 0;
    }
}

std::vector<std::filesystem::path> Files(const std::filesystem::path &runDir) {
    std::vector<std::filesystem::path> files;
    std::error_code none;
    for (const auto &entry : std::filesystem::directory_iterator(runDir, none)) {
        const std::string name = entry.path().filename();
        if (name.starts_with("blackbox-") && name.find_first_not_of("0123456789", 9) == std::string::npos) {
            files.push_back(entry.path());
        }
    }
    return files;
}

// Runs a function for each slot that holds something.
template <class Function>
void ForEachSlot(const BoxFile &file, Function function) {
    const auto slot = std::make_unique<FaultSlot>();
    bool waited = false;
    for (uint32_t index = 0; index < kSlotNum && file.ReadSlot(index, *slot); ++index) {
        State state = StateOf(*slot);
        if (state == State::kDamaged && !waited) {
            std::this_thread::sleep_for(kWriting);
            waited = true;
            state = file.ReadSlot(index, *slot) ? StateOf(*slot) : State::kEmpty;
        }
        if (state != State::kEmpty) {
            function(index, *slot, state == State::kWhole);
        }
    }
}

} // namespace

Contents Read(const std::filesystem::path &runDir) {
    Contents contents;
    for (const std::filesystem::path &path : Files(runDir)) {
        try {
            const BoxFile file(path, O_RDONLY);
            ForEachSlot(file, [&](uint32_t, const FaultSlot &slot, bool whole) {
                if (whole) {
                    contents.records.push_back({path, slot.sequence,
                                                slot.stackCheck == CheckOf(slot.sequence, slot.stack), slot.head,
                                                slot.stack});
                    Confine(contents.records.back());
                } else {
                    ++contents.damaged;
                }
            });
        } catch (const std::system_error &error) {
            contents.refused.emplace_back(error.what());
        }
    }
    std::sort(contents.records.begin(), contents.records.end(), [](const FaultRecord &left, const FaultRecord &right) {
        return std::pair(left.head.timeNs, left.sequence) > std::pair(right.head.timeNs, right.sequence);
    });
    return contents;
}

size_t Erase(const std::filesystem::path &runDir, const std::function<bool(const FaultHead &)> &chosen, bool damaged) {
    size_t erased = 0;
    std::exception_ptr failure;
    for (const std::filesystem::path &path : Files(runDir)) {
        try {
            const BoxFile file(path, O_RDWR);
            ForEachSlot(file, [&](uint32_t index, const FaultSlot &slot, bool whole) {
                if (whole ? chosen(slot.head) : damaged) {
                    file.Erase(index, slot.sequence);
                    ++erased;
                }
            });
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
