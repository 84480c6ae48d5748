// What the daemon adds to the runtime's own service: Settings, and what HistoryService tells.
#pragma once

#include "host/daemon/daemon.h"
#include "host/daemon/history/history_service.h"

namespace tarnd {

class OwnService final : public host::OwnMethods {
public:
    explicit OwnService(Daemon &daemon) : daemon_(daemon), history_(daemon.history) {}

    bool Has(std::string_view method) const override;
    Told Tell(const Question &question) const override;
    void OnNews(std::function<void()> tell) override { history_.OnNews(std::move(tell)); }

private:
    std::string TellSettings() const;

    const Daemon &daemon_;
    HistoryService history_;
};

} // namespace tarnd
