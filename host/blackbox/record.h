// The black box's file: a header, and a ring of slots, each with one record. All processes of one user write to one
// file. A writer takes the next slot under a lock that ends with its process, and waits for it only so long: one that
// is killed or stopped holds nobody up. A slot's two parts are checked on their own: what is known at once is complete
// before the stack is looked at, which may take long or fail.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace host::blackbox {

enum class FaultKind : uint32_t { kException = 1, kAssertion = 2 };

struct CpuRegister {
    char name[8];
    uint64_t value;
};

// What is known at once. Texts are terminated.
struct FaultHead {
    FaultKind kind;
    uint32_t pid;
    uint32_t tid;
    int32_t signal; // 0 for an assertion
    int32_t code;   // si_code
    uint32_t registerNum;
    uint64_t address; // that a memory access wanted
    uint64_t timeNs;  // since 1970
    char agent[32];
    char process[16];
    char thread[16];
    char text[256]; // an assertion's expression and place; of a process without an agent, its command line
    CpuRegister registers[34];
};

// With the module's file and the place in it an address can be symbolized elsewhere. Records of older writers have
// zeros for what they did not know.
struct StackFrame {
    uint64_t address;
    uint64_t offset; // from the function's start
    char function[128];
    char module[80];
    uint64_t moduleOffset; // from where the module's file begins in memory
    uint8_t buildIdBytes;
    uint8_t buildId[23];
};
static_assert(sizeof(StackFrame) == 256);

constexpr uint32_t kFrameNum = 32;

struct FaultStack {
    uint32_t frameNum;
    uint32_t isCut; // there were more
    StackFrame frames[kFrameNum];
};

struct FaultSlot {
    uint64_t sequence; // of the record, counted from 1; 0: never written
    uint64_t erased;   // the sequence of the record that was erased last
    uint32_t headCheck;
    uint32_t stackCheck;
    FaultHead head;
    FaultStack stack;
};

struct FileHeader {
    char magic[8];
    uint32_t slotNum;
    uint32_t slotBytes;
    uint64_t lastSequence;
};

constexpr char kMagic[8] = {'t', 'a', 'r', 'n', 'b', 'b', '0', '1'};
constexpr uint32_t kSlotNum = 64;
constexpr size_t kFileBytes = sizeof(FileHeader) + kSlotNum * sizeof(FaultSlot);

// CRC-32 of Ethernet. Our own: a signal handler may use nothing of which a library does not say that it may.
constexpr std::array<uint32_t, 256> kCrcTable = [] {
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < table.size(); ++i) {
        uint32_t value = i;
        for (int bit = 0; bit < 8; ++bit) {
            value = (value >> 1) ^ ((value & 1) != 0 ? 0xEDB88320U : 0);
        }
        table[i] = value;
    }
    return table;
}();

inline uint32_t Crc(uint32_t crc, const void *data, size_t size) {
    const auto *const bytes = static_cast<const uint8_t *>(data);
    crc = ~crc;
    for (size_t i = 0; i < size; ++i) {
        crc = (crc >> 8) ^ kCrcTable[(crc ^ bytes[i]) & 0xFF];
    }
    return ~crc;
}

// The check of a slot's part belongs to a sequence: what an older record left behind is never taken for a newer one's.
template <class Part>
uint32_t CheckOf(uint64_t sequence, const Part &part) {
    return Crc(Crc(0, &sequence, sizeof sequence), &part, sizeof part);
}

} // namespace host::blackbox
