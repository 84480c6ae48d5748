// Single messages at the edges of the rules: the ones a reader would try first.
#include <gtest/gtest.h>

#include "tests/codec/message.h"
#include "tests/codec/platform.h"
#include "tests/codec/swapped_mode.h"
#include "tests/codec/wire.h"

namespace {
constexpr char kTableOffset[] = "[VELTO]:Table offset(%u) is out of range(4 - %u)";
constexpr char kVtableOffset[] = "[VELTO]:Vtable offset(%u) is out of range(4 - %u)";
constexpr char kVtableLength[] = "[VELTO]:Vtable Len(%u) is out of range(0 - %u)";

// The message decodes to the record with the given members, the others absent.
void ExpectAccepted(const char *name, const Bytes &message, const Json &members) {
    const Type &type = FindType(name);
    const Decoded decoded(type, message);
    ASSERT_TRUE(decoded.Accepted());
    EXPECT_EQ(decoded.ToJson(), RecordOf(type, members));
}

// The message is refused before anything is written to the record, with one record in the log.
void ExpectRefusedUntouched(const char *name, const Bytes &message, const char *format, const Json &args) {
    const Type &type = FindType(name);
    PlatformTrace().Clear();
    const Decoded decoded(type, message);
    EXPECT_FALSE(decoded.Accepted());
    EXPECT_TRUE(decoded.IsUntouched());
    EXPECT_EQ(PlatformTrace().log, (std::vector<LogRecord>{{FunctionName(type, "_unpack"), 22, format, args}}));
}

// The message is refused after the record was cleared, with this in the log, and nothing stays allocated.
void ExpectRefused(const char *name, const Bytes &message, const std::vector<LogRecord> &log = {}) {
    PlatformTrace().Clear();
    const Decoded decoded(FindType(name), message);
    EXPECT_FALSE(decoded.Accepted());
    EXPECT_TRUE(decoded.IsZero());
    EXPECT_EQ(PlatformTrace().log, log);
    EXPECT_TRUE(PlatformTrace().live.empty());
}

Bytes EncodeMembers(const char *name, const Json &members) {
    return Encode(FindType(name), RecordOf(FindType(name), members));
}

// A message whose root table has one present slot, an offset word, and behind it what the word leads to.
Bytes WithReference(size_t slotNum, size_t slot, const Bytes &data) {
    Bytes slots(2 * slotNum);
    WriteNumber(slots, 2 * slot, 2, 4);
    const auto vtable = static_cast<uint16_t>(4 + 2 * slotNum);
    return Message({U32(4U + vtable), U16(vtable), U16(0), slots, I32(vtable), U32(4), data});
}

// As WithReference, with an array of `count` bytes.
Bytes WithArray(size_t slotNum, size_t slot, uint32_t count) {
    return WithReference(slotNum, slot, Message({U32(count), Fill(count, 'x')}));
}

// A message without any slots, which an old enough writer sends for any type.
Bytes NoSlots() {
    return Message({U32(8), U16(4), U16(4), I32(4)});
}
} // namespace

// The message's head.

TEST(Edge, AMessageOf4BytesIsRefusedWhateverItsRootOffset) {
    for (const uint32_t offset : {0U, 3U, 4U, 0xFFFFFFFFU}) {
        ExpectRefusedUntouched("Result", U32(offset), kTableOffset, {offset, 4});
    }
}

TEST(Edge, ARootTableMayStandAt4AndAtTheLengthMinus4AndNowhereBeyond) {
    ExpectAccepted("Result", Message({U32(4), I32(-4), U16(4), U16(4)}), {});
    ExpectAccepted("Result", NoSlots(), {});
    ExpectRefusedUntouched("Result", Message({U32(3), I32(-4), U16(4), U16(4)}), kTableOffset, {3, 12});
    ExpectRefusedUntouched("Result", Message({U32(9), U16(4), U16(4), I32(4)}), kTableOffset, {9, 12});
}

TEST(Edge, AVtableOffsetIsLoggedWithTheTablesPosition) {
    ExpectRefusedUntouched("Result", Message({U32(8), U16(4), U16(4), I32(5)}), kVtableOffset, {8, 8});  // at 3
    ExpectRefusedUntouched("Result", Message({U32(8), U16(4), U16(4), I32(-1)}), kVtableOffset, {8, 8}); // at 9
    ExpectRefusedUntouched("Result", Message({U32(8), U16(4), U16(4), I32(9)}), kVtableOffset, {8, 8});  // wraps
    ExpectRefusedUntouched("Result", Message({U32(8), U16(4), U16(4), I32(INT32_MIN)}), kVtableOffset, {8, 8});
}

TEST(Edge, AVtableMayEndWhereTheMessageEndsAndNotBeyond) {
    ExpectAccepted("Result", Message({U32(4), I32(-4), U16(4), U16(4)}), {});
    ExpectRefusedUntouched("Result", Message({U32(4), I32(-4), U16(5), U16(4)}), kVtableLength, {5, 4});
    ExpectRefusedUntouched("Result", Message({U32(4), I32(-4), U16(0xFFFF), U16(4)}), kVtableLength, {0xFFFF, 4});
}

TEST(Edge, AVtableOfLength4YieldsAZeroRecordForEveryType) {
    for (const Type &type : velto::Registry()) {
        const Decoded decoded(type, NoSlots());
        ASSERT_TRUE(decoded.Accepted()) << type.name;
        EXPECT_TRUE(decoded.IsZero()) << type.name;
    }
}

TEST(Edge, AVtableShorterThan4YieldsAZeroRecord) {
    for (const uint16_t length : {uint16_t{0}, uint16_t{1}, uint16_t{3}}) {
        ExpectAccepted("Result", Message({U32(8), U16(length), U16(4), I32(4)}), {});
    }
}

TEST(Edge, AVtableLongerThanTheTypesSlotsIsReadUpToThem) {
    ExpectAccepted("Result", Message({U32(14), U16(10), U16(8), U16(4), U16(0xFFFF), U16(0xFFFF), I32(10), U32(38)}),
                   {{"uiResult", 38}});
}

TEST(Edge, FieldsOfATypeWithoutMembersAreIgnored) {
    const Bytes message = EncodeMembers("PidIsOnlineOuput", {{"uiPid", 1}, {"ucIsOnline", 1}});
    for (const char *name : {"None", "SysCpuStatInfoInput", "GetProcTableInput"}) {
        ExpectAccepted(name, message, Json::object());
    }
}

TEST(Edge, ATypeWithoutMembersReturnsTheRecordItWasGivenAndWritesNothing) {
    const Bytes message = EncodeMembers("None", Json::object());
    uint8_t record = 0xEE;
    EXPECT_EQ(FindType("None").unpack(message.data(), static_cast<uint32_t>(message.size()), &record), &record);
    EXPECT_EQ(record, 0xEE);
}

// Scalars.

TEST(Edge, AScalarMayEndWhereTheMessageEndsAndNotBeyond) {
    const auto message = [](uint16_t offset) {
        return Message({U32(16), U16(12), U16(0), U16(0), U16(0), U16(0), U16(offset), I32(12), Fill(8, 7)});
    };
    ExpectAccepted("TestScalars", message(4), {{"ullEight", 0x0707070707070707}});
    ExpectRefused("TestScalars", message(5));
    ExpectRefused("TestScalars", message(0xFFFF));
}

TEST(Edge, AScalarMayShareItsBytesWithTheTablesOwnDistanceWord) {
    ExpectAccepted("Result", Message({U32(10), U16(6), U16(8), U16(1), I32(6), U8(0)}), {});
}

TEST(Edge, ANarrowScalarNeedsItsWidthOnly) {
    const Bytes message = Message({U32(10), U16(6), U16(5), U16(4), I32(6), U8(9)});
    ExpectAccepted("PadsGlobalSwitch", message, {{"ucGlobalSwitch", 9}});
    ExpectRefused("Result", message);
}

// Strings.

TEST(Edge, AnEmptyStringIsAnAllocationOfItsTerminator) {
    const Bytes message = WithReference(1, 0, Message({U32(0), U8(0)}));
    PlatformTrace().Clear();
    ExpectAccepted("DbgCmdShowInput", message, {{"pcCmdStr", ""}});
    ASSERT_EQ(PlatformTrace().allocations.size(), 1U);
    EXPECT_EQ(PlatformTrace().allocations[0].size, 1U);
    ExpectAccepted("DbgCmdShowInput", NoSlots(), {{"pcCmdStr", nullptr}});
}

TEST(Edge, AZeroLengthTaskNameIsAnAllocatedEmptyString) {
    ExpectAccepted("GetTaskInfoInput", EncodeMembers("GetTaskInfoInput", {{"pcTaskName", ""}}), {{"pcTaskName", ""}});
}

TEST(Edge, AStringNeedsNoTerminatorOnTheWire) {
    ExpectAccepted("DbgCmdShowInput", WithReference(1, 0, Message({U32(2), Text("ab")})), {{"pcCmdStr", Hex("ab")}});
}

TEST(Edge, AStringThatRunsOneBytePastTheEndIsRefusedAndNothingStaysAllocated) {
    ExpectRefused("DbgCmdShowByTarndInput", WithReference(2, 0, Message({U32(3), Text("ab")})));
    ExpectRefused("DbgCmdShowInput", WithReference(1, 0, U32(1)));
}

TEST(Edge, AStringWhoseLengthPlusOneOrPlusItsPlaceWrapsIsRefused) {
    for (const uint32_t length : {0xFFFFFFFFU, 0xFFFFFFFEU, 0xFFFFFFF0U, 0x80000000U, 0x7FFFFFFFU}) {
        PlatformTrace().Clear();
        ExpectRefused("DbgCmdShowInput", WithReference(1, 0, Message({U32(length), Text("abcdefgh")})));
        EXPECT_TRUE(PlatformTrace().allocations.empty());
    }
}

TEST(Edge, AStringIsReleasedWhenALaterMemberIsRefused) {
    Bytes message = EncodeMembers("DbgCmdShowByTarndInput", {{"pcCmdStr", Hex("ls")}, {"uiTargetPid", 1}});
    WriteNumber(message, 4 + 4 + 2, 2, 0xFFFF); // slot 1
    PlatformTrace().Clear();
    const Decoded decoded(FindType("DbgCmdShowByTarndInput"), message);
    EXPECT_FALSE(decoded.Accepted());
    EXPECT_TRUE(decoded.IsZero());
    EXPECT_EQ(PlatformTrace().allocations.size(), 1U);
    EXPECT_TRUE(PlatformTrace().live.empty());
}

// Forward offsets.

TEST(Edge, AnOffsetThatPointsBackwardsIsRefused) {
    for (const int32_t offset : {-1, -4, -8, INT32_MIN}) {
        Bytes message = EncodeMembers("DbgCmdShowInput", {{"pcCmdStr", Hex("abc")}});
        WriteNumber(message, 14, 4, static_cast<uint32_t>(offset));
        ExpectRefused("DbgCmdShowInput", message);
    }
}

TEST(Edge, AnOffsetMayLeadToACountInTheLast4BytesAndNotBeyond) {
    const auto message = [](uint32_t offset) {
        return Message({U32(10), U16(6), U16(0), U16(4), I32(6), U32(offset), Fill(3, 0xEE), U32(0)});
    };
    ExpectAccepted("DbgCmdShowInput", message(7), {{"pcCmdStr", ""}});
    ExpectRefused("DbgCmdShowInput", message(8));
    ExpectRefused("DbgCmdShowInput", message(12));
}

TEST(Edge, AnOffsetWordMustLieWithinTheMessage) {
    ExpectRefused("DbgCmdShowInput", Message({U32(10), U16(6), U16(0), U16(4), I32(6), Fill(3, 0)}));
}

// Vectors.

TEST(Edge, AVectorCountOf0IsNullWithoutAnAllocation) {
    for (const char *name : {"mem_RPCIN_input", "Tids", "TestTables"}) {
        const Type &type = FindType(name);
        const size_t slot = name == std::string("mem_RPCIN_input") ? 1 : 0;
        PlatformTrace().Clear();
        Decoded decoded(type, WithReference(SlotsOf(type).size(), slot, U32(0)));
        ASSERT_TRUE(decoded.Accepted()) << name;
        EXPECT_TRUE(decoded.IsZero()) << name;
        decoded.Release();
        EXPECT_TRUE(PlatformTrace().allocations.empty()) << name;
        EXPECT_TRUE(PlatformTrace().releases.empty()) << name;
    }
}

TEST(Edge, AVectorWhoseCountIs0OrWhosePointerIsNullIsNotWritten) {
    uint32_t words[1] = {7};
    struct Vector {
        uint32_t count;
        uint32_t *words;
    };
    const Type &type = FindType("Tids");
    ASSERT_EQ(type.shape->size, sizeof(Vector));
    for (const Vector &record : {Vector{0, words}, Vector{1, nullptr}}) {
        EXPECT_EQ(type.pack(nullptr, &record), 14U);
        uint8_t message[14];
        uint32_t capacity = sizeof message;
        const VeltoOutBuf out{message, &capacity};
        EXPECT_EQ(type.pack(&out, &record), 14U);
        EXPECT_EQ(Bytes(message, message + 14), EncodeMembers("Tids", {}));
    }
}

TEST(Edge, AVectorCountTimesItsWidthThatWrapsIsRefusedBeforeAnyAllocation) {
    for (const char *name : {"Tids", "TestTables"}) {
        for (const uint32_t count : {0x40000000U, 0x40000001U, 0x3FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
            PlatformTrace().Clear();
            ExpectRefused(name, WithReference(1, 0, Message({U32(count), Fill(64, 0)})));
            EXPECT_TRUE(PlatformTrace().allocations.empty()) << name;
        }
    }
}

TEST(Edge, AVectorOfBytesWhosePlacePlusCountWrapsIsRefusedBeforeAnyAllocation) {
    for (const uint32_t count : {0xFFFFFFFFU, 0xFFFFFFE0U, 0x80000000U, 9U}) {
        PlatformTrace().Clear();
        ExpectRefused("mem_RPCIN", WithReference(2, 1, Message({U32(count), Fill(8, 'x')})));
        EXPECT_TRUE(PlatformTrace().allocations.empty());
    }
}

TEST(Edge, AVectorMayEndWhereTheMessageEndsAndNotBeyond) {
    ExpectAccepted("Tids", WithReference(1, 0, Message({U32(2), U32(5), U32(6)})), {{"puiTids", {5, 6}}});
    ExpectRefused("Tids", WithReference(1, 0, Message({U32(2), U32(5), Fill(3, 0)})));
    ExpectAccepted("mem_RPCIN", WithReference(2, 1, Message({U32(2), Text("ab")})), {{"pucMemData", Hex("ab")}});
}

TEST(Edge, AVectorOfBytesTakesExactlyItsCount) {
    PlatformTrace().Clear();
    ExpectAccepted("mem_RPCIN_input", EncodeMembers("mem_RPCIN_input", {{"pucMemData", Hex("abc")}}),
                   {{"pucMemData", Hex("abc")}});
    ASSERT_EQ(PlatformTrace().allocations.size(), 1U);
    EXPECT_EQ(PlatformTrace().allocations[0].size, 3U);
}

TEST(Edge, TidsWithoutAnyEncodeWithoutTheirSlot) {
    const Bytes message = EncodeMembers("Tids", {});
    EXPECT_EQ(message.size(), 14U);
    ExpectAccepted("Tids", message, {{"puiTids", nullptr}});
}

// Tables in tables.

TEST(Edge, AnElementThatIsRefusedIsLoggedByItsOwnDecoderAndReleasesTheWholeRecord) {
    const auto withElement = [](uint32_t offset) { return WithReference(1, 0, Message({U32(1), U32(offset)})); };
    // The element's word is at 22, the message is 26 bytes long.
    const std::string function = "Tarn_sys_diag_TestPair_unpack_non_root";
    ExpectRefused("TestTables", withElement(4), {{function, 22, kTableOffset, {26, 26}}});
    ExpectRefused("TestTables", withElement(0x7FFFFFFF), {{function, 22, kTableOffset, {0x80000015, 26}}});
    // At its own word, of value 0, stands a table whose vtable is itself: one of length 0, without slots.
    ExpectAccepted("TestTables", withElement(0), {{"pstPair", {{{"ucValue", 0}, {"usValue", 0}}}}});
}

TEST(Edge, AnElementOffsetThatWrapsIsRefusedSilently) {
    for (const uint32_t offset : {0xFFFFFFFFU, 0xFFFFFFF0U, 0xFFFFFFEAU}) {
        ExpectRefused("TestTables", WithReference(1, 0, Message({U32(1), U32(offset)})));
    }
}

TEST(Edge, ATableMayBeSharedByElementsAndEachGetsItsOwnRecord) {
    // clang-format off
    const Bytes message = Message({
        U32(10), U16(6), U16(0), U16(4), I32(6), U32(4), U32(2), // a vector of two
        U32(16), U32(12),                                        // both offsets lead to the same table
        U16(8), U16(7), U16(4), U16(5), I32(8), U8(1), U16(2),
    });
    // clang-format on
    ExpectAccepted("TestTables", message,
                   {{"pstPair", {{{"ucValue", 1}, {"usValue", 2}}, {{"ucValue", 1}, {"usValue", 2}}}}});
}

TEST(Edge, ARunOfTablesWithAnotherCountThanItsLengthIsRefused) {
    for (const uint32_t count : {0U, 1U, 3U, 0x40000002U, 0x80000002U}) {
        Bytes message = EncodeMembers("TestRun", {});
        WriteNumber(message, 18, 4, count);
        ExpectRefused("TestRun", message);
    }
}

TEST(Edge, ACallStackReplyWithAnotherCountThan32IsRefused) {
    for (const uint32_t count : {31U, 33U}) {
        Bytes message = EncodeMembers("CallStackOutput", {});
        WriteNumber(message, 18, 4, count);
        ExpectRefused("CallStackOutput", message);
    }
}

TEST(Edge, ADstWhoseWeekRuleLiesBeyondTheMessageIsRefusedAsAWhole) {
    const Json dst = RecordOf(
        FindType("Dst"), {{"stDstAdjust", {{"ucHour", 1}, {"ucMinute", 2}, {"ucSecond", 3}}}, {"uiDstOffset", 60}});
    Bytes message = EncodeMembers("SetDstInput", {{"stDst", dst}});
    const TableAt table = ReadLayout(FindType("SetDstInput"), message).tables[1];
    ASSERT_EQ(table.type, &FindType("Dst"));
    const size_t field = table.at + static_cast<size_t>(ReadNumber(message, table.vtable + 4 + 2 * 7, 2)); // stDstWeek
    const auto length = static_cast<uint32_t>(message.size());
    WriteNumber(message, field, 4, length - field);
    ExpectRefused("SetDstInput", message,
                  {{"Tarn_sys_diag_DstWeek_unpack_non_root", 22, kTableOffset, {length, length}}});
}

TEST(Edge, ASetDstRequestWithoutFieldsIsAZeroRule) {
    ExpectAccepted("SetDstInput", NoSlots(), {});
}

// Fixed arrays.

TEST(Edge, AFixedArrayWithAnotherCountThanItsLengthIsRefusedSilentlyForEveryType) {
    size_t checked = 0;
    for (const Type &type : velto::Registry()) {
        for (size_t i = 0; i < SlotsOf(type).size(); ++i) {
            const Slot &slot = SlotsOf(type)[i];
            if (slot.kind != velto::Kind::kBytes) {
                continue;
            }
            SCOPED_TRACE(std::string(type.name) + "." + slot.name);
            const size_t slotNum = SlotsOf(type).size();
            for (const uint32_t count : {0U, slot.length - 1, slot.length + 1}) {
                ExpectRefused(type.name, WithArray(slotNum, i, count));
            }
            ExpectAccepted(type.name, WithArray(slotNum, i, slot.length),
                           {{slot.name, Hex(std::string(slot.length, 'x'))}});
            ++checked;
        }
    }
    EXPECT_GT(checked, 0U);
}

TEST(Edge, A32ByteArraySentWithCount31FailsWithoutALogAndLeavesZeros) {
    ExpectRefused("AgentRegInfoInput", WithArray(4, 0, 31));
}

TEST(Edge, AnAgentNameOf31Or33BytesIsRefused) {
    ExpectRefused("AgentRegInfoInput", WithArray(4, 0, 31));
    ExpectRefused("AgentRegInfoInput", WithArray(4, 0, 33));
    ExpectAccepted("AgentRegInfoInput", WithArray(4, 0, 32), {{"szAgentName", Hex(std::string(32, 'x'))}});
}

TEST(Edge, AProcessConfigurationOf96Or98BytesIsRefusedAnd97AreCopiedWithoutATerminator) {
    ExpectRefused("MKCfgInfoOutput", WithArray(4, 0, 96));
    ExpectRefused("MKCfgInfoOutput", WithArray(4, 0, 98));
    ExpectAccepted("MKCfgInfoOutput", WithArray(4, 0, 97), {{"acCfgInfo", Hex(std::string(97, 'x'))}});
}

TEST(Edge, APositionOf49Or51BytesIsRefusedAndAbsentOnesAreZero) {
    ExpectRefused("PositionStr", WithArray(2, 0, 49));
    ExpectRefused("PositionStr", WithArray(2, 0, 51));
    ExpectAccepted("PositionStr", NoSlots(), {});
}

TEST(Edge, ALogPathOf255Or257BytesIsRefusedAnd256WithoutAnyZeroAreKept) {
    ExpectRefused("ZiploginfoInput", WithArray(4, 0, 255));
    ExpectRefused("ZiploginfoInput", WithArray(4, 0, 257));
    ExpectAccepted("ZiploginfoInput", WithArray(4, 0, 256), {{"szLogPath", Hex(std::string(256, 'x'))}});
}

TEST(Edge, AnArrayOf64BitElementsWithAnotherCountIsRefusedEvenWhereItsBytesWrapToTheSame) {
    for (const uint32_t count : {31U, 33U, 0x20000020U}) {
        ExpectRefused("CallStackInput", WithReference(2, 1, Message({U32(count), Fill(264, 0)})));
    }
    ExpectAccepted("CallStackInput", WithReference(2, 1, Message({U32(32), Fill(256, 0)})), {});
}

TEST(Edge, AFixedArrayIsSentWithAllItsBytesNotOnlyUpToItsFirstZero) {
    const std::string text = "abc" + std::string(1, 0) + std::string(28, '?');
    const Bytes message = EncodeMembers("AgentRegInfoResult", {{"szAgentName", Hex(text)}});
    EXPECT_EQ(std::string(message.end() - 32, message.end()), text);
}

TEST(Edge, ARuleWithZeroScalarsAndFullArraysIsKeptUnterminated) {
    const std::string full = Hex(std::string(128, 'r'));
    const Json members = {{"acRule1", full}, {"acRule2", full}, {"acRule3", full}};
    ExpectAccepted("UpdateMsgCtrlRuleInput", EncodeMembers("UpdateMsgCtrlRuleInput", members), members);
}

// Writers of other versions.

TEST(Edge, ARequestWithoutItsOnlySlotReadsAs0) {
    for (const char *name : {"PidIsOnlineInput", "GetMirelMemHandleInfoInput"}) {
        ExpectAccepted(name, NoSlots(), {});
    }
}

TEST(Edge, AnAgentsRegistrationWithFewerSlotsReadsTheMissingMembersAs0) {
    const Bytes message = Message({U32(12), U16(8), U16(0), U16(0), U16(4), I32(8), U32(5)});
    ExpectAccepted("AgentRegInfoInput", message, {{"uiValue1", 5}});
}

TEST(Edge, ARequestInTheAgentsFormReadsTheTargetPidAs0) {
    ExpectAccepted("MemDmgScanInTarnd", EncodeMembers("MemDmgScanIn", {{"uiScanSwitch", 1}}), {{"uiScanSwitch", 1}});
    ExpectAccepted("SetNoxTimerDebugSwitchTarndInput",
                   EncodeMembers("SetNoxTimerDebugSwitchInput", {{"uiDebugSwitch", 1}}), {{"uiDebugSwitch", 1}});
    ExpectAccepted("mem_RPCIN_input", EncodeMembers("mem_RPCIN", {{"uiMemCmd", 1}, {"pucMemData", Hex("a")}}),
                   {{"uiMemCmd", 1}, {"pucMemData", Hex("a")}});
}

TEST(Edge, ALocalTimeWithoutItsLastSlotReadsItAs0) {
    const Type &type = FindType("GetLocalOutput");
    const Bytes message = EncodeMembers("GetLocalOutput", {{"uiValue1", 1}, {"ucValue", 2}});
    const TableAt root = ReadLayout(type, message).tables[0];
    ExpectAccepted("GetLocalOutput", WithVtable(message, root, VtableOf(message, root, 2)), {{"uiValue1", 1}});
}

TEST(Edge, ATimeOfAnOlderPeerReadsWeekAndMillisecondAs0) {
    const Json time = {{"usYear", 2026}, {"ucMonth", 1}, {"ucDay", 2}, {"ucHour", 3}, {"ucMinute", 4}, {"ucSecond", 5}};
    // clang-format off
    const Bytes message = Message({
        U32(10), U16(6), U16(0), U16(4), I32(6), U32(20),                           // SetGmtInput
        U16(16), U16(11), U16(4), U16(6), U16(7), U16(8), U16(9), U16(10), I32(16), // stTime with slots 0 to 5
        U16(2026), U8(1), U8(2), U8(3), U8(4), U8(5),
    });
    // clang-format on
    ExpectAccepted("SetGmtInput", message, {{"stTime", RecordOf(FindType("Systime"), time)}});
}

TEST(Edge, ADumpRequestWithSlot0OnlyReadsBothLongMembersAs0) {
    ExpectAccepted("DumpOsProcMemValueInput", Message({U32(10), U16(6), U16(8), U16(4), I32(6), U32(7)}),
                   {{"uiPid", 7}});
}

TEST(Edge, AReversedMessageYieldsTheSameTimeAsAPlainOne) {
    const Json time =
        RecordOf(FindType("Systime"), {{"usYear", 0x0102}, {"ucMonth", 3}, {"uiMillisecond", 0x04050607}});
    const Bytes plain = EncodeMembers("SetGmtInput", {{"stTime", time}});
    const SwappedMode swapped;
    const Bytes reversed = EncodeMembers("SetGmtInput", {{"stTime", time}});
    EXPECT_NE(reversed, plain);
    ExpectAccepted("SetGmtInput", reversed, {{"stTime", time}});
}

// Encoders.

TEST(Edge, ARecordOfZeroScalarsIsHeaderVtableAndDistanceOnly) {
    EXPECT_EQ(EncodeMembers("TestScalars", {}), Message({U32(16), U16(12), U16(4), Fill(8, 0), I32(12)}));
    EXPECT_EQ(EncodeMembers("PidIsOnlineOuput", {}), Message({U32(12), U16(8), U16(4), Fill(4, 0), I32(8)}));
}

TEST(Edge, ACapacityOfExactly4PassesAndTheWholeMessageIsWritten) {
    const Type &type = FindType("Result");
    const Record record(type, {{"uiResult", 5}});
    const Block block(18, 0xAA);
    uint32_t capacity = 4;
    const VeltoOutBuf out{block.data(), &capacity};
    EXPECT_EQ(type.pack(&out, record.get()), 18U);
    EXPECT_EQ(Bytes(block.data(), block.data() + 18), EncodeMembers("Result", {{"uiResult", 5}}));
}

TEST(Edge, AnOutputDescriptorWithoutACapacityCountsAsOneOf0) {
    const Type &type = FindType("Result");
    const Record record(type, {{"uiResult", 5}});
    const Block block(18);
    const VeltoOutBuf out{block.data(), nullptr};
    PlatformTrace().Clear();
    EXPECT_EQ(type.pack(&out, record.get()), 0U);
    EXPECT_EQ(PlatformTrace().log,
              (std::vector<LogRecord>{
                  {"Tarn_sys_diag_Result_pack", 22, "[VELTO]:Param invalid(%s, %u, %s)", {"nonNull", 0, "nonNull"}}}));
}

TEST(Edge, AnEmptyRegistrationReplyTakes58BytesAndItsFixedForm72) {
    EXPECT_EQ(EncodeMembers("AgentRegInfoResult", {}).size(), 58U);
    EXPECT_EQ(FindType("AgentRegInfoResult").fixedSize(), 72U);
}

TEST(Edge, ALeakReportsFixedFormTakes40992BytesWhateverItHolds) {
    const Type &type = FindType("MemLeakQryOut");
    const std::string text(40960, 'm');
    for (const Json &record : {RecordOf(type, {}), RecordOf(type, {{"acLeakInfo", Hex(text)}, {"ucValue2", 3}})}) {
        const Bytes message = EncodeFixed(type, record);
        ASSERT_EQ(message.size(), 40992U);
        EXPECT_EQ(ReadNumber(message, 4, 4), 0U - 40976U);
        EXPECT_EQ(ReadNumber(message, 12, 4), 40960U);
        const Bytes vtable(message.begin() + 40980, message.begin() + 40988);
        EXPECT_EQ(vtable, Message({U16(8), U16(40973), U16(4), U16(40972)}));
    }
}

TEST(Edge, AThreadsCallStackOfZerosStillCarriesAllItsArrays) {
    const Type &type = FindType("CallStackContext");
    const Json thread = AbsentTable(FindType("CallStackThreadInfo"));
    const Bytes message = Encode(type, RecordOf(type, {{"pstThreadInfo", {thread, thread}}}));
    const Layout layout = ReadLayout(type, message);
    ASSERT_EQ(layout.tables.size(), 1U + 2 * (1 + 32)); // the context, and per thread itself and its function names
    size_t bytes = 0;
    for (const Span &span : layout.bytes) {
        bytes += span.width;
    }
    EXPECT_EQ(bytes, 2U * (2 * 32 + 32 * 128));
    EXPECT_EQ(std::count_if(layout.numbers.begin(), layout.numbers.end(), [](const Span &n) { return n.width == 8; }),
              2 * 32);
    for (const TableAt &table : layout.tables) {
        if (table.type == &FindType("FuncName")) {
            EXPECT_EQ(ReadNumber(message, table.vtable, 2), 6U);
            EXPECT_EQ(ReadNumber(message, table.vtable + 2, 2), 140U);
        }
    }
}
