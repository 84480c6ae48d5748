#include "host/web/http.h"

#include <httplib.h>

#include <stdexcept>

namespace web {

namespace {

constexpr time_t kPatience = 5; // seconds for a peer that neither sends nor takes, and between two requests
constexpr size_t kMostBody = 64 * 1024;

Request RequestOf(const httplib::Request &from) {
    Request request{.method = from.method,
                    .path = from.path,
                    .body = from.body,
                    .query = {},
                    .host = from.get_header_value("Host"),
                    .origin = from.get_header_value("Origin"),
                    .cookie = from.get_header_value("Cookie"),
                    .authorization = from.get_header_value("Authorization"),
                    .lastEventId = from.get_header_value("Last-Event-ID")};
    for (const auto &[name, value] : from.params) {
        request.query.emplace(name, value);
    }
    return request;
}

void Answer(Response &&from, httplib::Response &response) {
    response.status = from.status;
    for (const auto &[name, value] : from.headers) {
        response.set_header(name, value);
    }
    if (!from.stream) {
        response.set_content(from.body, from.type);
        return;
    }
    response.set_chunked_content_provider(
        from.type, [stream = std::move(from.stream)](size_t, httplib::DataSink &sink) {
            bool taken = true;
            stream([&](std::string_view piece) { return taken = taken && sink.write(piece.data(), piece.size()); });
            sink.done();
            return taken;
        });
}

std::unique_ptr<httplib::Server> NewServer(const HttpServer::Options &options) {
    if (options.certificate.empty()) {
        return std::make_unique<httplib::Server>();
    }
    return std::make_unique<httplib::SSLServer>(options.certificate.c_str(), options.key.c_str());
}

} // namespace

std::string Request::Query(const std::string &name) const {
    const auto found = query.find(name);
    return found == query.end() ? "" : found->second;
}

class HttpServer::Core {
public:
    Core(const Options &options, Handler handler) : server_(NewServer(options)), handler_(std::move(handler)) {
        if (!server_->is_valid()) {
            throw std::runtime_error(options.certificate + ", " + options.key +
                                     ": can't be read, or don't belong together; expected a certificate and its key");
        }
        httplib::Headers headers(options.headers.begin(), options.headers.end());
        server_->set_default_headers(std::move(headers));
        server_->set_tcp_nodelay(true);
        server_->set_payload_max_length(kMostBody);
        server_->set_read_timeout(kPatience, 0);
        server_->set_write_timeout(kPatience, 0);
        server_->set_keep_alive_timeout(kPatience);
        const size_t connections = options.connections;
        server_->new_task_queue = [connections] { return new httplib::ThreadPool(connections); };
        const auto handle = [this](const httplib::Request &request, httplib::Response &response) {
            Answer(handler_(RequestOf(request)), response);
        };
        constexpr char kAny[] = ".*";
        server_->Get(kAny, handle).Post(kAny, handle).Put(kAny, handle).Patch(kAny, handle);
        server_->Delete(kAny, handle).Options(kAny, handle);
        const int port = options.port == 0 ? server_->bind_to_any_port(options.address.c_str())
                         : server_->bind_to_port(options.address.c_str(), options.port) ? options.port
                                                                                        : -1;
        if (port < 0) {
            throw std::runtime_error("can't listen on " + options.address + ":" + std::to_string(options.port) +
                                     ": no address of this machine, or another program has it");
        }
        port_ = static_cast<uint16_t>(port);
    }

    uint16_t Port() const { return port_; }
    void Run() { server_->listen_after_bind(); }
    void Stop() { server_->stop(); }

private:
    const std::unique_ptr<httplib::Server> server_;
    const Handler handler_;
    uint16_t port_ = 0;
};

HttpServer::HttpServer(const Options &options, Handler handler)
    : core_(std::make_unique<Core>(options, std::move(handler))) {}

HttpServer::~HttpServer() = default;

uint16_t HttpServer::Port() const {
    return core_->Port();
}

void HttpServer::Run() {
    core_->Run();
}

void HttpServer::Stop() {
    core_->Stop();
}

} // namespace web
