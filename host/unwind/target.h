// The process that is looked into. All that takes the right to trace it is opened when this is made.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "host/osal/descriptor.h"
#include "host/unwind/maps.h"

namespace host::unwind {

struct Ids {
    uid_t user;
    gid_t group;
};

// A process's directory in /proc, which goes on to mean the process that it was opened for.
class ProcessDirectory {
public:
    // Throws ESRCH where no process of this id started then.
    ProcessDirectory(uint32_t pid, uint64_t startTicks);

    // Throws ENOTSUP for what a process lacks, as those of the kernel lack most.
    Descriptor Open(const char *name, int flags) const;

    // None where it can't be opened.
    Descriptor OpenIfAllowed(const char *name, int flags) const;

    // By whose rights it acts.
    Ids ActsAs() const;

private:
    std::string Text(const char *name) const;

    const Descriptor directory_;
};

class Target {
public:
    // Throws ESRCH, EPERM, ENOTSUP.
    Target(uint32_t pid, uint64_t startTicks);

    uint32_t Pid() const { return pid_; }

    // As it is now; empty when the process has ended, or runs another program than before.
    std::string Maps() const;

    // The number of bytes that could be read.
    size_t Read(uint64_t address, void *to, size_t bytes) const;

    // The file of a module where the process sees it, or of its program wherever that is now: the one that it has
    // mapped, or none.
    Descriptor OpenFile(const Module &module) const;

private:
    const uint32_t pid_;
    const ProcessDirectory directory_;
    const Descriptor memory_;
    const Descriptor maps_;
    const Descriptor root_;
    const Descriptor program_; // none where its user may not read it
};

} // namespace host::unwind
