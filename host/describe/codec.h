// Records of any type as messages and back, by the type's description: tools are in no hurry, and need no compiled
// codecs of their own. The bytes are those of the library's codecs.
#pragma once

#include <span>

#include "host/describe/types.h"

namespace host::describe {

// What a record's regular form takes. It may pass the 32 bits that a message has for it: elements may share a string.
uint64_t RegularSize(const Type &type, const void *record);

// Writes as many bytes, which must be less than 4 GiB.
void WriteRegular(const Type &type, const void *record, uint8_t *message);

// Writes type.fixed->Size() bytes, but for the gaps between fields. The type has a fixed form.
void WriteFixed(const Type &type, const void *record, uint8_t *message);

// Fills a zeroed record. False for a message that the library would refuse, which is logged in its words; the record is
// to be released then too.
bool Read(const Type &type, std::span<const uint8_t> message, void *record);

// Gives back what a record points to.
void Release(const Type &type, void *record);

// Storage that Release gives back, zeroed; throws std::bad_alloc, also for a size that passes the allocator's 32 bits.
void *AllocateOwned(uint64_t size);

} // namespace host::describe
