#include "host/daemon/memory/process_memory.h"

#include <fnmatch.h>

#include <charconv>

#include "host/daemon/memory/kib.h"
#include "host/osal/error.h"
#include "host/procfs/memory.h"

namespace tarnd {

bool ProcessStatus::HasMemory() const {
    return host::procfs::HasMemory(text_);
}

uint32_t ProcessStatus::EffectiveId(std::string_view key) const {
    const uint64_t real = Number(key);
    const std::string start = fmt::format("\n{}:\t{}\t", key, real);
    const size_t at = text_.find(start);
    uint32_t id = 0;
    if (at == text_.npos ||
        std::from_chars(text_.data() + at + start.size(), text_.data() + text_.size(), id).ec != std::errc{}) {
        host::Fail(EPROTO, fmt::format("no ids in \"{}:\"", key));
    }
    return id;
}

uint32_t ProcessStatus::SizeOf(std::string_view key) const {
    return Kib(host::procfs::FindField(text_, key).value_or(0));
}

std::optional<uint32_t> NumberIn(std::string_view text) {
    if (text.ends_with('\n')) {
        text.remove_suffix(1);
    }
    uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (text.empty() || error != std::errc{} || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return number;
}

void SelectProcesses(const host::procfs::Procfs &proc, const std::string &name, const std::string &user,
                     UserNames &names, const TakeProcess &take) {
    const auto takeIfOfUser = [&](const ProcessStatus &process) {
        const uint32_t uid = process.EffectiveId("Uid");
        if (user.empty() || user == names.User(uid) || user == std::to_string(uid)) {
            take(process);
        }
    };
    if (const std::optional<uint32_t> pid = NumberIn(name)) {
        takeIfOfUser({proc, *pid});
        return;
    }
    for (const uint32_t id : proc.ProcessIds()) {
        host::procfs::SkipHidden([&] {
            const ProcessStatus process(proc, id);
            if (name.empty() || fnmatch(name.c_str(), process.Task().name.c_str(), 0) == 0) {
                takeIfOfUser(process);
            }
        });
    }
}

} // namespace tarnd
