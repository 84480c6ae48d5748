#include "host/relay/config.h"

#include <fmt/format.h>

#include <fstream>
#include <sstream>

#include "host/fleet/wire.h"
#include "host/meaning/groups.h"

namespace relay {

namespace {

std::set<host::Group> GroupsOf(const fleet::SettingsFile &file, const std::string &text) {
    std::set<host::Group> groups;
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        const auto group = host::GroupNamed(word);
        if (!group || *group == host::Group::kAgents) {
            file.Refuse("groups", fmt::format("has \"{}\", expected some of: reading memory settings commands", word));
        }
        groups.insert(*group);
    }
    return groups;
}

std::string MachineId(const std::filesystem::path &file) {
    std::ifstream in(file);
    std::string id;
    in >> id;
    return id;
}

} // namespace

Config ConfigOf(fleet::SettingsFile file, const std::filesystem::path &machineId) {
    Config config;
    config.account = file.TakeAccount();
    config.device = file.Take("device");
    if (config.device.empty()) {
        config.device = MachineId(machineId);
    }
    try {
        fleet::CheckDeviceName(config.device);
    } catch (const std::invalid_argument &error) {
        file.Refuse("device", error.what());
    }
    config.groups = GroupsOf(file, file.Take("groups", "reading"));
    config.requests = static_cast<size_t>(file.TakeNumber("requests", 1, 64, config.requests));
    config.hello = std::chrono::seconds(file.TakeNumber("hello-seconds", 1, 86400, 60));
    file.ExpectNothingElse();
    return config;
}

Config LoadConfig(const std::filesystem::path &file, const std::filesystem::path &machineId) {
    return ConfigOf(fleet::SettingsFile::Load(file), machineId);
}

} // namespace relay
