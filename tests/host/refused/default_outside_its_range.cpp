#include "meaning.h"

namespace host::meaning {

RECORD(Sample, {"uiValue1", "first", Permille().UpTo(1000).Default(1001), "The first."},
       {"ucValue2", "second", Count(), "The second."})

} // namespace host::meaning
