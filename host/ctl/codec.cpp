// decode and encode: messages in files.
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iostream>
#include <memory>

#include "host/ctl/commands.h"
#include "host/ctl/print.h"
#include "host/ctl/request.h"
#include "host/describe/explain.h"
#include "host/describe/named.h"
#include "host/osal/hex.h"

namespace ctl {

using namespace host::describe;

namespace {

Json ExplanationJson(const Explanation &explanation) {
    Json json{{"accepted", !explanation.refusal}, {"refusal", nullptr}, {"notes", Json::array()}};
    if (const auto &refusal = explanation.refusal) {
        json["refusal"] = {{"check", CheckName(refusal->check)},
                           {"at", refusal->at},
                           {"field", refusal->path},
                           {"value", refusal->value},
                           {"least", refusal->least},
                           {"most", refusal->most},
                           {"function", refusal->function},
                           {"text", refusal->text},
                           {"log", refusal->log}};
    }
    for (const Note &note : explanation.notes) {
        json["notes"].push_back({{"at", note.at}, {"size", note.size}, {"field", note.path}, {"text", note.text}});
    }
    return json;
}

void PrintExplanation(const Explanation &explanation, std::span<const uint8_t> message, bool json) {
    if (json) {
        std::cout << ExplanationJson(explanation).dump(2) << "\n";
        return;
    }
    std::cout << DumpText(explanation, message);
    if (explanation.refusal && !explanation.refusal->log.empty()) {
        std::cout << "the decoder logs: " << explanation.refusal->log << "\n";
    }
}

void WriteMessage(const std::vector<uint8_t> &message, const std::string &file) {
    const auto *const bytes = reinterpret_cast<const char *>(message.data());
    if (file.empty()) {
        if (isatty(STDOUT_FILENO) != 0) {
            std::cout << host::Hex(message) << "\n";
        } else {
            std::cout.write(bytes, static_cast<std::streamsize>(message.size()));
        }
        return;
    }
    std::ofstream out(file, std::ios::binary);
    out.write(bytes, static_cast<std::streamsize>(message.size()));
    out.close();
    if (!out) {
        throw Failure(kOther, fmt::format("{}: cannot write: {}", file, strerror(errno)));
    }
}

} // namespace

std::string ReadAll(const std::string &file) {
    const auto close = [](FILE *stream) { return stream == stdin ? 0 : fclose(stream); };
    const std::unique_ptr<FILE, decltype(close)> in(file == "-" ? stdin : fopen(file.c_str(), "rb"), close);
    std::string content;
    char part[65536];
    for (size_t size = 1; in != nullptr && size != 0;) {
        size = fread(part, 1, sizeof part, in.get());
        content.append(part, size);
    }
    if (in == nullptr || ferror(in.get()) != 0) {
        throw Failure(kOther,
                      fmt::format("{}: cannot read: {}", file == "-" ? "standard input" : file, strerror(errno)));
    }
    return content;
}

// Text of hex digits is no message: its first four bytes would be a root offset beyond 700 MiB.
std::vector<uint8_t> ReadMessage(const std::string &file) {
    const std::string content = ReadAll(file);
    std::string digits = content;
    std::erase_if(digits, [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; });
    if (auto bytes = FromHex(digits); bytes && !digits.empty()) {
        return std::move(*bytes);
    }
    return {content.begin(), content.end()};
}

Json JsonOf(const Record &record, const host::meaning::Record *meaning, JsonForm form) {
    if (form != JsonForm::kNamed) {
        return ToJson(record);
    }
    if (meaning == nullptr) {
        throw Failure(kUsage, fmt::format("{}: no method has it, so its members have no names", record.GetType().name));
    }
    return ToNamed(ToJson(record), *meaning);
}

void Decode(const DecodeOptions &options) {
    const Type &type = RequireType(options.type);
    const std::vector<uint8_t> message = ReadMessage(options.file);
    const Explanation explanation = Explain(type, message, options.explain);
    if (options.explain) {
        PrintExplanation(explanation, message, options.json != JsonForm::kNone);
    }
    if (explanation.refusal) {
        throw Failure(kRefused, fmt::format("{}: refused: {}", type.name, explanation.refusal->text));
    }
    if (options.explain) {
        return;
    }
    const auto record = host::describe::Decode(type, message);
    if (!record) {
        throw Failure(kOther, fmt::format("{}: no memory to decode {} bytes", type.name, message.size()));
    }
    if (options.json != JsonForm::kNone) {
        std::cout << JsonOf(*record, MeaningOf(type), options.json).dump(2) << "\n";
    } else {
        const Output output;
        PrintRecord(std::cout, *record, output.GetStyle());
    }
}

void Encode(const EncodeOptions &options) {
    const Type &type = RequireType(options.type);
    const Record record = ReadRecord(type, options.record);
    try {
        WriteMessage(host::describe::Encode(record, options.fixed ? Form::kFixed : Form::kRegular), options.output);
    } catch (const std::invalid_argument &error) {
        throw Failure(kUsage, error.what());
    }
}

} // namespace ctl
