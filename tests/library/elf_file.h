// What the tests read of the library's file: its dynamic symbols, its dynamic section and its segments.
#pragma once

#include <link.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

class ElfFile {
public:
    explicit ElfFile(const char *path) {
        std::ifstream file(path, std::ios::binary);
        bytes_.assign(std::istreambuf_iterator<char>(file), {});
        if (bytes_.size() < sizeof(ElfW(Ehdr)) || memcmp(bytes_.data(), ELFMAG, SELFMAG) != 0) {
            throw std::runtime_error(std::string("not an ELF file: ") + path);
        }
        const auto header = At<ElfW(Ehdr)>(0);
        segments_ = ArrayAt<ElfW(Phdr)>(header.e_phoff, header.e_phnum);
        for (const auto &section : ArrayAt<ElfW(Shdr)>(header.e_shoff, header.e_shnum)) {
            if (section.sh_type == SHT_DYNSYM) {
                symbols_ = ArrayAt<ElfW(Sym)>(section.sh_offset, section.sh_size / sizeof(ElfW(Sym)));
            } else if (section.sh_type == SHT_DYNAMIC) {
                dynamic_ = ArrayAt<ElfW(Dyn)>(section.sh_offset, section.sh_size / sizeof(ElfW(Dyn)));
                const auto link = At<ElfW(Shdr)>(header.e_shoff + section.sh_link * sizeof(ElfW(Shdr)));
                strings_ = link.sh_offset;
            }
        }
    }

    std::set<std::string> Names(bool defined) const {
        std::set<std::string> names;
        for (const auto &symbol : symbols_) {
            if (symbol.st_name != 0 && (symbol.st_shndx != SHN_UNDEF) == defined) {
                names.insert(&bytes_[strings_ + symbol.st_name]);
            }
        }
        return names;
    }

    std::vector<std::string> Needed() const {
        std::vector<std::string> names;
        for (const auto &entry : dynamic_) {
            if (entry.d_tag == DT_NEEDED) {
                names.push_back(&bytes_[strings_ + entry.d_un.d_val]);
            }
        }
        return names;
    }

    // The value of a dynamic entry; 0 without.
    size_t Dynamic(long tag) const {
        for (const auto &entry : dynamic_) {
            if (entry.d_tag == tag) {
                return entry.d_un.d_val;
            }
        }
        return 0;
    }
    bool HasDynamic(long tag) const {
        for (const auto &entry : dynamic_) {
            if (entry.d_tag == tag) {
                return true;
            }
        }
        return false;
    }

    std::vector<ElfW(Phdr)> Segments(uint32_t type) const {
        std::vector<ElfW(Phdr)> found;
        for (const auto &segment : segments_) {
            if (segment.p_type == type) {
                found.push_back(segment);
            }
        }
        return found;
    }

private:
    template <class Value>
    Value At(size_t offset) const {
        Value value;
        memcpy(&value, &bytes_.at(offset), sizeof value);
        return value;
    }
    template <class Value>
    std::vector<Value> ArrayAt(size_t offset, size_t num) const {
        std::vector<Value> values;
        for (size_t i = 0; i < num; ++i) {
            values.push_back(At<Value>(offset + i * sizeof(Value)));
        }
        return values;
    }

    std::vector<char> bytes_;
    std::vector<ElfW(Phdr)> segments_;
    std::vector<ElfW(Sym)> symbols_;
    std::vector<ElfW(Dyn)> dynamic_;
    size_t strings_ = 0;
};
