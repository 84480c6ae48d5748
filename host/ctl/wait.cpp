#include "host/ctl/wait.h"

#include <fmt/format.h>

#include <future>

#include "host/ctl/interrupt.h"

namespace ctl {

host::CallOutcome CallAndShow(host::Client &client, const host::CallRequest &call, Progress &progress) {
    constexpr std::chrono::milliseconds kLook{50};
    const Interrupts interrupts;
    const auto outcome = std::make_shared<std::promise<host::CallOutcome>>(); // which the callback may outlive
    std::future<host::CallOutcome> ended = outcome->get_future();
    const uint64_t number =
        client.CallAsync(call, [outcome](host::CallOutcome &&how) { outcome->set_value(std::move(how)); });
    while (ended.wait_for(kLook) != std::future_status::ready) {
        if (interrupts.Came()) {
            client.Cancel(number);
            ended.wait();
            throw Interrupted(fmt::format("{}.{}: interrupted, and cancelled", call.service, call.method));
        }
        progress.Show();
    }
    return ended.get();
}

} // namespace ctl
