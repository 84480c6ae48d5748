// Records and methods, of each of which something is said that the compiler has to refuse; but for the first.
// meanings.sh knows in which words.
#include "host/meaning/list.h"

#define SAMPLE(name)                                                                                                   \
    struct Tarn_sys_diag_##name {                                                                                      \
        uint32_t uiValue1;                                                                                             \
        uint8_t ucValue2;                                                                                              \
    };                                                                                                                 \
    VELTO_TABLE(name, uiValue1, ucValue2)

SAMPLE(AsItShouldBe)
SAMPLE(MemberWithoutMeaning)
SAMPLE(MeaningWithoutMember)
SAMPLE(MeaningsOutOfOrder)
SAMPLE(NameTwice)
SAMPLE(DefaultOutsideItsRange)
SAMPLE(KindThatDoesNotFit)
SAMPLE(RangeThatDoesNotFit)
SAMPLE(ConditionOnNoMember)
SAMPLE(ConditionOnItself)
SAMPLE(WithoutMeaning)

namespace host::meaning {

RECORD(AsItShouldBe, {"uiValue1", "first", Permille().UpTo(1000), "The first."},
       {"ucValue2", "second", Count(), "The second."})
RECORD(MemberWithoutMeaning, {"uiValue1", "first", Permille().UpTo(1000), "The first."})
RECORD(MeaningWithoutMember, {"uiValue1", "first", Permille().UpTo(1000), "The first."},
       {"ucValue2", "second", Count(), "The second."}, {"uiValue3", "third", Count(), "The third."})
RECORD(MeaningsOutOfOrder, {"ucValue2", "second", Count(), "The second."},
       {"uiValue1", "first", Permille().UpTo(1000), "The first."})
RECORD(NameTwice, {"uiValue1", "first", Permille().UpTo(1000), "The first."},
       {"ucValue2", "first", Count(), "The second."})
RECORD(DefaultOutsideItsRange, {"uiValue1", "first", Permille().UpTo(1000).Default(1001), "The first."},
       {"ucValue2", "second", Count(), "The second."})
RECORD(KindThatDoesNotFit, {"uiValue1", "first", Text(), "The first."}, {"ucValue2", "second", Count(), "The second."})
RECORD(RangeThatDoesNotFit, {"uiValue1", "first", Permille().UpTo(1000), "The first."},
       {"ucValue2", "second", Count().UpTo(256), "The second."})
RECORD(ConditionOnNoMember, {"uiValue1", "first", Permille().UpTo(1000), "The first."},
       {"ucValue2", "second", Count().Where("uiValue3", 1), "The second."})
RECORD(ConditionOnItself, {"uiValue1", "first", Permille().Where("ucValue2", 1), "The first."},
       {"ucValue2", "second", Count().Where("uiValue1", 1), "The second."})
VARIANT(OfNoMember, AsItShouldBe, {"uiValue3", "third", Count(), "The third."})

METHOD(OfARecordWithoutMeaning, Group::kReading, "Takes a sample.", "first=1")
METHOD(WithoutSentence, Group::kReading, "takes", "first=1")

} // namespace host::meaning

namespace host::methods {

extern const meaning::MethodOf<Tarn_sys_diag_AsItShouldBe, meaning::NoRecord> WithoutAnyText;
extern const meaning::MethodOf<Tarn_sys_diag_WithoutMeaning, meaning::NoRecord> OfARecordWithoutMeaning;

} // namespace host::methods

DEFINE_MEANING("TarnSysdiagTarnd", WithoutAnyText, Tarn_sys_diag_AsItShouldBe, host::meaning::NoRecord)
DEFINE_MEANING("TarnSysdiagTarnd", OfARecordWithoutMeaning, Tarn_sys_diag_WithoutMeaning, host::meaning::NoRecord)
