#include "meaning.h"

namespace host::meaning {

RECORD(Sample, {"uiValue1", "first", Permille().UpTo(1000), "The first."})

} // namespace host::meaning
