#include "host/daemon/files/progress.h"

#include "host/osal/log.h"

namespace tarnd {

Progress::Progress(std::string what, const host::Clocks &clocks, const host::Check &check)
    : what_(std::move(what)), clocks_(clocks), check_(check), start_(clocks.SteadyNow()), told_(start_) {}

void Progress::Add(uint64_t bytes) {
    bytes_ += bytes;
    check_();
    if (const host::SteadyTime now = clocks_.SteadyNow(); now - told_ >= kPeriod) {
        host::Log().info("{}: {} files and {} MiB so far", what_, files_, bytes_ >> 20);
        told_ = now;
    }
}

void Progress::Done() const {
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(clocks_.SteadyNow() - start_);
    host::Log().info("{}: {} files, {} bytes, {} ms", what_, files_, bytes_, took.count());
}

} // namespace tarnd
