#include "host/fleet/gateway.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <map>
#include <utility>

#include "host/runtime/protocol.h"

namespace fleet {

// A connection of a local client. What is under way keeps it alive.
class Gateway::Session : public std::enable_shared_from_this<Session> {
public:
    Session(Caller &caller, std::string device, std::string service, host::Descriptor socket)
        : caller_(caller), device_(std::move(device)), service_(std::move(service)), socket_(std::move(socket)) {}

    // Until the client or Close ends it.
    void Run();
    void Close() { shutdown(socket_.Fd(), SHUT_RDWR); }

private:
    void Take(host::Frame &&frame);
    void Ask(const host::Frame &frame) TARN_EXCLUDES(mutex_);
    void Answer(const host::FrameHeader &request, const host::CallOutcome &outcome) TARN_EXCLUDES(mutex_);
    void Send(const std::vector<uint8_t> &frame) TARN_EXCLUDES(sending_);
    void GiveUp(uint64_t id) TARN_EXCLUDES(mutex_);
    void GiveUpAll() TARN_EXCLUDES(mutex_);

    Caller &caller_;
    const std::string device_;
    const std::string service_; // whose socket it is
    const host::Descriptor socket_;
    host::Mutex sending_;
    host::Mutex mutex_;
    std::map<uint64_t, uint64_t> calls_ TARN_GUARDED_BY(mutex_); // by the client's id; 0: it has no number yet
};

void Gateway::Session::Run() {
    host::FrameParser parser(host::Limits().messageBytes);
    uint8_t buffer[16384];
    for (ssize_t size = 0; (size = recv(socket_.Fd(), buffer, sizeof buffer, 0)) > 0;) {
        std::span<const uint8_t> bytes(buffer, static_cast<size_t>(size));
        while (!bytes.empty() && parser.ErrCode() == 0) {
            bytes = bytes.subspan(parser.Feed(bytes));
            if (parser.HasFrame()) {
                Take(parser.Take());
            }
        }
        if (parser.ErrCode() != 0) {
            Send(host::MakeRefusal(parser.ErrCode(), parser.Reason()));
            break;
        }
    }
    Close();
    GiveUpAll();
}

void Gateway::Session::Take(host::Frame &&frame) {
    switch (frame.header.kind) {
    case host::FrameKind::kCancel:
        GiveUp(frame.header.id);
        break;
    case host::FrameKind::kRequest:
    case host::FrameKind::kOneway:
        Ask(frame);
        break;
    default: // a client sends no others
        Close();
    }
}

void Gateway::Session::Ask(const host::Frame &frame) {
    const host::FrameHeader header = frame.header;
    {
        const host::MutexLock lock(mutex_);
        calls_[header.id] = 0;
    }
    const Request request{.service = header.service,
                          .method = header.method,
                          .socketOf = service_ == header.service ? "" : service_,
                          .typeHash = header.typeHash,
                          .deadline = std::chrono::milliseconds(header.deadlineMs),
                          .message = {reinterpret_cast<const char *>(frame.payload.data()), frame.payload.size()}};
    const uint64_t call =
        caller_.Start(device_, request, [self = shared_from_this(), header](host::CallOutcome &&outcome) {
            self->Answer(header, outcome);
        });
    const host::MutexLock lock(mutex_);
    if (const auto found = calls_.find(header.id); found != calls_.end()) {
        found->second = call;
    }
}

void Gateway::Session::Answer(const host::FrameHeader &request, const host::CallOutcome &outcome) {
    {
        const host::MutexLock lock(mutex_);
        calls_.erase(request.id);
    }
    if (request.kind == host::FrameKind::kOneway) {
        return;
    }
    host::FrameHeader header;
    header.id = request.id;
    header.typeHash = request.typeHash;
    std::vector<uint8_t> payload(outcome.bytes.begin(), outcome.bytes.end());
    std::string text;
    if (outcome.Ok()) {
        header.kind = host::FrameKind::kReply;
        text = (request.takes & host::kTakesExplanation) != 0 ? outcome.explanation : "";
        header.explanationSize = static_cast<uint32_t>(text.size());
    } else {
        header.kind = host::FrameKind::kError;
        header.status = outcome.errCode == 0 ? outcome.status : 0;
        header.errCode = outcome.errCode;
        text = outcome.text;
        payload.clear();
    }
    payload.insert(payload.end(), text.begin(), text.end());
    header.length = static_cast<uint32_t>(payload.size());
    Send(host::MakeFrame(header, payload));
}

void Gateway::Session::Send(const std::vector<uint8_t> &frame) {
    const host::MutexLock lock(sending_);
    for (std::span<const uint8_t> left(frame); !left.empty();) {
        const ssize_t sent = send(socket_.Fd(), left.data(), left.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno != EINTR) {
            return; // who reads it sees that, too
        }
        left = left.subspan(sent < 0 ? 0 : static_cast<size_t>(sent));
    }
}

void Gateway::Session::GiveUp(uint64_t id) {
    uint64_t call = 0;
    {
        const host::MutexLock lock(mutex_);
        const auto found = calls_.find(id);
        call = found == calls_.end() ? 0 : found->second;
    }
    caller_.Cancel(call);
}

void Gateway::Session::GiveUpAll() {
    std::map<uint64_t, uint64_t> calls;
    {
        const host::MutexLock lock(mutex_);
        calls = calls_;
    }
    for (const auto &[id, call] : calls) {
        caller_.Cancel(call);
    }
}

namespace {

constexpr const char *kServices[] = {"TarnSysdiagTarnd", "TarnSysdiagMaster"};

// What is left to do in a process that has just begun, and may only call what a signal handler may.
[[noreturn]] void RemoveAtEnd(int lives, const char *directory) {
    setsid(); // so that a signal from the terminal leaves it alone
    dup2(lives, STDIN_FILENO);
    close_range(STDIN_FILENO + 1, ~0U, 0); // whoever reads what this program wrote sees its end
    char byte = 0;
    while (read(STDIN_FILENO, &byte, 1) < 0 && errno == EINTR) {
    }
    execl("/bin/rm", "rm", "-rf", "--", directory, nullptr);
    _exit(1);
}

} // namespace

Gateway::Directory::Directory() {
    std::string name = (std::filesystem::temp_directory_path() / "tarn-device-XXXXXX").string();
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) != 0 || mkdtemp(name.data()) == nullptr) {
        host::Fail(errno, name);
    }
    path = name;
    const host::Descriptor awaited(ends[0]);
    lives_ = host::Descriptor(ends[1]);
    keeper_ = fork();
    if (keeper_ == 0) {
        RemoveAtEnd(awaited.Fd(), path.c_str());
    }
    if (keeper_ < 0) {
        const int error = errno;
        rmdir(path.c_str());
        host::Fail(error, "a process that removes " + path.string());
    }
}

Gateway::Directory::~Directory() {
    lives_ = host::Descriptor();
    while (waitpid(keeper_, nullptr, 0) < 0 && errno == EINTR) {
    }
}

Gateway::Gateway(Caller &caller, std::string device) : caller_(caller), device_(std::move(device)) {
    const host::Transport transport{host::Directory(directory_.path)};
    for (const char *const service : kServices) {
        const host::Listener &listener = *listeners_.emplace_back(transport.Listen(service, false));
        threads_.emplace_back([this, &listener, service] { Accept(listener, service); });
    }
}

Gateway::~Gateway() {
    for (const auto &listener : listeners_) {
        shutdown(listener->Fd(), SHUT_RDWR);
    }
    for (std::thread &thread : threads_) {
        thread.join();
    }
    std::list<std::pair<std::shared_ptr<Session>, std::thread>> sessions;
    {
        const host::MutexLock lock(mutex_);
        sessions.swap(sessions_);
    }
    for (auto &[session, thread] : sessions) {
        session->Close();
        thread.join();
    }
}

void Gateway::Accept(const host::Listener &listener, const std::string &service) {
    for (;;) {
        pollfd waiting{listener.Fd(), POLLIN, 0};
        if (poll(&waiting, 1, -1) > 0 && (waiting.revents & POLLHUP) != 0) {
            return; // it was shut down
        }
        host::Descriptor socket(accept4(listener.Fd(), nullptr, nullptr, SOCK_CLOEXEC));
        if (socket) { // else who connected has gone
            auto session = std::make_shared<Session>(caller_, device_, service, std::move(socket));
            const host::MutexLock lock(mutex_);
            sessions_.emplace_back(session, std::thread([session] { session->Run(); }));
        }
    }
}

} // namespace fleet
