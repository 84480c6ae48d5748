#include "host/ctl/request.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "host/describe/stated.h"
#include "host/meaning/check.h"
#include "host/osal/attempt.h"

namespace ctl {

using namespace host::describe;

namespace {

// One word that is an object, or is to be one.
bool IsJson(const std::vector<std::string> &words) {
    const std::string &word = words.size() == 1 ? words.front() : "";
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

// The wire's JSON. The members of a type that no method has have no names but those of the wire.
Json StatedJson(const std::vector<std::string> &words, const host::meaning::Record *meaning) {
    if (IsJson(words)) {
        const std::string &word = words.front();
        const std::string text = word == "-" ? ReadAll(word) : word.starts_with('@') ? ReadAll(word.substr(1)) : word;
        const Json json = ParseJson(text);
        return meaning == nullptr ? json : FromNamed(json, *meaning);
    }
    if (meaning == nullptr) {
        throw JsonError("no method has it, so its members have no names: expected JSON, @FILE or -");
    }
    return FromWords(words, *meaning, ReadAll);
}

} // namespace

Record ReadRequest(const Method &method, const std::vector<std::string> &words) {
    try {
        const Json wire = StatedJson(words, method.meaning->request);
        if (!IsJson(words)) { // a member that an object leaves out is 0
            RequireAll(method, wire);
        }
        Record record = FromJson(*method.request, wire);
        host::meaning::Check(*method.meaning->request, record.Data());
        return record;
    } catch (const JsonError &error) {
        throw Failure(kUsage, fmt::format("{}: {}", method.name, error.what()));
    } catch (const std::system_error &error) {
        throw Failure(kUsage, fmt::format("{}: {}", method.name, host::ReasonOf(error)));
    }
}

Record ReadRecord(const Type &type, const std::vector<std::string> &words) {
    try {
        return FromJson(type, StatedJson(words, MeaningOf(type)));
    } catch (const JsonError &error) {
        throw Failure(kUsage, fmt::format("{}: {}", type.name, error.what()));
    }
}

} // namespace ctl
