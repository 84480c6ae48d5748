// Files of captured frames: pcapng, little-endian, with an interface for each connection, and frames of the link type
// USER0.
#pragma once

#include <map>
#include <ostream>
#include <span>
#include <vector>

#include "host/runtime/tapped_frame.h"

namespace ctl {

class PcapngWriter {
public:
    explicit PcapngWriter(std::ostream &out);

    void Write(const host::TappedFrame &frame);

private:
    uint32_t InterfaceOf(const host::TappedFrame &frame);

    std::ostream &out_;
    std::map<uint64_t, uint32_t> interfaces_; // by connection
};

// The frames of such a file, whose bytes they have; their connections are the file's interfaces. Throws Failure.
std::vector<host::TappedFrame> ReadPcapng(std::span<const uint8_t> file);

} // namespace ctl
