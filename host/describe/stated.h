// A request as a person states it: a word for each member, "begins-at=90% ends-below=80%".
#pragma once

#include <functional>
#include <span>

#include "host/describe/named.h"

namespace host::describe {

// The content of a file, or of standard input for "-".
using ReadFile = std::function<std::string(const std::string &)>;

// The wire's JSON of words NAME=VALUE. Within nested records a name is a path, "zone.offset". A text may be @FILE or -,
// its content. Throws JsonError.
Json FromWords(std::span<const std::string> words, const meaning::Record &meaning, const ReadFile &read);

// The members that such a request has to state and doesn't, "zone.offset (uiTimezoneOffset)".
std::vector<std::string> MissingMembers(const Json &wire, const meaning::Record &meaning);

// The words of a method's example.
std::vector<std::string> WordsOf(std::string_view example);

// Its call, as one types it into a shell: "tarnctl call PidIsOnline process=1".
std::string ExampleOf(const meaning::Method &method);

// The names that FromWords takes: those of members, and of the members of nested records by their path.
std::vector<std::string> StatedNames(const meaning::Record &meaning);

} // namespace host::describe
