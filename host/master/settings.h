// What the master knows: its configuration file, and what the daemon has changed since.
#pragma once

#include <filesystem>
#include <mutex>

#include "host/master/config.h"
#include "host/store/store.h"

namespace master {

// Memory thresholds that are not the file's any more.
struct Change {
    Thresholds thresholds;
    Thresholds ofFile; // when it was made; the file has the last word once it says something else
    std::string by;
    uint32_t count = 0;
    uint32_t when = 0; // seconds since 1970
};

struct MemoryAnswer {
    Names names;
    Thresholds thresholds;
    std::optional<Change> change;
};

struct CpuAnswer {
    Names names;
    Thresholds thresholds;
};

class Master {
public:
    // Reads file and state; throws what is wrong with the file or the state directory. An empty directory: changes are
    // kept in memory.
    void Start(const std::filesystem::path &file, const std::filesystem::path &stateDirectory);

    // Reads the file again. False, with the reason in the log, when it is refused: all is as before then.
    bool Reload();

    Config Configured() const;
    uint32_t ReadCount() const; // of the file

    // Throw ENOENT for names without configuration.
    CpuAnswer CpuOverload(const Names &names) const;
    MemoryAnswer MemoryOverload(const Names &names) const;
    void ChangeMemory(const Names &names, const Thresholds &thresholds, const std::string &by);

private:
    void Load();
    void Save(const std::map<Names, Change> &changes);
    static std::map<Names, Change> StillValid(std::map<Names, Change> changes, const Config &config);

    mutable std::mutex mutex_;
    std::filesystem::path file_;
    Config config_;
    uint32_t readCount_ = 0;
    std::map<Names, Change> changes_;
    host::Store store_;
};

Master &TheMaster();

} // namespace master
