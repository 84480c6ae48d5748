#include "host/runtime/agent_sockets.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <string>
#include <system_error>

#include "host/osal/directories.h"
#include "host/procfs/procfs.h"

namespace host {
namespace {

using std::filesystem::path;

constexpr std::string_view kPrefix = "agent-", kSuffix = ".sock";
constexpr size_t kWorthTrying = 16;

} // namespace

path SpareAgentSocket(const path &runDir) {
    return runDir / fmt::format("{}{}-{}{}", kPrefix, getpid(), RandomDigits(), kSuffix);
}

uint32_t NumberInName(const path &socket) {
    const std::string name = socket.filename();
    if (!name.starts_with(kPrefix) || !name.ends_with(kSuffix)) {
        return 0;
    }
    const char *const begin = name.data() + kPrefix.size();
    uint32_t number = 0;
    const auto [end, error] = std::from_chars(begin, name.data() + name.size(), number);
    return error == std::errc() && (*end == '-' || end + kSuffix.size() == name.data() + name.size()) ? number : 0;
}

std::vector<path> AgentSockets(const path &runDir) {
    std::vector<path> sockets;
    std::error_code none;
    for (const auto &entry : std::filesystem::directory_iterator(runDir, none)) {
        if (NumberInName(entry.path()) != 0) {
            sockets.push_back(entry.path());
        }
    }
    std::ranges::sort(sockets);
    return sockets;
}

// Where that can't be told, as without descriptors, there is none: that the agent's own was not reached is the failure.
std::vector<path> OtherSocketsOfAgent(const path &runDir, uint32_t pid) {
    std::vector<path> sockets;
    try {
        const procfs::Procfs proc;
        const uint32_t own = proc.OwnNumberOf(pid);
        const path first = runDir / fmt::format("{}{}{}", kPrefix, pid, kSuffix);
        for (const path &socket : AgentSockets(runDir)) {
            struct stat status {};
            if (sockets.size() < kWorthTrying && NumberInName(socket) == own && socket != first &&
                lstat(socket.c_str(), &status) == 0 && S_ISSOCK(status.st_mode) &&
                (status.st_uid == 0 || proc.HasUser(pid, status.st_uid))) {
                sockets.push_back(socket);
            }
        }
    } catch (const std::system_error &) {
        sockets.clear();
    }
    return sockets;
}

} // namespace host
