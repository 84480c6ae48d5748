// Documents that outlive a restart, one file each in a directory.
//
//   store.Load("clock", 1, [&](const Document &content) { ... });   at start
//   store.Save("clock", 1, content);                                      before a change is confirmed
//
// A file is written aside, synced and renamed: after a crash there is the old document or the new one. A file that is
// damaged (cut off, changed, not ours) is reported and set aside as NAME.damaged, one of a later version as NAME.newer;
// the document counts as absent then.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "host/osal/lock_file.h"
#include "host/osal/mutex.h"
#include "host/store/document.h"
#include "host/store/files.h"

namespace host {

class Store {
public:
    // Without a directory documents are kept in memory only. It is created when missing, with mode 0700, and held until
    // the end: EBUSY when another process has it. Throws std::system_error.
    explicit Store(const std::filesystem::path &directory = {});
    Store(const Store &) = delete;
    Store &operator=(const Store &) = delete;

    // Hands the content over and returns true, if there is such a document. `version` is the newest that the caller
    // knows; an older document is handed over as well, with its own. What `take` throws counts as damage.
    using Take = std::function<void(const Document &content, uint32_t version)>;
    bool Load(const std::string &name, uint32_t version, const Take &take);
    bool Load(const std::string &name, uint32_t version, const std::function<void(const Document &)> &take);

    // Throws std::system_error when it can't be kept; the older document is still there then. Who saves a document from
    // several threads holds a lock of its own from the change until Save returns.
    void Save(const std::string &name, uint32_t version, const Document &content);

private:
    struct Kept {
        uint32_t version;
        Document content;
    };
    std::optional<Kept> Read(const std::string &name, uint32_t version) TARN_REQUIRES(mutex_);
    void SetAside(const std::string &name, const char *suffix, const std::string &reason) TARN_REQUIRES(mutex_);

    std::filesystem::path path_; // these three don't change
    Descriptor directory_;
    std::optional<LockFile> lock_;                                  // held until the end
    Mutex mutex_;                                                   // also of the files in the directory
    std::map<std::string, Kept> documents_ TARN_GUARDED_BY(mutex_); // without a directory
};

} // namespace host
