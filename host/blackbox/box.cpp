#include "host/blackbox/box.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "host/osal/descriptor.h"

namespace host::blackbox {

namespace {

host::Descriptor Open(const std::filesystem::path &path) {
    return host::Descriptor(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600), path.string());
}

void Check(int result, const std::filesystem::path &path) {
    if (result != 0) {
        host::Fail(errno, path.string());
    }
}

bool IsBlackBox(int fd, off_t size) {
    FileHeader header;
    return size == static_cast<off_t>(kFileBytes) && pread(fd, &header, sizeof header, 0) == sizeof header &&
           memcmp(header.magic, kMagic, sizeof kMagic) == 0 && header.slotNum == kSlotNum &&
           header.slotBytes == sizeof(FaultSlot);
}

// The magic comes last: a file is a black box when all of it is there.
void Format(int fd, const std::filesystem::path &path) {
    if (const int error = posix_fallocate(fd, 0, kFileBytes); error != 0) {
        Check(ftruncate(fd, 0), path);
        host::Fail(error, path.string());
    }
    FileHeader header{};
    header.slotNum = kSlotNum;
    header.slotBytes = sizeof(FaultSlot);
    memcpy(header.magic, kMagic, sizeof kMagic);
    if (pwrite(fd, &header, sizeof header, 0) != sizeof header) {
        host::Fail(errno, path.string());
    }
}

// Whether the path still names the open file: another process may have set it aside.
bool IsCurrent(const struct stat &opened, const std::filesystem::path &path) {
    struct stat named {};
    return lstat(path.c_str(), &named) == 0 && named.st_ino == opened.st_ino && named.st_dev == opened.st_dev;
}

} // namespace

std::filesystem::path FileOf(const std::filesystem::path &runDir, uint32_t uid) {
    return runDir / ("blackbox-" + std::to_string(uid));
}

Box::Box(const std::filesystem::path &file, std::filesystem::path &aside) {
    for (;;) {
        const host::Descriptor descriptor = Open(file);
        const int fd = descriptor.Fd();
        Check(flock(fd, LOCK_EX), file);
        struct stat status {};
        Check(fstat(fd, &status), file);
        if (!IsCurrent(status, file)) {
            continue;
        }
        if (status.st_size == 0) {
            Format(fd, file);
        } else if (!IsBlackBox(fd, status.st_size)) {
            aside = file.string() + ".damaged";
            std::filesystem::rename(file, aside);
            continue;
        }
        map_ = mmap(nullptr, kFileBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (map_ == MAP_FAILED) {
            host::Fail(errno, file.string());
        }
        flock(fd, LOCK_UN); // which closing does not do, as the mapping keeps the file open
        return;
    }
}

Box::~Box() {
    munmap(map_, kFileBytes);
}

FaultSlot &Box::Take() const {
    auto &header = *static_cast<FileHeader *>(map_);
    auto *const slots = reinterpret_cast<FaultSlot *>(static_cast<char *>(map_) + sizeof(FileHeader));
    const uint64_t sequence = header.lastSequence.fetch_add(1) + 1;
    FaultSlot &slot = slots[(sequence - 1) % kSlotNum];
    slot.sequence = sequence;
    return slot;
}

void Box::SealHead(FaultSlot &slot) {
    slot.headCheck = CheckOf(slot.sequence, slot.head);
}

void Box::SealStack(FaultSlot &slot) {
    slot.stackCheck = CheckOf(slot.sequence, slot.stack);
}

} // namespace host::blackbox
