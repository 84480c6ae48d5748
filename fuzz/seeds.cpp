// Writes the golden messages as inputs of the fuzz targets: `fuzz_seeds GOLDEN-DIRECTORY OUTPUT-DIRECTORY` makes a
// folder for each target. What is committed under corpus/ is these and what fuzzing has found, minimised.
#include <filesystem>
#include <fstream>

#include "fuzz/check.h"
#include "fuzz/input.h"
#include "host/describe/explain.h"
#include "host/describe/json.h"
#include "host/runtime/protocol.h"

namespace describe = host::describe;
namespace fs = std::filesystem;

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint16_t kPayloadLimit = 20000;

class Folder {
public:
    explicit Folder(const fs::path &path) : path_(path) { fs::create_directories(path_); }

    void Write(const Bytes &prefix, std::span<const uint8_t> content) {
        std::ofstream stream(path_ / std::to_string(count_++), std::ios::binary);
        for (const std::span<const uint8_t> part : {std::span<const uint8_t>(prefix), content}) {
            stream.write(reinterpret_cast<const char *>(part.data()), static_cast<std::streamsize>(part.size()));
        }
        FUZZ_CHECK(stream.flush().good(), "can't write to %s", path_.c_str());
    }

private:
    fs::path path_;
    size_t count_ = 0;
};

Bytes Prefix(const describe::Type &type, uint8_t mode) {
    const uint16_t key = fuzz::TypeKey(type.hash);
    return {static_cast<uint8_t>(key), static_cast<uint8_t>(key >> 8), mode};
}

// Pieces that end within the header, within the payload, and wherever there is room.
Bytes FramePrefix(uint8_t first) {
    return {kPayloadLimit & 0xFF, kPayloadLimit >> 8, first, 60, 200, 0};
}

class Seeds {
public:
    explicit Seeds(const fs::path &path)
        : codec_(path / "codec_fuzzer"), frame_(path / "frame_fuzzer"), json_(path / "json_fuzzer") {}

    void Add(const describe::Type &type, const Bytes &wire) {
        codec_.Write(Prefix(type, 0), wire);
        json_.Write(Prefix(type, 1), wire);
        if (auto record = describe::Decode(type, wire)) {
            const std::string text = describe::ToJson(*record).dump();
            json_.Write(Prefix(type, 0), {reinterpret_cast<const uint8_t *>(text.data()), text.size()});
        }
    }

    // Its record of zeros, in both forms.
    void AddZero(const describe::Type &type) {
        const describe::Record record(type);
        Add(type, describe::Encode(record));
        if (type.fixed) {
            Add(type, describe::Encode(record, describe::Form::kFixed));
        }
    }

    // A stream of two frames, for each kind and some methods; one whose payload has room of its own; and bad starts.
    void AddFrames(const Bytes &wire) {
        const auto &methods = describe::Methods();
        for (size_t i = 0; i < methods.size(); i += 30) {
            for (uint16_t kind = 0; kind <= 5; ++kind) {
                AddStream(methods[i], static_cast<host::FrameKind>(kind), wire);
            }
        }
        AddStream(methods[0], host::FrameKind::kReply, Bytes(kPayloadLimit, 0x55));
        AddStream(methods[0], host::FrameKind::kReply, Bytes(kPayloadLimit + 1, 0x55));
        const std::string text = "GET / HTTP/1.1\r\n\r\n";
        frame_.Write(FramePrefix(1), {reinterpret_cast<const uint8_t *>(text.data()), text.size()});
    }

private:
    void AddStream(const describe::Method &method, host::FrameKind kind, const Bytes &payload) {
        host::FrameHeader header;
        header.kind = kind;
        header.id = 0x0102030405060708;
        header.typeHash = method.request->hash;
        header.deadlineMs = 5000;
        header.explanationSize = static_cast<uint32_t>(payload.size() / 2);
        header.takes = host::kTakesExplanation;
        header.errCode = kind == host::FrameKind::kError ? 110 : 0;
        strncpy(header.service, method.service, host::kServiceSize);
        strncpy(header.method, method.name, host::kMethodSize);
        Bytes stream = host::MakeFrame(header, payload);
        const Bytes empty = host::MakeFrame(header, {});
        stream.insert(stream.end(), empty.begin(), empty.end());
        frame_.Write(FramePrefix(static_cast<uint8_t>(kind) * 20), stream);
    }

    Folder codec_, frame_, json_;
};

void AddFile(Seeds &seeds, const fs::path &path) {
    std::ifstream stream(path);
    size_t count = 0;
    for (std::string line; std::getline(stream, line); ++count) {
        const auto vector = describe::ParseJson(line);
        const auto *const type = describe::FindType(vector.at("type").get<std::string>());
        const auto wire = describe::FromHex(vector.at("wire").get<std::string>());
        FUZZ_CHECK(type != nullptr && wire, "%s:%zu: no message of a known type", path.c_str(), count + 1);
        seeds.Add(*type, *wire);
        if (count == 100) {
            seeds.AddFrames(*wire);
        }
    }
    FUZZ_CHECK(count > 100, "%s: %zu messages", path.c_str(), count);
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: %s GOLDEN-DIRECTORY OUTPUT-DIRECTORY\n", argv[0]);
        return 2;
    }
    Seeds seeds(argv[2]);
    for (const char *name : {"accepted.jsonl", "rejected.jsonl"}) {
        AddFile(seeds, fs::path(argv[1]) / name);
    }
    for (const describe::Type &type : describe::Types()) {
        seeds.AddZero(type);
    }
    return 0;
}
