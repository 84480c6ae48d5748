// Numbers as people read them.
#include "host/ctl/values.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "host/ctl/tasks/rows.h"
#include "host/meaning/list.h"
#include "tests/host/zone.h"

namespace {

using namespace host::meaning;
using ctl::ValueText;

TEST(CtlValues, HaveTheirUnits) {
    EXPECT_EQ(ValueText(Permille(), 125), "12.5 %");
    EXPECT_EQ(ValueText(Percent(), 12), "12 %");
    EXPECT_EQ(ValueText(Thousandths(), 1042), "1.042");
    EXPECT_EQ(ValueText(Kib(), 2048), "2.0 MiB");
    EXPECT_EQ(ValueText(Mib(), 1), "1.0 MiB");
    EXPECT_EQ(ValueText(Bytes(), 512), "512 B");
    EXPECT_EQ(ValueText(Nanoseconds(), 850), "850 ns");
    EXPECT_EQ(ValueText(Microseconds(), 12'300), "12.3 ms");
    EXPECT_EQ(ValueText(Milliseconds(), 2'100), "2.1 s");
    EXPECT_EQ(ValueText(Seconds(), 307), "5m 07s");
    EXPECT_EQ(ValueText(Minutes(), 90), "90 min");
    EXPECT_EQ(ValueText(Hours(), 3), "3 h") << "of the day, perhaps";
    EXPECT_EQ(ValueText(Count(), 42), "42");
}

TEST(CtlValues, HaveNoEnd) {
    EXPECT_EQ(ValueText(Kib(), UINT64_MAX), "16.0 EiB");
    EXPECT_EQ(ValueText(Seconds(), UINT64_MAX), "2562047h 47m");
    EXPECT_EQ(ValueText(UnixTime(), UINT64_MAX), "18446744073709551615");
}

TEST(CtlValues, AreInWordsWhereThereAreSome) {
    EXPECT_EQ(ValueText(Switch(), 0), "off");
    EXPECT_EQ(ValueText(Switch(), 1), "on");
    EXPECT_EQ(ValueText(Switch(), 2), "2");
    EXPECT_EQ(ValueText(OneOf(rule_action::kAll), rule_action::kDrop), "drop");
    EXPECT_EQ(ValueText(OneOf(rule_action::kAll), 9), "9");
    EXPECT_EQ(ValueText(SumOf(event::kAll), event::kCpu | event::kMemory), "cpu+memory");
    EXPECT_EQ(ValueText(SumOf(event::kAll), event::kCpu | 64), "cpu+64");
    EXPECT_EQ(ValueText(SumOf(event::kAll), 0), "none");
    EXPECT_EQ(ValueText(Letter(), 'S'), "S (sleeping)");
    EXPECT_EQ(ValueText(Letter(), 'q'), "q");
    EXPECT_EQ(ValueText(Letter(), 7), "7");
    EXPECT_EQ(ValueText(Errno(), 22), "22 (Invalid argument)");
    EXPECT_EQ(ValueText(Errno(), 0), "ok");
    EXPECT_EQ(ValueText(Errno(), 4'000'000'000), "4000000000");
}

TEST(CtlValues, NameSomething) {
    EXPECT_EQ(ValueText(Pid(), static_cast<uint64_t>(getpid())), std::to_string(getpid()) + " (ctl_test)");
    EXPECT_EQ(ValueText(Pid(), 4'294'967'295), "4294967295") << "no process has it";
    EXPECT_EQ(ValueText(Address(), 0x401000), "0x401000");
    EXPECT_EQ(ValueText(Signed(), 0xFFFFFFEC), "-20");
    const ZoneOfTest zone("CET-1");
    EXPECT_EQ(ValueText(UnixTime(), 1'770'087'906), "2026-02-03 04:05:06 +0100");
}

// As the daemon's report has them.
TEST(CtlRows, OfLeaksHaveNamesWithBlanks) {
    const auto row = ctl::LeakRowOf("      11 le aky                  61000        42000       6000       20      540");
    ASSERT_TRUE(row);
    EXPECT_EQ(row->process, 11);
    EXPECT_EQ(row->name, "le aky");
    EXPECT_EQ(row->residentBytes, 61'000 * 1024);
    EXPECT_EQ(row->grownBytes, 42'000 * 1024);
    EXPECT_EQ(row->bytesPerMinute, 6000 * 1024);
    EXPECT_EQ(row->errorBytesPerMinute, 20 * 1024);
    EXPECT_EQ(row->overSeconds, 540);
    EXPECT_FALSE(ctl::LeakRowOf("11 leaky 61000 42000 6000 540")) << "a number is missing";
}

} // namespace
