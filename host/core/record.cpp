#include "host/core/record.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "host/blackbox/box.h"
#include "host/blackbox/reader.h"
#include "host/core/acting.h"
#include "host/core/registers.h"
#include "host/osal/log.h"
#include "host/osal/text.h"
#include "host/procfs/procfs.h"
#include "host/stacks/stacks.h"

namespace core {

namespace {

using host::blackbox::FaultHead;
using host::blackbox::FaultKind;
using host::blackbox::FaultStack;
using host::blackbox::StackFrame;

// How long before its core is dumped an agent may have recorded a crash.
constexpr std::chrono::seconds kRecordedBefore{60};

uint64_t NowNs() {
    return static_cast<uint64_t>(std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch()).count());
}

// What a program did with rights that its user lacks is not for the user to see.
uid_t OwnerOf(const Crash &crash) {
    return crash.IsPlain() ? crash.User() : 0;
}

bool IsRecorded(const Crash &crash, const std::filesystem::path &directory) {
    const uint64_t since = NowNs() - static_cast<uint64_t>(std::chrono::nanoseconds(kRecordedBefore).count());
    const auto same = [&](const FaultHead &head) {
        return head.kind == FaultKind::kException && head.signal == crash.Signal() && head.timeNs >= since &&
               (head.pid == crash.OwnPid() || head.pid == crash.Pid()) &&
               (head.tid == crash.OwnTid() || head.tid == crash.Tid());
    };
    const auto found = host::blackbox::List(
        directory, [](const auto &) { return false; }, same, [] {});
    return std::ranges::any_of(
        found.records, [&](const auto &place) { return place.user == crash.User() || place.user == OwnerOf(crash); });
}

// The directory is not the user's to make files in.
void MakeBox(const std::filesystem::path &file, uid_t user) {
    const host::Descriptor made(open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (made ? fchown(made.Fd(), user, static_cast<gid_t>(-1)) != 0 : errno != EEXIST) {
        host::Fail(errno, file.string());
    }
}

// What was after each argument becomes a blank.
std::string CommandLineOf(const host::procfs::Procfs &proc, uint32_t pid) {
    std::string line = proc.Read(pid, "cmdline");
    std::ranges::replace(line, '\0', ' ');
    line.erase(line.find_last_not_of(' ') + 1);
    return host::LineOfText(line);
}

void Fill(FaultHead &to, const Crash &crash, const CoreHead &core) {
    const host::procfs::Procfs proc;
    memset(&to, 0, sizeof to);
    to.kind = FaultKind::kException;
    to.pid = crash.OwnPid();
    to.tid = crash.OwnTid();
    to.signal = crash.Signal();
    to.code = core.cause ? core.cause->code : 0;
    to.address = core.cause ? core.cause->address : 0;
    to.timeNs = NowNs();
    host::CopyText(to.process, proc.ReadProcess(crash.Pid()).name);
    host::CopyText(to.thread, proc.ReadThread(crash.Pid(), crash.Tid()).name);
    host::CopyText(to.text, CommandLineOf(proc, crash.Pid()));
    for (const Register &shown : kRegisters) {
        if (core.registers) {
            host::blackbox::CpuRegister &one = to.registers[to.registerNum++];
            host::CopyText(one.name, shown.name);
            one.value = shown.In(*core.registers);
        }
    }
}

uint8_t DigitOf(char digit) {
    return static_cast<uint8_t>(digit <= '9' ? digit - '0' : digit - 'a' + 10);
}

void Fill(StackFrame &to, const host::stacks::Frame &frame) {
    to.address = frame.address;
    to.offset = frame.function.empty() ? 0 : frame.offset;
    to.moduleOffset = frame.moduleOffset;
    host::CopyText(to.function, frame.function);
    host::CopyText(to.module, frame.module);
    to.buildIdBytes = static_cast<uint8_t>(std::min(frame.buildId.size() / 2, sizeof to.buildId));
    for (size_t i = 0; i < to.buildIdBytes; ++i) {
        to.buildId[i] = static_cast<uint8_t>(DigitOf(frame.buildId[2 * i]) << 4 | DigitOf(frame.buildId[2 * i + 1]));
    }
}

// Of the process as it is, which the kernel holds; its registers are those of the core.
void Fill(FaultStack &to, const Crash &crash, const CoreHead &core, host::stacks::Helpers &helpers) {
    memset(&to, 0, sizeof to);
    host::stacks::Snapshot snapshot;
    host::stacks::TakeRegisters(*core.registers, snapshot);
    host::stacks::ReadStack(crash.Pid(), snapshot);
    const host::procfs::Procfs proc;
    host::stacks::Tracer tracer(proc);
    const auto deadline = std::chrono::steady_clock::now() + kMostRecordingTime;
    host::stacks::Process process(tracer, helpers, crash.Pid(), deadline);
    for (const host::stacks::Frame &frame : process.Unwind(snapshot).frames) {
        to.isCut = frame.moreFollow || to.frameNum == host::blackbox::kFrameNum ? 1 : 0;
        if (to.frameNum < host::blackbox::kFrameNum) {
            Fill(to.frames[to.frameNum++], frame);
        }
    }
}

} // namespace

void Record(const Crash &crash, const CoreHead &head, const std::filesystem::path &directory,
            host::stacks::Helpers &helpers) {
    if (IsRecorded(crash, directory)) {
        return;
    }
    const uid_t owner = OwnerOf(crash);
    const std::filesystem::path file = host::blackbox::FileOf(directory, owner);
    MakeBox(file, owner);
    std::filesystem::path aside;
    const auto box = [&] {
        const Acting acting(owner, owner == 0 ? 0 : crash.Group());
        return std::make_unique<host::blackbox::Box>(file, aside);
    }();
    const host::blackbox::Entry entry(*box);
    Fill(entry.Head(), crash, head);
    entry.SealHead();
    if (head.registers) {
        Fill(entry.Stack(), crash, head, helpers);
        entry.SealStack();
    }
}

} // namespace core
