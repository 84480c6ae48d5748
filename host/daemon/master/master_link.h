// The daemon and the master: they tell each other that they are there, the daemon takes over what the master has
// configured, and the master is told what clients change.
#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>

namespace tarnd {

// All on a thread of its own, so that a master that hangs delays nobody. Without a master the daemon runs all the same,
// and says so in the log.
class MasterLink {
public:
    void Start(); // and greets
    void Stop();

    // Announces the daemon, and fetches the master's configuration.
    void Greet();

    // Tells the master the memory thresholds that hold now; as soon as it is there, if it is not.
    void TellMemoryThresholds();

private:
    void Run(const std::stop_token &stop);

    std::mutex mutex_;
    std::condition_variable_any wake_;
    bool due_ = false;
    bool greet_ = false;
    bool tell_ = false;
    std::jthread thread_; // ends before what it uses
};

MasterLink &TheMasterLink();

} // namespace tarnd
