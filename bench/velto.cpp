// The library's own operations: in the regular form, as the runtime sends a type, which is in the fixed form if it has
// one, and those of a build without the byte-swapped branch.
#include "bench/operation.h"

namespace bench {

namespace {

struct Item {
    const void *record;
    std::vector<uint8_t> bytes;
};
using Pool = std::vector<Item>;

std::vector<uint8_t> EncodeRegular(const Codecs &codecs, const void *record) {
    std::vector<uint8_t> bytes(codecs.pack(nullptr, record));
    auto capacity = static_cast<uint32_t>(bytes.size());
    const VeltoOutBuf out{bytes.data(), &capacity};
    if (codecs.pack(&out, record) != bytes.size()) {
        throw std::runtime_error(std::string("the encoder of ") + codecs.type + " does not do what its query says");
    }
    return bytes;
}

std::vector<uint8_t> EncodeFixed(const Codecs &codecs, const void *record) {
    std::vector<uint8_t> bytes(codecs.fixedSize());
    codecs.packFixed(bytes.data(), record);
    return bytes;
}

class System {
public:
    System(const char *name, const Codecs &codecs, const Message &message)
        : name_(name), codecs_(codecs), message_(message) {}

    template <class Encode>
    Pool MakePool(Encode encode) const {
        Pool pool;
        for (const Record &record : message_.records) {
            pool.push_back({record.get(), encode(codecs_, record.get())});
            const std::vector<uint8_t> &bytes = pool.back().bytes;
            std::vector<uint64_t> decoded = NewRecord();
            if (codecs_.unpack(bytes.data(), static_cast<uint32_t>(bytes.size()), decoded.data()) == nullptr) {
                throw std::runtime_error(std::string("the decoder refuses ") + message_.spec.name);
            }
            CheckEqual(name_, message_, record.get(), decoded.data());
        }
        return pool;
    }

    void AddEncode(const Pool &pool, Operations &operations) const {
        std::vector<uint8_t> buffer(LargestBytes(pool));
        Add("encode", pool, operations, [pool, buffer, codecs = codecs_](size_t count) mutable {
            InTurn(pool, count, [&](const Item &item) {
                uint32_t capacity = codecs.pack(nullptr, item.record);
                const VeltoOutBuf out{buffer.data(), &capacity};
                codecs.pack(&out, item.record);
            });
        });
    }

    void AddEncodeFixed(const Pool &pool, Operations &operations) const {
        std::vector<uint8_t> buffer(LargestBytes(pool));
        Add("encode", pool, operations, [pool, buffer, codecs = codecs_](size_t count) mutable {
            InTurn(pool, count, [&](const Item &item) {
                codecs.fixedSize();
                codecs.packFixed(buffer.data(), item.record);
            });
        });
    }

    void AddDecode(const Pool &pool, Operations &operations) const {
        Add("decode", pool, operations, [pool, record = NewRecord(), codecs = codecs_](size_t count) mutable {
            InTurn(pool, count, [&](const Item &item) {
                codecs.unpack(item.bytes.data(), static_cast<uint32_t>(item.bytes.size()), record.data());
                codecs.release(record.data());
            });
        });
    }

private:
    std::vector<uint64_t> NewRecord() const { return std::vector<uint64_t>((message_.recordSize + 7) / 8); }

    static size_t LargestBytes(const Pool &pool) {
        size_t largest = 0;
        for (const Item &item : pool) {
            largest = std::max(largest, item.bytes.size());
        }
        return largest;
    }

    void Add(const char *operation, const Pool &pool, Operations &operations, std::function<void(size_t)> run) const {
        operations.push_back({name_, message_.spec.name, operation, MeanBytes(pool), std::move(run)});
    }

    const char *name_;
    Codecs codecs_;
    const Message &message_;
};

void AddRegular(const System &system, Operations &operations) {
    const Pool pool = system.MakePool(EncodeRegular);
    system.AddEncode(pool, operations);
    system.AddDecode(pool, operations);
}

} // namespace

void AddVelto(const Message &message, Operations &operations) {
    const Codecs &codecs = FindCodecs(VeltoCodecs(), message.spec.type);
    AddRegular(System("velto", codecs, message), operations);
    AddRegular(System("velto_unswapped", FindCodecs(UnswappedCodecs(), message.spec.type), message), operations);
    const System sent("sent", codecs, message);
    if (codecs.packFixed == nullptr) {
        AddRegular(sent, operations);
        return;
    }
    const Pool pool = sent.MakePool(EncodeFixed);
    sent.AddEncodeFixed(pool, operations);
    sent.AddDecode(pool, operations);
}

} // namespace bench
