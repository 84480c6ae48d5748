#include "host/describe/types.h"

#include <gtest/gtest.h>

#include <map>
#include <set>

#include "host/describe/codec.h"
#include "host/describe/record.h"

namespace host::describe {
namespace {

const Slot &SlotNamed(const Type &type, std::string_view name) {
    for (const Slot &slot : type.slots) {
        if (slot.name == name) {
            return slot;
        }
    }
    throw std::out_of_range(std::string(name));
}

TEST(Types, AreFoundByEitherName) {
    ASSERT_NE(FindType("Dst"), nullptr);
    EXPECT_EQ(FindType("Tarn_sys_diag_Dst"), FindType("Dst"));
    EXPECT_EQ(FindType("dst"), nullptr);
    EXPECT_EQ(FindType(""), nullptr);
}

TEST(Types, StandOnceEachAndBehindTheirElements) {
    std::set<std::string_view> seen;
    for (const Type &type : Types()) {
        for (const Slot &slot : type.slots) {
            if (slot.table != nullptr) {
                EXPECT_TRUE(seen.contains(slot.table->name)) << type.name << "." << slot.name;
            }
        }
        EXPECT_TRUE(seen.insert(type.name).second) << type.name;
        EXPECT_EQ(FindType(type.name), &type);
    }
    EXPECT_GE(seen.size(), 190u);
}

TEST(Types, KnowTheirMembers) {
    const Type &threads = *FindType("OsProcessCpuRet");
    EXPECT_EQ(threads.size, sizeof(void *) == 8 ? 24u : 12u);
    ASSERT_EQ(threads.slots.size(), 2u);
    const Slot &vector = threads.slots[0];
    EXPECT_STREQ(vector.name, "pstThread");
    EXPECT_STREQ(vector.count, "uiThreadNum");
    EXPECT_EQ(vector.countOffset, 0u);
    EXPECT_EQ(vector.offset, sizeof(void *));
    EXPECT_EQ(vector.table, FindType("OsProcessCpuThread"));
    EXPECT_EQ(vector.ElementSize(), FindType("OsProcessCpuThread")->size);
    EXPECT_EQ(threads.slots[1].count, nullptr);
}

TEST(Types, NameEveryKind) {
    EXPECT_EQ(KindText(SlotNamed(*FindType("Systime"), "usYear")), "u16");
    EXPECT_EQ(KindText(SlotNamed(*FindType("Dst"), "szDstName")), "bytes[128]");
    EXPECT_EQ(KindText(SlotNamed(*FindType("Dst"), "stDstStart")), "Systime");
    EXPECT_EQ(KindText(SlotNamed(*FindType("DiagResult"), "szText")), "string");
    EXPECT_EQ(KindText(SlotNamed(*FindType("OsProcessCpuRet"), "pstThread")), "vector of OsProcessCpuThread");
    std::set<std::string> words;
    for (const Type &type : Types()) {
        for (const Slot &slot : type.slots) {
            words.insert(KindText(slot));
        }
    }
    EXPECT_TRUE(words.contains("u64[32]"));
    EXPECT_TRUE(words.contains("vector of u32"));
    EXPECT_TRUE(words.contains("vector of bytes"));
    EXPECT_FALSE(words.contains("?"));
}

TEST(Types, CollectWhatIsInsideThem) {
    std::vector<std::string> names;
    for (const Type *type : TypesWithin(*FindType("Dst"))) {
        names.emplace_back(type->name);
    }
    EXPECT_EQ(names, (std::vector<std::string>{"Dst", "Systime", "Timehour", "DstWeek"}));
}

TEST(Methods, AreThoseOfTheFourServices) {
    std::map<std::string_view, uint32_t> last; // the number of each service's last method so far
    std::set<std::string_view> names;
    for (const Method &method : Methods()) {
        EXPECT_EQ(method.index, ++last[method.service]) << method.name;
        ASSERT_NE(method.request, nullptr) << method.name;
        EXPECT_TRUE(names.insert(method.name).second) << method.name << " would need its service's name";
        EXPECT_EQ(FindMethod(method.name), &method);
        EXPECT_EQ(FindMethod(std::string(method.service) + "." + method.name), &method);
    }
    EXPECT_EQ(last.size(), 4u);
    EXPECT_EQ(Services().size(), 4u);
    for (const char *const service :
         {"TarnSysdiagTarnd", "TarnSysdiagTarndAgent", "TarnSysdiagAgent", "TarnSysdiagMaster"}) {
        EXPECT_TRUE(last.contains(service)) << service;
    }
}

TEST(Methods, KnowTheirTypes) {
    const Method *const online = FindMethod("PidIsOnline");
    ASSERT_NE(online, nullptr);
    EXPECT_STREQ(online->request->name, "PidIsOnlineInput");
    EXPECT_STREQ(online->response->name, "PidIsOnlineOuput");
    EXPECT_EQ(FindMethod("DetectTarndServerOnline")->response, nullptr);
    EXPECT_EQ(FindMethod("TarnSysdiagMaster.PidIsOnline"), nullptr);
    EXPECT_EQ(FindMethod("pidisonline"), nullptr);
}

TEST(ClosestNames, AreThoseThatWereMeant) {
    const std::vector<std::string_view> names{"uiPid", "ucIsOnline", "szName", "uiPidMax"};
    EXPECT_EQ(ClosestNames("uiPdi", names), (std::vector<std::string>{"uiPid"}));
    EXPECT_EQ(ClosestNames("isonline", names), (std::vector<std::string>{"ucIsOnline"}));
    EXPECT_EQ(ClosestNames("iPid", names), (std::vector<std::string>{"uiPid"}));
    EXPECT_TRUE(ClosestNames("zzzzzz", names).empty());
    EXPECT_TRUE(ClosestNames("", names).empty());
    EXPECT_EQ(DidYouMean("uipid", names), "; did you mean uiPid?");
    EXPECT_EQ(DidYouMean("zzzzzz", names), "; expected uiPid, ucIsOnline, szName, uiPidMax") << "they are few";
    EXPECT_EQ(DidYouMean("zzzzzz", std::vector<std::string_view>(100, "name")), "");
}

TEST(Record, FixedFormOnlyWhereThereIsOne) {
    EXPECT_EQ(Encode(Record(*FindType("None")), Form::kFixed).size(), 16u);
    EXPECT_THROW(Encode(Record(*FindType("DiagResult")), Form::kFixed), std::invalid_argument);
}

TEST(Record, AMoveLeavesOneOwner) {
    Record first(*FindType("DiagResult"));
    StoreMember(first.Data(), first.GetType().slots[2].offset, AllocateOwned(8));
    Record second = std::move(first);
    Record third(*FindType("None"));
    third = std::move(second);
    EXPECT_STREQ(third.GetType().name, "DiagResult");
}

} // namespace
} // namespace host::describe
