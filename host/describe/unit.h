// The memory of this library's codecs: what a record owns must come from where its release function returns it to.
#pragma once

#include "platform/binding.h"

namespace host::describe {

platform::Binding &UnitBinding();

} // namespace host::describe
