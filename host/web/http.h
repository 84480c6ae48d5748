// HTTP and TLS, by a library that no other file knows.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace web {

// Headers are empty where there is none of the name.
struct Request {
    std::string method, path, body;
    std::map<std::string, std::string> query; // the first of each name
    std::string host, origin, cookie, authorization, lastEventId;

    // Empty where there is none.
    std::string Query(const std::string &name) const;
};

// Sends a piece of an answer; false once nobody takes it any more.
using Write = std::function<bool(std::string_view)>;

struct Response {
    int status = 200;
    std::string type = "text/plain; charset=utf-8";
    std::string body = {};
    std::vector<std::pair<std::string, std::string>> headers = {};
    std::function<void(const Write &)> stream = {}; // in place of the body: writes it piece by piece
};

class HttpServer {
public:
    struct Options {
        std::string address;
        uint16_t port = 0;                                             // 0: any that is free
        std::string certificate, key;                                  // files for TLS; empty: none
        size_t connections = 160;                                      // served at once; more wait
        std::vector<std::pair<std::string, std::string>> headers = {}; // of every answer
    };
    using Handler = std::function<Response(const Request &)>;

    // Listens. The handler runs on as many threads as there are connections. Throws std::runtime_error.
    HttpServer(const Options &options, Handler handler);
    HttpServer(const HttpServer &) = delete;
    HttpServer &operator=(const HttpServer &) = delete;
    ~HttpServer();

    uint16_t Port() const;

    // Serves until Stop, and until the streams have ended.
    void Run();
    void Stop();

private:
    class Core;
    const std::unique_ptr<Core> core_;
};

} // namespace web
