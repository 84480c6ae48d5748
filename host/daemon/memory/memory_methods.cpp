// The memory of the system.
#include <algorithm>
#include <charconv>
#include <filesystem>

#include "host/answer/answer.h"
#include "host/daemon/daemon.h"
#include "host/daemon/memory/kib.h"
#include "host/daemon/memory/memory_use.h"
#include "host/procfs/procfs.h"
#include "tarn_sysdiag/server/tarnd.h"

namespace tarnd {

namespace {

using Node = Tarn_sys_diag_SysMemUseInfo;

// The numbers of a NUMA node's meminfo ("Node 0 MemTotal: ..."), or of the system's own.
class MemInfo {
public:
    MemInfo(std::string text, std::string prefix) : text_(std::move(text)), prefix_(std::move(prefix)) {}

    uint32_t operator[](const char *key) const { return Kib(host::procfs::FieldOf(text_, prefix_ + key)); }

private:
    const std::string text_;
    const std::string prefix_;
};

void TakeCommon(const MemInfo &info, Node &node) {
    node.uiMemTotal = info["MemTotal"];
    node.uiMemFree = info["MemFree"];
    node.uiMemUsed = node.uiMemTotal - std::min(node.uiMemTotal, node.uiMemFree);
    node.uiActive = info["Active"];
    node.uiInactive = info["Inactive"];
    node.uiAnonPages = info["AnonPages"];
    node.uiShmem = info["Shmem"];
    node.uiSlabReclaimable = info["SReclaimable"];
    node.uiSlabUnreclaimable = info["SUnreclaim"];
    node.uiKernelStack = info["KernelStack"];
    node.uiPageTables = info["PageTables"];
    node.uiHugePagesTotal = info["HugePages_Total"];
}

// A list of CPUs as the kernel writes it, with a line feed.
void TakeCpus(const std::string &path, Node &node) {
    std::string list = host::procfs::ReadText(path);
    list.erase(std::min(list.find('\n'), list.size()));
    host::CopyText(node.szCpuList, list);
}

Node ReadNode(const std::string &directory, uint32_t id) {
    Node node{};
    node.uiNodeId = id;
    host::CopyText(node.szNodeName, fmt::format("node{}", id));
    TakeCpus(directory + "/cpulist", node);
    const MemInfo info(host::procfs::ReadText(directory + "/meminfo"), fmt::format("Node {} ", id));
    TakeCommon(info, node);
    node.uiFilePages = info["FilePages"];
    return node;
}

Node ReadSystem(const Daemon &daemon) {
    Node node{};
    host::CopyText(node.szNodeName, "system");
    TakeCpus(daemon.options.systemDirectory + "/cpu/online", node);
    const MemInfo info(daemon.proc.Read("meminfo"), "");
    TakeCommon(info, node);
    node.uiFilePages = info["Cached"] + info["Buffers"] + info["SwapCached"];
    return node;
}

std::vector<Node> ReadNodes(const Daemon &daemon) {
    std::vector<Node> nodes;
    std::error_code none;
    for (const auto &entry : std::filesystem::directory_iterator(daemon.options.systemDirectory + "/node", none)) {
        const std::string name = entry.path().filename();
        uint32_t id = 0;
        const char *const end = name.data() + name.size();
        if (name.starts_with("node") && std::from_chars(name.data() + 4, end, id).ptr == end && name.size() > 4) {
            nodes.push_back(ReadNode(entry.path(), id));
        }
    }
    if (nodes.empty()) {
        nodes.push_back(ReadSystem(daemon));
    }
    std::sort(nodes.begin(), nodes.end(), [](const Node &a, const Node &b) { return a.uiNodeId < b.uiNodeId; });
    return nodes;
}

// Where the nodes are not the whole system, as in some virtual machines; the kernel reserves a little of it besides.
std::string Disagreement(const std::vector<Node> &nodes, const Daemon &daemon) {
    const uint64_t total = host::procfs::FieldOf(daemon.proc.Read("meminfo"), "MemTotal");
    uint64_t sum = 0;
    for (const Node &node : nodes) {
        sum += node.uiMemTotal;
    }
    const uint64_t difference = std::max(sum, total) - std::min(sum, total);
    return difference <= total / 100
               ? ""
               : fmt::format("the nodes have {} KiB together, the system {} KiB (MemTotal)", sum, total);
}

} // namespace

} // namespace tarnd

uint32_t GetKpiMemoryInfo(const Tarn_sys_diag_DisOsResourceInfoInput *request, void *replyCtx) {
    return host::Answer(host::methods::GetKpiMemoryInfo, request, replyCtx, [](auto &reply) {
        const tarnd::MemoryIndicators indicators = tarnd::IndicatorsOf(tarnd::Daemon::Serving().sampler.History());
        auto &[name, now, lastMinute, highest, available] = reply.Members();
        host::CopyText(name, "memory");
        now = indicators.now;
        lastMinute = indicators.lastMinute;
        highest = indicators.highest;
        available = tarnd::Kib(indicators.availableKib);
    });
}

uint32_t GetSysMemUseInfo(const Tarn_sys_diag_None *request, void *replyCtx) {
    return host::Answer(host::methods::GetSysMemUseInfo, request, replyCtx, [&](auto &reply) {
        std::vector<tarnd::Node> nodes = tarnd::ReadNodes(tarnd::Daemon::Serving());
        TarnHost_ExplainReply(replyCtx, tarnd::Disagreement(nodes, tarnd::Daemon::Serving()).c_str());
        reply.pstNode = reply.Keep(std::move(nodes), reply.uiNodeNum);
    });
}

uint32_t GetHugePagesInfo(const Tarn_sys_diag_None *request, void *replyCtx) {
    return host::Answer(host::methods::GetHugePagesInfo, request, replyCtx, [](auto &reply) {
        const std::string text = tarnd::Daemon::Serving().proc.Read("meminfo");
        auto &[total, free] = reply.Members();
        total = static_cast<uint32_t>(host::procfs::FieldOf(text, "HugePages_Total"));
        free = static_cast<uint32_t>(host::procfs::FieldOf(text, "HugePages_Free"));
    });
}
