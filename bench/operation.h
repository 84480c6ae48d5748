// One row of the benchmark: an operation of one system on one message.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/codecs.h"
#include "bench/messages.h"

namespace bench {

struct Operation {
    std::string system;
    std::string message;
    std::string name;                // encode: size query and write; decode: with release
    size_t bytes;                    // of a message on the wire, the average of the pool
    std::function<void(size_t)> run; // does the operation so many times, on the records of the pool in turn
};
using Operations = std::vector<Operation>;

// Each system's operations on a message, after a proof that what it encodes decodes to an equal record.
void AddVelto(const Message &message, Operations &operations);
void AddFloor(const Message &message, Operations &operations);
void AddProtobuf(const Message &message, Operations &operations);
void AddCapnp(const Message &message, Operations &operations);
void AddNanopb(const Message &message, Operations &operations);

inline const Codecs &FindCodecs(const std::vector<Codecs> &all, const std::string &type) {
    for (const Codecs &codecs : all) {
        if (type == codecs.type) {
            return codecs;
        }
    }
    throw std::runtime_error("no codecs of " + type);
}

// The compiler may not assume that nobody reads what was written.
inline void KeepMemory() {
    asm volatile("" ::: "memory");
}

// Runs operation(item) over a pool in turn, `count` times.
template <class Pool, class Run>
void InTurn(Pool &pool, size_t count, Run operation) {
    for (size_t i = 0; count != 0; --count) {
        operation(pool[i]);
        KeepMemory();
        i = i + 1 == pool.size() ? 0 : i + 1;
    }
}

template <class Pool>
size_t MeanBytes(const Pool &pool) {
    size_t bytes = 0;
    for (const auto &item : pool) {
        bytes += item.bytes.size();
    }
    return bytes / pool.size();
}

// Throws unless a system gave back what it was given; releases what it gave.
inline void CheckEqual(const char *system, const Message &message, const void *given, void *returned) {
    if (!Equal(message.spec.type, given, returned)) {
        throw std::runtime_error(std::string(system) + " changed " + message.spec.name +
                                 ": what it decodes is not what it encoded");
    }
    FindCodecs(VeltoCodecs(), message.spec.type).release(returned);
}

} // namespace bench
