#include "meaning.h"

namespace host::meaning {

RECORD(Sample, {"uiValue1", "first", Permille().UpTo(1000), "The first."},
       {"ucValue2", "first", Count(), "The second."})

} // namespace host::meaning
