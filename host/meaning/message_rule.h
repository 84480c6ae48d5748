// A message-control rule, its members under the names that the list has for them.
#pragma once

#include <cstdint>
#include <string>

#include "host/osal/text.h"
#include "tarn_sysdiag/types/agent.h"

namespace host::meaning {

struct MessageRule {
    uint32_t number = 0;
    uint32_t priority = 0;
    uint32_t action = 0;
    uint32_t firstType = 0;
    uint32_t lastType = 0;
    uint32_t rate = 0;
    uint32_t burst = 0;
    uint32_t lasts = 0;
    uint32_t process = 0;
    std::string sender{};
    std::string receiver{};
    std::string message{};

    bool operator==(const MessageRule &) const = default;
};

inline MessageRule FromRecord(const Tarn_sys_diag_UpdateMsgCtrlRuleInput &record) {
    const auto &[number, priority, action, firstType, lastType, rate, burst, lasts, process, sender, receiver,
                 message] = record;
    return {number,
            priority,
            action,
            firstType,
            lastType,
            rate,
            burst,
            lasts,
            process,
            std::string(TextOf(sender)),
            std::string(TextOf(receiver)),
            std::string(TextOf(message))};
}

inline Tarn_sys_diag_UpdateMsgCtrlRuleInput ToRecord(const MessageRule &rule) {
    Tarn_sys_diag_UpdateMsgCtrlRuleInput record{rule.number,
                                                rule.priority,
                                                rule.action,
                                                rule.firstType,
                                                rule.lastType,
                                                rule.rate,
                                                rule.burst,
                                                rule.lasts,
                                                rule.process,
                                                {},
                                                {},
                                                {}};
    FillText(record.acRule1, rule.sender);
    FillText(record.acRule2, rule.receiver);
    FillText(record.acRule3, rule.message);
    return record;
}

} // namespace host::meaning
