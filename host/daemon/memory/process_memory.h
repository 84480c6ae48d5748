// The memory of processes.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "host/daemon/processes/users.h"
#include "host/procfs/procfs.h"

namespace tarnd {

// What is read of a process before anything else.
class ProcessStatus {
public:
    ProcessStatus(const host::procfs::Procfs &proc, uint32_t pid)
        : task_(proc.ReadProcess(pid)), text_(proc.Read(pid, "status")) {}

    const host::procfs::Task &Task() const { return task_; }
    bool HasMemory() const; // not a kernel thread or a zombie

    // The second of the ids in a line such as "Uid:": real, effective, saved, of file access.
    uint32_t EffectiveId(std::string_view key) const;

    uint64_t Number(std::string_view key) const { return host::procfs::FieldOf(text_, key); }

    // In KiB, as far as 32 bits go; 0 without such a line.
    uint32_t SizeOf(std::string_view key) const;

private:
    host::procfs::Task task_;
    std::string text_;
};

// All of a text as a number; it may end with a line feed.
std::optional<uint32_t> NumberIn(std::string_view text);

// Hands processes over. `name` is a process id or a pattern, `user` a name or a number; either may be empty. Of several
// processes those are left out that end or prove hidden meanwhile, also from `take`; one that was asked for by its id
// is an error then.
using TakeProcess = std::function<void(const ProcessStatus &)>;
void SelectProcesses(const host::procfs::Procfs &proc, const std::string &name, const std::string &user,
                     UserNames &names, const TakeProcess &take);

} // namespace tarnd
