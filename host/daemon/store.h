#pragma once

#include "host/store/store.h"

namespace tarnd {

host::Store &TheStore();

} // namespace tarnd
