#include "host/meaning/check.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "host/meaning/unit.h"
#include "host/osal/error.h"
#include "host/osal/text.h"
#include "velto/shape.h"

namespace host::meaning {

namespace {

bool IsText(Kind kind) {
    return kind >= Kind::kText && kind <= Kind::kLocalTime;
}

bool IsSum(const Value &value, uint64_t number) {
    for (const Choice &one : value.choices) {
        number &= ~uint64_t{one.value};
    }
    return number == 0;
}

bool Takes(const Value &value, uint64_t number) {
    const bool isChoice = std::ranges::find(value.choices, number, &Choice::value) != value.choices.end();
    if ((number == 0 && value.hasZero) || (value.kind == Kind::kChoice && isChoice)) {
        return true;
    }
    if ((value.kind == Kind::kChoice || (value.kind == Kind::kFlags && !IsSum(value, number))) && !value.open) {
        return false;
    }
    return value.least <= number && number <= value.most;
}

size_t IndexOf(const Record &meaning, std::string_view name) {
    const auto found =
        std::ranges::find_if(meaning.members, [&](const Member &one) { return one.wire == name || one.name == name; });
    if (found == meaning.members.end()) {
        throw std::logic_error(fmt::format("{} has no member {}", meaning.type, name));
    }
    return static_cast<size_t>(found - meaning.members.begin());
}

std::string BothNames(const Member &member) {
    return fmt::format("{} ({})", member.name, member.wire);
}

std::string Shown(std::string_view text) {
    return text.empty() ? "empty" : fmt::format("\"{}\"", LineOfText(text));
}

// One record of a request, and where it stands in it.
class Checked {
public:
    Checked(const Record &meaning, const void *record, std::string path)
        : meaning_(meaning), record_(static_cast<const uint8_t *>(record)), path_(std::move(path)) {}

    void CheckMembers() const {
        for (size_t i = 0; i < meaning_.members.size(); ++i) {
            if (const Member &member = meaning_.members[i]; IsLookedAt(member.value)) {
                CheckSlot(i);
            }
        }
    }

private:
    std::string NameOf(const Member &member) const { return path_ + BothNames(member); }
    [[noreturn]] void Refuse(const Member &member, const std::string &found, const std::string &expected) const {
        throw BadValue(NameOf(member).c_str(), found, expected);
    }

    uint64_t NumberAt(size_t index) const {
        const velto::SlotShape &slot = meaning_.shape->Slot(index);
        uint64_t number = 0;
        memcpy(&number, record_ + slot.offset, slot.width); // little-endian, as all machines that it runs on
        return number;
    }
    bool IsLookedAt(const Value &value) const {
        if (value.matters.empty()) {
            return true;
        }
        const size_t on = IndexOf(meaning_, value.matters);
        return NumberAt(on) == value.mattersAt && IsLookedAt(meaning_.members[on].value);
    }

    void CheckSlot(size_t index) const {
        const Member &member = meaning_.members[index];
        const velto::SlotShape &slot = meaning_.shape->Slot(index);
        if (slot.kind == velto::Kind::kScalar) {
            CheckNumber(member, NumberAt(index));
        } else if (meaning_.inside[index] != nullptr) {
            CheckInside(member, index, slot);
        } else if (slot.kind == velto::Kind::kBytes) {
            const auto *const text = reinterpret_cast<const char *>(record_ + slot.offset);
            CheckText(member, {text, strnlen(text, slot.length)});
        } else if (slot.kind == velto::Kind::kString) {
            const char *text = nullptr;
            memcpy(&text, record_ + slot.offset, sizeof text);
            CheckText(member, text == nullptr ? "" : text);
        }
    }

    void CheckNumber(const Member &member, uint64_t number) const {
        const Value &value = member.value;
        if (!Takes(value, number)) {
            Refuse(member, WithSign(number, value.kind), ExpectedText(value));
        }
        if (number != 0 || !value.hasZero) {
            CheckBound(
                member, number, value.notAbove, [&](uint64_t bound) { return number <= bound; }, "at most");
            CheckBound(
                member, number, value.notBelow, [&](uint64_t bound) { return number >= bound; }, "at least");
        }
    }

    template <class Holds>
    void CheckBound(const Member &member, uint64_t number, std::string_view wire, Holds holds,
                    const char *which) const {
        if (wire.empty()) {
            return;
        }
        const size_t at = IndexOf(meaning_, wire);
        const uint64_t bound = NumberAt(at);
        if (!holds(bound)) {
            const Kind kind = member.value.kind;
            Refuse(member, WithSign(number, kind),
                   fmt::format("{} {}, which is {}", which, NameOf(meaning_.members[at]), WithSign(bound, kind)));
        }
    }

    void CheckText(const Member &member, std::string_view text) const {
        const Value &value = member.value;
        if (!IsText(value.kind)) {
            return;
        }
        if (text.empty()) {
            if (!value.hasZero) {
                Refuse(member, Shown(text), value.choices.empty() ? "a text" : ExpectedText(value));
            }
        } else if (value.kind == Kind::kWord &&
                   std::ranges::find(value.choices, text, &Choice::name) == value.choices.end()) {
            Refuse(member, Shown(text), ExpectedText(value));
        }
    }

    void CheckInside(const Member &member, size_t index, const velto::SlotShape &slot) const {
        const Record &inside = *meaning_.inside[index];
        const uint8_t *first = record_ + slot.offset;
        uint32_t count = slot.kind == velto::Kind::kTable ? 1 : slot.length;
        if (slot.kind == velto::Kind::kTableVector) {
            memcpy(&first, record_ + slot.offset, sizeof first);
            memcpy(&count, record_ + slot.length, sizeof count);
        }
        for (uint32_t i = 0; i < count; ++i) {
            const std::string place = slot.kind == velto::Kind::kTable ? "" : fmt::format("[{}]", i);
            Checked(inside, first + size_t{i} * inside.shape->size, NameOf(member) + place + ": ").CheckMembers();
        }
    }

    const Record &meaning_;
    const uint8_t *const record_;
    const std::string path_;
};

// "pass (1), drop (2) or limit (3)"; of a text, the names alone.
std::string ChoicesText(const Value &value) {
    const char *const last = value.kind == Kind::kFlags ? " and " : " or ";
    std::string text;
    for (size_t i = 0; i < value.choices.size(); ++i) {
        const Choice &one = value.choices[i];
        text += i == 0 ? "" : i + 1 == value.choices.size() ? last : ", ";
        text +=
            value.kind == Kind::kWord ? fmt::format("\"{}\"", one.name) : fmt::format("{} ({})", one.name, one.value);
    }
    return value.kind == Kind::kFlags ? "a sum of " + text : text;
}

std::string RangeText(const Value &value) {
    if (value.most == UINT64_MAX) {
        return value.least == 0 ? "" : fmt::format("at least {}", value.least);
    }
    return value.least == value.most ? std::to_string(value.least) : fmt::format("{} to {}", value.least, value.most);
}

std::string NameOfValue(const Value &value, uint64_t number) {
    if (value.kind == Kind::kSwitch) {
        return number == 0 ? "off" : "on";
    }
    const auto choice = std::ranges::find(value.choices, number, &Choice::value);
    return choice != value.choices.end() ? std::string(choice->name) : WithSign(number, value.kind);
}

// What 0, or an empty text, stands for.
std::string ZeroText(const Value &value) {
    const char *const zero = IsText(value.kind) ? "nothing" : "0";
    if (value.zeroStandsFor != 0) {
        return fmt::format("{} (stands for {})", zero, value.zeroStandsFor);
    }
    return value.zero.empty() ? zero : fmt::format("{} ({})", zero, value.zero);
}

} // namespace

std::string ExpectedText(const Value &value) {
    std::string text = value.choices.empty() ? "" : ChoicesText(value);
    if (const std::string range = RangeText(value); !range.empty() && (value.choices.empty() || value.open)) {
        text += (text.empty() ? "" : " or ") + range;
    }
    const bool zeroIsChoice = std::ranges::find(value.choices, 0u, &Choice::value) != value.choices.end();
    const bool zeroIsToldOf =
        value.kind != Kind::kWord && (zeroIsChoice || (value.choices.empty() && value.least == 0));
    if (!value.hasZero || text.empty() || zeroIsToldOf) {
        return text;
    }
    return ZeroText(value) + (value.choices.size() < 2 ? " or " : ", ") + text;
}

std::vector<std::string> Conditions(const Record &meaning, const Member &member) {
    const Value &value = member.value;
    const auto nameOf = [&](std::string_view wire) { return meaning.members[IndexOf(meaning, wire)].name; };
    std::vector<std::string> texts;
    const std::string range = value.kind == Kind::kSwitch ? "" : RangeText(value);
    if (value.open) {
        texts.push_back(range.empty() ? "or another" : "or " + range);
    } else if (value.choices.empty() && !range.empty()) {
        texts.push_back(range);
    }
    if (value.zeroStandsFor != 0) {
        texts.push_back(fmt::format("0 stands for {}", WithSign(value.zeroStandsFor, value.kind)));
    } else if (!value.zero.empty()) {
        texts.push_back(fmt::format("{}: {}", value.kind < Kind::kText ? "0" : "empty", value.zero));
    }
    if (!value.notAbove.empty()) {
        texts.push_back(fmt::format("at most {}", nameOf(value.notAbove)));
    }
    if (!value.notBelow.empty()) {
        texts.push_back(fmt::format("at least {}", nameOf(value.notBelow)));
    }
    if (!value.matters.empty()) {
        const Value &other = meaning.members[IndexOf(meaning, value.matters)].value;
        texts.push_back(fmt::format("while {} is {}", nameOf(value.matters), NameOfValue(other, value.mattersAt)));
    }
    return texts;
}

namespace {

// Of the first member of a kind whose values have 32 bits; null without one.
const uint32_t *FindNumber(const Record &meaning, const void *record, Kind kind) {
    const auto found = std::ranges::find(meaning.members, kind, [](const Member &one) { return one.value.kind; });
    if (found == meaning.members.end()) {
        return nullptr;
    }
    const size_t offset = meaning.shape->Slot(static_cast<size_t>(found - meaning.members.begin())).offset;
    return reinterpret_cast<const uint32_t *>(static_cast<const uint8_t *>(record) + offset);
}

} // namespace

bool HasResult(const Record &meaning) {
    return std::ranges::find(meaning.members, Kind::kErrno, [](const Member &one) { return one.value.kind; }) !=
           meaning.members.end();
}

uint32_t &ResultIn(const Record &meaning, void *record) {
    if (const uint32_t *const result = FindNumber(meaning, record, Kind::kErrno)) {
        return const_cast<uint32_t &>(*result);
    }
    throw std::logic_error(fmt::format("{} has no result", meaning.type));
}

const uint32_t *ProcessIn(const Record &meaning, const void *record) {
    return FindNumber(meaning, record, Kind::kPid);
}

std::system_error BadMember(const Method &method, std::string_view member, uint64_t found,
                            const std::string &expected) {
    const Member &meaning = method.request->members[IndexOf(*method.request, member)];
    return BadValue(BothNames(meaning).c_str(), WithSign(found, meaning.value.kind), expected);
}

std::system_error BadMember(const Method &method, std::string_view member, std::string_view found,
                            const std::string &expected) {
    const Member &meaning = method.request->members[IndexOf(*method.request, member)];
    return BadValue(BothNames(meaning).c_str(), Shown(found), expected);
}

void Check(const Record &meaning, const void *record) {
    Checked(meaning, record, "").CheckMembers();
}

} // namespace host::meaning
