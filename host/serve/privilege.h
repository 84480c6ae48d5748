// What a program that serves may do: it looks at other users' processes and files, and none of them shall become root
// through it.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace host {

// A directory of the program's, which makes it where it is missing. One that root's program makes is given to the user
// whom it becomes.
struct NeededDirectory {
    const char *what; // for messages: "log directory"
    std::filesystem::path path;
    const char *naming; // what names another: "--log-dir"
    mode_t mode;
    // What else is given, where nobody but root could write the directory: what root has left of an earlier run.
    enum class Given { kNothing, kDirectory, kDirectoryAndFiles } given;
};

// Whom root's program becomes: the user that is named, by name or number; "" and "root" are root itself. Without a name
// it is the daemon's user, where there is one. Throws std::invalid_argument for a name that the system does not know,
// or another user than its own where root did not start it.
uid_t UserToBecome(const std::optional<std::string> &named);

// Makes the directories, gives them to the user, becomes that user without further groups, and keeps of the
// capabilities that it has only these (as in <linux/capability.h>), also for programs that it starts. To be called
// before the first thread, which would keep its own.
//
// Throws std::runtime_error with what to do when a directory can't be made, and when the process would be left with
// more than it shall have. What only bounds what its programs may get is logged when it fails, and so is a capability
// that it lacks: who starts it may have taken that.
void Become(uid_t user, const std::vector<NeededDirectory> &directories, const std::vector<unsigned> &capabilities);

} // namespace host
