// The reader's side of the black box. Anyone may have made files of such names, and a user writes what he likes into
// his own: files are read, none is mapped, and so many at most are looked at.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "host/blackbox/record.h"
#include "host/osal/check.h"

namespace host::blackbox {

// Where a record is.
struct RecordPlace {
    uint32_t user;
    uint32_t slot;
    uint64_t sequence;
    uint64_t timeNs;
};

struct Contents {
    std::vector<RecordPlace> records; // the newest first
    size_t damaged = 0;               // slots whose record is not whole
    size_t filesLeftOut = 0;
    std::vector<std::string> reasons; // why, of the first of them
};

// What the writer says, who may be anyone.
using Chosen = std::function<bool(const FaultHead &)>;
// Whether a record counts as erased, whatever its file says.
using IsErased = std::function<bool(const RecordPlace &)>;

// The records in all black boxes of a directory that are not erased, and that a function chooses. Of very many
// files, those of the lowest user ids are looked at.
Contents List(const std::filesystem::path &directory, const IsErased &isErased, const Chosen &chosen,
              const Check &check);

struct FaultRecord {
    bool hasStack; // else its writer was killed, or failed, before it had written it
    FaultHead head;
    FaultStack stack;
};

// Changes when a black box of a directory is written to; twice within a tick of the files' clock perhaps once.
uint64_t StampOf(const std::filesystem::path &directory);

// Counts are in their ranges, and texts end. None when the slot has another record by now.
std::optional<FaultRecord> Read(const std::filesystem::path &directory, const RecordPlace &place);

struct Erased {
    size_t number = 0;
    std::vector<RecordPlace> denied; // chosen, in files that may not be written
};

// Erases the records that a function chooses and, when asked to, what is left of damaged ones. A black box that can't
// be written though it may be throws, after the others are done.
Erased Erase(const std::filesystem::path &directory, const Chosen &chosen, bool damaged, const Check &check);

} // namespace host::blackbox
