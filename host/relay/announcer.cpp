#include "host/relay/announcer.h"

#include <fmt/format.h>
#include <sys/random.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <ctime>
#include <nlohmann/json.hpp>

#include "host/osal/log.h"
#include "host/osal/text.h"
#include "host/runtime/status.h"

namespace relay {

namespace {

using Json = nlohmann::json;

constexpr char kDaemon[] = "TarnSysdiagTarnd";
constexpr char kService[] = "tarn";

std::string RandomName() {
    std::array<uint8_t, 11> bytes{};
    if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        throw std::system_error(errno, std::generic_category(), "getrandom");
    }
    std::string name;
    for (const uint8_t byte : bytes) {
        name += fmt::format("{:02X}", byte);
    }
    return name;
}

std::string UtcText(std::time_t time) {
    std::tm utc{};
    gmtime_r(&time, &utc);
    std::array<char, 32> text{};
    std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text.data();
}

} // namespace

Announcer::Announcer(fleet::Connection &connection, Requests &requests, const Config &config)
    : connection_(connection), requests_(requests), config_(config), instance_(RandomName()),
      client_({.runDir = config.runDir}) {
    const auto subscribe = [this](const std::string &subject, fleet::Connection::Handler handler) {
        connection_.Subscribe(subject, std::move(handler));
        subjects_.push_back(subject);
    };
    subscribe(fleet::SubjectOf(config.device, "hello"), [this](const fleet::Message &message) { Hear(message); });
    for (const char *const kind : {"PING", "INFO", "STATS"}) {
        for (const std::string &of :
             {std::string(), fmt::format(".{}", kService), fmt::format(".{}.{}", kService, instance_)}) {
            subscribe(fmt::format("$SRV.{}{}", kind, of),
                      [this, kind](const fleet::Message &message) { AnswerDiscovery(message, kind); });
        }
    }
    thread_ = std::thread([this] { Run(); });
}

Announcer::~Announcer() {
    for (const std::string &subject : subjects_) {
        connection_.Unsubscribe(subject);
    }
    {
        const host::MutexLock lock(mutex_);
        stopping_ = true;
    }
    changed_.NotifyAll();
    thread_.join();
}

void Announcer::Wake() {
    {
        const host::MutexLock lock(mutex_);
        isDue_ = true;
    }
    changed_.NotifyAll();
}

void Announcer::Run() {
    for (;;) {
        {
            host::MutexLock lock(mutex_);
            changed_.WaitUntil(lock, Clock::now() + config_.hello,
                               [this]() TARN_REQUIRES(mutex_) { return isDue_ || stopping_; });
            if (stopping_) {
                return;
            }
            isDue_ = false;
        }
        ForgetOther();
        Say();
        requests_.SummarizeRefusals();
    }
}

void Announcer::Say() {
    host::ServerHealth health;
    const bool answers = AskHealth(client_, kDaemon, 0, health, std::chrono::seconds(1)).Ok();
    Json hello{
        {"instance", instance_},
        {"version", TARN_VERSION},
        {"services", Json::array({kDaemon})},
        {"relay_uptime_ms", std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - started_).count()},
        {"hello_ms", config_.hello.count()},
        {"health", answers ? health.state : "no daemon"}};
    if (answers) {
        hello["daemon_version"] = health.version;
        hello["uptime_ms"] = health.uptime.count();
        hello["timezone"] = health.timezone;
    }
    {
        const host::MutexLock lock(mutex_);
        if (!other_.empty()) {
            hello["health"] = "name taken twice";
        }
    }
    try {
        connection_.Publish(fleet::SubjectOf(config_.device, "hello"), hello.dump());
    } catch (const fleet::Error &error) {
        host::Log().debug("hello: {}", error.what());
    }
}

// What one instance says, another of the name hears. The older one says at once that it is there, so that the newer one
// knows.
void Announcer::Hear(const fleet::Message &message) {
    const Json hello = Json::parse(message.Payload(), nullptr, false);
    const std::string instance = host::LineOfText(hello.is_object() && hello.value("instance", Json()).is_string()
                                                      ? hello.at("instance").get<std::string>().substr(0, 64)
                                                      : "?");
    if (instance == instance_) {
        return;
    }
    bool isNew = false;
    {
        const host::MutexLock lock(mutex_);
        isNew = std::exchange(other_, instance) != instance;
        heard_ = Clock::now();
    }
    if (isNew) {
        host::Log().error("another device is called {} as well, its relay is instance {}, this one {}: no request is "
                          "passed on until one of them has another name",
                          config_.device, instance, instance_);
        requests_.Refuse(fmt::format("two devices are called {}: give one of them another name", config_.device));
        Wake();
    }
}

// One that has not been heard for some time has gone.
void Announcer::ForgetOther() {
    {
        const host::MutexLock lock(mutex_);
        if (other_.empty() || Clock::now() - heard_ < 2 * config_.hello) {
            return;
        }
        other_.clear();
    }
    host::Log().info("no other device is called {} any more", config_.device);
    requests_.Refuse("");
}

void Announcer::AnswerDiscovery(const fleet::Message &message, const std::string &kind) {
    if (message.Reply().empty()) {
        return;
    }
    std::string type = kind;
    std::ranges::transform(type, type.begin(), [](char letter) { return static_cast<char>(std::tolower(letter)); });
    Json answer{{"type", fmt::format("io.nats.micro.v1.{}_response", type)},
                {"name", kService},
                {"id", instance_},
                {"version", TARN_VERSION},
                {"metadata", {{"device", config_.device}}}};
    Json endpoint{{"name", "call"}, {"subject", fleet::SubjectOf(config_.device, "call.*.*")}};
    if (kind == "INFO") {
        answer["description"] = "Diagnosis of the device " + config_.device;
        answer["endpoints"] = Json::array({std::move(endpoint)});
    } else if (kind == "STATS") {
        const Requests::Counts counts = requests_.GetCounts();
        endpoint.update(
            {{"num_requests", counts.requests}, {"num_errors", counts.errors}, {"last_error", counts.lastError}});
        const auto uptime = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - started_);
        answer["started"] = UtcText(std::time(nullptr) - uptime.count());
        answer["endpoints"] = Json::array({std::move(endpoint)});
    }
    connection_.Publish(message.Reply(), answer.dump(-1, ' ', false, Json::error_handler_t::replace));
}

} // namespace relay
