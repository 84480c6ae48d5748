#include "host/master/settings.h"

#include <cerrno>
#include <utility>

#include "host/osal/error.h"
#include "host/osal/log.h"

namespace master {

namespace {

using host::Document;

constexpr const char *kDocument = "memory-overload";
constexpr uint32_t kVersion = 1;
constexpr const char *kSystem = "system";

// The names of the configuration that stands for what is asked.
Names Find(const std::map<Names, Thresholds> &configured, Names names) {
    if (names.first.empty()) {
        names.first = kSystem;
    }
    if (configured.count(names) == 0) {
        names.second.clear();
    }
    if (configured.count(names) == 0) {
        host::Fail(ENOENT, fmt::format("the overload configuration of \"{}\"", names.first));
    }
    return names;
}

std::string SectionOf(const Names &names) {
    return fmt::format("[memory-overload {}{}{}]", names.first, names.second.empty() ? "" : " ", names.second);
}

Document ToDocument(const Thresholds &thresholds) {
    return Document::Object{{"over", thresholds.over}, {"recover", thresholds.recover}};
}

Thresholds FromDocument(const Document &content) {
    const Thresholds thresholds{content.Get<uint32_t>("over"), content.Get<uint32_t>("recover"), 0};
    CheckThresholds(thresholds);
    return thresholds;
}

} // namespace

Settings::Settings(const host::Clocks &clocks, std::filesystem::path file, const std::filesystem::path &stateDirectory)
    : clocks_(clocks), file_(std::move(file)), config_(LoadConfig(file_)), store_(stateDirectory) {
    changes_ = StillValid(Load(), config_);
}

std::string Settings::Reload() {
    const host::MutexLock lock(mutex_);
    try {
        Config config = LoadConfig(file_);
        std::map<Names, Change> changes = StillValid(changes_, config);
        if (changes.size() != changes_.size()) {
            Save(changes);
        }
        config_ = std::move(config);
        changes_ = std::move(changes);
        ++readCount_;
        host::Log().info("{} read again", file_.string());
        return {};
    } catch (const std::exception &error) {
        host::Log().error("{}; what was configured before holds", error.what());
        return error.what();
    }
}

Config Settings::Configured() const {
    const host::MutexLock lock(mutex_);
    return config_;
}

uint32_t Settings::ReadCount() const {
    const host::MutexLock lock(mutex_);
    return readCount_;
}

CpuAnswer Settings::CpuOverload(const Names &names) const {
    const host::MutexLock lock(mutex_);
    const Names found = Find(config_.cpuOverload, names);
    return {found, config_.cpuOverload.at(found)};
}

MemoryAnswer Settings::MemoryOverload(const Names &names) const {
    const host::MutexLock lock(mutex_);
    const Names found = Find(config_.memoryOverload, names);
    const auto change = changes_.find(found);
    if (change == changes_.end()) {
        return {found, config_.memoryOverload.at(found), {}};
    }
    return {found, change->second.thresholds, change->second};
}

void Settings::ChangeMemory(const Names &names, const Thresholds &thresholds, const std::string &by) {
    const host::MutexLock lock(mutex_);
    const Names found = Find(config_.memoryOverload, names);
    std::map<Names, Change> changes = changes_;
    Change &change = changes[found];
    change.thresholds = thresholds;
    change.ofFile = config_.memoryOverload.at(found);
    change.by = by;
    ++change.count;
    change.when = static_cast<uint32_t>(std::chrono::system_clock::to_time_t(clocks_.WallNow()));
    Save(changes);
    changes_ = std::move(changes);
    host::Log().info("{}: over {}, recover {}, changed by {}", SectionOf(found), thresholds.over, thresholds.recover,
                     by.empty() ? "a client without a name" : by);
}

// None when there are none, or they are damaged.
std::map<Names, Change> Settings::Load() {
    std::map<Names, Change> changes;
    store_.Load(kDocument, kVersion, [&](const Document &content) {
        std::map<Names, Change> read;
        for (const Document &entry : content.AsArray()) {
            read[{entry.Get<std::string>("name"), entry.Get<std::string>("variant")}] = {
                FromDocument(entry.At("thresholds")), FromDocument(entry.At("ofFile")), entry.Get<std::string>("by"),
                entry.Get<uint32_t>("count"), entry.Get<uint32_t>("when")};
        }
        changes = std::move(read);
    });
    return changes;
}

void Settings::Save(const std::map<Names, Change> &changes) {
    Document::Array content;
    for (const auto &[names, change] : changes) {
        content.push_back(Document::Object{{"name", names.first},
                                           {"variant", names.second},
                                           {"thresholds", ToDocument(change.thresholds)},
                                           {"ofFile", ToDocument(change.ofFile)},
                                           {"by", change.by},
                                           {"count", change.count},
                                           {"when", change.when}});
    }
    store_.Save(kDocument, kVersion, content);
}

std::map<Names, Change> Settings::StillValid(std::map<Names, Change> changes, const Config &config) {
    std::erase_if(changes, [&](const auto &entry) {
        const auto now = config.memoryOverload.find(entry.first);
        const bool outdated = now == config.memoryOverload.end() || now->second != entry.second.ofFile;
        if (outdated) {
            host::Log().info("{}: the file's, no longer that of {}", SectionOf(entry.first), entry.second.by);
        }
        return outdated;
    });
    return changes;
}

} // namespace master
