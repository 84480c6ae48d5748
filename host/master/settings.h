// What holds: the configuration file, and what the daemon has changed since.
#pragma once

#include <filesystem>

#include "host/clock/clocks.h"
#include "host/master/config.h"
#include "host/osal/mutex.h"
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

class Settings {
public:
    // Reads file and state; throws what is wrong with the file or the state directory. An empty directory: changes are
    // kept in memory.
    Settings(const host::Clocks &clocks, std::filesystem::path file, const std::filesystem::path &stateDirectory);

    // Reads the file again. What is wrong with it, which is logged: all is as before then; empty when nothing is.
    std::string Reload();

    Config Configured() const;
    uint32_t ReadCount() const; // of the file

    // Throw ENOENT for names without configuration.
    CpuAnswer CpuOverload(const Names &names) const;
    MemoryAnswer MemoryOverload(const Names &names) const;
    void ChangeMemory(const Names &names, const Thresholds &thresholds, const std::string &by);

private:
    static std::map<Names, Change> StillValid(std::map<Names, Change> changes, const Config &config);
    std::map<Names, Change> Load();
    void Save(const std::map<Names, Change> &changes) TARN_REQUIRES(mutex_);

    const host::Clocks &clocks_;
    const std::filesystem::path file_;
    mutable host::Mutex mutex_;
    Config config_ TARN_GUARDED_BY(mutex_);
    uint32_t readCount_ TARN_GUARDED_BY(mutex_) = 1;
    host::Store store_;
    std::map<Names, Change> changes_ TARN_GUARDED_BY(mutex_);
};

} // namespace master
