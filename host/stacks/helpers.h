// Starts helpers, each with the rights of the process's user that it looks into, and keeps a few that may be asked
// again.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "host/osal/descriptor.h"
#include "host/osal/mutex.h"
#include "host/stacks/helper.h"
#include "host/unwind/protocol.h"

namespace host::stacks {

// How long a helper is waited for, whatever else there is time for.
constexpr std::chrono::seconds kMostHelperTime{3};

// What a helper is for. One whose process has changed its user since is not the one that is wanted.
struct Purpose {
    unwind::Job job = unwind::Job::kDemangle;
    uint32_t pid = 0;
    uint64_t startTicks = 0;
    std::string ids; // lines of the process's status

    bool operator==(const Purpose &) const = default;
};

class Helpers {
public:
    // None can be started: stacks can't be read, and names stay as they are.
    Helpers() = default;

    // Executes their starter, which keeps the right to become other users: to be made before that is given up. An empty
    // name is that of tarn-unwind beside the program that runs, or where it is installed to. Throws where it can't be
    // executed.
    explicit Helpers(const std::filesystem::path &program);
    ~Helpers();
    Helpers(const Helpers &) = delete;
    Helpers &operator=(const Helpers &) = delete;

    // A new one, which is ready. Throws what Helper::AwaitReady does; ENOTSUP where none can be started.
    std::unique_ptr<Helper> Start(const Purpose &purpose, Deadline deadline);

    // One that was kept, and may have ended meanwhile; null when there is none.
    std::unique_ptr<Helper> TakeKept(const Purpose &purpose);

    // Lets go of one that isn't fit.
    void Keep(const Purpose &purpose, std::unique_ptr<Helper> helper);

private:
    struct Kept {
        Purpose purpose;
        std::unique_ptr<Helper> helper;
        std::chrono::steady_clock::time_point since;
    };

    void ForgetOld() TARN_REQUIRES(mutex_);

    Descriptor starter_;
    pid_t starterPid_ = -1;
    Mutex mutex_;
    std::vector<Kept> kept_ TARN_GUARDED_BY(mutex_); // the oldest first
};

// The questions of one request to a helper. One that was kept and has ended meanwhile is replaced; when another fails,
// none is asked any more. For one thread.
class Conversation {
public:
    // Throws ESRCH, EPERM, ENOTSUP: why there is nothing to ask.
    Conversation(Helpers &helpers, Purpose purpose, Deadline deadline);
    ~Conversation();
    Conversation(const Conversation &) = delete;
    Conversation &operator=(const Conversation &) = delete;

    // What the question, a function of a helper and a deadline, returns; nothing where helpers fail.
    template <class Question>
    auto Ask(Question question) -> std::optional<decltype(question(std::declval<Helper &>(), Deadline()))> {
        while (helper_ != nullptr) {
            try {
                return question(*helper_, Limit());
            } catch (const std::system_error &error) {
                Replace(error);
            }
        }
        return std::nullopt;
    }

private:
    void Start();
    void Replace(const std::system_error &error);
    Deadline Limit() const;

    Helpers &helpers_;
    const Purpose purpose_;
    const Deadline deadline_;
    std::unique_ptr<Helper> helper_;
    bool kept_ = false;
};

// Demangles names, whoever wrote them. For one thread.
class Demangler {
public:
    Demangler(Helpers &helpers, Deadline deadline) : helpers_(helpers), deadline_(deadline) {}

    // The name itself where it has no other form, or none was found.
    std::string Readable(const std::string &name);

private:
    std::optional<std::string> Ask(const std::string &name);

    Helpers &helpers_;
    const Deadline deadline_;
    std::optional<Conversation> conversation_;
    bool failed_ = false;
    std::map<std::string, std::string> known_;
};

} // namespace host::stacks
