#include "host/daemon/memory/memory_dump.h"

#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "host/osal/error.h"

namespace tarnd {

namespace {

// Reads what lies within one page: all of it can be read, or nothing.
bool ReadPage(const host::procfs::Procfs &proc, uint32_t pid, uint64_t address, uint8_t *to, size_t length) {
    if (address > UINTPTR_MAX) {
        return false;
    }
    const iovec local{to, length};
    const iovec remote{reinterpret_cast<void *>(static_cast<uintptr_t>(address)), length};
    const ssize_t count = process_vm_readv(static_cast<pid_t>(pid), &local, 1, &remote, 1, 0);
    if (count < 0 && errno != EFAULT) {
        proc.Fail(errno, proc.Path(pid, "mem"));
    }
    return count == static_cast<ssize_t>(length);
}

class Dumper {
public:
    Dumper(const host::procfs::Procfs &proc, uint32_t pid, uint64_t address, uint32_t length)
        : proc_(proc), pid_(pid), at_(address), end_(address + length) {}

    MemoryDump Run() {
        proc_.ReadProcess(pid_); // the call below would take a thread's id too
        const auto pageSize = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
        std::vector<uint8_t> page(static_cast<size_t>(pageSize));
        while (at_ != end_) {
            const size_t length = static_cast<size_t>(std::min(pageSize - at_ % pageSize, end_ - at_));
            if (ReadPage(proc_, pid_, at_, page.data(), length)) {
                AddHole();
                AddBytes(page.data(), length);
            }
            at_ += length;
        }
        if (dump_.bytesRead == 0) {
            host::Fail(EFAULT, fmt::format("process {}, {:x}-{:x}", pid_, readTo_, end_));
        }
        AddHole();
        return std::move(dump_);
    }

private:
    // What could not be read since the last that could be.
    void AddHole() {
        if (readTo_ != at_) {
            dump_.text += fmt::format("{:x}-{:x} can't be read\n", readTo_, at_);
        }
    }

    void AddBytes(const uint8_t *bytes, size_t length) {
        constexpr size_t kPerLine = 16;
        for (size_t line = 0; line < length; line += kPerLine) {
            const size_t count = std::min(kPerLine, length - line);
            std::string hex, ascii;
            for (size_t i = line; i < line + count; ++i) {
                hex += fmt::format(" {:02x}", bytes[i]);
                ascii += bytes[i] >= ' ' && bytes[i] < 0x7F ? static_cast<char>(bytes[i]) : '.';
            }
            dump_.text += fmt::format("{:x} {:<{}}  {}\n", at_ + line, hex, kPerLine * 3, ascii);
        }
        dump_.bytesRead += static_cast<uint32_t>(length);
        readTo_ = at_ + length;
    }

    const host::procfs::Procfs &proc_;
    const uint32_t pid_;
    uint64_t at_;
    const uint64_t end_;
    uint64_t readTo_ = at_;
    MemoryDump dump_;
};

} // namespace

MemoryDump DumpMemory(const host::procfs::Procfs &proc, uint32_t pid, uint64_t address, uint32_t length) {
    return Dumper(proc, pid, address, length).Run();
}

} // namespace tarnd
