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
    std::string service, method;
    uint32_t typeHash = 0;
    std::vector<uint8_t> message;
    std::chrono::milliseconds deadline;
};
Asked AskedFor(const host::describe::Method &method, std::vector<uint8_t> message, std::chrono::milliseconds deadline);

// How long a device is waited for: as the option says, else as locally.
std::chrono::milliseconds DeadlineOf(const std::string &option);

struct Answer {
    const Hello &device;
    host::CallOutcome outcome;
};

// Asks them all, so many at a time, and takes the answers as they come; who takes one says whether to go on. Shows how
// far it is. Ctrl-C gives up what is under way, on the devices too: throws Interrupted.
void AskAll(Fleet &fleet, const std::vector<Hello> &devices, size_t atATime, Progress &progress,
            const std::function<Asked(const Hello &)> &ask, const std::function<bool(Answer &&)> &take);

// An object a line, as answers come: the terminal may be that of the progress.
void PrintLine(const host::describe::Json &line, Progress &progress);
host::describe::Json FailureLine(const Hello &device, const Failure &failure);

// How many devices did what, and what the program ends with.
class Tally {
public:
    // Of those that did what was wanted it says that they "answered".
    explicit Tally(const char *answered = "answered") : did_(answered) {}

    void CountAnswer() { ++answered_; }
    void Count(const Failure &failure);
    uint64_t All() const { return answered_ + silent_ + refused_; }
    bool HasFailures() const { return worst_ != kDone; }

    // "997 answered, 2 silent, 1 refused", and how many of so many were not asked.
    std::string Text(size_t devices) const;

    // That to standard error; throws it where a device failed, with the worst of the codes.
    void End(size_t devices) const;

private:
    const char *const did_;
    uint64_t answered_ = 0, silent_ = 0, refused_ = 0;
    ExitCode worst_ = kDone;
};

} // namespace ctl
