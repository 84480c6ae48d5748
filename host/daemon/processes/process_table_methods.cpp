// A table of the processes, kept as it was when it was built.
#include <algorithm>
#include <map>
#include <mutex>

#include "host/answer/answer.h"
#include "host/procfs/procfs.h"
#include "host/values/daemon.h"
#include "server/tarnd.h"

namespace tarnd {

namespace {

constexpr size_t kMaxCommandLine = 4096;

struct Row {
    host::procfs::Task process;
    uint32_t user = 0;
    std::string commandLine;
};

using Table = std::vector<Row>;

// The arguments with blanks between them; a process can put anything there.
std::string CommandLine(uint32_t pid) {
    std::string text = host::procfs::Procfs().Read(pid, "cmdline").substr(0, kMaxCommandLine);
    text.erase(text.find_last_not_of('\0') + 1);
    for (char &c : text) {
        c = c == '\0' ? ' ' : static_cast<unsigned char>(c) < ' ' || c == 0x7F ? '?' : c;
    }
    return text;
}

Row ReadRow(uint32_t pid) {
    const std::string status = host::procfs::Procfs().Read(pid, "status");
    return {host::procfs::Procfs().ReadProcess(pid), static_cast<uint32_t>(host::procfs::FieldOf(status, "Uid")),
            CommandLine(pid)};
}

Table ReadTable(bool withKernel) {
    Table table;
    for (const uint32_t pid : host::procfs::Procfs().ProcessIds()) {
        host::procfs::SkipHidden([&] {
            Row row = ReadRow(pid);
            if (withKernel || !row.process.ofKernel) {
                table.push_back(std::move(row));
            }
        });
    }
    return table;
}

// Parents before their children. Without recursion, as a chain of processes may be long.
Table AsTree(const Table &table) {
    std::map<uint32_t, const Row *> byPid;
    for (const Row &row : table) {
        byPid[row.process.id] = &row;
    }
    std::map<uint32_t, std::vector<const Row *>> children;
    std::vector<const Row *> open;
    for (auto row = table.rbegin(); row != table.rend(); ++row) { // the lowest id is to be the last, and next
        if (byPid.count(row->process.parent) != 0) {
            children[row->process.parent].push_back(&*row);
        } else {
            open.push_back(&*row);
        }
    }
    Table tree;
    while (!open.empty()) {
        const Row *const row = open.back();
        open.pop_back();
        tree.push_back(*row);
        const auto &next = children[row->process.id];
        open.insert(open.end(), next.begin(), next.end());
    }
    return tree;
}

std::mutex tableMutex;
std::shared_ptr<const Table> builtTable;

void Build(uint8_t flags) {
    if (flags > (TARND_TABLE_WITHOUT_KERNEL | TARND_TABLE_AS_TREE)) {
        throw host::BadValue("ucBuildFlag", flags, "a sum of 1 and 2");
    }
    Table table = ReadTable((flags & TARND_TABLE_WITHOUT_KERNEL) == 0);
    auto built = std::make_shared<const Table>((flags & TARND_TABLE_AS_TREE) != 0 ? AsTree(table) : std::move(table));
    const std::lock_guard lock(tableMutex);
    builtTable = std::move(built);
}

std::shared_ptr<const Table> BuiltTable() {
    const std::lock_guard lock(tableMutex);
    if (builtTable == nullptr) {
        throw std::system_error(ENODATA, std::generic_category(), "no process table has been built");
    }
    return builtTable;
}

uint64_t Ms(uint64_t ticks) {
    return ticks * 1000 / host::procfs::TicksPerSecond();
}

template <class Reply>
Tarn_sys_diag_ProcTableEntry Describe(const Row &row, Reply &reply) {
    Tarn_sys_diag_ProcTableEntry entry{};
    entry.uiPid = row.process.id;
    entry.uiPpid = row.process.parent;
    entry.uiUid = row.user;
    host::CopyText(entry.szProcName, row.process.name);
    entry.ucState = static_cast<uint8_t>(row.process.state);
    entry.uiThreadNum = row.process.threadNum;
    entry.uiRss = static_cast<uint32_t>(std::min<uint64_t>(row.process.residentKb, UINT32_MAX));
    entry.ullStartTime = Ms(row.process.startTicks);
    entry.ullCpuTime = Ms(row.process.CpuTicks());
    entry.pcCmdLine = row.process.ofKernel ? nullptr : reply.Keep(row.commandLine);
    return entry;
}

} // namespace

} // namespace tarnd

uint32_t ProcTableBuild(const Tarn_sys_diag_ProcTableBuildInput *request, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_ProcTableBuildOutput>(__func__, replyCtx, [&](auto &reply) {
        reply.uiResult = host::Run("ProcTableBuild", [&] { tarnd::Build(request->ucBuildFlag); });
    });
}

uint32_t GetProcTable(const Tarn_sys_diag_GetProcTableInput *, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_GetProcTableResult>(__func__, replyCtx, [](auto &reply) {
        const auto table = tarnd::BuiltTable(); // kept, as another may take its place meanwhile
        std::vector<Tarn_sys_diag_ProcTableEntry> entries;
        for (const tarnd::Row &row : *table) {
            entries.push_back(tarnd::Describe(row, reply));
        }
        reply.pstProc = reply.Keep(std::move(entries), reply.uiProcNum);
    });
}

uint32_t GetQ5ProcInfo(const Tarn_sys_diag_GetQ5ProcInfoInput *request, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_GetQ5ProcInfoOutput>(__func__, replyCtx, [&](auto &reply) {
        const host::procfs::Task process = host::procfs::Procfs().ReadProcess(request->uiPid);
        reply.uiValue1 = process.parent;
        reply.uiValue2 = process.session;
    });
}
