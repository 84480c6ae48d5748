// What a program adds to the runtime's own service: methods that take JSON and answer with JSON, at once or when there
// is news.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <string_view>

namespace host {

class OwnMethods {
public:
    virtual ~OwnMethods() = default;

    // Of which groups.h knows the group.
    virtual bool Has(std::string_view method) const = 0;

    struct Question {
        std::string method;
        std::string text; // JSON, or nothing
        // Whether who asks may call a method, for what is of all users.
        std::function<bool(std::string_view method)> mayCall;
    };
    struct Told {
        std::string text; // JSON
        // That who asks waits for news, as nothing else is told yet; 0: it is the answer.
        std::chrono::milliseconds wait{0};
    };
    // Throws std::system_error for a question that is not as it should be. May be called by any thread.
    virtual Told Tell(const Question &question) const = 0;

    // Calls back, on any thread, whenever there is news; with nothing to call, not any more when it returns.
    virtual void OnNews(std::function<void()> tell) = 0;
};

} // namespace host
