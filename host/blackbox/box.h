// The writer's side of the black box.
#pragma once

#include <cstdint>
#include <filesystem>

#include "host/blackbox/record.h"

namespace host::blackbox {

// The file of a user in the run directory.
std::filesystem::path FileOf(const std::filesystem::path &runDir, uint32_t uid);

// A mapped file. Opening allocates and throws; the rest may be called from a signal handler.
class Box {
public:
    // Makes the file when there is none, with all its blocks, so that a full disk can't stop a record. One that is no
    // black box is set aside; `aside` then says where.
    Box(const std::filesystem::path &file, std::filesystem::path &aside);
    ~Box();
    Box(const Box &) = delete;
    Box &operator=(const Box &) = delete;

    // A slot for the caller alone, unless kSlotNum others take one meanwhile. Its parts hold what an older record left.
    FaultSlot &Take() const;

    // Completes a part of a slot.
    static void SealHead(FaultSlot &slot);
    static void SealStack(FaultSlot &slot);

private:
    void *map_ = nullptr;
};

} // namespace host::blackbox
