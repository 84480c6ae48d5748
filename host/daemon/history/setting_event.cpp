#include "host/daemon/history/setting_event.h"

#include <fmt/format.h>

#include "host/meaning/words.h"

namespace tarnd {

Event SettingEvent(const host::procfs::Procfs &proc, const host::Peer &peer, const host::meaning::Method &method,
                   const void *request) {
    const auto pid = static_cast<uint32_t>(peer.pid);
    std::string process;
    host::procfs::SkipHidden([&] { process = proc.ReadProcess(pid).name; });
    const std::string words = host::meaning::WordsOf(*method.request, request);
    return {{},
            EventKind::kSetting,
            pid,
            std::move(process),
            fmt::format("{}{}{}, by user {}", method.name, words.empty() ? "" : " ", words, peer.uid)};
}

} // namespace tarnd
