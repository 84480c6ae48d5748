// What the files that processes map take of memory: programs, libraries, data, and shared memory too.
#include <map>

#include "host/answer/answer.h"
#include "host/daemon/memory/kib.h"
#include "host/daemon/memory/memory_files.h"
#include "host/procfs/memory.h"
#include "host/values/daemon.h"
#include "server/tarnd.h"

namespace tarnd {

namespace {

struct File {
    std::string name;
    std::string device;
    uint64_t inode = 0;

    auto operator<=>(const File &) const = default;
};

struct Use {
    uint64_t kib = 0;
    uint32_t processNum = 0;
    uint64_t largestKib = 0;
    std::string largestProcess;

    void Add(uint64_t ofProcessKib, const host::procfs::Task &process) {
        kib += ofProcessKib;
        if (++processNum == 1 || ofProcessKib > largestKib) {
            largestKib = ofProcessKib;
            largestProcess = fmt::format("{} ({})", process.name, process.id);
        }
    }
};

std::map<File, uint64_t> FilesOf(uint32_t pid) {
    std::map<File, uint64_t> files;
    host::procfs::ReadMappings(host::procfs::Procfs(), pid, [&](const host::procfs::Mapping &mapping) {
        if (mapping.inode != 0) {
            files[{mapping.name, mapping.device, mapping.inode}] += mapping.proportional;
        }
    });
    return files;
}

std::map<File, Use> FilesOfAll(void *replyCtx) {
    std::map<File, Use> uses;
    for (const uint32_t pid : host::procfs::Procfs().ProcessIds()) {
        host::CheckWanted(replyCtx);
        host::procfs::SkipHidden([&] {
            const host::procfs::Task process = host::procfs::Procfs().ReadProcess(pid);
            for (const auto &[file, kib] : FilesOf(pid)) {
                uses[file].Add(kib, process);
            }
        });
    }
    return uses;
}

std::vector<Tarn_sys_diag_SysMemStatisFile> Describe(const std::map<File, Use> &uses) {
    Largest<Tarn_sys_diag_SysMemStatisFile> records(TARND_FILES_MAX,
                                                    [](const auto &record) { return record.uiValue1; });
    for (const auto &[file, use] : uses) {
        Tarn_sys_diag_SysMemStatisFile record{};
        host::CopyText(record.acFileName, file.name);
        record.uiValue1 = Kib(use.kib);
        record.uiValue2 = use.processNum;
        host::CopyText(record.acValue3, use.largestProcess);
        host::CopyText(record.acValue4, fmt::format("{} {}", file.device, file.inode));
        records.Add(record);
    }
    return records.Take();
}

} // namespace

} // namespace tarnd

uint32_t GetSysMemStatisFile(const Tarn_sys_diag_None *, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_SysMemStatisFileResult>(__func__, replyCtx, [&](auto &reply) {
        reply.pstFile = reply.Keep(tarnd::Describe(tarnd::FilesOfAll(replyCtx)), reply.uiFileNum);
    });
}
