// State machines whose moves are in one table, are logged, and are checked: a move that the table lacks is a defect of
// this program, which ends there rather than go on in a state that nobody has thought of.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace host {

// What may follow a state.
template <class... States>
constexpr uint32_t Next(States... states) {
    return (0U | ... | (1U << static_cast<unsigned>(states)));
}

// Logs at the debug level. `id` tells the machines of a kind apart.
void LogMove(std::string_view machine, uint64_t id, std::string_view from, std::string_view to);
[[noreturn]] void RefuseMove(std::string_view machine, uint64_t id, std::string_view from, std::string_view to);

// States number from 0, in the order of the rows.
template <class State, size_t kStates>
struct StateTable {
    struct Row {
        State state;
        std::string_view name; // for the log
        uint32_t next;
    };

    std::string_view machine;
    std::array<Row, kStates> rows;

    constexpr std::string_view NameOf(State state) const { return rows[static_cast<size_t>(state)].name; }
    constexpr bool Allows(State from, State to) const { return (rows[static_cast<size_t>(from)].next & Next(to)) != 0; }

    constexpr bool IsInOrder() const {
        for (size_t i = 0; i < kStates; ++i) {
            if (static_cast<size_t>(rows[i].state) != i) {
                return false;
            }
        }
        return true;
    }

    // To be called by the one function of a machine that sets its state.
    void Check(uint64_t id, State from, State to) const {
        if (!Allows(from, to)) {
            RefuseMove(machine, id, NameOf(from), NameOf(to));
        }
        LogMove(machine, id, NameOf(from), NameOf(to));
    }
};

} // namespace host
