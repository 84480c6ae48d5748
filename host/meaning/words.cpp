#include "host/meaning/words.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "host/meaning/unit.h"
#include "host/osal/text.h"
#include "velto/shape.h"

namespace host::meaning {

namespace {

std::string NumberText(const Value &value, uint64_t number) {
    const auto choice = std::ranges::find(value.choices, number, &Choice::value);
    return choice == value.choices.end() ? WithSign(number, value.kind) : std::string(choice->name);
}

uint64_t Load(const velto::SlotShape &slot, const uint8_t *at) {
    uint64_t number = 0;
    memcpy(&number, at, slot.width); // little-endian, as all machines that it runs on
    return number;
}

// Empty where there is nothing to say.
std::string ValueText(const Member &member, const velto::SlotShape &slot, const uint8_t *at) {
    if (slot.kind == velto::Kind::kScalar) {
        return NumberText(member.value, Load(slot, at));
    }
    const char *text = nullptr;
    if (slot.kind == velto::Kind::kString) {
        memcpy(&text, at, sizeof text);
        return text == nullptr ? "" : LineOfText(text);
    }
    if (slot.kind == velto::Kind::kBytes) {
        text = reinterpret_cast<const char *>(at);
        return LineOfText({text, strnlen(text, slot.length)});
    }
    return "";
}

} // namespace

uint64_t NumberOf(const Record &meaning, size_t member, const void *record) {
    const velto::SlotShape &slot = meaning.shape->Slot(member);
    return Load(slot, static_cast<const uint8_t *>(record) + slot.offset);
}

std::string WordsOf(const Record &meaning, const void *record) {
    std::string words;
    for (size_t i = 0; i < meaning.members.size(); ++i) {
        const Member &member = meaning.members[i];
        const velto::SlotShape &slot = meaning.shape->Slot(i);
        const bool isOne = meaning.inside[i] == nullptr && member.value.kind != Kind::kUnused;
        const std::string value =
            isOne ? ValueText(member, slot, static_cast<const uint8_t *>(record) + slot.offset) : "";
        if (!value.empty()) {
            words += fmt::format("{}{}={}", words.empty() ? "" : " ", member.name, value);
        }
    }
    return words;
}

} // namespace host::meaning
