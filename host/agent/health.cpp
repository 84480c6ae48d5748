#include "host/agent/health.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include "host/meaning/choices.h"
#include "host/osal/attempt.h"
#include "host/osal/error.h"
#include "tarn_sysdiag/types/agent.h"

namespace agent {

namespace {

namespace health_level = host::meaning::health_level;
namespace system_health_level = host::meaning::system_health_level;

constexpr uint8_t kFirstOfApplication = 64;

} // namespace

uint32_t Health::Add(uint8_t function, const char *name, uint32_t limit, Check check) {
    if (function < kFirstOfApplication || name == nullptr || *name == 0 ||
        strlen(name) >= sizeof(Tarn_sys_diag_SysHealthInfo::acValue1)) {
        return EINVAL;
    }
    const host::MutexLock lock(mutex_);
    return items_.try_emplace(function, Item{name, limit, std::move(check)}).second ? 0 : EEXIST;
}

void Health::SetAll(bool on) {
    const host::MutexLock lock(mutex_);
    on_ = on;
}

void Health::Set(uint8_t function, bool on, uint32_t limit) {
    const host::MutexLock lock(mutex_);
    if (function != 0 && items_.count(function) == 0) {
        host::Fail(ENOENT, fmt::format("health item {}", function));
    }
    for (auto &[id, item] : items_) {
        if (function == 0 || function == id) {
            item.on = on;
            item.limit = limit == 0 ? item.limit : limit;
        }
    }
}

bool Health::IsOn() const {
    const host::MutexLock lock(mutex_);
    return on_;
}

// The application's checks run without the lock: they may register and set what they like.
std::vector<Health::Result> Health::Look() const {
    const auto [allOn, items] = [this] {
        const host::MutexLock lock(mutex_);
        return std::pair(on_, items_);
    }();
    std::vector<Result> results;
    for (const auto &[id, item] : items) {
        Finding finding{system_health_level::kUnknown, "switched off"};
        if (allOn && item.on) {
            finding = {health_level::kBad, "the check failed"};
            host::Attempt(item.name.c_str(), [&, &one = item] { finding = one.check(one.limit); });
        }
        results.push_back({std::move(finding), item.name});
    }
    return results;
}

} // namespace agent
