#include "meaning.h"

namespace host::meaning {

RECORD(Sample, {"uiValue1", "first", Permille().Where("ucValue2", 1), "The first."},
       {"ucValue2", "second", Count().Where("uiValue1", 1), "The second."})

} // namespace host::meaning
