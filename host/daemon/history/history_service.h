// What the daemon remembers, for who asks the runtime's own service: Events, Overloads and Figures.
#pragma once

#include "host/daemon/history/history.h"
#include "host/runtime/own_methods.h"

namespace tarnd {

class HistoryService final : public host::OwnMethods {
public:
    static constexpr size_t kMostEvents = 1000; // in an answer
    static constexpr std::chrono::minutes kLongestWait{10};

    explicit HistoryService(History &history) : history_(history) {}

    bool Has(std::string_view method) const override;
    Told Tell(const Question &question) const override;
    void OnNews(std::function<void()> tell) override { history_.OnWritten(std::move(tell)); }

private:
    Told TellEvents(const Question &question) const;
    std::string TellOverloads(const Question &question) const;
    std::string TellFigures(const Question &question) const;

    History &history_;
};

} // namespace tarnd
