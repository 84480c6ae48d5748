// A value as JSON knows it, for what outlives a restart.
//
//   const Document content = Document::Object{{"over", 900}, {"names", Document::Array{"a", "b"}}};
//   content.Get<uint32_t>("over")
//
// What a document lacks, or has of another kind or out of range, is told by DocumentError: which key, what was
// expected, what was found.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace host {

class DocumentError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class Document {
public:
    using Array = std::vector<Document>;
    using Object = std::map<std::string, Document, std::less<>>;

    Document(std::nullptr_t = nullptr) {}
    template <std::integral T>
    Document(T value) {
        if constexpr (std::same_as<T, bool>) {
            value_ = value;
        } else if (std::cmp_less(value, 0)) {
            value_ = static_cast<int64_t>(value);
        } else {
            value_ = static_cast<uint64_t>(value);
        }
    }
    Document(double value) : value_(value) {}
    Document(const char *text) : value_(std::string(text)) {}
    Document(std::string_view text) : value_(std::string(text)) {}
    Document(std::string text) : value_(std::move(text)) {}
    Document(Array elements) : value_(std::move(elements)) {}
    Document(Object members) : value_(std::move(members)) {}

    // Compiled once: in line, g++ 12 takes what a variant does not hold for uninitialized.
    Document(const Document &);
    Document(Document &&) noexcept;
    Document &operator=(const Document &);
    Document &operator=(Document &&) noexcept;
    ~Document();

    // Throws DocumentError for what is no JSON, and for what is nested deeper than documents are.
    static Document Parse(std::string_view text);

    // Keys are sorted. In one line, or with `indent` blanks for each level. Throws DocumentError for a string that is
    // not UTF-8.
    std::string Dump(int indent = -1) const;

    bool IsNull() const { return std::holds_alternative<std::nullptr_t>(value_); }
    template <typename Visitor>
    auto Visit(Visitor visitor) const {
        return std::visit(visitor, value_);
    }

    // T is bool, an integer, double or std::string.
    template <typename T>
    T As() const {
        return Converted<T>({});
    }
    const Array &AsArray() const { return Held<Array>("an array", {}); }
    const Object &AsObject() const { return Held<Object>("an object", {}); }

    // Members of an object. Find: null when there is no such key.
    const Document *Find(std::string_view key) const;
    const Document &At(std::string_view key) const;
    template <typename T>
    T Get(std::string_view key) const {
        return At(key).Converted<T>(key);
    }
    const Array &ArrayAt(std::string_view key) const { return At(key).Held<Array>("an array", key); }

    // Elements of an array.
    const Document &At(size_t index) const;
    template <typename T>
    T Get(size_t index) const {
        return At(index).As<T>();
    }

    bool operator==(const Document &) const;

private:
    // An integer is signed only when it is negative.
    using Value = std::variant<std::nullptr_t, bool, int64_t, uint64_t, double, std::string, Array, Object>;

    // `key` is where this was found, for the error.
    template <typename T>
    T Converted(std::string_view key) const {
        if constexpr (std::same_as<T, bool>) {
            return Held<bool>("true or false", key);
        } else if constexpr (std::integral<T>) {
            return Integer<T>(key);
        } else if constexpr (std::same_as<T, double>) {
            return Number(key);
        } else {
            static_assert(std::same_as<T, std::string>, "expected bool, an integer, double or std::string");
            return Held<std::string>("a string", key);
        }
    }

    template <typename T>
    T Integer(std::string_view key) const {
        using Limits = std::numeric_limits<T>;
        const auto *natural = std::get_if<uint64_t>(&value_);
        if (natural != nullptr && std::cmp_less_equal(*natural, Limits::max())) {
            return static_cast<T>(*natural);
        }
        const auto *negative = std::get_if<int64_t>(&value_);
        if (negative != nullptr && std::cmp_greater_equal(*negative, Limits::min())) {
            return static_cast<T>(*negative);
        }
        Refuse("an integer from " + std::to_string(Limits::min()) + " to " + std::to_string(Limits::max()), key);
    }

    double Number(std::string_view key) const;

    template <typename T>
    const T &Held(const char *expected, std::string_view key) const {
        const T *const value = std::get_if<T>(&value_);
        if (value == nullptr) {
            Refuse(expected, key);
        }
        return *value;
    }

    [[noreturn]] void Refuse(const std::string &expected, std::string_view key) const;

    Value value_ = nullptr;
};

} // namespace host
