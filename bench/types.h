// The described types by name and by shape. One that does not exist throws.
#pragma once

#include <string>

#include "velto/registry.h"

namespace bench {

const velto::TypeInfo &FindType(const std::string &name);
const velto::TypeInfo &TypeOf(const velto::TypeShape &shape);

} // namespace bench
