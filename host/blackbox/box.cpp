#include "host/blackbox/box.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string>

#include "host/osal/error.h"

namespace host::blackbox {

namespace {

// More than one is needed where others make or replace the file meanwhile.
constexpr int kMostTries = 10;

// One that is there is opened without O_CREAT, which where everyone may write is refused for others' files. None when
// another process has just made it.
host::Descriptor Open(const std::filesystem::path &path) {
    constexpr int kFlags = O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
    int fd = open(path.c_str(), kFlags);
    if (fd < 0 && errno == ENOENT) {
        fd = open(path.c_str(), kFlags | O_CREAT | O_EXCL, 0600);
    }
    return fd < 0 && errno == EEXIST ? host::Descriptor() : host::Descriptor(fd, path.string());
}

void Check(int result, const std::filesystem::path &path) {
    if (result != 0) {
        host::Fail(errno, path.string());
    }
}

bool IsOwn(const struct stat &status) {
    return S_ISREG(status.st_mode) && status.st_uid == geteuid() && status.st_nlink == 1;
}

FileHeader NewHeader() {
    FileHeader header{};
    header.slotNum = kSlotNum;
    header.slotBytes = sizeof(FaultSlot);
    memcpy(header.magic, kMagic, sizeof kMagic);
    return header;
}

// False for a file that is no black box.
bool ReadHeader(int fd, FileHeader &header) {
    return pread(fd, &header, sizeof header, 0) == sizeof header && memcmp(header.magic, kMagic, sizeof kMagic) == 0 &&
           header.slotNum == kSlotNum && header.slotBytes == sizeof(FaultSlot);
}

// The magic comes last: a file is a black box when all of it is there.
void Format(int fd, const std::filesystem::path &path) {
    if (const int error = posix_fallocate(fd, 0, kFileBytes); error != 0) {
        Check(ftruncate(fd, 0), path);
        host::Fail(error, path.string());
    }
    const FileHeader header = NewHeader();
    if (pwrite(fd, &header, sizeof header, 0) != sizeof header) {
        host::Fail(errno, path.string());
    }
}

// Whether the path still names the open file: another process may have set it aside.
bool IsCurrent(const struct stat &opened, const std::filesystem::path &path) {
    struct stat named {};
    return lstat(path.c_str(), &named) == 0 && named.st_ino == opened.st_ino && named.st_dev == opened.st_dev;
}

// The turn to take a sequence, among the threads of the process and among processes. Nobody waits long for it: its
// holder may be stopped, or be who was interrupted by this signal. Then two may take one sequence, and of their
// records one is lost.
class Turn {
public:
    Turn(std::atomic_flag &claimed, int fd) : claimed_(claimed), fd_(fd) {
        for (int tries = 0; tries != 100; ++tries) {
            claims_ = claims_ || !claimed_.test_and_set();
            if (claims_ && Lock(F_WRLCK)) {
                return;
            }
            poll(nullptr, 0, 1);
        }
    }
    ~Turn() {
        Lock(F_UNLCK);
        if (claims_) {
            claimed_.clear();
        }
    }
    Turn(const Turn &) = delete;
    Turn &operator=(const Turn &) = delete;

private:
    // A lock of the process: a child that was forked has none.
    bool Lock(short type) const {
        struct flock lock {};
        lock.l_type = type;
        lock.l_whence = SEEK_SET;
        lock.l_len = sizeof(FileHeader);
        return fcntl(fd_, F_SETLK, &lock) == 0;
    }

    std::atomic_flag &claimed_;
    const int fd_;
    bool claims_ = false;
};

} // namespace

std::filesystem::path FileOf(const std::filesystem::path &directory, uint32_t uid) {
    return directory / ("blackbox-" + std::to_string(uid));
}

Box::Box(const std::filesystem::path &file, std::filesystem::path &aside) {
    for (int tries = 0; tries != kMostTries; ++tries) {
        file_ = Open(file);
        if (!file_) {
            continue;
        }
        opened_ = file_.Status();
        if (IsOwn(opened_)) {
            Check(flock(file_.Fd(), LOCK_EX), file);
            opened_ = file_.Status();
            FileHeader header;
            if (!IsCurrent(opened_, file)) {
                continue;
            }
            if (opened_.st_size == 0) {
                Format(file_.Fd(), file);
            }
            if (ReadHeader(file_.Fd(), header)) {
                Check(flock(file_.Fd(), LOCK_UN), file);
                return;
            }
        }
        aside = file.string() + ".damaged";
        std::filesystem::rename(file, aside);
    }
    host::Fail(EBUSY, file.string() + " is replaced again and again");
}

Box::Draft *Box::TakeDraft() const {
    for (Draft &draft : drafts_) {
        if (!draft.taken.test_and_set()) {
            return &draft;
        }
    }
    return nullptr;
}

// The process may have closed what it does not know, and opened something else in its place.
bool Box::IsOpen() const {
    struct stat now {};
    return fstat(file_.Fd(), &now) == 0 && now.st_ino == opened_.st_ino && now.st_dev == opened_.st_dev;
}

uint64_t Box::TakeSequence() const {
    const Turn turn(claimed_, file_.Fd());
    FileHeader header;
    if (!ReadHeader(file_.Fd(), header)) { // it was cut off
        header = NewHeader();
        [[maybe_unused]] const int grown = ftruncate(file_.Fd(), kFileBytes); // else it grows as it is written
    }
    header.lastSequence += header.lastSequence == UINT64_MAX ? 2 : 1; // there is no record 0
    Write(&header, sizeof header, 0);
    return header.lastSequence;
}

// Nobody can be told of a failure, which leaves the record damaged.
void Box::Write(const void *data, size_t size, size_t at) const {
    [[maybe_unused]] const ssize_t written = pwrite(file_.Fd(), data, size, static_cast<off_t>(at));
}

Entry::Entry(const Box &box) : box_(box), draft_(box.IsOpen() ? box.TakeDraft() : nullptr) {
    if (draft_ != nullptr) {
        sequence_ = box_.TakeSequence();
        slotAt_ = sizeof(FileHeader) + static_cast<size_t>((sequence_ - 1) % kSlotNum) * sizeof(FaultSlot);
        box_.Write(&sequence_, sizeof sequence_, slotAt_ + offsetof(FaultSlot, sequence));
    }
}

Entry::~Entry() {
    if (draft_ != nullptr) {
        draft_->taken.clear();
    }
}

// The check comes last: what it belongs to is all there.
template <class Part>
void Entry::Seal(const Part &part, size_t partAt, size_t checkAt) const {
    const uint32_t check = CheckOf(sequence_, part);
    box_.Write(&part, sizeof part, slotAt_ + partAt);
    box_.Write(&check, sizeof check, slotAt_ + checkAt);
}

void Entry::SealHead() const {
    Seal(draft_->head, offsetof(FaultSlot, head), offsetof(FaultSlot, headCheck));
}

void Entry::SealStack() const {
    Seal(draft_->stack, offsetof(FaultSlot, stack), offsetof(FaultSlot, stackCheck));
}

} // namespace host::blackbox
