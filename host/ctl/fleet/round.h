// One call to each of many devices.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/ctl/fleet/fleet.h"
#include "host/ctl/progress.h"

namespace ctl {

// A method as a device is asked for it.
struct Asked {
    const host::describe::Method &method;
    std::vector<uint8_t> message;
    std::chrono::milliseconds deadline;
};

struct Answer {
    const Hello &device;
    host::CallOutcome outcome;
};

// Asks them all, so many at a time, and takes the answers as they come; who takes one says whether to go on. Shows how
// far it is. Ctrl-C gives up what is under way, on the devices too: throws Interrupted.
void AskAll(Fleet &fleet, const std::vector<Hello> &devices, size_t atATime, Progress &progress,
            const std::function<Asked(const Hello &)> &ask, const std::function<bool(Answer &&)> &take);

// How many devices did what, and what the program ends with.
class Tally {
public:
    void CountAnswer() { ++answered_; }
    void Count(const Failure &failure);
    uint64_t All() const { return answered_ + silent_ + refused_; }

    // "997 answered, 2 silent, 1 refused", to standard error; throws it where a device failed, with the worst of the
    // codes.
    void End() const;

private:
    uint64_t answered_ = 0, silent_ = 0, refused_ = 0;
    ExitCode worst_ = kDone;
};

} // namespace ctl
