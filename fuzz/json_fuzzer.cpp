// Any text to the JSON reader and to the reader of descriptions of services, and any message to the verifier that
// explains refusals.
//
// Input: type key (2), mode (1: bit 0 set for a message, bit 1 for a description), JSON text or message.
#include <optional>

#include "fuzz/check.h"
#include "fuzz/input.h"
#include "host/describe/explain.h"
#include "host/describe/json.h"
#include "host/describe/reflection.h"
#include "host/osal/accounting.h"
#include "host/osal/log.h"

namespace describe = host::describe;

namespace {

// What small messages decode to can be large; a record beyond this is not put into words.
constexpr uint64_t kLargest = 1 << 20;

std::string logged_; // the last log record

// The way from a record to JSON and back, and to a message and back, keeps it.
void CheckRecord(const describe::Type &type, const describe::Record &record) {
    const describe::Json json = describe::ToJson(record);
    FUZZ_CHECK(describe::ToJson(describe::FromJson(type, json)) == json, "%s: its own JSON gives another record",
               type.name);
    FUZZ_CHECK(describe::ParseJson(json.dump()) == json, "%s: its own JSON is read differently", type.name);
    const auto message = describe::Encode(record);
    const std::optional<describe::Record> decoded = describe::Decode(type, message);
    FUZZ_CHECK(decoded.has_value(), "%s: its own message is refused", type.name);
    FUZZ_CHECK(describe::ToJson(*decoded) == json, "%s: its own message gives another record", type.name);
    const auto explanation = describe::Explain(type, message);
    FUZZ_CHECK(!explanation.refusal, "%s: %s", type.name, explanation.refusal->text.c_str());
    FUZZ_CHECK(!describe::DumpText(explanation, message).empty(), "%s: an empty dump", type.name);
}

void ReadJson(const describe::Type &type, std::string_view text) {
    std::optional<describe::Record> record;
    try {
        record.emplace(describe::FromJson(type, describe::ParseJson(text)));
    } catch (const describe::JsonError &error) {
        FUZZ_CHECK(*error.what() != 0, "%s: an error without text", type.name);
        return;
    }
    CheckRecord(type, *record);
}

// What is taken can be used: a record of each type can be made, and has JSON.
void ReadDescription(std::string_view text) {
    try {
        const describe::Interface interface(text);
        for (const describe::Method &method : interface.Methods()) {
            CheckRecord(*method.request, describe::Record(*method.request));
        }
    } catch (const describe::ReflectionError &error) {
        FUZZ_CHECK(*error.what() != 0, "%s", "an error without text");
    }
}

void ExplainMessage(const describe::Type &type, const fuzz::Block &message) {
    const std::span<const uint8_t> bytes(message.data(), message.size);
    const auto verdict = describe::Explain(type, bytes, false);
    logged_.clear();
    const std::optional<describe::Record> record = describe::Decode(type, bytes);
    FUZZ_CHECK(logged_ == (verdict.refusal ? verdict.refusal->log : ""), "%s: the decoder logs \"%s\", expected \"%s\"",
               type.name, logged_.c_str(), verdict.refusal ? verdict.refusal->log.c_str() : "");
    FUZZ_CHECK(record.has_value() == !verdict.refusal.has_value(), "%s: the decoder says %d, the verifier %s",
               type.name, record.has_value(), verdict.refusal ? verdict.refusal->text.c_str() : "yes");
    if (host::MemoryTotal().liveBytes > kLargest) {
        return;
    }
    const auto explanation = describe::Explain(type, bytes);
    FUZZ_CHECK(explanation.refusal.has_value() == verdict.refusal.has_value(), "%s: the notes decide the verdict",
               type.name);
    FUZZ_CHECK(message.size == 0 || explanation.refusal || !describe::DumpText(explanation, bytes).empty(),
               "%s: an empty dump", type.name);
    if (record) {
        CheckRecord(type, *record);
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    host::SetLogHook([](const host::LogRecord &record) {
        logged_ = record.function + " (" + std::to_string(record.errCode) + ") " + record.text;
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    constexpr size_t kPrefix = fuzz::kKeySize + 1;
    if (size < kPrefix) {
        return -1;
    }
    static const fuzz::TypePicker<describe::Type> types(describe::Types());
    const describe::Type &type = types.Pick(data);
    if ((data[fuzz::kKeySize] & 1) != 0) {
        ExplainMessage(type, fuzz::Block(data + kPrefix, size - kPrefix));
    } else if ((data[fuzz::kKeySize] & 2) != 0) {
        ReadDescription({reinterpret_cast<const char *>(data) + kPrefix, size - kPrefix});
    } else {
        ReadJson(type, {reinterpret_cast<const char *>(data) + kPrefix, size - kPrefix});
    }
    FUZZ_CHECK(host::MemoryTotal().liveBlocks == 0, "%s: blocks are live at the end", type.name);
    return 0;
}
