// Files reached from an open directory, so that neither a path nor a link leads out of it, and files that are there
// whole or not at all. All failures are thrown as std::system_error.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "host/osal/descriptor.h"

namespace host {

Descriptor OpenDirectory(const std::string &path);

// Follows no link. What is neither a file nor a directory can only be looked at through the result: to open a FIFO
// would let its writer go, and a device may do anything.
Descriptor OpenIn(const Descriptor &directory, const std::string &name);

// The names on the way from a directory to a path, which is relative to it or absolute within it. EACCES for one that
// leads out of it. `root` is absolute and in normal form.
std::vector<std::string> NamesBeneath(const std::string &root, std::string_view path);

// Follows the names one by one from the directory; a link among them is EACCES.
Descriptor OpenBeneath(const std::string &root, const std::vector<std::string> &names);

// The names in a directory, sorted, without "." and "..". Of more than `most`, that many.
std::vector<std::string> NamesIn(const Descriptor &directory, uint64_t most = UINT64_MAX);

void WriteAll(const Descriptor &file, std::string_view bytes, const std::string &what);

bool SameFile(const struct stat &a, const struct stat &b);

// A file that takes its name only when it is complete and on the disk, and replaces an older one in one step. Until
// then it has no name where the file system can do that, else a hidden one.
class FileAside {
public:
    enum class Until { kUnnamed, kHidden }; // kHidden: as if the file system could not do without a name
    FileAside(const Descriptor &directory, std::string name, mode_t mode, Until until = Until::kUnnamed);
    ~FileAside();
    FileAside(const FileAside &) = delete;
    FileAside &operator=(const FileAside &) = delete;

    const Descriptor &File() const { return file_; }
    const std::string &Name() const { return name_; }

    // True for this file and for the one that it is going to replace.
    bool Is(const struct stat &status) const;

    // Where the file may not replace an older one: EEXIST if there is one.
    enum class Older { kReplace, kKeep };
    void Commit(Older older = Older::kReplace);

private:
    void Rename(Older older);

    const Descriptor &directory_;
    const std::string name_;
    const std::string aside_;
    bool named_ = false; // has the hidden name
    Descriptor file_;
};

// A hidden name, which nothing has yet, for what is on its way to the one given or from it.
std::string AsideName(const std::string &name);

// Whether a name is such a one.
bool IsAside(std::string_view name);

// Removes the files with hidden names that a process of this user left in a directory when it was killed; those of a
// living one stay. Returns how many there were.
size_t RemoveAbandoned(const Descriptor &directory);

} // namespace host
