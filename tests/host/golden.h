// The golden messages: of each a type, its bytes, and for those that are accepted the record.
#pragma once

#include <fstream>
#include <stdexcept>

#include "host/describe/json.h"

struct GoldenMessage {
    const host::describe::Type *type;
    host::describe::Json json; // the whole line
    std::vector<uint8_t> wire;
};

// `name` is accepted or rejected.
inline std::vector<GoldenMessage> Golden(const std::string &name) {
    std::ifstream file(std::string(TARN_GOLDEN) + "/" + name + ".jsonl");
    std::vector<GoldenMessage> messages;
    for (std::string line; std::getline(file, line);) {
        auto json = host::describe::Json::parse(line);
        const auto *const type = host::describe::FindType(json["type"].get<std::string>());
        auto wire = host::describe::FromHex(json["wire"].get<std::string>());
        if (type == nullptr || !wire) {
            throw std::runtime_error(name + ".jsonl: no such type, or no hex: " + line.substr(0, 80));
        }
        messages.push_back({type, std::move(json), std::move(*wire)});
    }
    if (messages.empty()) {
        throw std::runtime_error("no golden messages in " TARN_GOLDEN);
    }
    return messages;
}
