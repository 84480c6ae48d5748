// A setting, and who made it: a client's holds before the master's, and that before the default.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>

#include "host/store/document.h"

namespace tarnd {

enum class Source { kDefault, kMaster, kClient }; // each holds before those to the left of it

// "from the master"
constexpr const char *NameOf(Source source) {
    constexpr std::array kNames{"the default", "the master", "a client"};
    return kNames[static_cast<size_t>(source)];
}

template <class T>
class Setting {
public:
    explicit Setting(T byDefault) { Of(Source::kDefault) = std::move(byDefault); }

    const T &Value() const { return *values_[static_cast<size_t>(From())]; }
    Source From() const {
        return values_[static_cast<size_t>(Source::kClient)]   ? Source::kClient
               : values_[static_cast<size_t>(Source::kMaster)] ? Source::kMaster
                                                               : Source::kDefault;
    }

    void Set(Source source, T value) { Of(source) = std::move(value); }

    // Gives up what clients have set.
    void ForgetClients() { Of(Source::kClient).reset(); }

    // What was set, by sources; a function makes a document of a value.
    template <class Make>
    host::Document ToDocument(Make make) const {
        host::Document::Object content;
        for (const auto &[source, key] : kKept) {
            if (const auto &value = values_[static_cast<size_t>(source)]) {
                content[key] = make(*value);
            }
        }
        return content;
    }
    template <class Parse>
    void Take(const host::Document &content, Parse parse) {
        for (const auto &[source, key] : kKept) {
            if (const host::Document *const value = content.Find(key)) {
                Of(source) = parse(*value);
            }
        }
    }

    bool operator==(const Setting &) const = default;

private:
    static constexpr std::array kKept{std::pair{Source::kMaster, "master"}, std::pair{Source::kClient, "client"}};

    std::optional<T> &Of(Source source) { return values_[static_cast<size_t>(source)]; }

    std::array<std::optional<T>, 3> values_;
};

} // namespace tarnd
