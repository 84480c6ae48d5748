// Samples of the system that the daemon runs on.
#pragma once

#include <memory>

#include "host/daemon/sampling/process_reader.h"
#include "host/daemon/sampling/sample_source.h"
#include "host/daemon/sampling/thread_times.h"

namespace tarnd {

class Libproc2Source final : public SampleSource {
public:
    explicit Libproc2Source(const host::procfs::Procfs &proc);
    ~Libproc2Source() override;
    Libproc2Source(const Libproc2Source &) = delete;
    Libproc2Source &operator=(const Libproc2Source &) = delete;

    Sample Read(Reading reading, const Sample *previous) override;

private:
    void ReadCpus(Sample &sample);
    void ReadMemory(MemorySample &memory);

    struct Handles;
    const std::unique_ptr<Handles> handles_;
    const ProcessReader processes_;
    ThreadSampler threads_;
};

} // namespace tarnd
