// What one message may cost: for each type that owns memory, the most bytes that its decoder allocates for each byte
// that it is given, computed from the type's description. `message_cost` prints it for this machine's layout;
// `message_cost --check FILE` compares it with the table in a document.
//
// A message's tables, arrays and texts may share bytes: all that keeps a writer from using a byte twice is that offsets
// lead forward. So a table with x bytes from its start to the message's end makes its decoder allocate at most
//   for a string, bytes or 32-bit scalars   x
//   for a nested table                      what that table costs at x
//   for a run of N tables                   N times that
//   for a vector of tables                  x / 4 elements of native size, and what each costs; element i's table
//   stands
//                                           behind its offset word, so that is at most a quarter of the integral from
//                                           0 to x
// and the sum over its slots is a polynomial in x.
#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#define VELTO_ON_TABLE(type) [[maybe_unused]] static const bool kListed_##type = List<Tarn_sys_diag_##type>();
#include "velto/describe.h"

namespace {

constexpr size_t kTerms = 8;
using Polynomial = std::array<double, kTerms>; // the coefficients of x^0, x^1, ...

template <class Record>
constexpr Polynomial Cost();

template <class Slot>
constexpr Polynomial SlotCost() {
    using velto::Kind;
    using Element = typename Slot::Element;
    if constexpr (Slot::kKind == Kind::kString || Slot::kKind == Kind::kByteVector || Slot::kKind == Kind::kVector32) {
        return {0, 1};
    } else if constexpr (Slot::kKind == Kind::kTable || Slot::kKind == Kind::kTableRun) {
        Polynomial cost = Cost<Element>();
        for (double &term : cost) {
            term *= Slot::kKind == Kind::kTable ? 1 : Slot::kLength;
        }
        return cost;
    } else if constexpr (Slot::kKind == Kind::kTableVector) {
        constexpr Polynomial kElement = Cost<Element>();
        static_assert(kElement.back() == 0, "a polynomial of more terms is needed");
        Polynomial cost = {0, sizeof(Element) / 4.0};
        for (size_t i = 1; i < kTerms; ++i) {
            cost[i] += kElement[i - 1] / static_cast<double>(4 * i);
        }
        return cost;
    } else {
        return {};
    }
}

template <class Record>
constexpr Polynomial Cost() {
    Polynomial cost = {};
    velto::EachSlot<Record>([&]<class Slot, size_t>() {
        const Polynomial slot = SlotCost<Slot>();
        for (size_t i = 0; i < kTerms; ++i) {
            cost[i] += slot[i];
        }
    });
    return cost;
}

// The ratio of allocated to received bytes, a polynomial in the message's length L.
std::string RatioText(const Polynomial &cost) {
    std::string text;
    for (size_t power = 0; power + 1 < kTerms; ++power) {
        if (cost[power + 1] == 0) {
            continue;
        }
        char term[64];
        snprintf(term, sizeof term, "%.6g", cost[power + 1]);
        text += (text.empty() ? "" : " + ") + std::string(term);
        text += power == 0 ? "" : power == 1 ? " L" : " L^" + std::to_string(power);
    }
    return text;
}

std::map<std::string, std::string> &Ratios() {
    static std::map<std::string, std::string> ratios;
    return ratios;
}

template <class Record>
bool List() {
    if (velto::kOwns<Record>) {
        Ratios().emplace(velto::Table<Record>::kName, RatioText(Cost<Record>()));
    }
    return true;
}

} // namespace

#include "types/agent.h"
#include "types/master.h"
#include "types/tarnd.h"
#include "types/tarnd_agent.h"

namespace {

// The cells of a table's row: | `Type` | ratio with 4-byte pointers | ratio with 8-byte pointers |
std::vector<std::string> Cells(const std::string &line) {
    std::vector<std::string> cells;
    for (size_t at = line.find('|'), end; (end = line.find('|', at + 1)) != line.npos; at = end) {
        std::string cell = line.substr(at + 1, end - at - 1);
        cell.erase(0, cell.find_first_not_of(" `"));
        cell.erase(cell.find_last_not_of(" `") + 1);
        cells.push_back(cell);
    }
    return cells;
}

int Check(const char *path) {
    constexpr size_t kColumn = sizeof(void *) == 4 ? 1 : 2;
    std::ifstream stream(path);
    size_t rows = 0, wrong = 0;
    for (std::string line; std::getline(stream, line);) {
        const auto cells = line.starts_with("| `") ? Cells(line) : std::vector<std::string>();
        const auto found = cells.size() == 3 ? Ratios().find(cells[0]) : Ratios().end();
        if (found == Ratios().end()) {
            continue;
        }
        ++rows;
        if (cells[kColumn] != found->second) {
            fprintf(stderr, "%s: %s: found %s, expected %s\n", path, cells[0].c_str(), cells[kColumn].c_str(),
                    found->second.c_str());
            ++wrong;
        }
    }
    if (rows != Ratios().size()) {
        fprintf(stderr, "%s: found %zu types, expected %zu\n", path, rows, Ratios().size());
    }
    return wrong == 0 && rows == Ratios().size() ? 0 : 1;
}

} // namespace

int main(int argc, char **argv) {
    if (argc == 3 && std::string(argv[1]) == "--check") {
        return Check(argv[2]);
    }
    for (const auto &[name, ratio] : Ratios()) {
        printf("| `%s` | %s |\n", name.c_str(), ratio.c_str());
    }
    return 0;
}
