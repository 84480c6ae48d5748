#include "host/stacks/helpers.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "host/osal/error.h"
#include "host/osal/log.h"

namespace host::stacks {

namespace {

constexpr size_t kMostKept = 4;
constexpr std::chrono::seconds kKeptFor{5};

std::pair<Descriptor, Descriptor> SocketPair(int type) {
    int fds[2];
    if (socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, fds) != 0) {
        Fail(errno, "a helper's socket");
    }
    return {Descriptor(fds[0]), Descriptor(fds[1])};
}

std::filesystem::path OwnProgram() {
    const std::filesystem::path directory = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    const std::filesystem::path beside = directory / "tarn-unwind";
    return std::filesystem::exists(beside) ? beside : (directory / TARN_UNWIND_INSTALLED).lexically_normal();
}

// With nothing of ours but one end of a socket.
pid_t Execute(const std::filesystem::path &program, const Descriptor &socket) {
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO}) {
        posix_spawn_file_actions_addopen(&files, stream, "/dev/null", O_RDWR, 0);
    }
    posix_spawn_file_actions_adddup2(&files, socket.Fd(), unwind::kSocket);
    posix_spawn_file_actions_addclosefrom_np(&files, unwind::kSocket + 1);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t signals;
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes, &signals);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    std::string name = program.filename(), job = "--starter";
    char *arguments[] = {name.data(), job.data(), nullptr};
    char *environment[] = {nullptr};
    pid_t pid = -1;
    const int error = posix_spawn(&pid, program.c_str(), &files, &attributes, arguments, environment);
    posix_spawn_file_actions_destroy(&files);
    posix_spawnattr_destroy(&attributes);
    if (error != 0) {
        Fail(error, program);
    }
    return pid;
}

void SendWithDescriptor(const Descriptor &to, const unwind::StartRequest &request, const Descriptor &sent) {
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    iovec part{const_cast<unwind::StartRequest *>(&request), sizeof request};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr *const rights = CMSG_FIRSTHDR(&message);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof(int));
    const int fd = sent.Fd();
    memcpy(CMSG_DATA(rights), &fd, sizeof fd);
    if (sendmsg(to.Fd(), &message, MSG_NOSIGNAL) != sizeof request) {
        Fail(EPIPE, "the starter of helpers");
    }
}

} // namespace

Helpers::Helpers(const std::filesystem::path &program) {
    auto [ours, theirs] = SocketPair(SOCK_SEQPACKET);
    starterPid_ = Execute(program.empty() ? OwnProgram() : program, theirs);
    starter_ = std::move(ours);
}

Helpers::~Helpers() {
    starter_ = Descriptor();
    if (starterPid_ > 0) {
        waitpid(starterPid_, nullptr, 0);
    }
}

std::unique_ptr<Helper> Helpers::Start(const Purpose &purpose, Deadline deadline) {
    if (!starter_) {
        Fail(ENOTSUP, "there is no program that unwinds");
    }
    auto [ours, theirs] = SocketPair(SOCK_STREAM);
    SendWithDescriptor(starter_, {purpose.job, purpose.pid, purpose.startTicks}, theirs);
    theirs = Descriptor();
    auto helper = std::make_unique<Helper>(std::move(ours));
    helper->AwaitReady(deadline);
    return helper;
}

std::unique_ptr<Helper> Helpers::TakeKept(const Purpose &purpose) {
    const MutexLock lock(mutex_);
    ForgetOld();
    const auto found = std::ranges::find(kept_, purpose, &Kept::purpose);
    if (found == kept_.end()) {
        return nullptr;
    }
    std::unique_ptr<Helper> helper = std::move(found->helper);
    kept_.erase(found);
    return helper;
}

void Helpers::Keep(const Purpose &purpose, std::unique_ptr<Helper> helper) {
    if (helper != nullptr && helper->Fit()) {
        const MutexLock lock(mutex_);
        kept_.push_back({purpose, std::move(helper), std::chrono::steady_clock::now()});
        ForgetOld();
    }
}

void Helpers::ForgetOld() {
    const auto oldest = std::chrono::steady_clock::now() - kKeptFor;
    std::erase_if(kept_, [&](const Kept &kept) { return kept.since < oldest; });
    if (kept_.size() > kMostKept) {
        kept_.erase(kept_.begin());
    }
}

Conversation::Conversation(Helpers &helpers, Purpose purpose, Deadline deadline)
    : helpers_(helpers), purpose_(std::move(purpose)), deadline_(deadline), helper_(helpers.TakeKept(purpose_)),
      kept_(helper_ != nullptr) {
    if (!kept_) {
        Start();
    }
}

Conversation::~Conversation() {
    helpers_.Keep(purpose_, std::move(helper_));
}

// What a helper is to look into may end it; that is no failure of ours.
void Conversation::Start() {
    try {
        helper_ = helpers_.Start(purpose_, Limit());
    } catch (const std::system_error &error) {
        const int reason = error.code().value();
        if (reason == ESRCH || reason == EPERM || reason == ENOTSUP) {
            throw;
        }
        Log().warn("the helper for process {}: {}", purpose_.pid, error.what());
    }
}

void Conversation::Replace(const std::system_error &error) {
    helper_.reset();
    if (std::exchange(kept_, false) && error.code().value() == EPIPE) {
        Start();
    } else {
        Log().warn("the helper for process {}: {}", purpose_.pid, error.what());
    }
}

Deadline Conversation::Limit() const {
    return std::min(deadline_, std::chrono::steady_clock::now() + kMostHelperTime);
}

std::string Demangler::Readable(const std::string &name) {
    if (!name.starts_with("_Z")) {
        return name;
    }
    const auto [known, isNew] = known_.emplace(name, name);
    if (isNew && !failed_) {
        const std::optional<std::string> readable = Ask(name);
        failed_ = !readable.has_value();
        if (readable.has_value() && !readable->empty()) {
            known->second = *readable;
        }
    }
    return known->second;
}

std::optional<std::string> Demangler::Ask(const std::string &name) {
    try {
        if (!conversation_.has_value()) {
            conversation_.emplace(helpers_, Purpose{}, deadline_);
        }
        return conversation_->Ask([&](Helper &helper, Deadline deadline) { return helper.Demangle(name, deadline); });
    } catch (const std::system_error &) {
        return std::nullopt; // there is none
    }
}

} // namespace host::stacks
