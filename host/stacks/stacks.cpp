#include "host/stacks/stacks.h"

#include <cxxabi.h>
#include <elfutils/libdwfl.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include "host/procfs/procfs.h"
#include "host/stacks/snapshot.h"

namespace host::stacks {

namespace {

std::string Hex(uint64_t value) {
    char text[24];
    snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

std::string Demangle(const char *name) {
    int status = 0;
    const std::unique_ptr<char, void (*)(void *)> text(abi::__cxa_demangle(name, nullptr, nullptr, &status), free);
    return status == 0 ? text.get() : name;
}

std::string FileName(const char *path) {
    const char *const slash = strrchr(path, '/');
    return slash == nullptr ? path : slash + 1;
}

} // namespace

std::string Frame::Text() const {
    if (!function.empty()) {
        return function + "+" + Hex(offset);
    }
    return module.empty() ? Hex(address) : module + "+" + Hex(offset);
}

// Unwinds snapshots: the library asks back for registers and memory.
class Process::Unwinder {
public:
    Unwinder(const procfs::Procfs &proc, uint32_t pid)
        : proc_(proc), pid_(static_cast<pid_t>(pid)), dwfl_(dwfl_begin(&kFiles), dwfl_end) {
        if (dwfl_ == nullptr) {
            throw std::bad_alloc();
        }
        const int error = dwfl_linux_proc_report(dwfl_.get(), pid_);
        if (error != 0 || dwfl_report_end(dwfl_.get(), nullptr, nullptr) != 0) {
            Fail(error);
        }
        OpenProgram();
        if (!dwfl_attach_state(dwfl_.get(), elf_.get(), pid_, &kThreads, this)) {
            Fail(ENOTSUP);
        }
    }

    std::vector<Frame> Unwind(const Snapshot &snapshot) {
        snapshot_ = &snapshot;
        frames_.clear();
        // What could be unwound before a failure is worth telling.
        dwfl_getthread_frames(dwfl_.get(), pid_, TakeFrame, this);
        if (frames_.empty()) {
            AddFrame(snapshot.programCounter, true);
        }
        snapshot_ = nullptr;
        return std::move(frames_);
    }

private:
    // The library would find the program itself, but not say why it could not read it.
    void OpenProgram() {
        program_.reset(fopen(("/proc/" + std::to_string(pid_) + "/exe").c_str(), "rbe"));
        if (program_ == nullptr) {
            Fail(errno);
        }
        elf_version(EV_CURRENT);
        elf_.reset(elf_begin(fileno(program_.get()), ELF_C_READ_MMAP, nullptr));
    }

    [[noreturn]] void Fail(int error) const {
        if (error == EACCES) {
            error = EPERM;
        } else if (error == ENOENT || error == ESRCH) {
            // A thread of the kernel is there, but has nothing mapped.
            error = proc_.ReadProcess(static_cast<uint32_t>(pid_)).HasEnded() ? ESRCH : ENOTSUP;
        }
        throw std::system_error(error > 0 ? error : EIO, std::generic_category(),
                                "the program and libraries of process " + std::to_string(pid_));
    }

    static pid_t NextThread(Dwfl *, void *self, void **thread) {
        if (*thread != nullptr) {
            return 0;
        }
        *thread = self;
        return static_cast<Unwinder *>(self)->pid_;
    }

    static bool GetThread(Dwfl *, pid_t, void *self, void **thread) {
        *thread = self;
        return true;
    }

    static bool SetRegisters(Dwfl_Thread *thread, void *self) {
        const Snapshot &snapshot = *static_cast<Unwinder *>(self)->snapshot_;
        const std::vector<Dwarf_Word> registers(snapshot.registers.begin(), snapshot.registers.end());
        dwfl_thread_state_register_pc(thread, snapshot.programCounter);
        return dwfl_thread_state_registers(thread, 0, static_cast<unsigned>(registers.size()), registers.data());
    }

    static bool ReadMemory(Dwfl *, Dwarf_Addr address, Dwarf_Word *result, void *self) {
        const auto *const unwinder = static_cast<Unwinder *>(self);
        const Snapshot &snapshot = *unwinder->snapshot_;
        uintptr_t word = 0; // 32 bits wide where the processes are
        const uint64_t offset = address - snapshot.stackPointer;
        if (address >= snapshot.stackPointer && offset < snapshot.stack.size() &&
            snapshot.stack.size() - offset >= sizeof word) {
            memcpy(&word, snapshot.stack.data() + offset, sizeof word);
        } else {
            const iovec local{&word, sizeof word};
            const iovec remote{reinterpret_cast<void *>(static_cast<uintptr_t>(address)), sizeof word};
            if (process_vm_readv(unwinder->pid_, &local, 1, &remote, 1, 0) != sizeof word) {
                return false;
            }
        }
        *result = word;
        return true;
    }

    static int TakeFrame(Dwfl_Frame *frame, void *self) {
        Dwarf_Addr address = 0;
        bool activation = false;
        if (!dwfl_frame_pc(frame, &address, &activation)) {
            return DWARF_CB_ABORT;
        }
        auto *const unwinder = static_cast<Unwinder *>(self);
        unwinder->AddFrame(address, activation);
        return unwinder->frames_.size() < kMaxFrames ? DWARF_CB_OK : DWARF_CB_ABORT;
    }

    // What returns to an address was called just before it, which may be another function's end.
    void AddFrame(uint64_t address, bool activation) {
        Frame frame;
        frame.address = address;
        const uint64_t within = activation ? address : address - 1;
        if (Dwfl_Module *const module = dwfl_addrmodule(dwfl_.get(), within)) {
            Dwarf_Addr start = 0;
            const char *const name =
                dwfl_module_info(module, nullptr, &start, nullptr, nullptr, nullptr, nullptr, nullptr);
            frame.module = name == nullptr ? "" : FileName(name);
            frame.offset = address - start;
            GElf_Off offset = 0;
            GElf_Sym symbol;
            const char *const function =
                dwfl_module_addrinfo(module, within, &offset, &symbol, nullptr, nullptr, nullptr);
            if (function != nullptr && function[0] != 0) {
                frame.function = Demangle(function);
                frame.offset = offset + (address - within);
            }
        }
        frames_.push_back(std::move(frame));
    }

    // Files on this machine only: nothing is fetched.
    static constexpr Dwfl_Callbacks kFiles{dwfl_linux_proc_find_elf, dwfl_build_id_find_debuginfo, nullptr, nullptr};
    static constexpr Dwfl_Thread_Callbacks kThreads{NextThread, GetThread, ReadMemory, SetRegisters, nullptr, nullptr};

    const procfs::Procfs &proc_;
    const pid_t pid_;
    std::unique_ptr<FILE, int (*)(FILE *)> program_{nullptr, fclose};
    std::unique_ptr<Elf, int (*)(Elf *)> elf_{nullptr, elf_end};
    const std::unique_ptr<Dwfl, void (*)(Dwfl *)> dwfl_;
    const Snapshot *snapshot_ = nullptr;
    std::vector<Frame> frames_;
};

Process::Process(Tracer &tracer, uint32_t pid)
    : tracer_(tracer), pid_(pid), unwinder_(std::make_unique<Unwinder>(tracer.Proc(), pid)) {}

Process::~Process() = default;

Stack Process::Read(uint32_t tid) {
    const Snapshot snapshot = tracer_.Take(pid_, tid);
    return {unwinder_->Unwind(snapshot), snapshot.stopped};
}

} // namespace host::stacks
