// What is measured: the messages, and their records, which all systems start from and are compared with.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace bench {

constexpr uint32_t kTextLength = 64 * 1024 - 1; // with its terminator, 64 KiB

enum class Dominated { kByFields, kByOneBlock };

struct MessageSpec {
    const char *name;
    const char *type;
    uint32_t elementNum;  // of its vector
    uint32_t zeroPercent; // chance of a scalar to be 0
    uint32_t poolSize;    // records taken in turn, so that no branch predictor learns a single one
    Dominated dominated;
};

// The three sizes of SysCpuStatInfo touch as many elements in all, so that their times per element compare. With zeros
// they are more: predictors learn which scalars are 0 in a thousand elements, 28 in each.
constexpr MessageSpec kMessages[] = {
    {"Result", "Result", 0, 0, 16, Dominated::kByFields},
    {"PidIsOnlineOuput", "PidIsOnlineOuput", 0, 0, 16, Dominated::kByFields},
    {"DisCpuOvloadRet", "DisCpuOvloadRet", 0, 0, 16, Dominated::kByFields},
    {"SetDstInput", "SetDstInput", 0, 0, 16, Dominated::kByFields},
    {"SysCpuStatInfo_1", "SysCpuStatInfo", 1, 0, 256, Dominated::kByFields},
    {"SysCpuStatInfo_16", "SysCpuStatInfo", 16, 0, 16, Dominated::kByFields},
    {"SysCpuStatInfo_256", "SysCpuStatInfo", 256, 0, 1, Dominated::kByFields},
    {"SysCpuStatInfo_1_zeros", "SysCpuStatInfo", 1, 50, 4096, Dominated::kByFields},
    {"SysCpuStatInfo_16_zeros", "SysCpuStatInfo", 16, 50, 256, Dominated::kByFields},
    {"SysCpuStatInfo_256_zeros", "SysCpuStatInfo", 256, 50, 16, Dominated::kByFields},
    {"CallStackContext_8", "CallStackContext", 8, 0, 1, Dominated::kByFields},
    {"SysMemStatisFileResult_64", "SysMemStatisFileResult", 64, 0, 1, Dominated::kByFields},
    {"DumpOsProcMemValueResult", "DumpOsProcMemValueResult", 0, 0, 1, Dominated::kByOneBlock},
    {"Tids_4096", "Tids", 4096, 0, 1, Dominated::kByOneBlock},
    {"MemLeakQryOut", "MemLeakQryOut", 0, 0, 1, Dominated::kByOneBlock},
};

// A native record and the blocks that it points to.
struct Record {
    std::vector<std::unique_ptr<uint64_t[]>> memory; // the record itself first
    std::vector<size_t> blockSizes;                  // of what a decoder allocates for it
    size_t arrayBytes = 0;                           // in byte arrays and arrays of 64-bit elements
    const char *text = nullptr;                      // its string, if it has one

    const void *get() const { return memory.front().get(); }
    uint8_t *New(size_t size);
};

struct Message {
    const MessageSpec &spec;
    size_t recordSize;
    std::vector<Record> records;
};

Message MakeMessage(const MessageSpec &spec);

// Whether a message without its text fits nanopb's structs, which end at 64 KiB as Debian builds its library.
bool FitsNanopb(const Message &message);

// Whether two records of a type hold the same, element by element.
bool Equal(const char *type, const void *left, const void *right);

} // namespace bench
