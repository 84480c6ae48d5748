// SHA-256 digests.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace host {

class Sha256 {
public:
    Sha256();
    ~Sha256();
    Sha256(const Sha256 &) = delete;
    Sha256 &operator=(const Sha256 &) = delete;

    void Add(std::string_view bytes);

    // Of all that was added, in hexadecimal digits; once.
    std::string Hex();

private:
    struct Context;
    const std::unique_ptr<Context> context_;
};

} // namespace host
