#include "host/stacks/stacks.h"

#include <cerrno>
#include <string>

#include "host/osal/error.h"
#include "host/procfs/procfs.h"

namespace host::stacks {

namespace {

// The lines of a process's status that say by whose rights it acts.
std::string IdsOf(const std::string &status) {
    const size_t from = status.find("\nUid:"), last = status.find("\nGid:");
    return from == status.npos || last == status.npos ? "" : status.substr(from, status.find('\n', last + 1) - from);
}

Purpose PurposeFor(const procfs::Procfs &proc, uint32_t pid) {
    const procfs::Task process = proc.ReadProcess(pid);
    if (process.HasEnded() || process.ofKernel) {
        Fail(process.ofKernel ? ENOTSUP : ESRCH, fmt::format("the stacks of process {}", pid));
    }
    return {unwind::Job::kUnwind, pid, process.startTicks, IdsOf(proc.Read(pid, "status"))};
}

} // namespace

Process::Process(Tracer &tracer, Helpers &helpers, uint32_t pid, Deadline deadline)
    : tracer_(tracer), pid_(pid), conversation_(helpers, PurposeFor(tracer.Proc(), pid), deadline) {}

Stack Process::Read(uint32_t tid) {
    return Unwind(tracer_.Take(pid_, tid));
}

Stack Process::Unwind(const Snapshot &snapshot) {
    std::optional<std::vector<Frame>> frames =
        conversation_.Ask([&](Helper &helper, Deadline deadline) { return helper.Unwind(snapshot, deadline); });
    if (!frames.has_value()) {
        frames.emplace().emplace_back().address = snapshot.programCounter;
    }
    return {std::move(*frames), snapshot.stopped};
}

} // namespace host::stacks
