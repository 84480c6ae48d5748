#include "host/daemon/memory/mapped_files.h"

#include <fmt/format.h>

#include "host/procfs/memory.h"

namespace tarnd {

namespace {

void Add(MappedFileUse &use, uint64_t kib, const host::procfs::Task &process) {
    use.kib += kib;
    if (++use.processNum == 1 || kib > use.largestKib) {
        use.largestKib = kib;
        use.largestProcess = fmt::format("{} ({})", process.name, process.id);
    }
}

std::map<MappedFile, uint64_t> FilesOf(const host::procfs::Procfs &proc, uint32_t pid) {
    std::map<MappedFile, uint64_t> files;
    host::procfs::ReadMappings(proc, pid, [&](const host::procfs::Mapping &mapping) {
        if (mapping.inode != 0) {
            files[{mapping.name, mapping.device, mapping.inode}] += mapping.proportional;
        }
    });
    return files;
}

} // namespace

std::map<MappedFile, MappedFileUse> MappedFiles(const host::procfs::Procfs &proc, const host::Check &check) {
    std::map<MappedFile, MappedFileUse> uses;
    for (const uint32_t pid : proc.ProcessIds()) {
        check();
        host::procfs::SkipHidden([&] {
            const host::procfs::Task process = proc.ReadProcess(pid);
            for (const auto &[file, kib] : FilesOf(proc, pid)) {
                Add(uses[file], kib, process);
            }
        });
    }
    return uses;
}

} // namespace tarnd
