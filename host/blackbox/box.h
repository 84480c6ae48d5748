// The writer's side of the black box.
#pragma once

#include <sys/stat.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>

#include "host/blackbox/record.h"
#include "host/osal/descriptor.h"

namespace host::blackbox {

// The file of a user.
std::filesystem::path FileOf(const std::filesystem::path &directory, uint32_t uid);

// An open file, and memory to make records in. The file is never mapped: one that is cut off would kill who looks at
// it. Opening allocates and throws; the rest may be called from a signal handler.
class Box {
public:
    // Makes the file when there is none, with all its blocks, so that a full disk can't stop a record. One that is no
    // black box, or another user's, is set aside; `aside` then says where.
    Box(const std::filesystem::path &file, std::filesystem::path &aside);
    Box(const Box &) = delete;
    Box &operator=(const Box &) = delete;

private:
    friend class Entry;

    // Where an entry is made.
    struct Draft {
        std::atomic_flag taken;
        FaultHead head;
        FaultStack stack;
    };
    Draft *TakeDraft() const;
    bool IsOpen() const;
    uint64_t TakeSequence() const;
    void Write(const void *data, size_t size, size_t at) const;

    host::Descriptor file_;
    struct stat opened_ {};
    mutable std::atomic_flag claimed_; // by a thread that takes a sequence
    mutable std::array<Draft, 4> drafts_;
};

// A record on its way into the file: what is sealed is there.
class Entry {
public:
    // Takes the next slot, which is the caller's alone unless kSlotNum others take one meanwhile.
    explicit Entry(const Box &box);
    ~Entry();
    Entry(const Entry &) = delete;
    Entry &operator=(const Entry &) = delete;

    // False when so many are being written that there is no memory for another, and when the process has closed the
    // file: then it can't be used.
    explicit operator bool() const { return draft_ != nullptr; }

    FaultHead &Head() const { return draft_->head; }
    FaultStack &Stack() const { return draft_->stack; }
    void SealHead() const;
    void SealStack() const;

private:
    template <class Part>
    void Seal(const Part &part, size_t partAt, size_t checkAt) const;

    const Box &box_;
    Box::Draft *draft_;
    uint64_t sequence_ = 0;
    size_t slotAt_ = 0; // in the file
};

} // namespace host::blackbox
