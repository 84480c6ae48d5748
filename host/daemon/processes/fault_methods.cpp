// What agents have recorded in the black boxes, as text for people.
#include <cxxabi.h>

#include <csignal>
#include <cstring>
#include <ctime>

#include "host/answer/answer.h"
#include "host/blackbox/reader.h"
#include "host/daemon/daemon.h"
#include "host/osal/log.h"
#include "host/osal/text.h"
#include "host/values/daemon.h"
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
        "{}.{:03} process {} ({}), thread {} ({}), agent {}\n  {}\n",
        Daemon::Serving().clock.Text(static_cast<time_t>(head.timeNs / 1000000000)), head.timeNs / 1000000 % 1000,
        head.pid, host::Printable(head.process), head.tid, host::Printable(head.thread), host::Printable(head.agent),
        head.kind == FaultKind::kException ? SignalText(head) : "assertion " + host::Printable(head.text));
    for (uint32_t i = 0; i < head.registerNum; ++i) {
        text += fmt::format("{}{:<6} {:016x}{}", i % 4 == 0 ? "  " : " ", host::Printable(head.registers[i].name),
                            head.registers[i].value, i % 4 == 3 || i + 1 == head.registerNum ? "\n" : "");
    }
    if (!record.hasStack) {
        return text + "  no stack: the process was killed while it wrote the record, or is writing it\n";
    }
    for (uint64_t i = 0; i < record.stack.frameNum; ++i) {
        const StackFrame &frame = record.stack.frames[i];
        text += fmt::format("  #{:<2} {:016x} {} ({})\n", i, frame.address, host::Printable(FunctionText(frame)),
                            frame.module[0] == 0 ? "?" : host::Printable(frame.module));
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
    std::string text;
    for (const FaultRecord &record : contents.records) {
        if (query.Matches(record.head)) {
            const uint32_t index = reply.uiValue1++;
            if (index >= query.skip && (query.limit == 0 || index - query.skip < query.limit)) {
                text += RecordText(record);
            }
        }
    }
    for (const std::string &refused : contents.refused) {
        text += "not read: " + host::Printable(refused) + "\n";
    }
    if (contents.damaged != 0) {
        host::Log().warn("black box: {} damaged records", contents.damaged);
        text += fmt::format("damaged records: {}\n", contents.damaged);
    }
    reply.pucInfo = reply.Keep(std::vector<uint8_t>(text.begin(), text.end()), reply.uiInfoLen);
}

void Reset(uint32_t kind, uint32_t pid) {
    if (kind > TARND_BLACK_BOX_ASSERTIONS) {
        throw host::BadValue("uiValue1", kind, "0 all, 1 exceptions or 2 assertions");
    }
    const auto chosen = [&](const FaultHead &head) {
        return (kind == TARND_BLACK_BOX_ALL || static_cast<uint32_t>(head.kind) == kind) &&
               (pid == 0 || head.pid == pid);
    };
    const size_t erased =
        host::blackbox::Erase(Daemon::Serving().options.runDirectory, chosen, kind == TARND_BLACK_BOX_ALL && pid == 0);
    host::Log().info("black box: {} records erased", erased);
}

} // namespace

} // namespace tarnd

uint32_t GetExceptionInfo(const Tarn_sys_diag_ExceptionInfoCondition *request, void *replyCtx) {
    return host::Answer(host::methods::GetExceptionInfo, request, replyCtx, [&](auto &reply) {
        tarnd::Fill(reply, {host::blackbox::FaultKind::kException, request->uiValue1,
                            static_cast<int32_t>(request->uiValue4), request->uiValue2, request->uiValue3});
    });
}

uint32_t GetAssertInfo(const Tarn_sys_diag_AssertInfoCondition *request, void *replyCtx) {
    return host::Answer(host::methods::GetAssertInfo, request, replyCtx, [&](auto &reply) {
        tarnd::Fill(
            reply, {host::blackbox::FaultKind::kAssertion, request->uiValue1, 0, request->uiValue2, request->uiValue3});
    });
}

uint32_t ResetBBoxInfo(const Tarn_sys_diag_ResetBBoxCondition *request, void *replyCtx) {
    return host::AnswerResult(host::methods::ResetBBoxInfo, request, replyCtx,
                              [&] { tarnd::Reset(request->uiValue1, request->uiValue2); });
}
