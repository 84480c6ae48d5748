// tarn-web: a page that shows what the diagnosis daemon tells, of one machine or of a fleet.
#include <csignal>
#include <filesystem>
#include <iostream>
#include <pthread.h>

#include <fmt/format.h>

#include <optional>
#include <thread>

#include "host/fleet/caller.h"
#include "host/fleet/settings_file.h"
#include "host/osal/log.h"
#include "host/serve/main_loop.h"
#include "host/serve/serve.h"
#include "host/serve/service_manager.h"
#include "host/web/site.h"

namespace {

struct Options {
    std::string listen = "127.0.0.1:8010", runDir, fleet, tokenFile, certificate, key, page;
    std::vector<std::string> names, allow;
    host::LogLevel logLevel = host::LogLevel::kInfo;
};

// Where it listens: "127.0.0.1:8010", "[::1]:8010".
struct Address {
    std::string host;
    uint16_t port = 0;
};

std::optional<Address> AddressOf(const std::string &text) {
    const size_t colon = text.rfind(':');
    if (colon == text.npos || colon == 0 || colon + 1 == text.size() || text.size() - colon > 6) {
        return std::nullopt;
    }
    const std::string port = text.substr(colon + 1);
    std::string host = text.substr(0, colon);
    if (port.find_first_not_of("0123456789") != port.npos || std::stoul(port) > UINT16_MAX) {
        return std::nullopt;
    }
    if (host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    } else if (host.find(':') != host.npos) {
        return std::nullopt;
    }
    return Address{host, static_cast<uint16_t>(std::stoul(port))};
}

bool IsLoopback(const std::string &host) {
    return host == "localhost" || host == "::1" || host.starts_with("127.");
}

std::string CheckListen(const std::string &text) {
    return AddressOf(text) ? "" : fmt::format("found {}, expected ADDRESS:PORT, such as 127.0.0.1:8010", text);
}

std::string CheckAllow(const std::string &group) {
    return group == "settings" || group == "commands" ? ""
                                                      : fmt::format("found {}, expected settings or commands", group);
}

std::string CheckName(const std::string &name) {
    constexpr char kLetters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-.";
    return !name.empty() && name.find_first_not_of(kLetters) == name.npos
               ? ""
               : fmt::format("found {}, expected a host's name, without a port", name);
}

// Beside this program, wherever both are installed.
std::filesystem::path OwnDirectory() {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path();
}

web::Devices MakeDevices(const Options &options) {
    const std::string tarnctl = (OwnDirectory() / "tarnctl").string();
    if (options.fleet.empty()) {
        return {options.runDir, tarnctl};
    }
    fleet::SettingsFile file = fleet::SettingsFile::Load(options.fleet);
    const fleet::Account account = file.TakeAccount();
    file.ExpectNothingElse();
    return {account, fleet::OwnName() + " (tarn-web)", tarnctl};
}

// What a browser may call it.
std::vector<std::string> HostsOf(const Address &address, uint16_t port, const std::vector<std::string> &names) {
    const bool isV6 = address.host.find(':') != address.host.npos;
    std::vector<std::string> hosts{isV6 ? "[" + address.host + "]" : address.host};
    if (IsLoopback(address.host)) {
        hosts.emplace_back("localhost");
    }
    hosts.insert(hosts.end(), names.begin(), names.end());
    std::vector<std::string> all;
    for (const std::string &host : hosts) {
        all.push_back(fmt::format("{}:{}", host, port));
    }
    return all;
}

// There is a thread for each connection, and none needs much: what is usual would fill 32 bits of addresses.
void KeepStacksSmall() {
    constexpr size_t kStack = 1024 * 1024;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, kStack);
    pthread_setattr_default_np(&attributes);
    pthread_attr_destroy(&attributes);
}

int Run(const Options &options) {
    const Address address = *AddressOf(options.listen);
    const bool tls = !options.certificate.empty();
    if (!tls && !IsLoopback(address.host)) {
        throw std::runtime_error(fmt::format("--listen {}: others could read along, expected an address of this "
                                             "machine alone, or --tls-certificate and --tls-key",
                                             options.listen));
    }
    host::BlockSignals();
    KeepStacksSmall();
    web::Devices devices = MakeDevices(options);
    std::optional<web::Site> site;
    web::HttpServer server({.address = address.host,
                            .port = address.port,
                            .certificate = options.certificate,
                            .key = options.key,
                            .headers = web::Site::Headers()},
                           [&site](const web::Request &request) { return site->Answer(request); });
    const std::vector<std::string> hosts = HostsOf(address, server.Port(), options.names);
    const std::string token = web::TokenIn(options.tokenFile);
    const std::filesystem::path page = options.page.empty() ? (OwnDirectory() / TARN_WEB_PAGE).string() : options.page;
    site.emplace(web::Site::Options{.page = page,
                                    .chart = TARN_WEB_CHART,
                                    .allow = {options.allow.begin(), options.allow.end()}},
                 web::Access(token, hosts, tls), devices);
    std::thread serving([&server] { server.Run(); });
    const std::string url = fmt::format("{}://{}/", tls ? "https" : "http", hosts.front());
    if (options.tokenFile.empty()) {
        std::cout << url << "?token=" << token << std::endl;
    } else {
        std::cout << fmt::format("{} with the token in {}", url, options.tokenFile) << std::endl;
    }
    host::service_manager::TellReady("serves " + url);
    const int signal = host::AwaitEnd();
    host::Log().info("signal {}: shutting down", signal);
    host::service_manager::TellStopping();
    site->Stop();
    server.Stop();
    serving.join();
    return 0;
}

} // namespace

int main(int argc, char **argv) {
    Options options;
    host::CommandLine line("tarn-web", "Shows what the diagnosis daemon tells, as a page");
    line.Option("--listen", options.listen, "ADDRESS:PORT", host::WithDefault("Where it serves", options.listen),
                CheckListen);
    line.Repeated("--name", options.names, "HOST", "What else a browser may call this server", CheckName);
    line.Option("--run-dir", options.runDir, "DIR", "Directory of the daemon's sockets [$TARN_RUN_DIR, or /run/tarn]");
    line.Option("--fleet", options.fleet, "FILE", "In place of this machine the fleet whose server that file names");
    line.List("--allow", options.allow, "GROUPS", "What may be changed from the page: settings, commands [nothing]",
              CheckAllow);
    line.Option("--token-file", options.tokenFile, "FILE",
                "Of the token; made where there is none [a new one, printed]");
    line.Option("--tls-certificate", options.certificate, "FILE", "What it shows of itself, for TLS");
    line.Option("--tls-key", options.key, "FILE", "The certificate's key");
    line.Option("--page", options.page, "DIR", "The page's files [those installed with this program]");
    line.LogLevelOption("--log-level", options.logLevel);
    if (const auto code = line.Parse(argc, argv)) {
        return *code;
    }
    host::Log().set_level(options.logLevel);
    try {
        return Run(options);
    } catch (const std::exception &error) {
        std::cerr << "tarn-web: " << error.what() << "\n";
        return 1;
    }
}
