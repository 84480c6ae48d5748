#include "host/unwind/image.h"

#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace host::unwind {

namespace {

using ElfHeader = ElfW(Ehdr);

constexpr uint64_t kMostCopiedBytes = 192U << 20;
constexpr uint64_t kMostMemoryBytes = 64U << 20;
constexpr size_t kChunk = 256U << 10;

Descriptor NewFile() {
    return Descriptor(memfd_create("image", MFD_CLOEXEC | MFD_ALLOW_SEALING), "memfd_create");
}

Descriptor Seal(Descriptor file) {
    fcntl(file.Fd(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL);
    return file;
}

bool Write(const Descriptor &file, const void *from, size_t bytes, uint64_t at) {
    return pwrite(file.Fd(), from, bytes, static_cast<off_t>(at)) == static_cast<ssize_t>(bytes);
}

// Our own user's files are its own to change.
bool MayChange(const struct stat &status) {
    return status.st_uid != 0 || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
}

// None when it can't be read to its end.
Descriptor CopyOfFile(const Descriptor &file, uint64_t size) {
    Descriptor copy = NewFile();
    std::vector<uint8_t> chunk(kChunk);
    for (uint64_t at = 0; at < size;) {
        const ssize_t got = pread(file.Fd(), chunk.data(), chunk.size(), static_cast<off_t>(at));
        if (got <= 0 || !Write(copy, chunk.data(), static_cast<size_t>(got), at)) {
            return {};
        }
        at += static_cast<uint64_t>(got);
    }
    return Seal(std::move(copy));
}

// Sections are at a file's end, which programs rarely have in memory.
void ForgetMissingSections(const Descriptor &image, uint64_t size) {
    ElfHeader header{};
    if (pread(image.Fd(), &header, sizeof header, 0) != sizeof header) {
        return;
    }
    const uint64_t table = uint64_t{header.e_shnum} * header.e_shentsize;
    if (header.e_shoff > size || size - header.e_shoff < table) {
        header.e_shoff = 0;
        header.e_shnum = header.e_shstrndx = 0;
        Write(image, &header, sizeof header, 0);
    }
}

Descriptor CopyOfMemory(const Target &target, const Module &module) {
    Descriptor copy = NewFile();
    std::vector<uint8_t> chunk(kChunk);
    uint64_t size = 0;
    for (const Mapping &mapping : module.mappings) {
        if (!mapping.readable || mapping.fileOffset > kMostMemoryBytes) {
            continue;
        }
        const uint64_t length = std::min(mapping.high - mapping.low, kMostMemoryBytes - mapping.fileOffset);
        for (uint64_t done = 0; done < length;) {
            const auto wanted = static_cast<size_t>(std::min<uint64_t>(length - done, chunk.size()));
            const size_t got = target.Read(mapping.low + done, chunk.data(), wanted);
            if (got == 0 || !Write(copy, chunk.data(), got, mapping.fileOffset + done)) {
                break;
            }
            done += got;
            size = std::max(size, mapping.fileOffset + done);
        }
    }
    ForgetMissingSections(copy, size);
    return Seal(std::move(copy));
}

// Others would be unpacked, relocated or read as archives.
bool IsProgramOrLibrary(const Descriptor &image) {
    ElfHeader header{};
    return pread(image.Fd(), &header, sizeof header, 0) == sizeof header &&
           memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 &&
           header.e_ident[EI_CLASS] == (sizeof(void *) == 8 ? ELFCLASS64 : ELFCLASS32) &&
           (header.e_type == ET_DYN || header.e_type == ET_EXEC);
}

Descriptor CopyOf(const Target &target, const Module &module) {
    if (Descriptor file = module.path == kVdso ? Descriptor() : target.OpenFile(module)) {
        const struct stat status = file.Status();
        if (!MayChange(status)) {
            return file;
        }
        const auto size = static_cast<uint64_t>(status.st_size);
        if (Descriptor copy = size <= kMostCopiedBytes ? CopyOfFile(file, size) : Descriptor()) {
            return copy;
        }
    }
    return CopyOfMemory(target, module);
}

} // namespace

Descriptor OpenImage(const Target &target, const Module &module) {
    Descriptor image = CopyOf(target, module);
    return image && IsProgramOrLibrary(image) ? std::move(image) : Descriptor();
}

} // namespace host::unwind
