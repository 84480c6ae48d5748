#include "meaning.h"

namespace host::meaning {

RECORD(Sample, {"uiValue1", "first", Permille().UpTo(1000), "The first."},
       {"ucValue2", "second", Count(), "The second."})
VARIANT(TakeSample, Sample, {"uiValue3", "third", Count(), "The third."})

} // namespace host::meaning
