// The library's codecs of the measured types, compiled as the library compiles them. Compiled a second time with
// BENCH_UNSWAPPED, the unit's byte-swap flag is the constant false, and the compiler drops what it guards.
#include "velto/codec.h"

#ifdef BENCH_UNSWAPPED
#define CODECS UnswappedCodecs
namespace {
struct Unit {
    struct Binding : platform::Binding {
        static constexpr bool Swapped() { return false; }
    };
    static constinit Binding binding;
};
constinit Unit::Binding Unit::binding;
} // namespace
#else
#define CODECS VeltoCodecs
TARN_UNIT()
#endif

#include "tarn_sysdiag/types/agent.h"
#include "tarn_sysdiag/types/master.h"
#include "tarn_sysdiag/types/tarnd.h"
#include "tarn_sysdiag/types/tarnd_agent.h"

#include "bench/codecs.h"

namespace bench {

namespace {
template <class Record>
Codecs CodecsOf(const char *type) {
    using Functions = velto::Codec<Unit, Record>;
    constexpr bool kFixed = velto::kHasFixed<Record>;
    return {type,
            Functions::kPack,
            Functions::kUnpack,
            Functions::kFreeUnpacked,
            kFixed ? Functions::kPackFixed : nullptr,
            kFixed ? Functions::kFixedSize : nullptr};
}
} // namespace

const std::vector<Codecs> &CODECS() {
#define CODECS_OF(type) CodecsOf<Tarn_sys_diag_##type>(#type),
    static const std::vector<Codecs> codecs = {BENCH_TYPES(CODECS_OF)};
    return codecs;
}

} // namespace bench
