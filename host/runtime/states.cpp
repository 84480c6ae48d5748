#include "host/runtime/states.h"

#include <cstdlib>

#include "host/osal/log.h"

namespace host {

void LogMove(std::string_view machine, uint64_t id, std::string_view from, std::string_view to) {
    Log().debug("{} {}: {} -> {}", machine, id, from, to);
}

void RefuseMove(std::string_view machine, uint64_t id, std::string_view from, std::string_view to) {
    Log().critical("{} {}: {} -> {}, a move that its table lacks", machine, id, from, to);
    abort();
}

} // namespace host
