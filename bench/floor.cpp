// The least that any system can do: copy as many bytes as the library's message has; to decode, allocate the same
// blocks, copy the bytes into them, and release them. A record with a text in it imposes one strlen on every encoder.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "bench/operation.h"

namespace bench {

namespace {

struct Item {
    std::vector<uint8_t> bytes;
    const char *text; // or null
    std::vector<size_t> blockSizes;
};
using Pool = std::vector<Item>;

void Encode(uint8_t *buffer, const Item &item) {
    if (item.text != nullptr) {
        volatile size_t length = strlen(item.text);
        static_cast<void>(length);
    }
    memcpy(buffer, item.bytes.data(), item.bytes.size());
}

void Decode(uint8_t *buffer, std::vector<void *> &blocks, const Item &item) {
    const uint8_t *at = item.bytes.data();
    size_t left = item.bytes.size();
    blocks.clear();
    for (const size_t size : item.blockSizes) {
        blocks.push_back(malloc(size));
        const size_t copied = std::min(size, left);
        memcpy(blocks.back(), at, copied);
        at += copied;
        left -= copied;
    }
    memcpy(buffer, at, left);
    KeepMemory();
    for (void *const block : blocks) {
        free(block);
    }
}

} // namespace

void AddFloor(const Message &message, Operations &operations) {
    Pool pool;
    size_t largest = 0;
    for (const Record &record : message.records) {
        const size_t size = FindCodecs(VeltoCodecs(), message.spec.type).pack(nullptr, record.get());
        pool.push_back({std::vector<uint8_t>(size, 1), record.text, record.blockSizes});
        largest = std::max(largest, size);
    }
    std::vector<uint8_t> buffer(largest);
    operations.push_back({"floor", message.spec.name, "encode", MeanBytes(pool), [=](size_t count) mutable {
                              InTurn(pool, count, [&](const Item &item) { Encode(buffer.data(), item); });
                          }});
    std::vector<void *> blocks;
    operations.push_back({"floor", message.spec.name, "decode", MeanBytes(pool), [=](size_t count) mutable {
                              InTurn(pool, count, [&](const Item &item) { Decode(buffer.data(), blocks, item); });
                          }});
}

} // namespace bench
