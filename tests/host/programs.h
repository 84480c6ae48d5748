// What the tests of the programs that serve share: they are started by a shell's line. A test file makes a unit before
// it includes this.
#pragma once

#include <fmt/format.h>

#include <set>

#include "host/runtime/status.h"
#include "tests/host/kit.h"

namespace kit {

class ProgramsTest : public testing::Test {
protected:
    // "$run" is a directory for sockets, "$log" one for logs.
    std::unique_ptr<Process> Shell(const std::string &line) const {
        const std::string names = fmt::format("run={} log={}; exec ", RunDir().string(), LogDir().string());
        return std::make_unique<Process>(dir_.Path(), std::vector<std::string>{"/bin/sh", "-c", names + line});
    }
    bool Answers(const char *service = "TarnSysdiagTarnd") const {
        host::Client client({.runDir = RunDir()});
        host::ServerHealth health;
        return AskHealth(client, service, 0, health).Ok();
    }
    bool Serves(const char *service = "TarnSysdiagTarnd") const {
        return Eventually([&] { return Answers(service); });
    }
    std::set<std::string> Sockets() const {
        std::set<std::string> names;
        std::error_code none;
        for (const auto &entry : std::filesystem::directory_iterator(RunDir(), none)) {
            if (entry.path().extension() == ".sock") {
                names.insert(entry.path().filename());
            }
        }
        return names;
    }
    std::filesystem::path RunDir() const { return dir_.Path() / "run"; }
    std::filesystem::path LogDir() const { return dir_.Path() / "log"; }
    std::string Write(const std::string &name, const std::string &content) const {
        std::ofstream(dir_.Path() / name) << content;
        return (dir_.Path() / name).string();
    }

    const TempDir dir_;
};

// Whether a process's log, or whatever is read so, comes to have a text.
template <class Read>
bool ComesToHave(Read read, const std::string &text) {
    return Eventually([&] { return read().find(text) != std::string::npos; });
}

} // namespace kit
