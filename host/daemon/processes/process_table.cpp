#include "host/daemon/processes/process_table.h"

#include <algorithm>
#include <map>
#include <system_error>

#include "host/osal/text.h"

namespace tarnd {

namespace {

constexpr size_t kMaxCommandLine = 4096;

// The arguments with blanks between them; a process can put anything there.
std::string CommandLine(const host::procfs::Procfs &proc, uint32_t pid) {
    std::string text = proc.Read(pid, "cmdline").substr(0, kMaxCommandLine);
    text.erase(text.find_last_not_of('\0') + 1);
    std::ranges::replace(text, '\0', ' ');
    return host::LineOfText(text);
}

ProcessTable::Row ReadRow(const host::procfs::Procfs &proc, uint32_t pid) {
    const std::string status = proc.Read(pid, "status");
    return {proc.ReadProcess(pid), static_cast<uint32_t>(host::procfs::FieldOf(status, "Uid")), CommandLine(proc, pid)};
}

ProcessTable::Rows ReadTable(const host::procfs::Procfs &proc, bool withKernel) {
    ProcessTable::Rows table;
    for (const uint32_t pid : proc.ProcessIds()) {
        host::procfs::SkipHidden([&] {
            ProcessTable::Row row = ReadRow(proc, pid);
            if (withKernel || !row.process.ofKernel) {
                table.push_back(std::move(row));
            }
        });
    }
    return table;
}

// Parents before their children. Without recursion, as a chain of processes may be long.
ProcessTable::Rows AsTree(const ProcessTable::Rows &table) {
    std::map<uint32_t, const ProcessTable::Row *> byPid;
    for (const ProcessTable::Row &row : table) {
        byPid[row.process.id] = &row;
    }
    std::map<uint32_t, std::vector<const ProcessTable::Row *>> children;
    std::vector<const ProcessTable::Row *> open;
    for (auto row = table.rbegin(); row != table.rend(); ++row) { // the lowest id is to be the last, and next
        if (byPid.count(row->process.parent) != 0) {
            children[row->process.parent].push_back(&*row);
        } else {
            open.push_back(&*row);
        }
    }
    ProcessTable::Rows tree;
    while (!open.empty()) {
        const ProcessTable::Row *const row = open.back();
        open.pop_back();
        tree.push_back(*row);
        const auto &next = children[row->process.id];
        open.insert(open.end(), next.begin(), next.end());
    }
    return tree;
}

} // namespace

void ProcessTable::Build(bool withKernel, bool asTree) {
    Rows rows = ReadTable(proc_, withKernel);
    auto built = std::make_shared<const Rows>(asTree ? AsTree(rows) : std::move(rows));
    const host::MutexLock lock(mutex_);
    built_ = std::move(built);
}

std::shared_ptr<const ProcessTable::Rows> ProcessTable::Built() const {
    const host::MutexLock lock(mutex_);
    if (built_ == nullptr) {
        throw std::system_error(ENODATA, std::generic_category(), "no process table has been built");
    }
    return built_;
}

} // namespace tarnd
