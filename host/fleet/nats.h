// The connection to the fleet's server, and messages. It is the one place that knows the client library.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

using natsConnection = struct __natsConnection;
using natsMsg = struct __natsMsg;
using natsSubscription = struct __natsSubscription;
using jsCtx = struct __jsCtx;

namespace fleet {

// What the server or its client library refuses.
class Error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class Message {
public:
    Message(const std::string &subject, std::string_view payload, const std::string &reply = {});
    explicit Message(natsMsg *received) : message_(received) {}

    std::string Subject() const;
    std::string Reply() const; // where an answer is to go; may be empty
    std::string_view Payload() const;

    // Empty where there is none of the name.
    std::string Header(const char *name) const;
    void SetHeader(const char *name, const std::string &value);

    // It is the server's word that nobody is subscribed to what was asked.
    bool TellsThatNobodyListens() const;

    // Of one that comes from a stream: its number there, and when the stream got it.
    uint64_t Sequence() const;
    std::chrono::system_clock::time_point Time() const;

    natsMsg *Get() const { return message_.get(); }

private:
    struct Destroy {
        void operator()(natsMsg *message) const;
    };
    std::unique_ptr<natsMsg, Destroy> message_;
};

// Where the server is, and how one shows who one is.
struct Account {
    std::string url = {};
    std::string ca = {};             // file of the certificates that the server's is checked with; empty: the system's
    std::string certificate = {};    // file of one's own; empty: none
    std::string certificateKey = {}; // its key's
    std::string nkey = {};           // public key; empty: none
    std::string nkeySeed = {};       // its seed's file
    std::string credentials = {};    // file; empty: none
    std::string inboxPrefix = {};    // of the subjects that answers come to; empty: that of the library

    // Throws std::invalid_argument for a server that would be talked to in clear text over a network.
    void Check() const;
};

struct ConnectionOptions {
    Account account = {};
    std::string name = {};                     // that the server shows
    bool persists = false;                     // goes on looking for a server; else it is there, or the attempt fails
    std::chrono::milliseconds wait{1000};      // between two attempts, and up to as long again
    std::function<void()> onConnected = {};    // also again; on a thread of the library, as the others
    std::function<void()> onDisconnected = {}; //
    std::function<void()> onEnd = {};          // for good: the server does not take the account
    std::function<void(std::string)> onError = {}; // a subject that is not allowed, messages that were dropped
};

class Connection {
public:
    using Handler = std::function<void(const Message &)>;

    // Throws Error.
    explicit Connection(ConnectionOptions options);
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;
    ~Connection(); // no handler runs any more when it returns

    // Handlers run one after the other.
    void Subscribe(const std::string &subject, Handler handler);
    // No handler of it runs any more when it returns.
    void Unsubscribe(const std::string &subject);
    bool IsConnected() const;
    void Publish(const Message &message);
    void Publish(const std::string &subject, std::string_view payload) { Publish(Message(subject, payload)); }

    // Returns when the server has all that was published.
    void Flush(std::chrono::milliseconds most);

    // A subject of one's own for answers, without an end: whatever follows it and a dot is one's own too.
    std::string NewInbox();
    size_t MostPayload() const; // as the server says

    // ---- Streams

    struct Stream {
        std::string name;
        std::string subject; // that it keeps
        std::chrono::hours age{0};
        uint64_t messagesOfASubject = 0; // 0: any number
    };
    // As it shall be, whether there is one of the name or not.
    void MakeStream(const Stream &stream);

    // The last message that a stream has of a subject; null for none.
    std::unique_ptr<Message> LastOf(const std::string &stream, const std::string &subject);

    // Returns when the stream has it: its sequence number there. Throws Conflict where the last of the subject is
    // another than is expected, 0 for none.
    class Conflict : public Error {
    public:
        using Error::Error;
    };
    uint64_t Add(const Message &message, const std::string &stream, const std::string &id, uint64_t expectedLast);

    // What a stream has of a subject, or got of it since then, each message in its order.
    void Read(const std::string &stream, const std::string &subject,
              std::optional<std::chrono::system_clock::time_point> since, const Handler &handler);

private:
    struct Subscription;
    struct Callbacks;
    struct DestroyConnection {
        void operator()(natsConnection *connection) const;
    };
    struct DestroyContext {
        void operator()(jsCtx *context) const;
    };

    const std::shared_ptr<Callbacks> callbacks_; // shared with the library until it has closed
    std::unique_ptr<natsConnection, DestroyConnection> connection_;
    std::unique_ptr<jsCtx, DestroyContext> streams_;
    std::vector<std::unique_ptr<Subscription>> subscriptions_;
};

} // namespace fleet
