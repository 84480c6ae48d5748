// The format, one wire kind after another. All numbers are little-endian; nothing is aligned in the regular form. A
// message is the position of its root table and that table; a table is a distance to its vtable, the fields that are
// present, and what they refer to; a vtable is two lengths and, for each slot, the field's offset from its table.
#include <gtest/gtest.h>

#include "tests/codec/message.h"
#include "tests/codec/record.h"
#include "tests/codec/swapped_mode.h"

namespace {
// The record takes this regular form, which decodes to it.
void ExpectRegular(const char *name, const Json &members, const Bytes &message) {
    const Type &type = FindType(name);
    const Json record = RecordOf(type, members);
    EXPECT_EQ(Encode(type, record), message);
    const Decoded decoded(type, message);
    ASSERT_TRUE(decoded.Accepted());
    EXPECT_EQ(decoded.ToJson(), record);
}

// The record takes this fixed form, which decodes to it.
void ExpectFixed(const char *name, const Json &members, const Bytes &message) {
    const Type &type = FindType(name);
    const Json record = RecordOf(type, members);
    EXPECT_EQ(EncodeFixed(type, record), message);
    EXPECT_EQ(type.fixedSize(), message.size());
    const Decoded decoded(type, message);
    ASSERT_TRUE(decoded.Accepted());
    EXPECT_EQ(decoded.ToJson(), record);
}

size_t RegularSize(const char *name, const Json &members) {
    return Encode(FindType(name), RecordOf(FindType(name), members)).size();
}

uint16_t Read16(const Bytes &message, size_t at) {
    return static_cast<uint16_t>(message.at(at) | message.at(at + 1) << 8);
}

uint32_t Read32(const Bytes &message, size_t at) {
    return Read16(message, at) | static_cast<uint32_t>(Read16(message, at + 2)) << 16;
}

// The words of the vtable behind the root table of a fixed form.
std::vector<uint32_t> FixedVtable(const Bytes &message) {
    const size_t vtable = 4 + (0 - Read32(message, 4));
    std::vector<uint32_t> words;
    for (size_t at = vtable; at < vtable + Read16(message, vtable); at += 2) {
        words.push_back(Read16(message, at));
    }
    return words;
}

Json Systime(uint16_t year) {
    return RecordOf(FindType("Systime"), {{"usYear", year}, {"ucMonth", 2}, {"uiMillisecond", 999}});
}
} // namespace

// Fields stand one to a line, or together where they belong together.
// clang-format off

TEST(RegularForm, ATypeWithoutMembersIsAnEmptyTableBehindItsVtable) {
    ExpectRegular("None", Json::object(),
                  Message({
                      U32(8), // root table at 8
                      U16(4), // vtable: its length, without slots
                      U16(4), // length of the table with all it refers to
                      I32(4), // table: its vtable starts 4 bytes before it
                  }));
}

TEST(RegularForm, AScalarOf0IsAbsentAndTheOthersFollowOneAnother) {
    ExpectRegular("TestFiveWords", {{"uiValue1", 7}, {"uiValue5", 9}},
                  Message({
                      U32(18),                                     // root table at 18
                      U16(14),                                     // vtable length: 4 + 2 * 5 slots
                      U16(12),                                     // table length
                      U16(4), U16(0), U16(0), U16(0), U16(8),      // offsets of the slots; 0 is absent
                      I32(14),                                     // distance to the vtable
                      U32(7),                                      // uiValue1
                      U32(9),                                      // uiValue5
                  }));
    EXPECT_EQ(RegularSize("TestFiveWords", {}), 22U);
}

TEST(RegularForm, ScalarsTakeTheirWidthWithoutAlignment) {
    ExpectRegular("TestScalars", {{"ucOne", 0x11}, {"usTwo", 0x2221}, {"uiFour", 0x44434241}, {"ullEight", 1ULL << 56}},
                  Message({
                      U32(16), U16(12), U16(19),              // root table, vtable length, table length
                      U16(4), U16(5), U16(7), U16(11),        // four slots
                      I32(12),                                // distance to the vtable
                      U8(0x11),                               // ucOne
                      U16(0x2221),                            // usTwo, at an odd position
                      U32(0x44434241),                        // uiFour
                      U64(1ULL << 56),                        // ullEight: present, though its low half is 0
                  }));
}

TEST(RegularForm, AStringIsAnOffsetToItsLengthItsBytesAndAZero) {
    ExpectRegular("DbgCmdShowInput", {{"pcCmdStr", Hex("ab")}},
                  Message({
                      U32(10), U16(6), U16(15), U16(4),       // root table, vtable with one slot
                      I32(6),                                 // distance to the vtable
                      U32(4),                                 // offset word: the string is 4 bytes behind this word
                      U32(2), Text("ab"), U8(0),              // the 0 is not counted
                  }));
}

TEST(RegularForm, ANullStringIsAbsent) {
    ExpectRegular("DbgCmdShowInput", {},
                  Message({
                      U32(10), U16(6), U16(4), U16(0),        // slot 0 has no field
                      I32(6),
                  }));
}

TEST(RegularForm, AnEmptyStringIsNotANullOne) {
    ExpectRegular("DbgCmdShowInput", {{"pcCmdStr", ""}},
                  Message({
                      U32(10), U16(6), U16(13), U16(4), I32(6),
                      U32(4),                                 // offset word
                      U32(0), U8(0),                          // no bytes, and the 0
                  }));
}

TEST(RegularForm, AVectorOfBytesIsAnOffsetToItsCountAndItsBytes) {
    ExpectRegular("mem_RPCIN", {{"uiMemCmd", 5}, {"pucMemData", Hex("xyz")}},
                  Message({
                      U32(12), U16(8), U16(19), U16(4), U16(8), // the count and the pointer share a slot
                      I32(8),
                      U32(5),                                   // uiMemCmd: scalars stand before offset words
                      U32(4),                                   // offset word of slot 1
                      U32(3), Text("xyz"),                      // uiMemDataLen, and no 0 behind
                  }));
}

TEST(RegularForm, AVectorOfWordsIsAnOffsetToItsCountAndItsWords) {
    ExpectRegular("Tids", {{"puiTids", {1, 0, 0x80000000}}},
                  Message({
                      U32(10), U16(6), U16(24), U16(4), I32(6),
                      U32(4),                                 // offset word
                      U32(3), U32(1), U32(0), U32(0x80000000), // an element of 0 is written, unlike a scalar of 0
                  }));
}

TEST(RegularForm, AVectorOfTablesIsAnOffsetToItsCountAndAnOffsetForEachTable) {
    ExpectRegular("TestTables", {{"pstPair", {{{"ucValue", 1}, {"usValue", 2}}, {{"ucValue", 0}, {"usValue", 3}}}}},
                  Message({
                      U32(10), U16(6), U16(49), U16(4), I32(6),
                      U32(4),                                  // offset word of slot 0
                      U32(2),                                  // two elements
                      U32(16),                                 // from this word to the first table, behind its vtable
                      U32(27),                                 // from this word to the second
                      U16(8), U16(7), U16(4), U16(5),          // first element: a vtable of its own,
                      I32(8), U8(1), U16(2),                   // its table
                      U16(8), U16(6), U16(0), U16(4),          // second element: vtables are never shared,
                      I32(8), U16(3),                          // its table, without ucValue
                  }));
}

TEST(RegularForm, AnEmptyVectorIsAbsent) {
    ExpectRegular("TestTables", {}, Message({U32(10), U16(6), U16(4), U16(0), I32(6)}));
    ExpectRegular("Tids", {}, Message({U32(10), U16(6), U16(4), U16(0), I32(6)}));
    ExpectRegular("mem_RPCIN", {}, Message({U32(12), U16(8), U16(4), U16(0), U16(0), I32(8)}));
}

TEST(RegularForm, AFixedArrayOfBytesIsAVectorOfItsDeclaredLength) {
    ExpectRegular("TestBytes", {{"acName", Hex(std::string_view("a\0c", 3))}, {"ucValue", 9}},
                  Message({
                      U32(12), U16(8), U16(16), U16(5), U16(4),  // slot 0 stands behind slot 1: scalars first
                      I32(8),
                      U8(9),                                     // ucValue
                      U32(4),                                    // offset word of acName
                      U32(3), Text({"a\0c", 3}),                 // its declared length, all its bytes
                  }));
}

TEST(RegularForm, AFixedArrayIsPresentEvenWhenItIsZero) {
    ExpectRegular("TestBytes", {},
                  Message({
                      U32(12), U16(8), U16(15), U16(4), U16(0), I32(8),
                      U32(4),                                 // offset word of acName
                      U32(3), Fill(3, 0),
                  }));
}

TEST(RegularForm, AFixedArrayOf64BitElementsIsAVectorOfItsDeclaredLength) {
    ExpectRegular("TestArray64", {{"ucValue", 1}, {"aullValue", {0x0102030405060708, 0}}},
                  Message({
                      U32(12), U16(8), U16(29), U16(4), U16(5), I32(8),
                      U8(1),                                  // ucValue
                      U32(4),                                 // offset word
                      U32(2), U64(0x0102030405060708), U64(0),
                  }));
}

TEST(RegularForm, AFixedRunOfTablesIsAVectorOfItsDeclaredLength) {
    ExpectRegular("TestRun", {{"astPair", {{{"ucValue", 0}, {"usValue", 0}}, {{"ucValue", 1}, {"usValue", 0}}}}},
                  Message({
                      U32(10), U16(6), U16(45), U16(4), I32(6),
                      U32(4),                                 // offset word of slot 0
                      U32(2), U32(16), U32(24),               // the count, and an offset to each table
                      U16(8), U16(4), U16(0), U16(0), I32(8), // an empty table
                      U16(8), U16(5), U16(4), U16(0), I32(8), U8(1),
                  }));
}

TEST(RegularForm, ANestedTableIsAnOffsetToATable) {
    ExpectRegular("TestNested", {{"uiValue", 6}, {"stPair", {{"ucValue", 1}, {"usValue", 2}}}},
                  Message({
                      U32(12), U16(8), U16(27), U16(4), U16(8), I32(8),
                      U32(6),                                 // uiValue
                      U32(12),                                // offset word: to the table, past its vtable
                      U16(8), U16(7), U16(4), U16(5),         // vtable of stPair
                      I32(8), U8(1), U16(2),                  // stPair
                  }));
}

TEST(FixedForm, ATypeWithoutMembersHasItsVtableBehindItsTable) {
    ExpectFixed("None", Json::object(),
                Message({
                    U32(4),          // root table at 4
                    I32(-4),         // distance: the vtable starts 4 bytes behind the table's start
                    U16(4), U16(4),  // vtable length, table length
                    Gap(4),          // not written; the size is a multiple of 8
                }));
}

TEST(FixedForm, EveryScalarIsPresentEvenWhenItIs0) {
    ExpectFixed("TestFiveWords", {{"uiValue1", 7}, {"uiValue5", 9}},
                Message({
                    U32(4), I32(-24),                                 // root table at 4, its vtable at 28
                    U32(7), U32(0), U32(0), U32(0), U32(9),           // the members
                    U16(14), U16(24),                                 // vtable: lengths
                    U16(4), U16(8), U16(12), U16(16), U16(20),        // and offsets, the same for every record
                    Gap(6),
                }));
}

TEST(FixedForm, AFieldStandsAtItsNaturalAlignmentAtMost4) {
    ExpectFixed("TestScalars", {{"ucOne", 0x11}, {"usTwo", 0x2221}, {"uiFour", 0x44434241}, {"ullEight", 5}},
                Message({
                    U32(4), I32(-20),
                    U8(0x11), Gap(1),                                 // ucOne, and a gap before
                    U16(0x2221),                                      // usTwo at 6
                    U32(0x44434241),                                  // uiFour at 8
                    U64(5),                                           // ullEight at 12, a multiple of 4 only
                    U16(12), U16(20), U16(4), U16(6), U16(8), U16(12),
                    Gap(4),
                }));
}

TEST(FixedForm, AFixedArrayOfBytesFollowsItsOffsetWord) {
    ExpectFixed("TestBytes", {{"acName", Hex("abc")}, {"ucValue", 9}},
                Message({
                    U32(4), I32(-16),
                    U32(4), U32(3), Text("abc"),                      // offset word, count, bytes
                    U8(9),                                            // ucValue at once behind
                    U16(8), U16(16), U16(4), U16(15),
                    Gap(4),
                }));
}

TEST(FixedForm, AFixedArrayOf64BitElementsFollowsItsOffsetWord) {
    ExpectFixed("TestArray64", {{"ucValue", 1}, {"aullValue", {2, 3}}},
                Message({
                    U32(4), I32(-32),
                    U8(1), Gap(3),                                    // ucValue
                    U32(4), U32(2), U64(2), U64(3),                   // offset word at 8, count, elements
                    U16(8), U16(32), U16(4), U16(8),
                    Gap(4),
                }));
}

TEST(FixedForm, AFixedRunOfTablesHoldsEachTableWithItsVtable) {
    ExpectFixed("TestRun", {{"astPair", {{{"ucValue", 1}, {"usValue", 2}}, {{"ucValue", 3}, {"usValue", 4}}}}},
                Message({
                    U32(4), I32(-52),
                    U32(4),                                           // offset word
                    U32(2), U32(8), U32(20),                          // count, and an offset to each table
                    I32(-8), U8(1), Gap(1), U16(2),                   // first table
                    U16(8), U16(8), U16(4), U16(6),                   // and its vtable
                    I32(-8), U8(3), Gap(1), U16(4),                   // second table
                    U16(8), U16(8), U16(4), U16(6),
                    U16(6), U16(52), U16(4),                          // vtable of the root table
                    Gap(2),
                }));
}

TEST(FixedForm, ANestedTableStandsInsideItsParentWithItsVtable) {
    ExpectFixed("TestNested", {{"uiValue", 6}, {"stPair", {{"ucValue", 1}, {"usValue", 2}}}},
                Message({
                    U32(4), I32(-28),
                    U32(6),                                           // uiValue
                    U32(4),                                           // offset word
                    I32(-8), U8(1), Gap(1), U16(2),                   // stPair
                    U16(8), U16(8), U16(4), U16(6),                   // and its vtable
                    U16(8), U16(28), U16(4), U16(8),                  // vtable of the root table
                }));
}

TEST(FixedForm, TheVtableStandsAtAMultipleOf4AndTheTableLengthIsNotPadded) {
    ExpectFixed("PidIsOnlineOuput", {{"uiPid", 7}, {"ucIsOnline", 1}},
                Message({
                    U32(4), I32(-12),
                    U32(7), U8(1), Gap(3),                            // the table is 9 bytes long
                    U16(8), U16(9), U16(4), U16(8),
                }));
    ExpectFixed("PadsGlobalSwitch", {{"ucGlobalSwitch", 1}},
                Message({U32(4), I32(-8), U8(1), Gap(3), U16(6), U16(5), U16(4), Gap(6)}));
    ExpectFixed("PadsAppFunSwitch", {{"ucFunction", 1}, {"ucSwitch", 2}, {"uiValue", 3}},
                Message({U32(4), I32(-12), U8(1), U8(2), Gap(2), U32(3), U16(10), U16(12), U16(4), U16(5), U16(8),
                         Gap(6)}));
}

TEST(FixedForm, OfAStatusIs24Bytes) {
    ExpectFixed("Result", {{"uiResult", 38}}, Message({U32(4), I32(-8), U32(38), U16(6), U16(8), U16(4), Gap(6)}));
    ExpectFixed("TaskResult", {{"uiTaskResult", 38}},
                Message({U32(4), I32(-8), U32(38), U16(6), U16(8), U16(4), Gap(6)}));
}

TEST(FixedForm, OfAnAgentsRegistrationIs72Bytes) {
    ExpectFixed("AgentRegInfoResult", {{"uiValue1", 1}, {"szAgentName", Hex("agent", 32)}, {"uiValue2", 2}},
                Message({
                    U32(4), I32(-52),
                    U32(1),                                           // at 8
                    U32(4), U32(32), Text("agent"), Fill(27, 0),      // at 12, 16 and 20
                    U32(2),                                           // at 52
                    U16(10), U16(52), U16(4), U16(8), U16(48),        // vtable at 56
                    Gap(6),
                }));
}

TEST(FixedForm, OfACallStackRequestIs288Bytes) {
    std::vector<uint64_t> addresses(32);
    Bytes elements;
    for (size_t i = 0; i < 32; ++i) {
        addresses[i] = uint64_t{i} << 32 | 1;
        elements = Message({elements, U64(addresses[i])});
    }
    ExpectFixed("CallStackInput", {{"uiPid", 7}, {"aullStackAddr", addresses}},
                Message({U32(4), I32(-272), U32(7), U32(4), U32(32), elements, U16(8), U16(272), U16(4), U16(8),
                         Gap(4)}));
}

TEST(FixedForm, OfTheOverloadConfigurationsIs48Bytes) {
    ExpectFixed("GetSysCpuOverloadCfgOutput",
                {{"uiValue1", 1}, {"uiValue2", 2}, {"uiValue3", 3}, {"uiValue4", 4}, {"uiValue5", 5}, {"uiValue6", 6}},
                Message({U32(4), I32(-28), U32(1), U32(2), U32(3), U32(4), U32(5), U32(6), U16(16), U16(28), U16(4),
                         U16(8), U16(12), U16(16), U16(20), U16(24)}));
    ExpectFixed("GetSysMemOverloadCfgOutput",
                {{"uiValue1", 1}, {"uiValue2", 2}, {"uiValue3", 3}, {"uiValue4", 4}, {"uiValue5", 5}},
                Message({U32(4), I32(-24), U32(1), U32(2), U32(3), U32(4), U32(5), U16(14), U16(24), U16(4), U16(8),
                         U16(12), U16(16), U16(20), Gap(6)}));
}

TEST(FixedForm, OfTheOverloadReportHoldsTwoTimesOf40BytesEach) {
    const Type &type = FindType("DisCpuOvloadRet");
    const Bytes message = EncodeFixed(type, RecordOf(type, {{"stTime1", Systime(2026)},
                                                            {"acName", Hex("name", 32)},
                                                            {"uiValue3", 3},
                                                            {"stTime2", Systime(2027)}}));
    EXPECT_EQ(message.size(), 160U);
    EXPECT_EQ(FixedVtable(message), (std::vector<uint32_t>{16, 136, 4, 44, 84, 88, 92, 96}));
    EXPECT_EQ(Bytes(message.begin() + 4 + 4, message.begin() + 4 + 44),
              Message({
                  U32(4), I32(-16),                                            // stTime1 right behind its offset word
                  U16(2026), U8(2), U8(0), U8(0), U8(0), U8(0), U8(0),         // usYear to ucWeek
                  U32(999),                                                    // uiMillisecond
                  U16(20), U16(16),                                            // its vtable
                  U16(4), U16(6), U16(7), U16(8), U16(9), U16(10), U16(11), U16(12),
              }));
    EXPECT_EQ(Read32(message, 4 + 48), 32U); // count of acName
    EXPECT_EQ(message[4 + 52], 'n');
    EXPECT_EQ(Read32(message, 4 + 96), 4U); // offset word of stTime2
    EXPECT_EQ(Read16(message, 4 + 104), 2027U);
}

TEST(FixedForm, OfTheResourceReportIs80Bytes) {
    const Type &type = FindType("DisOsResourceInfoRet");
    const Bytes message = EncodeFixed(type, RecordOf(type, {{"acName", Hex("x", 32)}, {"uiValue4", 4}}));
    EXPECT_EQ(message.size(), 80U);
    EXPECT_EQ(FixedVtable(message), (std::vector<uint32_t>{14, 60, 4, 44, 48, 52, 56}));
    EXPECT_EQ(Read32(message, 4 + 8), 32U);
    EXPECT_EQ(message[4 + 12], 'x');
    EXPECT_EQ(Read32(message, 4 + 56), 4U);
}

TEST(RegularForm, SizesAreThoseOfTheFieldsThatArePresent) {
    EXPECT_EQ(RegularSize("AgentRegInfoResult", {}), 58U);
    EXPECT_EQ(RegularSize("AgentRegInfoResult", {{"uiValue1", 1}}), 62U);
    EXPECT_EQ(RegularSize("AgentRegInfoResult", {{"uiValue1", 1}, {"uiValue2", 1}}), 66U);
    EXPECT_EQ(RegularSize("PidIsOnlineOuput", {}), 16U);
    EXPECT_EQ(RegularSize("PidIsOnlineOuput", {{"uiPid", 1}}), 20U);
    EXPECT_EQ(RegularSize("PidIsOnlineOuput", {{"ucIsOnline", 1}}), 17U);
    EXPECT_EQ(RegularSize("PidIsOnlineOuput", {{"uiPid", 1}, {"ucIsOnline", 1}}), 21U);
    EXPECT_EQ(RegularSize("DumpOsProcMemValueResult", {}), 16U);
    EXPECT_EQ(RegularSize("DumpOsProcMemValueResult", {{"uiValue1", 1}}), 20U);
    EXPECT_EQ(RegularSize("DbgCmdShowInput", {{"pcCmdStr", Hex("command")}}), 7U + 23U);
}

TEST(SwappedMode, ReversesEachNumberAndNothingElse) {
    const SwappedMode swapped;
    ExpectRegular("TestBytes", {{"acName", Hex("abc")}, {"ucValue", 9}},
                  Message({
                      {0, 0, 0, 12}, {0, 8}, {0, 16}, {0, 5}, {0, 4}, // root offset and vtable, most significant first
                      {0, 0, 0, 8},
                      U8(9),
                      {0, 0, 0, 4},
                      {0, 0, 0, 3}, Text("abc"),
                  }));
    ExpectFixed("TestArray64", {{"ucValue", 1}, {"aullValue", {0x0102030405060708, 3}}},
                Message({
                    {0, 0, 0, 4}, {0xFF, 0xFF, 0xFF, 0xE0},
                    U8(1), Gap(3),
                    {0, 0, 0, 4}, {0, 0, 0, 2}, {1, 2, 3, 4, 5, 6, 7, 8}, {0, 0, 0, 0, 0, 0, 0, 3},
                    {0, 8}, {0, 32}, {0, 4}, {0, 8},
                    Gap(4),
                }));
}

// clang-format on
