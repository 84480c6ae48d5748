#include "meaning.h"

namespace host::meaning {

RECORD(Sample, {"uiValue1", "first", Text(), "The first."}, {"ucValue2", "second", Count(), "The second."})

} // namespace host::meaning
