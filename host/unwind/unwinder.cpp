#include "host/unwind/unwinder.h"

#include <fcntl.h>

#include <cstring>
#include <new>

#include "host/osal/error.h"
#include "host/unwind/image.h"

namespace host::unwind {

namespace {

Elf *OpenElf(const Descriptor &file) {
    elf_version(EV_CURRENT);
    return elf_begin(file.Fd(), ELF_C_READ_MMAP, nullptr);
}

// What the kernel says of a file that has no name any more.
constexpr std::string_view kDeleted = " (deleted)";

} // namespace

// A process that can be looked into is for the processor that this program is for.
Unwinder::Unwinder(const Target &target)
    : target_(target), self_(open("/proc/self/exe", O_RDONLY | O_CLOEXEC), "/proc/self/exe"),
      processor_(OpenElf(self_), elf_end) {}

std::vector<Frame> Unwinder::Unwind(const Snapshot &snapshot) {
    if (!Refresh()) {
        return {};
    }
    snapshot_ = &snapshot;
    frames_.clear();
    dwfl_getthread_frames(dwfl_.get(), static_cast<pid_t>(target_.Pid()), TakeFrame, this);
    if (frames_.empty()) {
        AddFrame(snapshot.head.programCounter, true);
    }
    snapshot_ = nullptr;
    return std::move(frames_);
}

bool Unwinder::Refresh() {
    std::vector<Module> modules = ParseMaps(target_.Maps());
    if (modules.empty()) {
        return false;
    }
    if (dwfl_ == nullptr || modules != modules_) {
        dwfl_.reset();
        modules_ = std::move(modules);
        Report();
    }
    return true;
}

void Unwinder::Report() {
    parts_.clear();
    dwfl_.reset(dwfl_begin(&kFiles));
    if (dwfl_ == nullptr) {
        throw std::bad_alloc();
    }
    for (const Module &module : modules_) {
        const std::string name = module.path == kVdso ? "[vdso: " + std::to_string(target_.Pid()) + "]" : module.path;
        if (Dwfl_Module *const reported = dwfl_report_module(dwfl_.get(), name.c_str(), module.Low(), module.High())) {
            void **userData = nullptr;
            dwfl_module_info(reported, &userData, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
            parts_.push_back({&target_, &module});
            *userData = &parts_.back();
        }
    }
    if (dwfl_report_end(dwfl_.get(), nullptr, nullptr) != 0 ||
        !dwfl_attach_state(dwfl_.get(), processor_.get(), static_cast<pid_t>(target_.Pid()), &kThreads, this)) {
        Fail(ENOTSUP, dwfl_errmsg(-1));
    }
}

int Unwinder::FindFile(Dwfl_Module *, void **userData, const char *, Dwarf_Addr, char **, Elf **) {
    const Part &part = *static_cast<const Part *>(*userData);
    return OpenImage(*part.target, *part.module).Release();
}

int Unwinder::FindNoFile(Dwfl_Module *, void **, const char *, Dwarf_Addr, const char *, const char *, GElf_Word,
                         char **) {
    return -1;
}

pid_t Unwinder::NextThread(Dwfl *, void *self, void **thread) {
    if (*thread != nullptr) {
        return 0;
    }
    *thread = self;
    return static_cast<pid_t>(static_cast<Unwinder *>(self)->target_.Pid());
}

bool Unwinder::SetRegisters(Dwfl_Thread *thread, void *self) {
    const Snapshot &snapshot = *static_cast<Unwinder *>(self)->snapshot_;
    dwfl_thread_state_register_pc(thread, snapshot.head.programCounter);
    return dwfl_thread_state_registers(thread, 0, snapshot.head.registerNum, snapshot.registers.data());
}

bool Unwinder::ReadMemory(Dwfl *, Dwarf_Addr address, Dwarf_Word *result, void *self) {
    const auto *const unwinder = static_cast<Unwinder *>(self);
    const Snapshot &snapshot = *unwinder->snapshot_;
    uintptr_t word = 0; // 32 bits wide where the processes are
    const uint64_t offset = address - snapshot.head.stackPointer;
    if (address >= snapshot.head.stackPointer && offset < snapshot.stack.size() &&
        snapshot.stack.size() - offset >= sizeof word) {
        memcpy(&word, snapshot.stack.data() + offset, sizeof word);
    } else if (unwinder->target_.Read(address, &word, sizeof word) != sizeof word) {
        return false;
    }
    *result = word;
    return true;
}

int Unwinder::TakeFrame(Dwfl_Frame *frame, void *self) {
    Dwarf_Addr address = 0;
    bool activation = false;
    if (!dwfl_frame_pc(frame, &address, &activation)) {
        return DWARF_CB_ABORT;
    }
    auto *const unwinder = static_cast<Unwinder *>(self);
    if (unwinder->frames_.size() == kMostFrames) {
        unwinder->frames_.back().moreFollow = true;
        return DWARF_CB_ABORT;
    }
    unwinder->AddFrame(address, activation);
    return DWARF_CB_OK;
}

// What returns to an address was called just before it, which may be another function's end.
void Unwinder::AddFrame(uint64_t address, bool activation) {
    Frame frame;
    frame.address = address;
    const uint64_t within = activation ? address : address - 1;
    if (Dwfl_Module *const module = dwfl_addrmodule(dwfl_.get(), within)) {
        Dwarf_Addr start = 0;
        const std::string path = dwfl_module_info(module, nullptr, &start, nullptr, nullptr, nullptr, nullptr, nullptr);
        const std::string file = path.substr(0, path.size() - (path.ends_with(kDeleted) ? kDeleted.size() : 0));
        frame.module = file.substr(file.rfind('/') + 1);
        frame.offset = frame.moduleOffset = address - start;
        GElf_Off offset = 0;
        GElf_Sym symbol;
        const char *const function = dwfl_module_addrinfo(module, within, &offset, &symbol, nullptr, nullptr, nullptr);
        // A symbol without a size, a label, may be of anything below.
        if (function != nullptr && function[0] != 0 && offset < symbol.st_size) {
            frame.function = function;
            frame.offset = offset + (address - within);
        }
        const unsigned char *bits = nullptr; // known once the module's file was looked into, as for the symbol
        GElf_Addr where = 0;
        if (const int bytes = dwfl_module_build_id(module, &bits, &where); bytes > 0) {
            frame.buildId.assign(reinterpret_cast<const char *>(bits), static_cast<size_t>(bytes));
        }
    }
    frames_.push_back(std::move(frame));
}

} // namespace host::unwind
