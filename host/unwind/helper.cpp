#include "host/unwind/helper.h"

#include <poll.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <optional>

#include "host/osal/error.h"
#include "host/unwind/confinement.h"
#include "host/unwind/demangle.h"
#include "host/unwind/protocol.h"
#include "host/unwind/target.h"
#include "host/unwind/unwinder.h"

namespace host::unwind {

namespace {

// Nobody waits for one that the daemon has forgotten: what it holds open would keep file systems from being unmounted.
constexpr int kIdleMilliseconds = 10'000;

struct Request {
    Kind kind{};
    std::vector<uint8_t> bytes;
};

// False at the end.
bool ReadWhole(void *to, size_t bytes) {
    auto *at = static_cast<uint8_t *>(to);
    while (bytes > 0) {
        const ssize_t got = read(kSocket, at, bytes);
        if (got <= 0) {
            return false;
        }
        at += got;
        bytes -= static_cast<size_t>(got);
    }
    return true;
}

std::optional<Request> NextRequest() {
    pollfd ready{kSocket, POLLIN, 0};
    Head head{};
    if (poll(&ready, 1, kIdleMilliseconds) != 1 || !ReadWhole(&head, sizeof head) || head.bytes > kMostRequestBytes) {
        return {};
    }
    Request request{head.kind, std::vector<uint8_t>(head.bytes)};
    return ReadWhole(request.bytes.data(), head.bytes) ? std::optional(std::move(request)) : std::nullopt;
}

void Append(std::string &to, const void *from, size_t bytes) {
    to.append(static_cast<const char *>(from), bytes);
}

void Send(Kind kind, std::string_view bytes) {
    const Head head{kind, static_cast<uint32_t>(bytes.size())};
    std::string message;
    Append(message, &head, sizeof head);
    message += bytes;
    for (std::string_view rest = message; !rest.empty();) {
        const ssize_t sent = write(kSocket, rest.data(), rest.size());
        if (sent <= 0) {
            Fail(errno, "the daemon's socket");
        }
        rest.remove_prefix(static_cast<size_t>(sent));
    }
}

void SendReady(int32_t error) {
    std::string text;
    Append(text, &error, sizeof error);
    Send(Kind::kReady, text);
}

void SendReadable(uint32_t index, const std::string &name) {
    if (!name.empty()) {
        std::string text;
        Append(text, &index, sizeof index);
        Send(Kind::kReadable, text + name);
    }
}

std::string Encode(const std::vector<Frame> &frames) {
    std::string text;
    for (const Frame &frame : frames) {
        const std::string module = frame.module.substr(0, kMostNameBytes);
        const std::string function = frame.function.substr(0, kMostNameBytes);
        const std::string buildId = frame.buildId.substr(0, kMostBuildIdBytes);
        const FrameHead head{frame.address,
                             frame.offset,
                             frame.moduleOffset,
                             static_cast<uint32_t>(module.size()),
                             static_cast<uint32_t>(function.size()),
                             static_cast<uint32_t>(buildId.size()),
                             frame.moreFollow ? 1U : 0U};
        Append(text, &head, sizeof head);
        text += module + function + buildId;
    }
    return text;
}

// First what is certain, then each name by itself: one that is too much for us costs no more than itself.
void SendFrames(const std::vector<Frame> &frames) {
    Send(Kind::kFrames, Encode(frames));
    for (uint32_t i = 0; i < frames.size(); ++i) {
        SendReadable(i, Demangle(frames[i].function));
    }
    Send(Kind::kEnd, "");
}

Snapshot Decode(const std::vector<uint8_t> &bytes) {
    Snapshot snapshot;
    const size_t headBytes = sizeof snapshot.head;
    if (bytes.size() >= headBytes) {
        memcpy(&snapshot.head, bytes.data(), headBytes);
    }
    const uint64_t registerBytes = uint64_t{snapshot.head.registerNum} * sizeof(Dwarf_Word);
    if (bytes.size() != headBytes + registerBytes + snapshot.head.stackBytes) {
        Fail(EPROTO, "a snapshot");
    }
    snapshot.registers.resize(snapshot.head.registerNum);
    memcpy(snapshot.registers.data(), bytes.data() + headBytes, static_cast<size_t>(registerBytes));
    snapshot.stack.assign(bytes.end() - snapshot.head.stackBytes, bytes.end());
    return snapshot;
}

void Prepare() {
    prctl(PR_SET_NAME, "tarn-unwind");
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // Whoever else has our user may neither trace us nor take what we have open.
    if (prctl(PR_SET_DUMPABLE, 0) != 0) {
        Fail(errno, "to be traced by nobody");
    }
    signal(SIGPIPE, SIG_IGN);
}

} // namespace

int RunUnwinder(uint32_t pid, uint64_t startTicks) {
    Prepare();
    std::optional<Target> target;
    int error = 0;
    try {
        target.emplace(pid, startTicks);
    } catch (const std::system_error &failure) {
        error = failure.code().value();
    }
    if (error != 0) {
        Confine();
        SendReady(error);
        return 0;
    }
    Unwinder unwinder(*target);
    Confine();
    SendReady(0);
    while (const std::optional<Request> request = NextRequest()) {
        const std::vector<Frame> frames = unwinder.Unwind(Decode(request->bytes));
        if (frames.empty()) {
            break; // the daemon asks another, that sees what the process is now
        }
        SendFrames(frames);
    }
    return 0;
}

int RunDemangler() {
    Prepare();
    Confine();
    SendReady(0);
    while (const std::optional<Request> request = NextRequest()) {
        SendReadable(0, Demangle({request->bytes.begin(), request->bytes.end()}));
        Send(Kind::kEnd, "");
    }
    return 0;
}

} // namespace host::unwind
