#include "meaning.h"

namespace host::meaning {

METHOD(TakeSample, Group::kReading, "takes", "first=1")

} // namespace host::meaning
