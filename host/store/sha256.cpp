#include "host/store/sha256.h"

#include <openssl/evp.h>

#include <cerrno>
#include <cstdint>
#include <new>

#include <fmt/format.h>

#include "host/osal/error.h"

namespace host {

namespace {

void Check(int done) {
    if (done != 1) {
        Fail(EIO, "SHA-256");
    }
}

} // namespace

struct Sha256::Context {
    Context() {
        if (digest == nullptr) {
            throw std::bad_alloc();
        }
    }
    const std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX *)> digest{EVP_MD_CTX_new(), EVP_MD_CTX_free};
};

Sha256::Sha256() : context_(std::make_unique<Context>()) {
    Check(EVP_DigestInit_ex(context_->digest.get(), EVP_sha256(), nullptr));
}

Sha256::~Sha256() = default;

void Sha256::Add(std::string_view bytes) {
    Check(EVP_DigestUpdate(context_->digest.get(), bytes.data(), bytes.size()));
}

std::string Sha256::Hex() {
    uint8_t digest[EVP_MAX_MD_SIZE];
    unsigned size = 0;
    Check(EVP_DigestFinal_ex(context_->digest.get(), digest, &size));
    std::string hex;
    for (unsigned i = 0; i < size; ++i) {
        hex += fmt::format("{:02x}", digest[i]);
    }
    return hex;
}

} // namespace host
