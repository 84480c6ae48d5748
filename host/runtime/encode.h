// Encodes and decodes records with the functions of a codec table.
#pragma once

#include <cstddef>
#include <cstdint>

#include "host/runtime/bytes.h"
#include "tarn_sysdiag/platform/rpc.h"

namespace host {

// Writes the message behind `prefix` bytes of any value, in the fixed form where the table has one; bytes that the
// encoder leaves out are 0. Returns 0, or an errno value: EINVAL when the record can't be encoded, EMSGSIZE when the
// message would be larger than the limit.
uint32_t Encode(const IdlCodecTable &codec, const void *record, size_t prefix, uint32_t limit, Bytes &bytes);

// Decodes a message, unless that would take more memory than so many bytes. Null when the message is refused.
void *DecodeWithin(uint32_t memory, const IdlCodecTable &codec, const uint8_t *bytes, size_t size, void *record);

} // namespace host
