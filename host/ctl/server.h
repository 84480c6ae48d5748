// The daemon, or an agent, as tasks ask it: by the names of the meanings.
#pragma once

#include <initializer_list>

#include "host/ctl/progress.h"
#include "host/meaning/meaning.h"
#include "host/runtime/client.h"

namespace ctl {

// Elements of one type, as a method means them.
struct Elements {
    const host::describe::Type &type;
    const host::meaning::Record &meaning;
    host::describe::Json wire; // an array

    host::describe::Json Named() const;
    host::describe::Json Named(const host::describe::Json &element) const;

    // A member of an element, as it travels, or in words. Throws Failure for a name that no member has.
    const host::describe::Json &Value(const host::describe::Json &element, std::string_view member) const;
    uint64_t Number(const host::describe::Json &element, std::string_view member) const;
    std::string Text(const host::describe::Json &element, std::string_view member) const;

    // The records in a member of each, in their order.
    Elements Inside(std::string_view member) const;

    // What is measured or counted falls, what names something rises.
    void SortBy(std::string_view member);

    void Keep(size_t most);
};

struct Reply {
    const host::describe::Method &method;
    host::describe::Json wire;
    std::string explanation;

    host::describe::Json Named() const;
    // A member by its name: what travels, a member in words, the elements of a vector or a run.
    const host::describe::Json &operator[](std::string_view member) const;
    std::string Text(std::string_view member) const;
    Elements In(std::string_view member) const;
};

// A request, in the names of the meanings or of the wire. Throws Failure for one that is not accepted.
host::describe::Record RecordOf(const host::describe::Method &method, const host::describe::Json &request);

// What a call brought. Throws Failure where it failed or, unless any will do, the result in its reply is a failure.
Reply ReplyTo(const host::describe::Method &method, const host::CallOutcome &outcome, bool anyResult = false);

// How long what may take long is waited for.
constexpr std::chrono::milliseconds kPatience{600'000};

class Server {
public:
    explicit Server(const Globals &globals) : globals_(globals), client_({.runDir = globals.runDir}) {}

    // The request is JSON in the names of the meanings, or words, "begins-at=90%". Throws Failure.
    Reply Ask(const std::string &method, const host::describe::Json &request = host::describe::Json::object());
    Reply Ask(const std::string &method, const std::vector<std::string> &words);

    // The same, also where the result in the reply is a failure.
    Reply AskAnyway(const std::string &method, const host::describe::Json &request);

    // The same; nothing where the answer is one of these errno values.
    std::optional<Reply> AskUnless(std::initializer_list<uint32_t> none, const std::string &method,
                                   const host::describe::Json &request = host::describe::Json::object());

    // For local times, which are those of the daemon's clock.
    void UseZone();

    host::Client &GetClient() { return client_; }

    // By itself it shows of each call that may take long that it runs. While this lives, another's progress does.
    class Part {
    public:
        Part(Server &server, Progress &whole) : server_(server) { server_.whole_ = &whole; }
        ~Part() { server_.whole_ = nullptr; }
        Part(const Part &) = delete;
        Part &operator=(const Part &) = delete;

    private:
        Server &server_;
    };

private:
    void UseZoneFor(const host::describe::Method &method);
    host::CallOutcome Call(const host::CallRequest &call, bool isLong);
    host::CallOutcome Wait(const host::CallRequest &call);
    Reply Send(const host::describe::Method &method, const host::describe::Record &request, bool anyResult = false);

    const Globals &globals_;
    host::Client client_;
    Progress *whole_ = nullptr;
    bool hasZone_ = false;
};

} // namespace ctl
