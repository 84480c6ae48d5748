#include "host/ctl/request.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "host/describe/stated.h"
#include "host/meaning/check.h"
#include "host/osal/attempt.h"

namespace ctl {

using namespace host::describe;

namespace {

// An object, or what is to be one.
bool IsJson(const std::string &word) {
    const size_t first = word.find_first_not_of(" \t\r\n");
    return word == "-" || word.starts_with('@') || (first != word.npos && (word[first] == '{' || word[first] == '['));
}

void RequireAll(const Method &method, const Json &wire) {
    const auto missing = MissingMembers(wire, *method.meaning->request);
    if (!missing.empty()) {
        throw Failure(kUsage, fmt::format("{}: missing {}; an example: {}", method.name, fmt::join(missing, ", "),
                                          ExampleOf(*method.meaning)));
    }
}

// The wire's JSON.
Json StatedJson(const Method &method, const std::vector<std::string> &words) {
    if (words.size() == 1 && IsJson(words.front())) {
        const std::string &word = words.front();
        const std::string text = word == "-" ? ReadAll(word) : word.starts_with('@') ? ReadAll(word.substr(1)) : word;
        return FromNamed(ParseJson(text), *method.meaning->request); // a member that an object leaves out is 0
    }
    const Json wire = FromWords(words, *method.meaning->request, ReadAll);
    RequireAll(method, wire);
    return wire;
}

} // namespace

Record ReadRequest(const Method &method, const std::vector<std::string> &words) {
    try {
        Record record = FromJson(*method.request, StatedJson(method, words));
        host::meaning::Check(*method.meaning->request, record.Data());
        return record;
    } catch (const JsonError &error) {
        throw Failure(kUsage, fmt::format("{}: {}", method.name, error.what()));
    } catch (const std::system_error &error) {
        throw Failure(kUsage, fmt::format("{}: {}", method.name, host::ReasonOf(error)));
    }
}

} // namespace ctl
