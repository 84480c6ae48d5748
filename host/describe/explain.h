// Why a buffer is refused, and what its bytes mean. The verifier walks a message as the decoders do: the same checks in
// the same order, so its verdict is theirs; where they only say no, it says which check, where, and with what value.
#pragma once

#include <optional>
#include <span>

#include "host/describe/types.h"

namespace host::describe {

enum class Check {
    kLength,       // the buffer is too short to hold a root offset, or too long for a signed length
    kPositionWrap, // an offset word leads past what 32 bits can say
    kTable,        // a table lies outside the message
    kVtable,       // its vtable does
    kVtableLength, // its vtable is longer than the message
    kField,        // a field does not lie within the message
    kReference,    // an offset word leads outside the message
    kCount,        // more elements than the message has bytes for
    kFixedCount,   // not the declared number of elements
    kMemory,       // the native elements take more bytes than can be allocated
};

const char *CheckName(Check check);

struct Refusal {
    Check check;
    std::string function; // the decoder's name, as the log shows it
    std::string path;     // of the field; empty for the message itself
    uint64_t at;          // the byte at which the refused value stands
    uint64_t value;
    uint64_t least, most; // that would have been accepted; least > most when no value would
    std::string text;     // all that in a sentence
    std::string log;      // what the decoder logs; empty where it refuses in silence
};

// What some bytes of a message are.
struct Note {
    uint64_t at;
    uint64_t size;
    std::string path; // of the field, empty for the message itself
    std::string text;
};

struct Explanation {
    std::optional<Refusal> refusal;
    std::vector<Note> notes; // in the order of their bytes; of a refused message, what was read before the refusal
    bool notesCut = false;   // there were too many
};

// `notes` says whether notes are wanted: the verdict alone is much cheaper.
Explanation Explain(const Type &type, std::span<const uint8_t> message, bool notes = true);

// The annotated dump: a line for each note, with its bytes in hex, and one for bytes that nothing refers to.
std::string DumpText(const Explanation &explanation, std::span<const uint8_t> message);

} // namespace host::describe
