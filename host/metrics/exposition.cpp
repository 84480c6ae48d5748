#include "host/metrics/exposition.h"

#include <fmt/format.h>

#include "host/osal/text.h"

namespace host::metrics {

namespace {

// A label's value, or help, which has no quotes around it.
std::string Escaped(std::string_view text, bool quoted) {
    std::string escaped;
    for (const char c : LineOfText(text)) {
        if (c == '\\' || (quoted && c == '"')) {
            escaped += '\\';
        }
        escaped += c;
    }
    return escaped;
}

std::string_view NameOf(Type type) {
    return type == Type::kCounter ? "counter" : type == Type::kGauge ? "gauge" : "histogram";
}

} // namespace

void Exposition::Begin(std::string_view name, Type type, std::string_view help) {
    name_ = name;
    text_ += fmt::format("# HELP {0} {1}\n# TYPE {0} {2}\n", name, Escaped(help, false), NameOf(type));
}

void Exposition::Add(const std::vector<Label> &labels, double value, std::string_view suffix) {
    text_ += name_;
    text_ += suffix;
    char before = '{';
    for (const Label &label : labels) {
        text_ += fmt::format("{}{}=\"{}\"", before, label.name, Escaped(label.value, true));
        before = ',';
    }
    text_ += fmt::format("{} {}\n", labels.empty() ? "" : "}", value);
}

void Exposition::Comment(std::string_view text) {
    text_ += fmt::format("# {}\n", LineOfText(text));
}

} // namespace host::metrics
