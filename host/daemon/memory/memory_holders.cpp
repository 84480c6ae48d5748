#include "host/daemon/memory/memory_holders.h"

#include <algorithm>
#include <iterator>

#include <fmt/format.h>

#include "host/meaning/choices.h"
#include "host/osal/text.h"

namespace tarnd {

namespace {

class Holders {
public:
    Holders(AgentLine &line, uint32_t pid, const std::function<uint32_t()> &timeoutMs)
        : line_(line), pid_(pid), timeoutMs_(timeoutMs) {}

    std::string Text() {
        AddHandles();
        AddHostages();
        return std::move(text_);
    }

private:
    template <class Request, class Response>
    auto Ask(const AgentMethod<Request, Response> &method, const Request &request) {
        return line_.Ask(method, pid_, request, timeoutMs_());
    }

    void AddHandles() {
        const auto answer = Ask(TARND_AGENT_METHOD(GetTopNHandleInfo), Tarn_sys_diag_None{});
        answer->RequireResult(fmt::format("the agent of process {}", pid_));
        const auto &[result, open, usedBytes, handleNum, handles] = answer->record;
        text_ +=
            fmt::format("{:>10} {:<32} {:>10} {:>14} {:>14}\n", "HANDLE", "NAME", "BLOCKS", "USED bytes", "PEAK bytes");
        for (uint32_t i = 0; i < handleNum; ++i) {
            const auto &[handle, name, blocks, used, peak] = handles[i];
            text_ += fmt::format("{:>10} {:<32} {:>10} {:>14} {:>14}\n", handle, host::LineOfText(host::TextOf(name)),
                                 blocks, used, peak);
            if (blocks != 0) {
                AddSite(handle);
            }
        }
        text_ += fmt::format("{} handles are open and hold {} bytes\n", open, usedBytes);
    }

    // Where most of it is from. What was given back meanwhile is from nowhere.
    void AddSite(uint32_t handle) {
        const auto answer = Ask(TARND_AGENT_METHOD(MemHandleCallStack), Tarn_sys_diag_MemHandInfo{handle, 0});
        if (answer->record.uiResult == ENOENT) {
            return;
        }
        answer->RequireResult(fmt::format("the agent of process {}, handle {}", pid_, handle));
        const Tarn_sys_diag_MemHandInfoOut &site = answer->record;
        text_ += fmt::format("{:>10} most, {} bytes in {} blocks, at the first of {} sites:", "", site.ullUsedBytes,
                             site.uiBlockNum, site.uiStackTotal);
        Tarn_sys_diag_CallStackInput stack{.uiPid = kAgentsOwn, .aullStackAddr = {}};
        const size_t frames = std::min<size_t>(site.uiAddrNum, std::size(stack.aullStackAddr));
        std::copy_n(site.aullStackAddr, frames, stack.aullStackAddr);
        const auto functions = Ask(TARND_AGENT_METHOD(GetCallStackFunction), stack);
        for (size_t i = 0; i < frames; ++i) {
            text_ += fmt::format("{} {}", i == 0 ? "" : " <-",
                                 host::LineOfText(host::TextOf(functions->record.astFuncName[i].szFuncName)));
        }
        text_ += "\n";
    }

    void AddHostages() {
        line_.Do(TarnSysdiagAgent_TarnDetectMemHostage, pid_, Tarn_sys_diag_None{}, timeoutMs_());
        const auto answer =
            Ask(TARND_AGENT_METHOD(GetMemDmgInfo), Tarn_sys_diag_MemDmgInfoIn{host::meaning::damage_report::kHostages});
        text_ += fmt::format("{} blocks are held though the threads that allocated them have ended\n",
                             answer->record.uiValue1);
        text_.append(reinterpret_cast<const char *>(answer->record.pucInfo), answer->record.uiInfoLen);
    }

    AgentLine &line_;
    const uint32_t pid_;
    const std::function<uint32_t()> &timeoutMs_;
    std::string text_;
};

} // namespace

std::string HoldersText(AgentLine &line, uint32_t pid, const std::function<uint32_t()> &timeoutMs) {
    return Holders(line, pid, timeoutMs).Text();
}

} // namespace tarnd
