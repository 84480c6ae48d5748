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

private:
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

} // namespace

uint64_t FunctionAt(uint64_t address, std::span<char> name) {
    name[0] = 0;
    OwnMaps maps;
    for (OwnMapping mapping; maps.Next(mapping);) {
        char path[512];
        if (mapping.Has(address) && mapping.path.size() < sizeof path) {
            path[mapping.path.copy(path, sizeof path - 1)] = 0;
            return Image(path).FunctionAt(address - mapping.start + mapping.fileOffset, name);
        }
    }
    return 0;
}

} // namespace agent
