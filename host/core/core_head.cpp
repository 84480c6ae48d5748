#include "host/core/core_head.h"

#include <elf.h>
#include <sys/procfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

namespace core {

namespace {

#if defined(__LP64__)
using FileHeader = Elf64_Ehdr;
using Segment = Elf64_Phdr;
using NoteHeader = Elf64_Nhdr;
constexpr uint8_t kClass = ELFCLASS64;
#else
using FileHeader = Elf32_Ehdr;
using Segment = Elf32_Phdr;
using NoteHeader = Elf32_Nhdr;
constexpr uint8_t kClass = ELFCLASS32;
#endif

// The kernel writes status, identity and signal of the thread that crashed before all other notes: they are small.
constexpr size_t kFirstNotesBytes = 4096;

// None where it is not whole.
template <class Part>
std::optional<Part> PartAt(std::span<const uint8_t> bytes, uint64_t at) {
    Part part;
    if (at > bytes.size() || bytes.size() - static_cast<size_t>(at) < sizeof part) {
        return {};
    }
    memcpy(&part, bytes.data() + at, sizeof part);
    return part;
}

std::optional<FileHeader> HeaderOf(std::span<const uint8_t> bytes) {
    const auto header = PartAt<FileHeader>(bytes, 0);
    const bool ours = header && memcmp(header->e_ident, ELFMAG, SELFMAG) == 0 && header->e_ident[EI_CLASS] == kClass &&
                      header->e_type == ET_CORE && header->e_phentsize == sizeof(Segment);
    return ours ? header : std::nullopt;
}

std::optional<Segment> NotesOf(std::span<const uint8_t> bytes, const FileHeader &header) {
    for (uint64_t i = 0; i < header.e_phnum; ++i) {
        const auto segment = PartAt<Segment>(bytes, header.e_phoff + i * sizeof(Segment));
        if (segment && segment->p_type == PT_NOTE) {
            return segment;
        }
    }
    return {};
}

uint64_t Aligned(uint64_t bytes) {
    return (bytes + 3) & ~uint64_t{3};
}

void TakeNote(CoreHead &head, uint32_t type, std::span<const uint8_t> content) {
    if (type == NT_PRSTATUS && !head.registers) {
        if (const auto status = PartAt<prstatus_t>(content, 0); status && content.size() == sizeof *status) {
            static_assert(sizeof status->pr_reg == sizeof *head.registers);
            memcpy(&head.registers.emplace(), &status->pr_reg, sizeof status->pr_reg);
        }
    } else if (type == NT_SIGINFO && !head.cause) {
        if (const auto info = PartAt<siginfo_t>(content, 0)) {
            const bool ofInstruction = info->si_code > 0;
            head.cause = {info->si_code, ofInstruction ? reinterpret_cast<uintptr_t>(info->si_addr) : 0};
        }
    }
}

void TakeNotes(CoreHead &head, std::span<const uint8_t> notes) {
    while (const auto note = PartAt<NoteHeader>(notes, 0)) {
        const uint64_t content = sizeof *note + Aligned(note->n_namesz), end = content + note->n_descsz;
        if (end > notes.size()) {
            return;
        }
        TakeNote(head, note->n_type, notes.subspan(static_cast<size_t>(content), note->n_descsz));
        notes = notes.subspan(static_cast<size_t>(std::min<uint64_t>(Aligned(end), notes.size())));
    }
}

// Reads on until there are so many bytes. False at the end.
bool ReadUpTo(int fd, std::vector<uint8_t> &bytes, uint64_t wanted) {
    size_t at = bytes.size();
    bytes.resize(std::max(at, static_cast<size_t>(std::min<uint64_t>(wanted, kMostHeadBytes))));
    for (ssize_t got = 1; got != 0 && at < bytes.size(); at += static_cast<size_t>(std::max<ssize_t>(got, 0))) {
        got = read(fd, bytes.data() + at, bytes.size() - at);
        if (got < 0 && errno != EINTR) {
            break;
        }
    }
    bytes.resize(at);
    return at >= wanted;
}

} // namespace

void ParseHead(CoreHead &head) {
    const std::span<const uint8_t> bytes = head.bytes;
    const auto header = HeaderOf(bytes);
    if (!header) {
        return;
    }
    const auto notes = NotesOf(bytes, *header);
    if (notes && notes->p_offset < bytes.size()) {
        const std::span<const uint8_t> rest = bytes.subspan(static_cast<size_t>(notes->p_offset));
        TakeNotes(head, rest.first(static_cast<size_t>(std::min<uint64_t>(notes->p_filesz, rest.size()))));
    }
}

CoreHead ReadHead(int fd) {
    CoreHead head;
    if (!ReadUpTo(fd, head.bytes, sizeof(FileHeader))) {
        return head;
    }
    const auto header = HeaderOf(head.bytes);
    if (!header || header->e_phoff > kMostHeadBytes ||
        !ReadUpTo(fd, head.bytes, header->e_phoff + uint64_t{header->e_phnum} * sizeof(Segment))) {
        return head;
    }
    if (const auto notes = NotesOf(head.bytes, *header); notes && notes->p_offset <= kMostHeadBytes) {
        ReadUpTo(fd, head.bytes, notes->p_offset + std::min<uint64_t>(notes->p_filesz, kFirstNotesBytes));
    }
    ParseHead(head);
    return head;
}

} // namespace core
