// The daemon's journal of events, read on page by page.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "host/describe/json.h"
#include "host/runtime/client.h"

namespace ctl {

class Journal {
public:
    struct Wanted {
        std::vector<std::string> kinds = {};         // none: all
        uint64_t from = 0;                           // number; 0: the oldest that is kept
        std::optional<uint64_t> last = std::nullopt; // so many numbers at the end
    };
    Journal(host::Client &client, const Wanted &wanted);

    // The events of the next page. Where there are none, waits so long for one. Throws Failure; the page is not lost.
    std::vector<host::describe::Json> Next(std::chrono::milliseconds wait = {});

    // Than was read.
    bool IsMore() const { return isMore_; }

    // Why the last page does not go on where the one before ended; empty if it does.
    const std::string &Gap() const { return gap_; }

private:
    host::Client &client_;
    host::describe::Json question_;
    bool isMore_ = true;
    std::string gap_;
};

} // namespace ctl
