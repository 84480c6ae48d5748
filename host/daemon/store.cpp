#include "host/daemon/store.h"

namespace tarnd {

host::Store &TheStore() {
    static host::Store store;
    return store;
}

} // namespace tarnd
