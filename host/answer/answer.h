// How a served method answers. A request is checked by what its members mean; the method is a function that fills its
// reply or throws; what it throws becomes the call's status, and the reason goes to the log: no exception passes the C
// functions that the runtime calls.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "host/meaning/methods.h"
#include "host/osal/error.h"
#include "host/osal/text.h"
#include "tarn_sysdiag/host/reply.h"
#include "tarn_sysdiag/types/common.h"

namespace host {

// A reply record together with what its pointers point to.
template <class Record>
class Reply : public Record {
public:
    Reply() : Record{} {}

    // The members alone: auto &[total, free] = reply.Members();
    Record &Members() { return *this; }

    // A vector's elements; `count` is the member beside the pointer. None: null.
    template <class Element>
    Element *Keep(std::vector<Element> elements, uint32_t &count) {
        count = static_cast<uint32_t>(elements.size());
        if (elements.empty()) {
            return nullptr;
        }
        auto kept = std::make_shared<std::vector<Element>>(std::move(elements));
        kept_.push_back(kept);
        return kept->data();
    }

    char *Keep(std::string text) {
        auto kept = std::make_shared<std::string>(std::move(text));
        kept_.push_back(kept);
        return kept->data();
    }

    // What owns memory that the record's pointers point to already.
    void KeepOwner(std::shared_ptr<void> owner) { kept_.push_back(std::move(owner)); }

private:
    std::vector<std::shared_ptr<void>> kept_;
};

// What every <Method>_free does: the record is the base of the Reply that Answer made.
template <class Record>
void Release(Record *record) {
    delete static_cast<Reply<Record> *>(record);
}

// The status for the exception in flight, which it logs and tells the caller of. To be called from a catch block.
uint32_t StatusOfException(const char *method);

// What the function of a method does, as a status.
template <class Function>
uint32_t StatusOf(const meaning::Method &method, Function function) {
    try {
        function();
        return 0;
    } catch (...) {
        return StatusOfException(method.name);
    }
}

// Whether the caller whose method runs on this thread may look into a process: it is the caller's own, or the policy
// lets the caller look into those of others.
bool MayLookInto(uint32_t pid);

// Throws the error of a bad value; and EACCES for a request of the group `memory` that looks into what isn't the
// caller's: a process of another user, or all processes.
void CheckRequest(const meaning::Method &method, const void *request);

// To be called when a method has done what was asked for: a change of a setting is told to the server.
void NoteDone(const meaning::Method &method, const void *request);

// Runs the function of a method without reply, unless its request is refused.
template <class Request, class Response, class Function>
uint32_t Run(const meaning::MethodOf<Request, Response> &method, const Request *request, Function function) {
    return StatusOf(method, [&] {
        CheckRequest(method, request);
        function();
        NoteDone(method, request);
    });
}

// Sends the reply that a function fills.
template <class Record, class Fill>
uint32_t SendReply(const meaning::Method &method, void *replyCtx, Fill fill) {
    return StatusOf(method, [&] {
        auto reply = std::make_unique<Reply<Record>>();
        fill(*reply);
        Record *const record = reply.get();
        const uint32_t status = TarnHost_Reply(replyCtx, record);
        if (status != 0) {
            throw std::system_error(static_cast<int>(status), std::generic_category(), "the reply");
        }
        static_cast<void>(reply.release()); // <Method>_free has it
    });
}

// Checks the request, has a function fill the reply, and sends it.
template <class Request, class Response, class Fill>
uint32_t Answer(const meaning::MethodOf<Request, Response> &method, const Request *request, void *replyCtx, Fill fill) {
    return SendReply<Response>(method, replyCtx, [&](auto &reply) {
        CheckRequest(method, request);
        fill(reply);
        NoteDone(method, request);
    });
}

// The same for a method that answers with nothing but a result, in which a failure travels.
template <class Request, class Response, class Function>
uint32_t AnswerResult(const meaning::MethodOf<Request, Response> &method, const Request *request, void *replyCtx,
                      Function function) {
    return SendReply<Response>(method, replyCtx, [&](auto &reply) {
        meaning::ResultIn(*method.response, &reply) = Run(method, request, function);
    });
}

// For work that takes long, now and then: throws when its result is no longer wanted.
inline void CheckWanted(void *replyCtx) {
    if (const uint32_t reason = TarnHost_Cancelled(replyCtx); reason != 0) {
        throw std::system_error(static_cast<int>(reason), std::generic_category(), "the answer is no longer wanted");
    }
}

// The same for a reply with a result and more: when there is a failure, it alone travels. A result that the function
// itself fills in stays.
template <class Request, class Response, class Fill>
uint32_t AnswerWithResult(const meaning::MethodOf<Request, Response> &method, const Request *request, void *replyCtx,
                          Fill fill) {
    return SendReply<Response>(method, replyCtx, [&](auto &reply) {
        const uint32_t result = StatusOf(method, [&] {
            CheckRequest(method, request);
            fill(reply);
            if (meaning::ResultIn(*method.response, &reply) == 0) { // else an agent refused
                NoteDone(method, request);
            }
        });
        if (result != 0) {
            static_cast<Response &>(reply) = Response{};
            meaning::ResultIn(*method.response, &reply) = result;
        }
    });
}

} // namespace host

// For the method lists: the release of a method's reply.
#define TARN_REPLY_RELEASE(method, request, response)                                                                  \
    void method##_free(Tarn_sys_diag_##response *record) {                                                             \
        host::Release(record);                                                                                         \
    }
#define TARN_REPLY_RELEASE_NONE(method, request)
