// nanopb: from and to its own static structs, which are plain C records like the library's. It is the peer that a
// device would use.
#include <pb_decode.h>
#include <pb_encode.h>

#include <iterator>

#include "bench/carry.h"
#include "bench/operation.h"
#include "nanopb/bench.pb.h"

#include "tarn_sysdiag/types/agent.h"
#include "tarn_sysdiag/types/master.h"
#include "tarn_sysdiag/types/tarnd.h"
#include "tarn_sysdiag/types/tarnd_agent.h"

template <class From, class To, size_t kSize>
void CopyArray(const From (&from)[kSize], To (&to)[kSize]) {
    static_assert(sizeof from == sizeof to);
    memcpy(to, from, sizeof to);
}

// A text is too long for its structs: it is written from where it stands, and read into a static buffer.
struct TextBuffer {
    char text[bench::kTextLength + 1];
};
inline TextBuffer textBuffer;

inline bool WriteText(pb_ostream_t *stream, const pb_field_t *field, void *const *text) {
    const auto *const bytes = static_cast<const pb_byte_t *>(*text);
    return pb_encode_tag_for_field(stream, field) &&
           pb_encode_string(stream, bytes, strlen(static_cast<const char *>(*text)));
}

inline bool ReadIntoBuffer(pb_istream_t *stream, const pb_field_t *, void **) {
    const size_t length = stream->bytes_left;
    if (length >= sizeof textBuffer.text) {
        return false;
    }
    textBuffer.text[length] = 0;
    return pb_read(stream, reinterpret_cast<pb_byte_t *>(textBuffer.text), length);
}

inline void FillText(char *from, pb_callback_t &to) {
    to.funcs.encode = WriteText;
    to.arg = from;
}

inline void ReadText(const pb_callback_t &, char *&to) {
    to = bench::CopyText(textBuffer.text, strlen(textBuffer.text));
}

template <class Value>
void FillVector(const Value *from, uint32_t count, Value *to, pb_size_t &toCount) {
    toCount = static_cast<pb_size_t>(count);
    memcpy(to, from, sizeof(Value) * count);
}

template <class Value>
void ReadVector(const Value *from, pb_size_t fromCount, Value *&to, uint32_t &count) {
    count = fromCount;
    to = bench::NewArray<Value>(count);
    memcpy(to, from, sizeof(Value) * count);
}

template <class Native, class Struct>
void FillTables(const Native *from, size_t count, Struct *to) {
    for (size_t i = 0; i < count; ++i) {
        Fill(from[i], to[i]);
    }
}

template <class Native, class Struct, size_t kSize>
void ReadRun(const Struct (&from)[kSize], Native (&to)[kSize]) {
    for (size_t i = 0; i < kSize; ++i) {
        Read(from[i], to[i]);
    }
}

template <class Native, class Struct>
void ReadTables(const Struct *from, pb_size_t fromCount, Native *&to, uint32_t &count) {
    count = fromCount;
    to = bench::NewArray<Native>(count);
    for (uint32_t i = 0; i < count; ++i) {
        Read(from[i], to[i]);
    }
}

#include "nanopb_carriers.h"

namespace bench {

namespace {

template <class Struct>
struct Item {
    std::unique_ptr<Struct> object;
    std::vector<uint8_t> bytes;
};

// Where a struct has a text, the decoder is told in the struct what to do with it.
template <class Struct>
void PrepareDecode(Struct &object) {
    if constexpr (requires { object.szValue.funcs; }) {
        object.szValue.funcs.decode = ReadIntoBuffer;
    }
}

template <class Native, class Struct>
class System {
    using Pool = std::vector<Item<Struct>>;

public:
    explicit System(const Message &message, const pb_msgdesc_t *fields) : message_(message), fields_(fields) {
        for (const Record &record : message.records) {
            auto object = std::make_unique<Struct>();
            Fill(*static_cast<const Native *>(record.get()), *object);
            size_t size = 0;
            Require(pb_get_encoded_size(&size, fields, object.get()), "encodes");
            std::vector<uint8_t> bytes(size);
            Require(Encode(fields, *object, bytes.data(), size), "encodes");
            auto decoded = std::make_unique<Struct>();
            Require(Decode(fields, bytes, *decoded), "decodes");
            auto native = std::make_unique<Native>();
            Read(*decoded, *native);
            CheckEqual("nanopb", message, record.get(), native.get());
            pool_->push_back({std::move(object), std::move(bytes)});
            largest_ = std::max(largest_, size);
        }
    }

    void AddTo(Operations &operations) {
        Add("encode", operations,
            [pool = pool_, fields = fields_, buffer = std::vector<uint8_t>(largest_)](size_t count) mutable {
                InTurn(*pool, count, [&](const Item<Struct> &item) {
                    size_t size = 0;
                    pb_get_encoded_size(&size, fields, item.object.get());
                    Encode(fields, *item.object, buffer.data(), size);
                });
            });
        Add("decode", operations, [pool = pool_, fields = fields_, object = std::make_shared<Struct>()](size_t count) {
            InTurn(*pool, count, [&](const Item<Struct> &item) { Decode(fields, item.bytes, *object); });
        });
    }

private:
    static bool Encode(const pb_msgdesc_t *fields, const Struct &object, uint8_t *buffer, size_t size) {
        pb_ostream_t stream = pb_ostream_from_buffer(buffer, size);
        return pb_encode(&stream, fields, &object);
    }

    static bool Decode(const pb_msgdesc_t *fields, const std::vector<uint8_t> &bytes, Struct &object) {
        PrepareDecode(object);
        pb_istream_t stream = pb_istream_from_buffer(bytes.data(), bytes.size());
        return pb_decode(&stream, fields, &object);
    }

    void Require(bool done, const char *what) {
        if (!done) {
            throw std::runtime_error(std::string("nanopb no longer ") + what + ' ' + message_.spec.name);
        }
    }

    void Add(const char *operation, Operations &operations, std::function<void(size_t)> run) {
        operations.push_back({"nanopb", message_.spec.name, operation, MeanBytes(*pool_), std::move(run)});
    }

    const Message &message_;
    const pb_msgdesc_t *fields_;
    std::shared_ptr<Pool> pool_ = std::make_shared<Pool>();
    size_t largest_ = 0;
};

} // namespace

void AddNanopb(const Message &message, Operations &operations) {
    if (!FitsNanopb(message)) {
        return;
    }
#define ADD(name)                                                                                                      \
    if (message.spec.type == std::string(#name)) {                                                                     \
        System<Tarn_sys_diag_##name, bench_##name>(message, bench_##name##_fields).AddTo(operations);                  \
    }
    BENCH_TYPES(ADD)
#undef ADD
}

} // namespace bench
