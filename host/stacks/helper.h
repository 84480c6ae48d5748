// The daemon's end of a helper (host/unwind), which reads what others control and may have become theirs: what it says
// is checked, and waited for no longer than up to a deadline.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "host/osal/descriptor.h"
#include "host/stacks/snapshot.h"
#include "host/unwind/protocol.h"

namespace host::stacks {

using Deadline = std::chrono::steady_clock::time_point;

struct Frame {
    uint64_t address = 0;
    std::string function; // demangled; empty where no symbol covers the address
    uint64_t offset = 0;  // from the function's start, or from the module's
    std::string module;   // file name of the program or library; empty where none is mapped
    uint64_t moduleOffset = 0;
    std::string buildId;     // of the module, in hex; empty where it has none
    bool moreFollow = false; // of the last frame: there are more

    // "Worker::Run(int)+0x1c"; "libfoo.so.1+0x4c10" without a function; "0x7f0012345678" without a module
    std::string Text() const;
};

// What an address needs to be symbolized elsewhere, of each module once: "app at 0x555555554000, build id 1b7f..".
std::string ModulesText(std::span<const Frame> frames);

// What helpers say, taken apart; nothing where it is not as it should be. Names come as one line of text each.
std::optional<std::vector<Frame>> ParseFrames(std::span<const uint8_t> bytes);
struct ReadableName {
    uint32_t index;
    std::string name;
};
std::optional<ReadableName> ParseReadableName(std::span<const uint8_t> bytes);

// Lives as long as its helper may: that is killed when this goes. For one thread.
class Helper {
public:
    explicit Helper(Descriptor socket) : socket_(std::move(socket)) {}

    // All throw std::system_error: EPIPE the helper has ended; ETIMEDOUT; EPROTO it says what it should not.

    // Also throws what the helper has found: ESRCH, EPERM, ENOTSUP.
    void AwaitReady(Deadline deadline);

    // When it fails while names are demangled, the frames keep those that they have.
    std::vector<Frame> Unwind(const Snapshot &snapshot, Deadline deadline);

    // Empty when it has no other form.
    std::string Demangle(const std::string &name, Deadline deadline);

    // Whether it can be asked more.
    bool Fit() const { return fit_; }

private:
    struct Message {
        unwind::Kind kind;
        std::vector<uint8_t> bytes;
    };
    class Exchange;

    void Wait(short events, Deadline deadline) const;
    void Send(unwind::Kind kind, std::span<const std::span<const uint8_t>> parts, Deadline deadline) const;
    void Read(void *to, size_t bytes, Deadline deadline) const;
    Message Receive(Deadline deadline) const;
    std::vector<Frame> ReceiveFrames(Deadline deadline);
    void ReceiveNames(std::vector<Frame> &frames, Deadline deadline);

    const Descriptor socket_;
    bool fit_ = false;
};

} // namespace host::stacks
