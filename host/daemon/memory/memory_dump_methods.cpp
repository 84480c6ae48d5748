// The bytes in a process's memory, as text.
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>

#include "host/answer/answer.h"
#include "host/procfs/procfs.h"
#include "host/values/daemon.h"
#include "server/tarnd.h"

namespace tarnd {

namespace {

// Reads what lies within one page: all of it can be read, or nothing.
bool ReadPage(uint32_t pid, uint64_t address, uint8_t *to, size_t length) {
    if (address > UINTPTR_MAX) {
        return false;
    }
    const iovec local{to, length};
    const iovec remote{reinterpret_cast<void *>(static_cast<uintptr_t>(address)), length};
    const ssize_t count = process_vm_readv(static_cast<pid_t>(pid), &local, 1, &remote, 1, 0);
    if (count < 0 && errno != EFAULT) {
        host::procfs::Procfs().Fail(errno, fmt::format("/proc/{}/mem", pid));
    }
    return count == static_cast<ssize_t>(length);
}

class Dump {
public:
    explicit Dump(const Tarn_sys_diag_DumpOsProcMemValueInput &request)
        : pid_(request.uiPid), at_(request.ullAddress), end_(at_ + request.ullLength) {
        if (request.ullLength == 0 || request.ullLength > TARND_DUMP_MAX) {
            throw host::BadValue("ullLength", request.ullLength, fmt::format("1 to {}", TARND_DUMP_MAX));
        }
        if (end_ < at_) {
            throw host::BadValue("ullAddress", request.ullAddress, "an address with ullLength bytes behind it");
        }
    }

    void Run() {
        host::procfs::Procfs().ReadProcess(pid_); // the call below would take a thread's id too
        const auto pageSize = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
        std::vector<uint8_t> page(pageSize);
        while (at_ != end_) {
            const size_t length = static_cast<size_t>(std::min(pageSize - at_ % pageSize, end_ - at_));
            if (ReadPage(pid_, at_, page.data(), length)) {
                AddHole();
                AddBytes(page.data(), length);
            }
            at_ += length;
        }
        if (bytesRead_ == 0) {
            throw std::system_error(EFAULT, std::generic_category(),
                                    fmt::format("process {}, {:x}-{:x}", pid_, readTo_, end_));
        }
        AddHole();
    }

    uint32_t BytesRead() const { return bytesRead_; }
    std::string TakeText() { return std::move(text_); }

private:
    // What could not be read since the last that could be.
    void AddHole() {
        if (readTo_ != at_) {
            text_ += fmt::format("{:x}-{:x} can't be read\n", readTo_, at_);
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
            text_ += fmt::format("{:x} {:<{}}  {}\n", at_ + line, hex, kPerLine * 3, ascii);
        }
        bytesRead_ += static_cast<uint32_t>(length);
        readTo_ = at_ + length;
    }

    const uint32_t pid_;
    uint64_t at_;
    const uint64_t end_;
    uint64_t readTo_ = at_;
    uint32_t bytesRead_ = 0;
    std::string text_;
};

} // namespace

} // namespace tarnd

uint32_t DumpOsProcMemValue(const Tarn_sys_diag_DumpOsProcMemValueInput *request, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_DumpOsProcMemValueResult>(__func__, replyCtx, [&](auto &reply) {
        tarnd::Dump dump(*request);
        dump.Run();
        reply.uiValue1 = dump.BytesRead();
        reply.szValue = reply.Keep(dump.TakeText());
    });
}
