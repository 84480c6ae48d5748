// What the daemon, the starter of helpers and a helper say to each other. Numbers are as the processor has them: all
// are of one build. A helper reads what others control, so the daemon takes none of its words on trust.
#pragma once

#include <cstddef>
#include <cstdint>

namespace host::unwind {

// The descriptor by which the starter, and each helper, is spoken to.
constexpr int kSocket = 3;

// To the starter: one datagram, with a helper's end of a new socket.
enum class Job : uint32_t { kUnwind = 1, kDemangle = 2 };

struct StartRequest {
    Job job;
    uint32_t pid; // of the process to unwind; else 0
    uint64_t startTicks;
};

// On a helper's socket: a head, and as many bytes as it says.
enum class Kind : uint32_t {
    // To a helper.
    kSnapshot = 1, // SnapshotHead, its registers of 8 bytes each, its stack; answered by frames, names, end
    kName = 2,     // a name to demangle; answered by a name if it can be, and end
    // From a helper.
    kReady = 3,    // int32_t: 0, or the errno value of why there will be no answers
    kFrames = 4,   // FrameHead, module, function, build id; for each frame
    kReadable = 5, // uint32_t, the frame's index; its function's name, demangled
    kEnd = 6,
};

struct Head {
    Kind kind;
    uint32_t bytes;
};

struct SnapshotHead {
    uint64_t programCounter;
    uint64_t stackPointer;
    uint32_t registerNum;
    uint32_t stackBytes;
};

struct FrameHead {
    uint64_t address;
    uint64_t offset;       // from the function's start, or from the module's
    uint64_t moduleOffset; // from where the module begins in memory
    uint32_t moduleBytes;
    uint32_t functionBytes;
    uint32_t buildIdBytes;
    uint32_t moreFollow; // of the last frame: there are more, which are not told
};

constexpr size_t kMostFrames = 32;
constexpr size_t kMostRegisters = 64;
constexpr size_t kMostStackBytes = 256U << 10;
constexpr size_t kMostNameBytes = 512; // of a module or a function; what is longer is cut
constexpr size_t kMostBuildIdBytes = 64;
constexpr size_t kMostReplyBytes = kMostFrames * (sizeof(FrameHead) + 2 * kMostNameBytes + kMostBuildIdBytes);
constexpr size_t kMostRequestBytes = sizeof(SnapshotHead) + kMostRegisters * sizeof(uint64_t) + kMostStackBytes;

} // namespace host::unwind
