// Cap'n Proto: a message is built from the native record in a segment that is reused, and needs no step more to be
// sent; to decode, every field is read into a native record.
#include <capnp/message.h>
#include <capnp/serialize.h>

#include <iterator>

#include "bench/carry.h"
#include "bench/operation.h"
#include "capnp/bench.capnp.h"

#include "tarn_sysdiag/types/agent.h"
#include "tarn_sysdiag/types/master.h"
#include "tarn_sysdiag/types/tarnd.h"
#include "tarn_sysdiag/types/tarnd_agent.h"

namespace bench {

namespace capnp_schema {

template <size_t kSize>
capnp::Data::Reader Bytes(const char (&from)[kSize]) {
    return {reinterpret_cast<const kj::byte *>(from), kSize};
}

template <size_t kSize>
void ReadBytes(capnp::Data::Reader from, char (&to)[kSize]) {
    RequireSize(from.size(), kSize);
    memcpy(to, from.begin(), kSize);
}

inline void ReadText(capnp::Text::Reader from, char *&to) {
    to = CopyText(from.begin(), from.size());
}

template <class Value, class List>
void FillScalars(const Value *from, List to) {
    for (uint32_t i = 0; i < to.size(); ++i) {
        to.set(i, from[i]);
    }
}

template <class List, class Value, size_t kSize>
void ReadArray(List from, Value (&to)[kSize]) {
    RequireSize(from.size(), kSize);
    for (uint32_t i = 0; i < kSize; ++i) {
        to[i] = from[i];
    }
}

template <class List, class Value>
void ReadVector(List from, Value *&to, uint32_t &count) {
    count = from.size();
    to = NewArray<Value>(count);
    for (uint32_t i = 0; i < count; ++i) {
        to[i] = from[i];
    }
}

template <class Element, class List>
void FillTables(const Element *from, List to) {
    for (uint32_t i = 0; i < to.size(); ++i) {
        Fill(from[i], to[i]);
    }
}

template <class List, class Element, size_t kSize>
void ReadRun(List from, Element (&to)[kSize]) {
    RequireSize(from.size(), kSize);
    for (uint32_t i = 0; i < kSize; ++i) {
        Read(from[i], to[i]);
    }
}

template <class List, class Element>
void ReadTables(List from, Element *&to, uint32_t &count) {
    count = from.size();
    to = NewArray<Element>(count);
    for (uint32_t i = 0; i < count; ++i) {
        Read(from[i], to[i]);
    }
}

#include "capnp_carriers.h"

} // namespace capnp_schema

namespace {

using Segment = kj::ArrayPtr<capnp::word>;

struct Item {
    const void *record;
    kj::Array<capnp::word> bytes; // with the table of segments before them
};

template <class Native, class Root>
class System {
public:
    explicit System(const Message &message) : message_(message) {
        release_ = FindCodecs(VeltoCodecs(), message.spec.type).release;
        for (const Record &record : message.records) {
            capnp::MallocMessageBuilder builder;
            Fill(NativeOf(record.get()), builder.initRoot<Root>());
            pool_->push_back({record.get(), capnp::messageToFlatArray(builder)});
            bytes_ += pool_->back().bytes.asBytes().size();
            largest_ = std::max(largest_, pool_->back().bytes.size());
            Native native;
            ReadMessage(pool_->back().bytes, native);
            CheckEqual("capnp", message, record.get(), &native);
        }
        bytes_ /= pool_->size();
    }

    void AddTo(Operations &operations) {
        auto memory = std::make_shared<std::vector<uint64_t>>(largest_); // the builder leaves it zero, as it wants it
        Add("encode", operations, [pool = pool_, memory](size_t count) {
            const Segment segment(reinterpret_cast<capnp::word *>(memory->data()), memory->size());
            InTurn(*pool, count, [&](const Item &item) {
                capnp::MallocMessageBuilder builder(segment);
                Fill(NativeOf(item.record), builder.initRoot<Root>());
                capnp::computeSerializedSizeInWords(builder);
                KeepMemory();
            });
        });
        Add("decode", operations, [pool = pool_, release = release_](size_t count) {
            Native native;
            InTurn(*pool, count, [&](const Item &item) {
                ReadMessage(item.bytes, native);
                release(&native);
            });
        });
    }

private:
    static void ReadMessage(const kj::Array<capnp::word> &bytes, Native &native) {
        capnp::FlatArrayMessageReader reader(bytes);
        Read(reader.getRoot<Root>(), native);
    }

    static const Native &NativeOf(const void *record) { return *static_cast<const Native *>(record); }

    void Add(const char *operation, Operations &operations, std::function<void(size_t)> run) {
        operations.push_back({"capnp", message_.spec.name, operation, bytes_, std::move(run)});
    }

    const Message &message_;
    VeltoFreeFn release_;
    std::shared_ptr<std::vector<Item>> pool_ = std::make_shared<std::vector<Item>>();
    size_t bytes_ = 0, largest_ = 0;
};

} // namespace

void AddCapnp(const Message &message, Operations &operations) {
#define ADD(name)                                                                                                      \
    if (message.spec.type == std::string(#name)) {                                                                     \
        System<Tarn_sys_diag_##name, capnp_schema::name>(message).AddTo(operations);                                   \
    }
    BENCH_TYPES(ADD)
#undef ADD
}

} // namespace bench
