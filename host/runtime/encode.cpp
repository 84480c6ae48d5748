#include "host/runtime/encode.h"

#include <algorithm>
#include <cerrno>

#include "host/osal/accounting.h"

namespace host {

uint32_t Encode(const IdlCodecTable &codec, const void *record, size_t prefix, uint32_t limit, Bytes &bytes) {
    const bool fixed = codec.pfnFixedPack != nullptr && codec.pfnFixedSize != nullptr;
    if (record == nullptr || (!fixed && codec.pfnPack == nullptr)) {
        return EINVAL;
    }
    uint32_t size = fixed ? codec.pfnFixedSize() : codec.pfnPack(nullptr, record);
    if (size == 0) {
        return EINVAL;
    }
    if (size > limit) {
        return EMSGSIZE;
    }
    bytes.resize(prefix + size); // the regular form leaves no byte of it as it was
    if (fixed) {
        std::fill(bytes.begin(), bytes.end(), 0);
        return codec.pfnFixedPack(bytes.data() + prefix, record) == 0 ? 0 : EINVAL;
    }
    const VeltoOutBuf out{bytes.data() + prefix, &size};
    const uint32_t written = codec.pfnPack(&out, record);
    bytes.resize(prefix + written);
    return written == 0 ? EINVAL : 0;
}

void *DecodeWithin(uint32_t memory, const IdlCodecTable &codec, const uint8_t *bytes, size_t size, void *record) {
    const AllocationBudget budget(memory);
    return codec.pfnUnpack(bytes, static_cast<uint32_t>(size), record);
}

} // namespace host
