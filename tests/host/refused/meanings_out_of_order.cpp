#include "meaning.h"

namespace host::meaning {

RECORD(Sample, {"ucValue2", "second", Count(), "The second."},
       {"uiValue1", "first", Permille().UpTo(1000), "The first."})

} // namespace host::meaning
