#include "host/web/access.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <openssl/crypto.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>

#include "host/osal/descriptor.h"
#include "host/osal/hex.h"
#include "host/store/sha256.h"

namespace web {

namespace {

constexpr size_t kTokenBytes = 16;

std::string NewToken() {
    uint8_t bytes[kTokenBytes];
    if (getrandom(bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes)) {
        host::Fail(errno, "getrandom");
    }
    return host::Hex(bytes);
}

// Empty where there is no such file, or nothing in it.
std::string FirstWordOf(const std::string &file) {
    std::ifstream in(file);
    std::string word;
    in >> word;
    return word;
}

// In a time that does not tell how much of it is right.
bool Same(std::string_view left, std::string_view right) {
    return left.size() == right.size() && CRYPTO_memcmp(left.data(), right.data(), left.size()) == 0;
}

// A cookie is any server's on the same host, whatever its port: so the port is in the name. The value outlives a
// restart as the token does, and does not tell it.
std::string CookieOf(const std::string &token, const std::vector<std::string> &hosts) {
    host::Sha256 digest;
    digest.Add("cookie of " + token);
    const std::string &host = hosts.front();
    return fmt::format("tarn-web-{}={}", host.substr(host.rfind(':') + 1), digest.Hex());
}

// What a person sees who has no token, or a wrong one.
std::string SignInPage(std::string_view what) {
    return fmt::format(R"(<!doctype html>
<html lang="en"><head><meta charset="utf-8"><meta name="viewport" content="width=device-width">
<title>Tarn: sign in</title><link rel="stylesheet" href="/style.css"></head>
<body class="sign-in"><main><h1>Tarn</h1><p>{}</p>
<form action="/" method="get"><label>Token <input name="token" autocomplete="off" autofocus required></label>
<button>Sign in</button></form>
<p class="hint">tarn-web prints its address with the token when it starts.</p></main></body></html>
)",
                       what);
}

Response Html(int status, std::string_view what) {
    return {.status = status, .type = "text/html; charset=utf-8", .body = SignInPage(what)};
}

} // namespace

std::string TokenIn(const std::string &file) {
    if (file.empty()) {
        return NewToken();
    }
    if (const std::string token = FirstWordOf(file); !token.empty()) {
        if (token.size() < 2 * kTokenBytes) {
            throw std::runtime_error(fmt::format("{}: found a token of {} letters, expected {} or more", file,
                                                 token.size(), 2 * kTokenBytes));
        }
        return token;
    }
    const std::string token = NewToken();
    const host::Descriptor out(open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR), file);
    const std::string line = token + "\n";
    if (write(out.Fd(), line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        host::Fail(errno, file);
    }
    return token;
}

Access::Access(std::string token, std::vector<std::string> hosts, bool tls)
    : token_(std::move(token)), cookie_(CookieOf(token_, hosts)), hosts_(std::move(hosts)), tls_(tls) {}

bool Access::IsOwnOrigin(const Request &request) const {
    return request.origin == fmt::format("{}://{}", tls_ ? "https" : "http", request.host);
}

bool Access::HasCookie(const Request &request) const {
    std::string_view rest = request.cookie;
    while (!rest.empty()) {
        const size_t end = std::min(rest.find("; "), rest.size());
        if (Same(rest.substr(0, end), cookie_)) {
            return true;
        }
        rest.remove_prefix(std::min(end + 2, rest.size()));
    }
    return false;
}

std::optional<Response> Access::Refuse(const Request &request) const {
    if (std::ranges::count(hosts_, request.host) == 0) { // a name that somebody points at this machine
        return Response{.status = 421,
                        .body = fmt::format("this server is not called so; expected {}; --name adds another\n",
                                            fmt::join(hosts_, " or "))};
    }
    const bool isBearer = Same(request.authorization, "Bearer " + token_);
    const bool changes = request.method != "GET" && request.method != "HEAD";
    if ((!request.origin.empty() || (changes && !isBearer)) && !IsOwnOrigin(request)) {
        return Response{.status = 403, .body = "not from a page of this server\n"};
    }
    if (request.path == "/" && request.query.contains("token")) {
        if (!Same(request.Query("token"), token_)) {
            return Html(403, "That is not the token of this server.");
        }
        const std::string cookie =
            fmt::format("{}; Path=/; HttpOnly; SameSite=Strict{}", cookie_, tls_ ? "; Secure" : "");
        return Response{.status = 303, .headers = {{"Location", "/"}, {"Set-Cookie", cookie}}};
    }
    if (isBearer || HasCookie(request) || request.path == "/style.css") {
        return std::nullopt;
    }
    return request.path == "/" ? Html(401, "Looking at this machine takes its token.")
                               : Response{.status = 401, .body = "expected the token\n"};
}

} // namespace web
