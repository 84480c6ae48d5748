// What one message may cost: for each type that owns memory, the most bytes that its decoder allocates for each byte
// that it is given, computed from the type's description. `message_cost` prints it for this machine's layout. That no
// request costs more than the bytes it has is proved by compiling this.
//
// A message's tables, arrays and texts may share bytes: all that keeps a writer from using a byte twice is that offsets
// lead forward. So a table with x bytes from its start to the message's end makes its decoder allocate at most
//   for a string, bytes or 32-bit scalars   x
//   for a nested table                      what that table costs at x
//   for a run of N tables                   N times that
//   for a vector of tables                  x / 4 elements of native size, and what each costs: element i's table
//                                           stands behind its offset word, so that is at most a quarter of
//                                           the integral from 0 to x
// and the sum over its slots is a polynomial in x.
#include <array>
#include <cstdio>
#include <map>
#include <string>

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

#include "tarn_sysdiag/types/agent.h"
#include "tarn_sysdiag/types/master.h"
#include "tarn_sysdiag/types/tarnd.h"
#include "tarn_sysdiag/types/tarnd_agent.h"

namespace {

constexpr bool IsAtMostItsBytes(const Polynomial &cost) {
    double terms = 0;
    for (const double term : cost) {
        terms += term;
    }
    return terms <= 1 && cost[1] == terms;
}

#define CHECK_REQUEST(method, request)                                                                                 \
    static_assert(IsAtMostItsBytes(Cost<request>()),                                                                   \
                  "a request of " #method " makes its receiver allocate more than the bytes it has");
#define TARN_METHOD_NO_REPLY(method, request) TARN_METHOD(method, request, )
#define TARN_METHOD(method, request, response) CHECK_REQUEST(method, Tarn_sys_diag_##request)
#include "tarn_sysdiag/client/agent_methods.h"
#define TARN_METHOD_NO_REPLY(method, request) TARN_METHOD(method, request, )
#define TARN_METHOD(method, request, response) CHECK_REQUEST(method, Tarn_sys_diag_##request)
#include "tarn_sysdiag/client/master_methods.h"
#define TARN_METHOD_NO_REPLY(method, request) TARN_METHOD(method, request, )
#define TARN_METHOD(method, request, response) CHECK_REQUEST(method, Tarn_sys_diag_##request)
#include "tarn_sysdiag/server/tarnd_agent_methods.h"
#define TARN_METHOD_NO_REPLY(method, request) TARN_METHOD(method, request, )
#define TARN_METHOD(method, request, response) CHECK_REQUEST(method, Tarn_sys_diag_##request)
#include "tarn_sysdiag/server/tarnd_methods.h"

} // namespace

int main() {
    for (const auto &[name, ratio] : Ratios()) {
        printf("%-36s %s\n", name.c_str(), ratio.c_str());
    }
    return 0;
}
