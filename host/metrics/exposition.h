// Prometheus's text format, which its server scrapes and node-exporter's textfile collector reads. By hand, as it is
// two functions: a client library keeps counters of its own program, and these are another's.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace host::metrics {

enum class Type : uint8_t { kCounter, kGauge, kHistogram };

struct Label {
    std::string_view name;
    std::string value; // any bytes
};

class Exposition {
public:
    // The samples that are added next are of this family. A counter's name ends in "_total".
    void Begin(std::string_view name, Type type, std::string_view help);

    // The suffix is that of a histogram's sample: "_bucket", "_sum", "_count".
    void Add(const std::vector<Label> &labels, double value, std::string_view suffix = "");

    // A line for people.
    void Comment(std::string_view text);

    const std::string &Text() const { return text_; }

private:
    std::string name_, text_;
};

} // namespace host::metrics
