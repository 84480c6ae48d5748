// A table of the processes, kept as it was when it was built.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "host/osal/mutex.h"
#include "host/procfs/procfs.h"

namespace tarnd {

class ProcessTable {
public:
    struct Row {
        host::procfs::Task process;
        uint32_t user = 0;
        std::string commandLine; // arguments with blanks between them
    };
    using Rows = std::vector<Row>;

    explicit ProcessTable(const host::procfs::Procfs &proc) : proc_(proc) {}
    ProcessTable(const ProcessTable &) = delete;
    ProcessTable &operator=(const ProcessTable &) = delete;

    // In the order of their ids, or parents before their children.
    void Build(bool withKernel, bool asTree);

    // Stays as it is when another takes its place. Throws ENODATA.
    std::shared_ptr<const Rows> Built() const;

private:
    const host::procfs::Procfs &proc_;
    mutable host::Mutex mutex_;
    std::shared_ptr<const Rows> built_ TARN_GUARDED_BY(mutex_);
};

} // namespace tarnd
