#include "host/store/document.h"

#include <optional>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace host {

namespace {

using nlohmann::json;

// Far more than any document has, and few enough for functions that call themselves for each level.
constexpr size_t kMaxDepth = 64;

struct JsonOf {
    json operator()(const Document::Array &elements) const {
        json array = json::array();
        for (const Document &element : elements) {
            array.push_back(element.Visit(*this));
        }
        return array;
    }
    json operator()(const Document::Object &members) const {
        json object = json::object();
        for (const auto &[key, value] : members) {
            object[key] = value.Visit(*this);
        }
        return object;
    }
    json operator()(const auto &value) const { return value; }
};

// Builds a document from what the parser comes across.
class Builder : public nlohmann::json_sax<json> {
public:
    Document Take() { return std::move(whole_); }

    bool null() override { return Add(nullptr); }
    bool boolean(bool value) override { return Add(value); }
    bool number_integer(int64_t value) override { return Add(value); }
    bool number_unsigned(uint64_t value) override { return Add(value); }
    bool number_float(double value, const std::string &) override { return Add(value); }
    bool string(std::string &value) override { return Add(std::move(value)); }
    bool binary(json::binary_t &) override { return false; } // JSON has none
    bool start_object(size_t) override { return Open(Document::Object()); }
    bool end_object() override { return Close(); }
    bool start_array(size_t) override { return Open(Document::Array()); }
    bool end_array() override { return Close(); }
    bool key(std::string &name) override {
        open_.back().key = std::move(name);
        return true;
    }
    bool parse_error(size_t, const std::string &, const json::exception &error) override {
        throw DocumentError(error.what());
    }

private:
    // An array or object whose end is yet to come.
    struct Level {
        std::variant<Document::Array, Document::Object> content;
        std::string key; // of the next member
    };

    template <typename Content>
    bool Open(Content content) {
        if (open_.size() == kMaxDepth) {
            throw DocumentError(fmt::format("it is nested more than {} deep", kMaxDepth));
        }
        open_.push_back({std::move(content), {}});
        return true;
    }

    bool Close() {
        auto content = std::move(open_.back().content);
        open_.pop_back();
        return std::visit([this](auto &done) { return Add(std::move(done)); }, content);
    }

    bool Add(Document value) {
        if (open_.empty()) {
            whole_ = std::move(value);
        } else if (auto *array = std::get_if<Document::Array>(&open_.back().content)) {
            array->push_back(std::move(value));
        } else {
            std::get<Document::Object>(open_.back().content)[open_.back().key] = std::move(value);
        }
        return true;
    }

    std::vector<Level> open_;
    Document whole_;
};

// As it is shown in an error, cut where it is long.
std::string Shown(const Document &document) {
    constexpr size_t kMaxShown = 60;
    std::string text = document.Visit(JsonOf()).dump(-1, ' ', true, json::error_handler_t::replace);
    if (text.size() > kMaxShown) {
        text.replace(kMaxShown, std::string::npos, "...");
    }
    return text;
}

} // namespace

Document::Document(const Document &) = default;
Document::Document(Document &&) noexcept = default;
Document &Document::operator=(const Document &) = default;
Document &Document::operator=(Document &&) noexcept = default;
Document::~Document() = default;
bool Document::operator==(const Document &other) const { // defaulted, clang 14 crashes
    return value_ == other.value_;
}

Document Document::Parse(std::string_view text) {
    Builder builder;
    json::sax_parse(text, &builder);
    return builder.Take();
}

std::string Document::Dump(int indent) const {
    try {
        return Visit(JsonOf()).dump(indent);
    } catch (const json::exception &error) {
        throw DocumentError(error.what());
    }
}

const Document *Document::Find(std::string_view key) const {
    const Object &members = AsObject();
    const auto found = members.find(key);
    return found == members.end() ? nullptr : &found->second;
}

const Document &Document::At(std::string_view key) const {
    const Object *const members = std::get_if<Object>(&value_);
    const auto found = members == nullptr ? Object::const_iterator() : members->find(key);
    if (members == nullptr || found == members->end()) {
        Refuse(fmt::format("an object with \"{}\"", key), {});
    }
    return found->second;
}

const Document &Document::At(size_t index) const {
    const Array &elements = AsArray();
    if (index >= elements.size()) {
        Refuse(fmt::format("an array of at least {}", index + 1), {});
    }
    return elements[index];
}

double Document::Number(std::string_view key) const {
    return Visit([&](const auto &value) -> double {
        using Held = std::remove_cvref_t<decltype(value)>;
        if constexpr (std::is_arithmetic_v<Held> && !std::same_as<Held, bool>) {
            return static_cast<double>(value);
        } else {
            Refuse("a number", key);
        }
    });
}

void Document::Refuse(const std::string &expected, std::string_view key) const {
    const std::string where = key.empty() ? "" : fmt::format("\"{}\": ", key);
    throw DocumentError(fmt::format("{}expected {}, found {}", where, expected, Shown(*this)));
}

} // namespace host
