#include "host/agent/stack.h"

#define UNW_LOCAL_ONLY
#include <libunwind.h>

namespace agent {

namespace {

size_t Walk(unw_cursor_t &cursor, std::span<uint64_t> addresses) {
    size_t count = 0;
    while (count < addresses.size()) {
        unw_word_t address = 0;
        if (unw_get_reg(&cursor, UNW_REG_IP, &address) != 0 || address == 0) {
            break;
        }
        addresses[count++] = address;
        if (unw_step(&cursor) <= 0) {
            break;
        }
    }
    return count;
}

// A name is that of the nearest symbol before the address, and a stripped library has few: what it can be unwound by
// tells where its functions start.
bool StartsFunction(uint64_t start, uint64_t address) {
    unw_proc_info_t function;
    return unw_get_proc_info_by_ip(unw_local_addr_space, address, &function, nullptr) != 0 ||
           function.start_ip == start;
}

} // namespace

[[gnu::noinline]] size_t CallStack(std::span<uint64_t> addresses) {
    unw_context_t context;
    unw_cursor_t cursor;
    if (unw_getcontext(&context) != 0 || unw_init_local(&cursor, &context) != 0) {
        return 0;
    }
    for (int own = 0; own < 2; ++own) { // this function, and the one that asks
        if (unw_step(&cursor) <= 0) {
            return 0;
        }
    }
    return Walk(cursor, addresses);
}

size_t CallStackOf(void *context, std::span<uint64_t> addresses) {
    unw_cursor_t cursor;
    if (unw_init_local2(&cursor, static_cast<unw_context_t *>(context), UNW_INIT_SIGNAL_FRAME) != 0) {
        return 0;
    }
    return Walk(cursor, addresses);
}

uint64_t FunctionAt(uint64_t address, std::span<char> name) {
    unw_word_t offset = 0;
    const int error = unw_get_accessors(unw_local_addr_space)
                          ->get_proc_name(unw_local_addr_space, address, name.data(), name.size(), &offset, nullptr);
    const bool found = error == 0 || error == -UNW_ENOMEM; // the latter: the name is cut
    if (!found || !StartsFunction(address - offset, address)) {
        name[0] = 0;
        return 0;
    }
    name[name.size() - 1] = 0;
    return offset;
}

} // namespace agent
