// Writes tarn_sysdiag/values.h: the choices and limits for programs in C.
#include <fmt/format.h>

#include <iostream>

#include "host/meaning/groups_of_choices.h"

namespace {

// "rule-action" as RULE_ACTION.
std::string Upper(std::string_view name) {
    std::string upper;
    for (const char letter : name) {
        upper += letter == '-' ? '_' : static_cast<char>(letter >= 'a' && letter <= 'z' ? letter - 'a' + 'A' : letter);
    }
    return upper;
}

} // namespace

int main() {
    using namespace host::meaning;
    std::cout << "/* The named values of members, and the limits that requests keep. Generated. */\n"
                 "#ifndef TARN_SYSDIAG_VALUES_H\n#define TARN_SYSDIAG_VALUES_H\n";
    for (const ChoiceGroup &group : kChoiceGroups) {
        std::cout << "\n";
        for (const Choice &one : group.choices) {
            std::cout << fmt::format("#define TARN_{}_{} {}U /* {} */\n", Upper(group.name), Upper(one.name), one.value,
                                     one.sentence);
        }
    }
    std::cout << "\n";
    for (const Limit &limit : kLimits) {
        std::cout << fmt::format("#define TARN_{} {}U\n", Upper(limit.name), limit.value);
    }
    std::cout << "\n#endif\n";
    return std::cout.flush() ? 0 : 1;
}
