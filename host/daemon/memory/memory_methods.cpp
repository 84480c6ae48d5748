// The memory of the system.
#include <algorithm>
#include <charconv>
#include <filesystem>

#include "host/answer/answer.h"
#include "host/daemon/memory/kib.h"
#include "host/daemon/memory/memory_overload.h"
#include "host/procfs/procfs.h"
#include "server/tarnd.h"

namespace tarnd {

namespace {

using Node = Tarn_sys_diag_SysMemUseInfo;

// The numbers of a NUMA node's meminfo ("Node 0 MemTotal: ..."), or of the system's own.
class MemInfo {
public:
    MemInfo(const std::string &path, std::string prefix)
        : text_(host::procfs::ReadText(path)), prefix_(std::move(prefix)) {}

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
    const MemInfo info(directory + "/meminfo", fmt::format("Node {} ", id));
    TakeCommon(info, node);
    node.uiFilePages = info["FilePages"];
    return node;
}

Node ReadSystem() {
    Node node{};
    host::CopyText(node.szNodeName, "system");
    TakeCpus("/sys/devices/system/cpu/online", node);
    const MemInfo info("/proc/meminfo", "");
    TakeCommon(info, node);
    node.uiFilePages = info["Cached"] + info["Buffers"] + info["SwapCached"];
    return node;
}

std::vector<Node> ReadNodes() {
    std::vector<Node> nodes;
    std::error_code none;
    for (const auto &entry : std::filesystem::directory_iterator("/sys/devices/system/node", none)) {
        const std::string name = entry.path().filename();
        uint32_t id = 0;
        const char *const end = name.data() + name.size();
        if (name.starts_with("node") && std::from_chars(name.data() + 4, end, id).ptr == end && name.size() > 4) {
            nodes.push_back(ReadNode(entry.path(), id));
        }
    }
    if (nodes.empty()) {
        nodes.push_back(ReadSystem());
    }
    std::sort(nodes.begin(), nodes.end(), [](const Node &a, const Node &b) { return a.uiNodeId < b.uiNodeId; });
    return nodes;
}

void TakeIndicators(Tarn_sys_diag_DisOsResourceInfoRet &reply) {
    const std::vector<SystemSample> samples = TheSampler().History();
    const SystemSample &now = samples.back();
    uint64_t sum = 0, number = 0;
    for (const SystemSample &sample : samples) {
        const uint32_t used = UsedPermille(sample.memory);
        reply.uiValue3 = std::max(reply.uiValue3, used);
        if (sample.at > now.at - std::chrono::minutes(1)) {
            sum += used;
            ++number;
        }
    }
    host::CopyText(reply.acName, "memory");
    reply.uiValue1 = UsedPermille(now.memory);
    reply.uiValue2 = static_cast<uint32_t>(sum / number);
    reply.uiValue4 = Kib(now.memory.available);
}

} // namespace

} // namespace tarnd

uint32_t GetKpiMemoryInfo(const Tarn_sys_diag_DisOsResourceInfoInput *, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_DisOsResourceInfoRet>(__func__, replyCtx,
                                                            [](auto &reply) { tarnd::TakeIndicators(reply); });
}

uint32_t GetSysMemUseInfo(const Tarn_sys_diag_None *, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_SysMemUseInfoResult>(
        __func__, replyCtx, [](auto &reply) { reply.pstNode = reply.Keep(tarnd::ReadNodes(), reply.uiNodeNum); });
}

uint32_t GetHugePagesInfo(const Tarn_sys_diag_None *, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_HugePagesOutput>(__func__, replyCtx, [](auto &reply) {
        const std::string text = host::procfs::Procfs().Read("meminfo");
        reply.uiValue1 = static_cast<uint32_t>(host::procfs::FieldOf(text, "HugePages_Total"));
        reply.uiValue2 = static_cast<uint32_t>(host::procfs::FieldOf(text, "HugePages_Free"));
    });
}
