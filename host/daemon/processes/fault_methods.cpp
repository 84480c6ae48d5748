// What agents have recorded in the black boxes, as text for people.
#include <cxxabi.h>

#include <csignal>
#include <cstring>
#include <ctime>

#include "host/answer/answer.h"
#include "host/blackbox/reader.h"
#include "host/daemon/daemon.h"
#include "host/meaning/choices.h"
#include "host/osal/log.h"
#include "host/osal/text.h"
#include "server/tarnd.h"

namespace tarnd {

namespace {

using host::blackbox::Contents;
using host::blackbox::FaultHead;
using host::blackbox::FaultKind;
using host::blackbox::FaultRecord;
using host::blackbox::StackFrame;

const char *CauseText(int signal, int code) {
    static constexpr struct {
        int signal;
        int code;
        const char *text;
    } kCauses[] = {
        {SIGSEGV, SEGV_MAPERR, "address not mapped"},     {SIGSEGV, SEGV_ACCERR, "no permission for the access"},
        {SIGBUS, BUS_ADRALN, "misaligned address"},       {SIGBUS, BUS_ADRERR, "nothing behind the address"},
        {SIGFPE, FPE_INTDIV, "integer division by zero"}, {SIGFPE, FPE_INTOVF, "integer overflow"},
        {SIGILL, ILL_ILLOPC, "illegal opcode"},           {SIGILL, ILL_ILLOPN, "illegal operand"}};
    for (const auto &cause : kCauses) {
        if (cause.signal == signal && cause.code == code) {
            return cause.text;
        }
    }
    return code <= 0 ? "sent by a process" : "raised by the kernel";
}

std::string SignalText(const FaultHead &head) {
    const char *const name = sigabbrev_np(head.signal);
    std::string text = fmt::format("signal {} SIG{}, {}", head.signal, name == nullptr ? "?" : name,
                                   CauseText(head.signal, head.code));
    if (head.code > 0) {
        text += fmt::format(", address {:#x}", head.address);
    }
    return text;
}

std::string FunctionText(const StackFrame &frame) {
    if (frame.function[0] == 0) {
        return "?";
    }
    int status = 0;
    char *const readable = abi::__cxa_demangle(frame.function, nullptr, nullptr, &status);
    std::string text = fmt::format("{}+{:#x}", readable == nullptr ? frame.function : readable, frame.offset);
    free(readable);
    return text;
}

std::string RecordText(const FaultRecord &record) {
    const FaultHead &head = record.head;
    std::string text = fmt::format(
        "{} process {} ({}), thread {} ({}), agent {}\n  {}\n",
        Daemon::Serving().clock.Text(host::WallTime(std::chrono::nanoseconds(head.timeNs)),
                                     host::Precision::kMilliseconds),
        head.pid, host::LineOfText(head.process), head.tid, host::LineOfText(head.thread), host::LineOfText(head.agent),
        head.kind == FaultKind::kException ? SignalText(head) : "assertion " + host::LineOfText(head.text));
    for (uint32_t i = 0; i < head.registerNum; ++i) {
        text += fmt::format("{}{:<6} {:016x}{}", i % 4 == 0 ? "  " : " ", host::LineOfText(head.registers[i].name),
                            head.registers[i].value, i % 4 == 3 || i + 1 == head.registerNum ? "\n" : "");
    }
    if (!record.hasStack) {
        return text + "  no stack: the process was killed while it wrote the record, or is writing it\n";
    }
    for (uint64_t i = 0; i < record.stack.frameNum; ++i) {
        const StackFrame &frame = record.stack.frames[i];
        text += fmt::format("  #{:<2} {:016x} {} ({})\n", i, frame.address, host::LineOfText(FunctionText(frame)),
                            frame.module[0] == 0 ? "?" : host::LineOfText(frame.module));
    }
    return text;
}

struct Query {
    FaultKind kind;
    uint32_t pid;
    int32_t signal;
    uint32_t skip;
    uint32_t limit;

    bool Matches(const FaultHead &head) const {
        return head.kind == kind && (pid == 0 || head.pid == pid) && (signal == 0 || head.signal == signal);
    }
};

// Fills a reply of text and the number of matches.
template <class Reply>
void Fill(Reply &reply, const Query &query) {
    const Contents contents = host::blackbox::Read(Daemon::Serving().options.runDirectory);
    auto &[length, bytes, matches] = reply.Members();
    std::string text;
    for (const FaultRecord &record : contents.records) {
        if (query.Matches(record.head)) {
            const uint32_t index = matches++;
            if (index >= query.skip && (query.limit == 0 || index - query.skip < query.limit)) {
                text += RecordText(record);
            }
        }
    }
    for (const std::string &refused : contents.refused) {
        text += "not read: " + host::LineOfText(refused) + "\n";
    }
    if (contents.damaged != 0) {
        host::Log().warn("black box: {} damaged records", contents.damaged);
        text += fmt::format("damaged records: {}\n", contents.damaged);
    }
    bytes = reply.Keep(std::vector<uint8_t>(text.begin(), text.end()), length);
}

void Reset(uint32_t records, uint32_t pid) {
    using namespace host::meaning;
    const bool all = records == black_box::kEverything;
    const FaultKind kind = records == black_box::kExceptions ? FaultKind::kException : FaultKind::kAssertion;
    const auto chosen = [&](const FaultHead &head) {
        return (all || head.kind == kind) && (pid == 0 || head.pid == pid);
    };
    const size_t erased = host::blackbox::Erase(Daemon::Serving().options.runDirectory, chosen, all && pid == 0);
    host::Log().info("black box: {} records erased", erased);
}

} // namespace

} // namespace tarnd

uint32_t GetExceptionInfo(const Tarn_sys_diag_ExceptionInfoCondition *request, void *replyCtx) {
    return host::Answer(host::methods::GetExceptionInfo, request, replyCtx, [&](auto &reply) {
        const auto &[process, skip, most, signal] = *request;
        tarnd::Fill(reply, {host::blackbox::FaultKind::kException, process, static_cast<int32_t>(signal), skip, most});
    });
}

uint32_t GetAssertInfo(const Tarn_sys_diag_AssertInfoCondition *request, void *replyCtx) {
    return host::Answer(host::methods::GetAssertInfo, request, replyCtx, [&](auto &reply) {
        const auto &[process, skip, most] = *request;
        tarnd::Fill(reply, {host::blackbox::FaultKind::kAssertion, process, 0, skip, most});
    });
}

uint32_t ResetBBoxInfo(const Tarn_sys_diag_ResetBBoxCondition *request, void *replyCtx) {
    return host::AnswerResult(host::methods::ResetBBoxInfo, request, replyCtx, [&] {
        const auto &[records, process] = *request;
        tarnd::Reset(records, process);
    });
}
