// A journal of events that a test writes, as the daemon tells its own.
#pragma once

#include <algorithm>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "host/osal/mutex.h"
#include "host/runtime/own_methods.h"

namespace kit {

class WrittenJournal final : public host::OwnMethods {
public:
    bool Has(std::string_view method) const override { return method == "Events"; }

    Told Tell(const Question &question) const override {
        const nlohmann::json asked = nlohmann::json::parse(question.text);
        const host::MutexLock lock(mutex_);
        const bool isSame = asked.value("journal", "") == name_;
        const uint64_t from = std::max(isSame ? asked.at("from").get<uint64_t>() : 1, oldest_);
        const uint64_t next = std::min(end_, from + asked.at("most").get<uint64_t>());
        nlohmann::json events = nlohmann::json::array();
        for (uint64_t number = from; number < next; ++number) {
            events.push_back({{"number", number},
                              {"time_ms", 1'000'000 + number},
                              {"kind", "setting"},
                              {"pid", 0},
                              {"process", ""},
                              {"text", padding_}});
        }
        const nlohmann::json page{{"journal", name_}, {"oldest", oldest_}, {"end", end_},
                                  {"from", from},     {"next", next},      {"events", events}};
        return {page.dump(), std::chrono::milliseconds(next == from ? asked.value("wait_ms", 0) : 0)};
    }
    void OnNews(std::function<void()> tell) override {
        const host::MutexLock lock(mutex_);
        tell_ = std::move(tell);
    }

    void Write(uint64_t events, const std::string &text = "") {
        const host::MutexLock lock(mutex_);
        end_ += events;
        padding_ = text;
        if (tell_) {
            tell_();
        }
    }
    void ForgetBefore(uint64_t number) {
        const host::MutexLock lock(mutex_);
        oldest_ = number;
    }
    void BeginAnew(const std::string &name) {
        const host::MutexLock lock(mutex_);
        name_ = name;
        oldest_ = end_ = 1;
    }

private:
    mutable host::Mutex mutex_;
    std::string name_ TARN_GUARDED_BY(mutex_) = "first";
    uint64_t oldest_ TARN_GUARDED_BY(mutex_) = 1;
    uint64_t end_ TARN_GUARDED_BY(mutex_) = 1;
    std::string padding_ TARN_GUARDED_BY(mutex_);
    std::function<void()> tell_ TARN_GUARDED_BY(mutex_);
};

} // namespace kit
