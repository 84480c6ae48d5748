// Protocol Buffers: one object in an arena, reused. `protobuf` serializes and parses it; `protobuf_fill` also fills it
// from the native record and reads every field of it into one.
#include <google/protobuf/arena.h>

#include <iterator>

#include "bench/carry.h"
#include "bench/operation.h"
#include "protobuf/bench.pb.h"

#include "tarn_sysdiag/types/agent.h"
#include "tarn_sysdiag/types/master.h"
#include "tarn_sysdiag/types/tarnd.h"
#include "tarn_sysdiag/types/tarnd_agent.h"

namespace bench {

template <class Value, class From>
void Set(Value &to, From from) {
    to = static_cast<Value>(from);
}

template <size_t kSize>
void ReadBytes(const std::string &from, char (&to)[kSize]) {
    RequireSize(from.size(), kSize);
    memcpy(to, from.data(), kSize);
}

inline void ReadText(const std::string &from, char *&to) {
    to = CopyText(from.data(), from.size());
}

template <class List, class Value, size_t kSize>
void ReadArray(const List &from, Value (&to)[kSize]) {
    RequireSize(static_cast<size_t>(from.size()), kSize);
    memcpy(to, from.data(), sizeof to);
}

template <class List, class Value>
void ReadVector(const List &from, Value *&to, uint32_t &count) {
    count = static_cast<uint32_t>(from.size());
    to = NewArray<Value>(count);
    memcpy(to, from.data(), sizeof(Value) * count);
}

template <class Element, class List>
void FillTables(const Element *from, size_t count, List &to) {
    to.Reserve(static_cast<int>(count));
    for (size_t i = 0; i < count; ++i) {
        Fill(from[i], *to.Add());
    }
}

template <class List, class Element, size_t kSize>
void ReadRun(const List &from, Element (&to)[kSize]) {
    RequireSize(static_cast<size_t>(from.size()), kSize);
    for (size_t i = 0; i < kSize; ++i) {
        Read(from[static_cast<int>(i)], to[i]);
    }
}

template <class List, class Element>
void ReadTables(const List &from, Element *&to, uint32_t &count) {
    count = static_cast<uint32_t>(from.size());
    to = NewArray<Element>(count);
    for (uint32_t i = 0; i < count; ++i) {
        Read(from[static_cast<int>(i)], to[i]);
    }
}

#include "protobuf_carriers.h"

namespace {

template <class Object>
struct Item {
    const void *record;
    Object *object; // filled
    std::vector<uint8_t> bytes;
};

template <class Object>
void Serialize(const Object &object, uint8_t *bytes) {
    object.ByteSizeLong(); // and keeps the sizes of what is nested
    object.SerializeWithCachedSizesToArray(bytes);
}

template <class Object>
void Parse(const std::vector<uint8_t> &bytes, Object &object) {
    if (!object.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()))) {
        throw std::runtime_error("protobuf refuses what it serialized");
    }
}

template <class Native, class Object>
class System {
    using Pool = std::vector<Item<Object>>;

public:
    explicit System(const Message &message) : message_(message) {
        release_ = FindCodecs(VeltoCodecs(), message.spec.type).release;
        for (const Record &record : message.records) {
            auto *const object = NewObject();
            Fill(NativeOf(record.get()), *object);
            pool_.push_back({record.get(), object, std::vector<uint8_t>(object->ByteSizeLong())});
            Serialize(*object, pool_.back().bytes.data());
            largest_ = std::max(largest_, pool_.back().bytes.size());
            auto *const parsed = NewObject();
            Parse(pool_.back().bytes, *parsed);
            Native native;
            Read(*parsed, native);
            CheckEqual("protobuf", message, record.get(), &native);
        }
    }

    void AddTo(Operations &operations) {
        std::vector<uint8_t> buffer(largest_);
        Add("protobuf", "encode", operations, [pool = pool_, buffer](size_t count) mutable {
            InTurn(pool, count, [&](const auto &item) { Serialize(*item.object, buffer.data()); });
        });
        Add("protobuf", "decode", operations, [pool = pool_, object = NewObject()](size_t count) {
            InTurn(pool, count, [&](const auto &item) { Parse(item.bytes, *object); });
        });
        Add("protobuf_fill", "encode", operations, [pool = pool_, buffer, object = NewObject()](size_t count) mutable {
            InTurn(pool, count, [&](const auto &item) {
                object->Clear();
                Fill(NativeOf(item.record), *object);
                Serialize(*object, buffer.data());
            });
        });
        Add("protobuf_fill", "decode", operations,
            [pool = pool_, object = NewObject(), release = release_](size_t count) {
                Native native;
                InTurn(pool, count, [&](const auto &item) {
                    Parse(item.bytes, *object);
                    Read(*object, native);
                    release(&native);
                });
            });
    }

private:
    // The benchmark's objects live as long as the process.
    static Object *NewObject() {
        static google::protobuf::Arena arena;
        return google::protobuf::Arena::CreateMessage<Object>(&arena);
    }

    static const Native &NativeOf(const void *record) { return *static_cast<const Native *>(record); }

    void Add(const char *system, const char *operation, Operations &operations, std::function<void(size_t)> run) {
        operations.push_back({system, message_.spec.name, operation, MeanBytes(pool_), std::move(run)});
    }

    const Message &message_;
    VeltoFreeFn release_;
    Pool pool_;
    size_t largest_ = 0;
};

} // namespace

void AddProtobuf(const Message &message, Operations &operations) {
#define ADD(name)                                                                                                      \
    if (message.spec.type == std::string(#name)) {                                                                     \
        System<Tarn_sys_diag_##name, name>(message).AddTo(operations);                                                 \
    }
    BENCH_TYPES(ADD)
#undef ADD
}

} // namespace bench
