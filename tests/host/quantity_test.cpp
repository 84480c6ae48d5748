// What people write for a number.
#include "host/describe/quantity.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "host/meaning/list.h"
#include "tests/host/zone.h"

namespace host::describe {
namespace {

using namespace host::meaning;

std::string ErrorOf(const Value &value, std::string_view text) {
    try {
        return std::to_string(ParseQuantity(value, text));
    } catch (const QuantityError &error) {
        return error.what();
    }
}

TEST(Quantity, ABareNumberIsInTheMembersUnit) {
    for (const Value &value : {Permille(), Percent(), Thousandths(), Kib(), Mib(), Bytes(), Nanoseconds(), Seconds(),
                               Hours(), Count(), Number(), Pid(), Tid(), Uid(), Address()}) {
        EXPECT_EQ(ParseQuantity(value, "64"), 64u);
        EXPECT_EQ(ParseQuantity(value, "0x40"), 64u);
        EXPECT_EQ(ParseQuantity(value, "18446744073709551615"), UINT64_MAX);
        for (const char *text : {"", "-1", "64 parsecs", "18446744073709551616", "0x", "6 4", "1e3", "+1"}) {
            EXPECT_TRUE(ErrorOf(value, text).starts_with("found ")) << text;
        }
    }
}

TEST(Quantity, AnotherUnitIsConverted) {
    EXPECT_EQ(ParseQuantity(Permille(), "90%"), 900u);
    EXPECT_EQ(ParseQuantity(Permille(), "12.5 %"), 125u);
    EXPECT_EQ(ParseQuantity(Permille(), "900‰"), 900u);
    EXPECT_EQ(ParseQuantity(Percent(), "90%"), 90u);
    EXPECT_EQ(ParseQuantity(Percent(), "900‰"), 90u);
    EXPECT_EQ(ParseQuantity(Kib(), "1.5MiB"), 1536u);
    EXPECT_EQ(ParseQuantity(Bytes(), "64 KiB"), 65536u);
    EXPECT_EQ(ParseQuantity(Milliseconds(), "2s"), 2000u);
    EXPECT_EQ(ParseQuantity(Milliseconds(), "1.5m"), 90'000u);
    EXPECT_EQ(ParseQuantity(Seconds(), "2h"), 7200u);
    EXPECT_EQ(ParseQuantity(Seconds(), "3000ms"), 3u);
}

TEST(Quantity, NothingIsLost) {
    EXPECT_EQ(ErrorOf(Permille(), "12.55%"), "found 12.55%, expected a share, such as 90% or 900");
    EXPECT_EQ(ErrorOf(Percent(), "905‰"), "found 905‰, expected a share, such as 90%");
    EXPECT_EQ(ErrorOf(Seconds(), "1500ms"), "found 1500ms, expected a time, such as 10s, 2m or a number of seconds");
    EXPECT_EQ(ErrorOf(Mib(), "64KiB"), "found 64KiB, expected a size, such as 64MiB, 2GiB or a number of MiB");
    EXPECT_EQ(ErrorOf(Bytes(), "16777216TiB"), "found 16777216TiB, expected a size, such as 4096 or 64KiB")
        << "beyond 64 bits";
}

TEST(Quantity, AUnitOfAnotherQuantityIsNone) {
    EXPECT_EQ(ErrorOf(Permille(), "90s"), "found 90s, expected a share, such as 90% or 900");
    EXPECT_EQ(ErrorOf(Milliseconds(), "64KiB"), "found 64KiB, expected a time, such as 500ms, 2s or a number of ms");
    EXPECT_EQ(ErrorOf(Count(), "2s"), "found 2s, expected a whole number, such as 12 or 0xc");
    EXPECT_EQ(ErrorOf(Seconds(), ".5m").substr(0, 9), "found .5m");
    EXPECT_EQ(ErrorOf(Seconds(), "1.m").substr(0, 9), "found 1.m");
}

TEST(Quantity, WordsAreNumbers) {
    const Value action = OneOf(rule_action::kAll), events = SumOf(event::kAll);
    EXPECT_EQ(ParseQuantity(Switch(), "on"), 1u);
    EXPECT_EQ(ParseQuantity(Switch(), "off"), 0u);
    EXPECT_EQ(ParseQuantity(Switch(), "no"), 0u);
    EXPECT_EQ(ParseQuantity(Switch(), "1"), 1u);
    EXPECT_EQ(ParseQuantity(Switch(), "2"), 2u) << "who checks the request refuses it";
    EXPECT_EQ(ErrorOf(Switch(), "maybe"), "found maybe, expected on or off");
    EXPECT_EQ(ParseQuantity(action, "drop"), 2u);
    EXPECT_EQ(ParseQuantity(action, "2"), 2u);
    EXPECT_EQ(ErrorOf(action, "drip"), "found drip, expected pass, drop, limit");
    EXPECT_EQ(ParseQuantity(events, "cpu+descriptors"), event::kCpu | event::kDescriptors);
    EXPECT_EQ(ParseQuantity(events, "cpu,memory"), event::kCpu | event::kMemory);
    EXPECT_EQ(ParseQuantity(events, "none"), 0u);
    EXPECT_EQ(ErrorOf(events, "cpu+"), "found cpu+, expected a sum of cpu, memory, descriptors, joined by +");
    EXPECT_EQ(ParseQuantity(Letter(), "S"), 'S');
    EXPECT_EQ(ParseQuantity(Letter(), "traced"), 't');
    EXPECT_EQ(ErrorOf(Letter(), "dozing"), "found dozing, expected a state's letter, or its word, such as sleeping");
    EXPECT_EQ(ParseQuantity(Errno(), "ENOENT"), ENOENT);
    EXPECT_EQ(ParseQuantity(Errno(), "ok"), 0u);
    EXPECT_EQ(ParseQuantity(Errno(), "5"), 5u);
    EXPECT_EQ(ErrorOf(Errno(), "ENONE"), "found ENONE, expected an errno value's name, such as ENOENT, or its number");
}

TEST(Quantity, NumbersMayBeNegativeWhereThatIsMeant) {
    EXPECT_EQ(ParseQuantity(Signed(), "-60"), static_cast<uint32_t>(-60));
    EXPECT_EQ(ParseQuantity(Signed(), "60"), 60u);
    EXPECT_EQ(ErrorOf(Signed(), "2147483648"), "found 2147483648, expected a whole number, which may be negative");
    EXPECT_EQ(ErrorOf(Signed(), "-"), "found -, expected a whole number, which may be negative");
}

TEST(Quantity, ATimeIsOfTheZoneOrStatesIts) {
    const ZoneOfTest zone("CET-1");
    EXPECT_EQ(ParseQuantity(UnixTime(), "2026-02-03T04:05:06"), 1'770'087'906u);
    EXPECT_EQ(ParseQuantity(UnixTime(), "2026-02-03T03:05:06Z"), 1'770'087'906u);
    EXPECT_EQ(ParseQuantity(UnixTime(), "1770087906"), 1'770'087'906u);
    EXPECT_TRUE(ErrorOf(UnixTime(), "soon").starts_with("found soon, expected a time, such as "));
    EXPECT_TRUE(ErrorOf(UnixTime(), "1969-12-31T00:00:00Z").starts_with("found 1969"));
}

} // namespace
} // namespace host::describe
