#include "bench/roundtrip.h"

namespace bench {

std::vector<const System *> Systems() {
    return {&RawSystem(), &RuntimeSystem(), &SdBusSystem(), &GrpcSystem()};
}

} // namespace bench
