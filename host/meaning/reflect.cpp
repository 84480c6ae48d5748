#include "host/meaning/reflect.h"

#include <map>
#include <optional>
#include <set>
#include <tuple>
#include <vector>

#include "host/meaning/groups.h"
#include "host/meaning/unit.h"
#include "host/osal/json_writer.h"
#include "velto/shape.h"

namespace host::meaning {

namespace {

// Numbers of records; none for what is no record.
using Number = std::optional<size_t>;

// A text that may be null.
std::optional<std::string_view> Known(const char *text) {
    return text == nullptr ? std::nullopt : std::optional<std::string_view>(text);
}

void WriteChoices(JsonWriter &json, std::span<const Choice> choices) {
    json.Array("choices", [&] {
        for (const Choice &one : choices) {
            json.Object([&] {
                json.Member("value", one.value);
                json.Member("name", one.name);
                json.Member("sentence", one.sentence);
            });
        }
    });
}

void WriteMeaning(JsonWriter &json, const Member &member) {
    const Value &value = member.value;
    const auto add = [&json](const char *key, const auto &what, const auto &nothing) {
        if (what != nothing) {
            json.Member(key, what);
        }
    };
    json.Object([&] {
        json.Member("wire", member.wire);
        json.Member("name", member.name);
        json.Member("kind", NameOf(value.kind));
        json.Member("sentence", member.sentence);
        add("least", value.least, uint64_t{0});
        add("most", value.most, UINT64_MAX);
        add("open", value.open, false);
        if (value.hasZero) {
            json.Member("zero", value.zero);
        }
        add("standsFor", value.zeroStandsFor, uint64_t{0});
        add("notAbove", value.notAbove, std::string_view());
        add("notBelow", value.notBelow, std::string_view());
        if (!value.matters.empty()) {
            json.Member("matters", value.matters);
            json.Member("mattersAt", value.mattersAt);
        }
        if (!value.choices.empty()) {
            WriteChoices(json, value.choices);
        }
    });
}

void WriteType(JsonWriter &json, const Record &record) {
    json.Object([&] {
        json.Member("name", record.type);
        json.Member("hash", velto::TypeHash(record.type));
        json.Array("slots", [&] {
            for (uint32_t i = 0; i < record.shape->slotNum; ++i) {
                const velto::SlotShape &slot = record.shape->Slot(i);
                const velto::SlotName &name = record.slots[i];
                const Record *const inside = record.inside[i];
                json.Object([&] {
                    json.Member("member", name.member);
                    json.Member("count", Known(name.count));
                    json.Member("kind", kSlotKinds[static_cast<size_t>(slot.kind)]);
                    json.Member("width", inside == nullptr ? slot.width : 0);
                    json.Member("length", velto::IsVectorKind(slot.kind) ? 0 : slot.length);
                    json.Member("type", Known(inside == nullptr ? nullptr : inside->type));
                });
            }
        });
    });
}

// Gives records and types their numbers, each once, what is inside before what holds it.
class Writer {
public:
    std::string Write(std::span<const Service *const> services) {
        JsonWriter json;
        json.Object([&] {
            json.Array("services", [&] {
                for (const Service *service : services) {
                    WriteService(json, *service);
                }
            });
            json.Array("records", [&] { json.Written(records_); });
            json.Array("types", [&] { json.Written(types_); });
        });
        return json.Text();
    }

private:
    void WriteService(JsonWriter &json, const Service &service) {
        json.Object([&] {
            json.Member("name", service.name);
            json.Member("sentence", service.sentence);
            json.Array("methods", [&] {
                size_t index = 0;
                for (const Method *method : service.methods) {
                    WriteMethod(json, *method, ++index);
                }
            });
        });
    }

    void WriteMethod(JsonWriter &json, const Method &method, size_t index) {
        json.Object([&] {
            json.Member("name", method.name);
            json.Member("index", index);
            json.Member("group", host::NameOf(method.group));
            json.Member("long", method.duration == Duration::kLong);
            json.Member("sentence", method.sentence);
            json.Member("example", method.example);
            json.Member("request", NumberOf(method.request));
            json.Member("response", NumberOf(method.response));
        });
    }

    Number NumberOf(const Record *record) {
        if (record == nullptr) {
            return {};
        }
        std::vector<Number> inside;
        for (const Record *one : record->inside) {
            inside.push_back(NumberOf(one));
        }
        const auto [found, added] =
            numbers_.try_emplace({record->type, record->members.data(), inside}, numbers_.size());
        if (added) {
            if (known_.insert(record->type).second) {
                WriteType(types_, *record);
            }
            WriteRecord(*record, inside);
        }
        return found->second;
    }

    void WriteRecord(const Record &record, const std::vector<Number> &inside) {
        records_.Object([&] {
            records_.Member("type", record.type);
            records_.Array("members", [&] {
                for (const Member &member : record.members) {
                    WriteMeaning(records_, member);
                }
            });
            records_.Array("inside", [&] {
                for (const Number &one : inside) {
                    records_.Value(one);
                }
            });
        });
    }

    std::map<std::tuple<std::string_view, const Member *, std::vector<Number>>, size_t> numbers_;
    std::set<std::string_view> known_;
    JsonWriter records_, types_; // elements of arrays
};

} // namespace

std::string MeaningJson(const Member &member) {
    JsonWriter json;
    WriteMeaning(json, member);
    return json.Text();
}

std::string Reflect(std::span<const Service *const> services) {
    return Writer().Write(services);
}

} // namespace host::meaning
