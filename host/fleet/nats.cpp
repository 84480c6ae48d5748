#include "host/fleet/nats.h"

#include <fmt/format.h>
#include <nats/nats.h>

#include <algorithm>
#include <future>

#include "host/osal/log.h"
#include "host/osal/mutex.h"

namespace fleet {

namespace {

void Require(natsStatus status, std::string_view what) {
    if (status == NATS_CONNECTION_CLOSED) {
        throw Error(
            fmt::format("{}: the connection is closed: the server has gone, or does not take the account", what));
    }
    if (status != NATS_OK) {
        const char *const more = nats_GetLastError(nullptr);
        throw Error(fmt::format("{}: {}{}{}", what, natsStatus_GetText(status),
                                more == nullptr || *more == 0 ? "" : ", ", more == nullptr ? "" : more));
    }
}

// What the library gives out, owned.
template <class Any, void (*kDestroy)(Any *)>
struct Owned {
    void operator()(Any *object) const { kDestroy(object); }
    using Pointer = std::unique_ptr<Any, Owned>;
};
using Options = Owned<natsOptions, natsOptions_Destroy>::Pointer;
using Ack = Owned<jsPubAck, jsPubAck_Destroy>::Pointer;
using Info = Owned<jsStreamInfo, jsStreamInfo_Destroy>::Pointer;
using ConsumerInfo = Owned<jsConsumerInfo, jsConsumerInfo_Destroy>::Pointer;
using Metadata = Owned<jsMsgMetaData, jsMsgMetaData_Destroy>::Pointer;
using Reader = Owned<natsSubscription, natsSubscription_Destroy>::Pointer;

constexpr std::chrono::seconds kAnswer{5}; // that a stream's may take

bool IsLoopback(std::string_view url) {
    const size_t scheme = url.find("://");
    std::string_view host = scheme == url.npos ? url : url.substr(scheme + 3);
    host = host.substr(host.rfind('@') + 1); // npos + 1 is 0
    host = host.starts_with('[') ? host.substr(0, host.find(']') + 1) : host.substr(0, host.find(':'));
    const bool isNumber = host.find_first_not_of("0123456789.") == host.npos;
    return host == "localhost" || host == "[::1]" || (host.starts_with("127.") && isNumber);
}

bool IsEncrypted(std::string_view url) {
    return url.starts_with("tls://");
}

void SetAccount(natsOptions *options, const Account &account) {
    Require(natsOptions_SetURL(options, account.url.c_str()), account.url);
    Require(natsOptions_SetIgnoreDiscoveredServers(options, !IsEncrypted(account.url)), account.url);
    if (IsEncrypted(account.url)) {
        Require(natsOptions_SetSecure(options, true), account.url);
    }
    if (!account.ca.empty()) {
        Require(natsOptions_LoadCATrustedCertificates(options, account.ca.c_str()), account.ca);
    }
    if (!account.certificate.empty()) {
        Require(natsOptions_LoadCertificatesChain(options, account.certificate.c_str(), account.certificateKey.c_str()),
                account.certificate);
    }
    if (!account.nkey.empty()) {
        Require(natsOptions_SetNKeyFromSeed(options, account.nkey.c_str(), account.nkeySeed.c_str()), account.nkeySeed);
    }
    if (!account.credentials.empty()) {
        Require(natsOptions_SetUserCredentialsFromFiles(options, account.credentials.c_str(), nullptr),
                account.credentials);
    }
    if (!account.inboxPrefix.empty()) {
        Require(natsOptions_SetCustomInboxPrefix(options, account.inboxPrefix.c_str()), account.inboxPrefix);
    }
}

using Since = std::optional<std::chrono::system_clock::time_point>;

int64_t NanosecondsOf(std::chrono::system_clock::time_point time) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(time.time_since_epoch()).count();
}

natsStatus SubscribeToStream(natsSubscription **made, jsCtx *streams, const std::string &stream,
                             const std::string &subject, Since since) {
    jsSubOptions options;
    jsSubOptions_Init(&options);
    options.Stream = stream.c_str();
    options.Ordered = true;
    if (since) {
        options.Config.DeliverPolicy = js_DeliverByStartTime;
        options.Config.OptStartTime = NanosecondsOf(*since);
    }
    return js_SubscribeSync(made, streams, subject.c_str(), nullptr, &options, nullptr);
}

} // namespace

// ---- Messages

Message::Message(const std::string &subject, std::string_view payload, const std::string &reply) {
    natsMsg *made = nullptr;
    Require(natsMsg_Create(&made, subject.c_str(), reply.empty() ? nullptr : reply.c_str(), payload.data(),
                           static_cast<int>(payload.size())),
            subject);
    message_.reset(made);
}

void Message::Destroy::operator()(natsMsg *message) const {
    natsMsg_Destroy(message);
}

std::string Message::Subject() const {
    return natsMsg_GetSubject(Get());
}

std::string Message::Reply() const {
    const char *const reply = natsMsg_GetReply(Get());
    return reply == nullptr ? "" : reply;
}

std::string_view Message::Payload() const {
    return {natsMsg_GetData(Get()), static_cast<size_t>(natsMsg_GetDataLength(Get()))};
}

std::string Message::Header(const char *name) const {
    const char *value = nullptr;
    return natsMsgHeader_Get(Get(), name, &value) == NATS_OK && value != nullptr ? value : "";
}

// What is for people may have bytes that end a header.
void Message::SetHeader(const char *name, const std::string &value) {
    std::string line = value;
    std::replace_if(
        line.begin(), line.end(), [](char letter) { return letter == '\r' || letter == '\n' || letter == 0; }, ' ');
    Require(natsMsgHeader_Set(Get(), name, line.c_str()), name);
}

bool Message::TellsThatNobodyListens() const {
    return natsMsg_IsNoResponders(Get());
}

uint64_t Message::Sequence() const {
    jsMsgMetaData *metadata = nullptr;
    if (natsMsg_GetMetaData(&metadata, Get()) == NATS_OK) {
        return Metadata(metadata)->Sequence.Stream;
    }
    return natsMsg_GetSequence(Get());
}

std::chrono::system_clock::time_point Message::Time() const {
    jsMsgMetaData *metadata = nullptr;
    const int64_t time =
        natsMsg_GetMetaData(&metadata, Get()) == NATS_OK ? Metadata(metadata)->Timestamp : natsMsg_GetTime(Get());
    return std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(std::chrono::nanoseconds(time)));
}

// ---- The connection

void Account::Check() const {
    if (url.find(',') != url.npos) {
        throw std::invalid_argument(fmt::format("{}: several servers, expected one, which tells of the others", url));
    }
    if (!IsEncrypted(url) && !IsLoopback(url)) {
        throw std::invalid_argument(
            fmt::format("{}: not encrypted, expected tls://HOST:PORT, or nats:// with a loopback address", url));
    }
    if (certificate.empty() != certificateKey.empty()) {
        throw std::invalid_argument("a certificate without its key, or the other way round, expected both");
    }
    if (nkey.empty() != nkeySeed.empty()) {
        throw std::invalid_argument("an nkey without its seed, or the other way round, expected both");
    }
}

// What the library calls on its threads, also for a moment after the connection has been destroyed.
struct Connection::Callbacks {
    explicit Callbacks(ConnectionOptions &&of) : options(std::move(of)) {}

    // The library's part in it, which it gives back with its last call, of the connection that has closed.
    using Shared = std::shared_ptr<Callbacks>;

    void Call(const std::function<void()> &what) TARN_EXCLUDES(mutex) {
        const host::MutexLock lock(mutex);
        if (isWanted && what) {
            what();
        }
    }
    static void OnConnected(natsConnection *, void *closure) {
        Shared &own = *static_cast<Shared *>(closure);
        own->Call(own->options.onConnected);
    }
    static void OnDisconnected(natsConnection *, void *closure) {
        Shared &own = *static_cast<Shared *>(closure);
        own->Call(own->options.onDisconnected);
    }
    static void OnError(natsConnection *connection, natsSubscription *, natsStatus status, void *closure) {
        Shared &own = *static_cast<Shared *>(closure);
        own->Call([&] { own->Tell(own->options.onError, connection, status); });
    }
    // One that persists closes for no other reason.
    static void OnClosed(natsConnection *, void *closure) {
        const std::unique_ptr<Shared> own(static_cast<Shared *>(closure));
        (*own)->Call((*own)->options.onEnd);
    }
    void Tell(const std::function<void(std::string)> &whom, natsConnection *connection, natsStatus status) const {
        const char *text = nullptr;
        if (whom) {
            natsConnection_GetLastError(connection, &text);
            whom(text == nullptr || *text == 0 ? natsStatus_GetText(status) : text);
        }
    }

    const ConnectionOptions options;
    host::Mutex mutex;
    bool isWanted TARN_GUARDED_BY(mutex) = true;
};

struct Connection::Subscription {
    ~Subscription() {
        natsSubscription_Unsubscribe(subscription);
        natsSubscription_Destroy(subscription);
        if (isMade) {
            ended.get_future().wait();
        }
    }
    static void OnMessage(natsConnection *, natsSubscription *, natsMsg *received, void *closure) {
        const Message message(received);
        try {
            static_cast<Subscription *>(closure)->handler(message);
        } catch (const std::exception &error) {
            host::Log().error("{}: {}", message.Subject(), error.what());
        }
    }
    static void OnEnd(void *closure) { static_cast<Subscription *>(closure)->ended.set_value(); }

    std::string subject;
    Handler handler;
    natsSubscription *subscription = nullptr;
    bool isMade = false;
    std::promise<void> ended;
};

void Connection::DestroyConnection::operator()(natsConnection *connection) const {
    natsConnection_Close(connection);
    natsConnection_Destroy(connection);
}

void Connection::DestroyContext::operator()(jsCtx *context) const {
    jsCtx_Destroy(context);
}

// Who waits for a lock sleeps: where there is one processor, as on small devices, nothing comes of waiting awake.
constexpr int64_t kNoSpins = 0;

Connection::Connection(ConnectionOptions given) : callbacks_(std::make_shared<Callbacks>(std::move(given))) {
    const ConnectionOptions &options = callbacks_->options;
    options.account.Check();
    Require(nats_Open(kNoSpins), "the client library");
    natsOptions *made = nullptr;
    Require(natsOptions_Create(&made), "options");
    const Options owned(made);
    SetAccount(made, options.account);
    auto shared = std::make_unique<Callbacks::Shared>(callbacks_);
    natsOptions_SetName(made, options.name.c_str());
    natsOptions_UseGlobalMessageDelivery(made, true);
    natsOptions_SetSendAsap(made, true);
    natsOptions_SetFailRequestsOnDisconnect(made, true);
    natsOptions_SetReconnectWait(made, options.wait.count());
    natsOptions_SetReconnectJitter(made, options.wait.count(), options.wait.count());
    natsOptions_SetMaxReconnect(made, options.persists ? -1 : 0);
    natsOptions_SetAllowReconnect(made, options.persists);
    natsOptions_SetErrorHandler(made, Callbacks::OnError, shared.get());
    natsOptions_SetDisconnectedCB(made, Callbacks::OnDisconnected, shared.get());
    natsOptions_SetReconnectedCB(made, Callbacks::OnConnected, shared.get());
    natsOptions_SetClosedCB(made, Callbacks::OnClosed, shared.get());
    if (options.persists) {
        natsOptions_SetRetryOnFailedConnect(made, true, Callbacks::OnConnected, shared.get());
    }
    natsConnection *connection = nullptr;
    const natsStatus status = natsConnection_Connect(&connection, made);
    if (status != NATS_NOT_YET_CONNECTED) {
        Require(status, options.account.url);
    }
    connection_.reset(connection);
    static_cast<void>(shared.release()); // the library's
    jsCtx *streams = nullptr;
    Require(natsConnection_JetStream(&streams, connection, nullptr), "streams");
    streams_.reset(streams);
}

Connection::~Connection() {
    {
        const host::MutexLock lock(callbacks_->mutex);
        callbacks_->isWanted = false;
    }
    subscriptions_.clear();
    streams_.reset();
}

bool Connection::IsConnected() const {
    return natsConnection_Status(connection_.get()) == NATS_CONN_STATUS_CONNECTED;
}

void Connection::Subscribe(const std::string &subject, Handler handler) {
    auto made = std::make_unique<Subscription>();
    made->subject = subject;
    made->handler = std::move(handler);
    Require(natsConnection_Subscribe(&made->subscription, connection_.get(), subject.c_str(), Subscription::OnMessage,
                                     made.get()),
            subject);
    natsSubscription_SetOnCompleteCB(made->subscription, Subscription::OnEnd, made.get());
    made->isMade = true;
    subscriptions_.push_back(std::move(made));
}

void Connection::Unsubscribe(const std::string &subject) {
    std::erase_if(subscriptions_, [&](const auto &one) { return one->subject == subject; });
}

void Connection::Publish(const Message &message) {
    Require(natsConnection_PublishMsg(connection_.get(), message.Get()), message.Subject());
}

void Connection::Flush(std::chrono::milliseconds most) {
    Require(natsConnection_FlushTimeout(connection_.get(), most.count()), "flush");
}

std::string Connection::NewInbox() {
    natsInbox *made = nullptr;
    Require(natsInbox_Create(&made), "inbox");
    std::string inbox = made;
    natsInbox_Destroy(made);
    const std::string &prefix = callbacks_->options.account.inboxPrefix;
    return prefix.empty() ? inbox : prefix + inbox.substr(inbox.rfind('.'));
}

size_t Connection::MostPayload() const {
    return static_cast<size_t>(std::max<int64_t>(natsConnection_GetMaxPayload(connection_.get()), 0));
}

// ---- Streams

void Connection::MakeStream(const Stream &stream) {
    const char *subjects[] = {stream.subject.c_str()};
    jsStreamConfig config;
    jsStreamConfig_Init(&config);
    config.Name = stream.name.c_str();
    config.Subjects = subjects;
    config.SubjectsLen = 1;
    config.MaxAge = std::chrono::duration_cast<std::chrono::nanoseconds>(stream.age).count();
    config.AllowDirect = true; // so that who may read one subject need not read all
    config.MaxMsgsPerSubject = static_cast<int64_t>(stream.messagesOfASubject);
    jsStreamInfo *made = nullptr;
    jsErrCode code{};
    natsStatus status = js_AddStream(&made, streams_.get(), &config, nullptr, &code);
    if (code == JSStreamNameExistErr) {
        status = js_UpdateStream(&made, streams_.get(), &config, nullptr, &code);
    }
    const Info info(made);
    Require(status, stream.name);
}

std::unique_ptr<Message> Connection::LastOf(const std::string &stream, const std::string &subject) {
    jsDirectGetMsgOptions options;
    jsDirectGetMsgOptions_Init(&options);
    options.LastBySubject = subject.c_str();
    natsMsg *found = nullptr;
    const natsStatus status = js_DirectGetMsg(&found, streams_.get(), stream.c_str(), nullptr, &options);
    if (status == NATS_NOT_FOUND) {
        return nullptr;
    }
    if (status == NATS_NO_RESPONDERS || status == NATS_TIMEOUT) {
        throw Error(stream + ": the server has no such stream, or none that this account may ask");
    }
    Require(status, stream);
    return std::make_unique<Message>(found);
}

uint64_t Connection::Add(const Message &message, const std::string &stream, const std::string &id,
                         uint64_t expectedLast) {
    jsPubOptions options;
    jsPubOptions_Init(&options);
    options.MsgId = id.c_str();
    options.ExpectStream = stream.c_str();
    options.ExpectLastSubjectSeq = expectedLast;
    options.ExpectNoMessage = expectedLast == 0;
    options.MaxWait = std::chrono::milliseconds(kAnswer).count();
    jsPubAck *made = nullptr;
    jsErrCode code{};
    const natsStatus status = js_PublishMsg(&made, streams_.get(), message.Get(), &options, &code);
    const Ack ack(made);
    if (code == JSStreamWrongLastSequenceErr) {
        throw Conflict(
            fmt::format("{}: another message than {} is the last of {}", stream, expectedLast, message.Subject()));
    }
    Require(status, stream);
    return ack->Sequence;
}

void Connection::Read(const std::string &stream, const std::string &subject, Since since, const Handler &handler) {
    natsSubscription *made = nullptr;
    Require(SubscribeToStream(&made, streams_.get(), stream, subject, since), stream);
    const Reader reader(made);
    jsConsumerInfo *told = nullptr;
    Require(natsSubscription_GetConsumerInfo(&told, made, nullptr, nullptr), stream);
    const ConsumerInfo info(told);
    for (uint64_t left = info->NumPending + info->Delivered.Consumer; left != 0; --left) {
        natsMsg *next = nullptr;
        Require(natsSubscription_NextMsg(&next, made, std::chrono::milliseconds(kAnswer).count()), stream);
        handler(Message(next));
    }
}

} // namespace fleet
