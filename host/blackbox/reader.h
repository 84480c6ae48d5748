// The reader's side of the black box. It reads the files and maps none, so that nothing a user does to one can hurt.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "host/blackbox/record.h"

namespace host::blackbox {

struct FaultRecord {
    std::filesystem::path file;
    uint64_t sequence;
    bool hasStack; // else its writer was killed, or failed, before it had written it
    FaultHead head;
    FaultStack stack;
};

struct Contents {
    std::vector<FaultRecord> records; // the newest first
    size_t damaged = 0;               // slots whose record is not whole
    std::vector<std::string> refused; // files that are left out, and why
};

// The records in all black boxes of a run directory that have not been erased.
Contents Read(const std::filesystem::path &runDir);

// Erases the records that a function chooses and, when asked to, what is left of damaged ones. The number. A
// file that can't be written throws, after the others are done.
size_t Erase(const std::filesystem::path &runDir, const std::function<bool(const FaultHead &)> &chosen, bool damaged);

} // namespace host::blackbox
