#include "host/agent/symbols.h"

#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>

#include "host/agent/own_maps.h"
#include "host/osal/descriptor.h"

namespace agent {

namespace {

using Header = ElfW(Ehdr);
using Segment = ElfW(Phdr);
using Section = ElfW(Shdr);
using Symbol = ElfW(Sym);

#if defined(__arm__)
constexpr uint64_t kModeBit = 1; // tells Thumb code, and is no part of the address
#else
constexpr uint64_t kModeBit = 0;
#endif

// A program or library on disk. What can't be read, for others may cut it off at any time, is absent.
class Image {
public:
    explicit Image(const char *path) : file_(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {
        isOne_ = ReadAt(0, header_) && memcmp(header_.e_ident, ELFMAG, SELFMAG) == 0 &&
                 header_.e_phentsize == sizeof(Segment) && header_.e_shentsize == sizeof(Section);
    }

    // Returns how far behind the start of its function a place in the file is; 0 with an empty name when no symbol
    // says so.
    uint64_t FunctionAt(uint64_t offset, std::span<char> name) const {
        uint64_t address = 0;
        if (!isOne_ || !AddressOf(offset, address)) {
            return 0;
        }
        for (unsigned i = 0; i < header_.e_shnum; ++i) {
            Section table, names;
            Symbol symbol;
            if (SectionAt(i, table) && (table.sh_type == SHT_SYMTAB || table.sh_type == SHT_DYNSYM) &&
                Find(table, address, symbol) && SectionAt(table.sh_link, names)) {
                CopyText(names.sh_offset + symbol.st_name, name);
                return address - StartOf(symbol);
            }
        }
        return 0;
    }

    size_t BuildId(std::span<uint8_t> id) const {
        Segment segment;
        for (unsigned i = 0; isOne_ && i < header_.e_phnum; ++i) {
            if (ReadAt(header_.e_phoff + uint64_t{i} * sizeof segment, segment) && segment.p_type == PT_NOTE) {
                if (const size_t bytes = BuildIdIn(segment, id); bytes != 0) {
                    return bytes;
                }
            }
        }
        return 0;
    }

private:
    // A note is a head, a name and a description, each filled up to a multiple of four bytes.
    size_t BuildIdIn(const Segment &notes, std::span<uint8_t> id) const {
        const auto filled = [](uint64_t bytes) { return (bytes + 3) & ~uint64_t{3}; };
        constexpr char kOwner[] = "GNU";
        ElfW(Nhdr) head;
        for (uint64_t at = 0; at + sizeof head <= notes.p_filesz && ReadAt(notes.p_offset + at, head);) {
            const uint64_t name = notes.p_offset + at + sizeof head, content = name + filled(head.n_namesz);
            char owner[sizeof kOwner] = {};
            if (head.n_type == NT_GNU_BUILD_ID && head.n_namesz == sizeof kOwner && head.n_descsz <= id.size() &&
                ReadAt(name, owner) && memcmp(owner, kOwner, sizeof kOwner) == 0) {
                const ssize_t got = pread(file_.Fd(), id.data(), head.n_descsz, static_cast<off_t>(content));
                return got == static_cast<ssize_t>(head.n_descsz) ? head.n_descsz : 0;
            }
            at = content + filled(head.n_descsz) - notes.p_offset;
        }
        return 0;
    }

    template <class Part>
    bool ReadAt(uint64_t offset, Part &part) const {
        return pread(file_.Fd(), &part, sizeof part, static_cast<off_t>(offset)) == sizeof part;
    }

    bool SectionAt(unsigned index, Section &section) const {
        return ReadAt(header_.e_shoff + uint64_t{index} * sizeof section, section);
    }

    // As the file's symbols count addresses.
    bool AddressOf(uint64_t offset, uint64_t &address) const {
        for (unsigned i = 0; i < header_.e_phnum; ++i) {
            Segment segment;
            if (ReadAt(header_.e_phoff + uint64_t{i} * sizeof segment, segment) && segment.p_type == PT_LOAD &&
                offset >= segment.p_offset && offset - segment.p_offset < segment.p_filesz) {
                address = offset - segment.p_offset + segment.p_vaddr;
                return true;
            }
        }
        return false;
    }

    static uint64_t StartOf(const Symbol &symbol) { return symbol.st_value & ~kModeBit; }

    // The nearest symbol before an address says nothing: a stripped library has few.
    static bool Contains(const Symbol &symbol, uint64_t address) {
        return (symbol.st_info & 0xF) == STT_FUNC && symbol.st_shndx != SHN_UNDEF && address >= StartOf(symbol) &&
               address - StartOf(symbol) < symbol.st_size;
    }

    bool Find(const Section &table, uint64_t address, Symbol &found) const {
        std::array<Symbol, 128> some;
        for (uint64_t at = 0; at < table.sh_size;) {
            const auto wanted = static_cast<size_t>(std::min<uint64_t>(sizeof some, table.sh_size - at));
            const ssize_t got = pread(file_.Fd(), some.data(), wanted, static_cast<off_t>(table.sh_offset + at));
            const auto end = some.begin() + std::max<ssize_t>(got, 0) / static_cast<ssize_t>(sizeof found);
            const auto one =
                std::find_if(some.begin(), end, [&](const Symbol &symbol) { return Contains(symbol, address); });
            if (one != end) {
                found = *one;
                return true;
            }
            if (end == some.begin()) {
                return false;
            }
            at += static_cast<uint64_t>(end - some.begin()) * sizeof found;
        }
        return false;
    }

    void CopyText(uint64_t offset, std::span<char> text) const {
        const ssize_t got = pread(file_.Fd(), text.data(), text.size() - 1, static_cast<off_t>(offset));
        text[static_cast<size_t>(std::max<ssize_t>(got, 0))] = 0;
    }

    const host::Descriptor file_;
    Header header_{};
    bool isOne_ = false;
};

constexpr std::string_view kDeleted = " (deleted)";
constexpr char kProgram[] = "/proc/self/exe"; // can be opened also when it has no name any more

bool IsProgram(std::string_view path) {
    char program[512];
    const ssize_t length = readlink(kProgram, program, sizeof program);
    return length > 0 && path == std::string_view(program, static_cast<size_t>(length));
}

// Has a function look at the file that is mapped at an address.
template <class Look>
void LookAt(uint64_t address, Look look) {
    OwnMaps maps;
    for (OwnMapping mapping; maps.Next(mapping);) {
        char path[512];
        if (mapping.Has(address) && mapping.path.size() < sizeof path) {
            path[mapping.path.copy(path, sizeof path - 1)] = 0;
            const bool isProgram = mapping.path.ends_with(kDeleted) && IsProgram(mapping.path);
            look(Image(isProgram ? kProgram : path), address - mapping.start + mapping.fileOffset);
            return;
        }
    }
}

} // namespace

uint64_t FunctionAt(uint64_t address, std::span<char> name) {
    name[0] = 0;
    uint64_t behind = 0;
    LookAt(address, [&](const Image &image, uint64_t offset) { behind = image.FunctionAt(offset, name); });
    return behind;
}

size_t BuildIdAt(uint64_t address, std::span<uint8_t> id) {
    size_t bytes = 0;
    LookAt(address, [&](const Image &image, uint64_t) { bytes = image.BuildId(id); });
    return bytes;
}

std::string_view WithoutDeleted(std::string_view path) {
    return path.substr(0, path.size() - (path.ends_with(kDeleted) ? kDeleted.size() : 0));
}

} // namespace agent
