// Writes JSON, without blanks. What reads JSON has a library for it; what only writes is to be small.
#pragma once

#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

namespace host {

// What is written inside of an object or array stands between its brackets:
//
//   json.Object([&] {
//       json.Member("name", "tarnd");
//       json.Array("pids", [&] { json.Value(1); });
//   });
class JsonWriter {
public:
    // Takes valid UTF-8.
    void Value(std::string_view text);
    void Value(const char *text) { Value(std::string_view(text)); }
    void Value(const std::string &text) { Value(std::string_view(text)); }
    template <std::same_as<bool> Bool>
    void Value(Bool value) {
        Literal(value ? "true" : "false");
    }
    template <std::integral Number>
    requires(!std::same_as<Number, bool>) void Value(Number number) { Literal(std::to_string(number)); }
    template <class Known>
    void Value(const std::optional<Known> &value) {
        if (value.has_value()) {
            Value(*value);
        } else {
            Literal("null");
        }
    }
    // What another one wrote: no value, or several of an array.
    void Written(const JsonWriter &other);

    template <class Inside>
    void Object(Inside inside) {
        Open('{');
        inside();
        text_ += '}';
    }
    template <class Inside>
    void Array(Inside inside) {
        Open('[');
        inside();
        text_ += ']';
    }

    template <class Any>
    void Member(std::string_view name, const Any &value) {
        Name(name);
        Value(value);
    }
    template <class Inside>
    void Object(std::string_view name, Inside inside) {
        Name(name);
        Object(inside);
    }
    template <class Inside>
    void Array(std::string_view name, Inside inside) {
        Name(name);
        Array(inside);
    }

    const std::string &Text() const { return text_; }

private:
    void Name(std::string_view name);
    void Literal(std::string_view text);
    void Open(char bracket);
    void Separate();
    void Quote(std::string_view text);

    std::string text_;
};

} // namespace host
