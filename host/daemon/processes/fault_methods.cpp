// What agents, and tarn-core for others, have recorded in the black boxes, as text for people.
#include <algorithm>
#include <map>
#include <span>

#include "host/answer/answer.h"
#include "host/blackbox/reader.h"
#include "host/daemon/daemon.h"
#include "host/daemon/processes/fault_text.h"
#include "host/daemon/processes/helper_time.h"
#include "host/meaning/choices.h"
#include "host/osal/hex.h"
#include "host/osal/log.h"
#include "host/osal/text.h"
#include "tarn_sysdiag/server/tarnd.h"

namespace tarnd {

namespace {

using host::blackbox::Contents;
using host::blackbox::FaultHead;
using host::blackbox::FaultKind;
using host::blackbox::FaultRecord;
using host::blackbox::FaultStack;
using host::blackbox::RecordPlace;
using host::blackbox::StackFrame;
using host::stacks::Demangler;

std::string FunctionText(const StackFrame &frame, Demangler &names) {
    return frame.function[0] == 0 ? "?" : fmt::format("{}+{:#x}", names.Readable(frame.function), frame.offset);
}

// "libc.so.6+0x29d90", where the address is in the file.
std::string ModuleText(const StackFrame &frame) {
    const std::string module = frame.module[0] == 0 ? "?" : host::LineOfText(frame.module);
    return frame.moduleOffset == 0 ? module : fmt::format("{}+{:#x}", module, frame.moduleOffset);
}

// Each module's, so that its addresses can be symbolized elsewhere.
std::string BuildIdsText(const FaultStack &stack) {
    std::map<std::string, std::string> ids;
    for (const StackFrame &frame : std::span(stack.frames, stack.frameNum)) {
        if (frame.buildIdBytes != 0) {
            const std::span bytes(frame.buildId, frame.buildIdBytes);
            ids[host::LineOfText(frame.module)] = host::Hex(bytes);
        }
    }
    std::string text;
    for (const auto &[module, id] : ids) {
        text += fmt::format("  {} has build id {}\n", module, id);
    }
    return text;
}

std::string RecordText(const FaultRecord &record, Demangler &names) {
    const FaultHead &head = record.head;
    std::string text =
        fmt::format("{} process {} ({}), thread {} ({}){}\n  {}\n",
                    Daemon::Serving().clock.Text(TimeOf(head), host::Precision::kMilliseconds), head.pid,
                    host::LineOfText(head.process), head.tid, host::LineOfText(head.thread),
                    head.agent[0] == 0 ? "" : ", agent " + host::LineOfText(head.agent), CauseText(head));
    if (head.kind == FaultKind::kException && head.text[0] != 0) {
        text += fmt::format("  command line: {}\n", host::LineOfText(head.text));
    }
    for (uint32_t i = 0; i < head.registerNum; ++i) {
        text += fmt::format("{}{:<6} {:016x}{}", i % 4 == 0 ? "  " : " ", host::LineOfText(head.registers[i].name),
                            head.registers[i].value, i % 4 == 3 || i + 1 == head.registerNum ? "\n" : "");
    }
    if (!record.hasStack) {
        return text + "  no stack: the process was killed while it wrote the record, or is writing it\n";
    }
    for (uint32_t i = 0; i < record.stack.frameNum; ++i) {
        const StackFrame &frame = record.stack.frames[i];
        text += fmt::format("  #{:<2} {:016x} {} ({})\n", i, frame.address,
                            host::LineOfText(FunctionText(frame, names)), ModuleText(frame));
    }
    return text + (record.stack.isCut != 0 ? "  more frames are not recorded\n" : "") + BuildIdsText(record.stack);
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

// A client takes a reply of 4 MiB.
constexpr size_t kMostText = 2U << 20;

std::string TextOfLeftOut(const Contents &contents) {
    std::string text;
    for (const std::string &reason : contents.reasons) {
        text += "not read: " + host::LineOfText(reason) + "\n";
    }
    if (const size_t more = contents.filesLeftOut - contents.reasons.size(); more != 0) {
        text += fmt::format("not read: {} more files\n", more);
    }
    if (contents.damaged != 0) {
        host::Log().warn("black box: {} damaged records", contents.damaged);
        text += fmt::format("damaged records: {}\n", contents.damaged);
    }
    return text;
}

// Fills a reply of text and the number of matches.
template <class Reply>
void Fill(Reply &reply, const Query &query, void *replyCtx) {
    const std::filesystem::path &directory = Daemon::Serving().options.faultDirectory;
    const auto check = [replyCtx] { host::CheckWanted(replyCtx); };
    const auto chosen = [&query](const FaultHead &head) { return query.Matches(head); };
    const auto isErased = [](const RecordPlace &place) { return Daemon::Serving().erasedFaults.Has(place); };
    const Contents contents = host::blackbox::List(directory, isErased, chosen, check);
    const std::vector<RecordPlace> &records = contents.records;
    auto &[length, bytes, matches] = reply.Members();
    matches = static_cast<uint32_t>(records.size());
    const size_t most = query.limit == 0 ? records.size() : query.limit;
    const size_t end = std::min(records.size(), query.skip + most);
    Demangler names(Daemon::Serving().helpers, HelperDeadline(replyCtx));
    std::string text;
    size_t at = query.skip;
    for (; at < end && text.size() < kMostText; ++at) {
        check();
        if (const auto record = host::blackbox::Read(directory, records[at])) {
            text += RecordText(*record, names);
        }
    }
    if (at < end) {
        const std::string more = fmt::format("{} records have no room: go on with skip={}", end - at, at);
        TarnHost_ExplainReply(replyCtx, more.c_str());
    }
    text += TextOfLeftOut(contents);
    bytes = reply.Keep(std::vector<uint8_t>(text.begin(), text.end()), length);
}

void Reset(uint32_t records, uint32_t pid, void *replyCtx) {
    using namespace host::meaning;
    const bool all = records == black_box::kEverything;
    const FaultKind kind = records == black_box::kExceptions ? FaultKind::kException : FaultKind::kAssertion;
    const auto chosen = [&](const FaultHead &head) {
        return (all || head.kind == kind) && (pid == 0 || head.pid == pid);
    };
    const host::blackbox::Erased erased = host::blackbox::Erase(
        Daemon::Serving().options.faultDirectory, chosen, all && pid == 0, [replyCtx] { host::CheckWanted(replyCtx); });
    Daemon::Serving().erasedFaults.Add(erased.denied);
    host::Log().info("black box: {} records erased", erased.number + erased.denied.size());
}

} // namespace

} // namespace tarnd

uint32_t GetExceptionInfo(const Tarn_sys_diag_ExceptionInfoCondition *request, void *replyCtx) {
    return host::Answer(host::methods::GetExceptionInfo, request, replyCtx, [&](auto &reply) {
        const auto &[process, skip, most, signal] = *request;
        tarnd::Fill(reply, {host::blackbox::FaultKind::kException, process, static_cast<int32_t>(signal), skip, most},
                    replyCtx);
    });
}

uint32_t GetAssertInfo(const Tarn_sys_diag_AssertInfoCondition *request, void *replyCtx) {
    return host::Answer(host::methods::GetAssertInfo, request, replyCtx, [&](auto &reply) {
        const auto &[process, skip, most] = *request;
        tarnd::Fill(reply, {host::blackbox::FaultKind::kAssertion, process, 0, skip, most}, replyCtx);
    });
}

uint32_t ResetBBoxInfo(const Tarn_sys_diag_ResetBBoxCondition *request, void *replyCtx) {
    return host::AnswerResult(host::methods::ResetBBoxInfo, request, replyCtx, [&] {
        const auto &[records, process] = *request;
        tarnd::Reset(records, process, replyCtx);
    });
}
