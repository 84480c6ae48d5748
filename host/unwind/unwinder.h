// Unwinds snapshots of a process's threads.
#pragma once

#include <elfutils/libdwfl.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "host/osal/descriptor.h"
#include "host/unwind/maps.h"
#include "host/unwind/protocol.h"
#include "host/unwind/target.h"

namespace host::unwind {

struct Snapshot {
    SnapshotHead head{};
    std::vector<Dwarf_Word> registers; // in the order of their DWARF numbers
    std::vector<uint8_t> stack;        // from the stack pointer on
};

struct Frame {
    uint64_t address = 0;
    uint64_t offset = 0;  // from the function's start, or from the module's
    std::string module;   // file name; empty where none is mapped
    std::string function; // as its symbol has it; empty where none covers the address
    uint64_t moduleOffset = 0;
    std::string buildId; // of the module; empty where it has none
    bool moreFollow = false;
};

class Unwinder {
public:
    explicit Unwinder(const Target &target);

    // Innermost first. What could be unwound before a failure; the thread's own address at least. Empty where the
    // process has nothing mapped any more.
    std::vector<Frame> Unwind(const Snapshot &snapshot);

private:
    struct Part {
        const Target *target;
        const Module *module;
    };

    bool Refresh();
    void Report();
    void AddFrame(uint64_t address, bool activation);
    static int FindFile(Dwfl_Module *, void **userData, const char *, Dwarf_Addr, char **, Elf **);
    static int FindNoFile(Dwfl_Module *, void **, const char *, Dwarf_Addr, const char *, const char *, GElf_Word,
                          char **);
    static pid_t NextThread(Dwfl *, void *self, void **thread);
    static bool SetRegisters(Dwfl_Thread *thread, void *self);
    static bool ReadMemory(Dwfl *, Dwarf_Addr address, Dwarf_Word *result, void *self);
    static int TakeFrame(Dwfl_Frame *frame, void *self);

    static constexpr Dwfl_Callbacks kFiles{FindFile, FindNoFile, nullptr, nullptr};
    static constexpr Dwfl_Thread_Callbacks kThreads{NextThread, nullptr, ReadMemory, SetRegisters, nullptr, nullptr};

    const Target &target_;
    const Descriptor self_;
    const std::unique_ptr<Elf, int (*)(Elf *)> processor_; // says for which one to unwind
    std::vector<Module> modules_;
    std::deque<Part> parts_;
    std::unique_ptr<Dwfl, void (*)(Dwfl *)> dwfl_{nullptr, dwfl_end};
    const Snapshot *snapshot_ = nullptr;
    std::vector<Frame> frames_;
};

} // namespace host::unwind
