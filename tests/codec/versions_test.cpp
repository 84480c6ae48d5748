// An older and a newer version of an interface exchange messages: a reader takes the slots that both know, leaves those
// that only it knows absent, and passes over those that only the writer knows.
#include <gtest/gtest.h>

#include "tests/codec/platform.h"
#include "tests/codec/record.h"

TARN_UNIT()

typedef struct Tarn_sys_diag_OldItem {
    uint16_t usId;
    char acName[4];
} Tarn_sys_diag_OldItem;
VELTO_TABLE(OldItem, usId, acName)

typedef struct Tarn_sys_diag_NewItem {
    uint16_t usId;
    char acName[4];
    TARN_U64 ullSince;
    uint8_t ucState;
} Tarn_sys_diag_NewItem;
VELTO_TABLE(NewItem, usId, acName, ullSince, ucState)

typedef struct Tarn_sys_diag_OldOwner {
    char *pcText;
    uint32_t uiItemNum;
    Tarn_sys_diag_OldItem *pstItem;
} Tarn_sys_diag_OldOwner;
VELTO_TABLE(OldOwner, pcText, VELTO_VECTOR(uiItemNum, pstItem))

typedef struct Tarn_sys_diag_NewOwner {
    char *pcText;
    uint32_t uiItemNum;
    Tarn_sys_diag_NewItem *pstItem;
    char *pcReason;
    uint32_t uiWordNum;
    uint32_t *puiWord;
} Tarn_sys_diag_NewOwner;
VELTO_TABLE(NewOwner, pcText, VELTO_VECTOR(uiItemNum, pstItem), pcReason, VELTO_VECTOR(uiWordNum, puiWord))

/* Without storage of its own, so that there is a fixed form. */
typedef struct Tarn_sys_diag_OldFlat {
    uint8_t ucValue;
    Tarn_sys_diag_OldItem stItem;
    Tarn_sys_diag_OldItem astItem[2];
} Tarn_sys_diag_OldFlat;
VELTO_TABLE(OldFlat, ucValue, stItem, astItem)

typedef struct Tarn_sys_diag_NewFlat {
    uint8_t ucValue;
    Tarn_sys_diag_NewItem stItem;
    Tarn_sys_diag_NewItem astItem[2];
    TARN_U64 aullValue[2];
    char acText[5];
    Tarn_sys_diag_NewItem stLast;
    Tarn_sys_diag_NewItem astLast[3];
} Tarn_sys_diag_NewFlat;
VELTO_TABLE(NewFlat, ucValue, stItem, astItem, aullValue, acText, stLast, astLast)

TARN_EMPTY_RECORD(Nothing)
VELTO_TABLE(Nothing)

typedef struct Tarn_sys_diag_OldestRoot {
    uint32_t uiValue;
} Tarn_sys_diag_OldestRoot;
VELTO_TABLE(OldestRoot, uiValue)

/* Owners in every place that a table can have, and each kind among what was added. */
typedef struct Tarn_sys_diag_OldRoot {
    uint32_t uiValue;
    Tarn_sys_diag_OldOwner stOwner;
    Tarn_sys_diag_OldOwner astOwner[2];
    uint32_t uiOwnerNum;
    Tarn_sys_diag_OldOwner *pstOwner;
} Tarn_sys_diag_OldRoot;
VELTO_TABLE(OldRoot, uiValue, stOwner, astOwner, VELTO_VECTOR(uiOwnerNum, pstOwner))

typedef struct Tarn_sys_diag_NewRoot {
    uint32_t uiValue;
    Tarn_sys_diag_NewOwner stOwner;
    Tarn_sys_diag_NewOwner astOwner[2];
    uint32_t uiOwnerNum;
    Tarn_sys_diag_NewOwner *pstOwner;
    TARN_U64 ullAdded;
    char *pcAdded;
    char acAdded[3];
    TARN_U64 aullAdded[2];
    uint32_t uiByteNum;
    uint8_t *pucByte;
    uint32_t uiWordNum;
    uint32_t *puiWord;
    uint32_t uiAddedNum;
    Tarn_sys_diag_NewOwner *pstAdded;
    Tarn_sys_diag_NewOwner stAdded;
    Tarn_sys_diag_NewItem astAdded[2];
} Tarn_sys_diag_NewRoot;
VELTO_TABLE(NewRoot, uiValue, stOwner, astOwner, VELTO_VECTOR(uiOwnerNum, pstOwner), ullAdded, pcAdded, acAdded,
            aullAdded, VELTO_VECTOR(uiByteNum, pucByte), VELTO_VECTOR(uiWordNum, puiWord),
            VELTO_VECTOR(uiAddedNum, pstAdded), stAdded, astAdded)

namespace {

struct Versions {
    const char *older;
    const char *newer;
};
constexpr Versions kVersions[] = {{"OldItem", "NewItem"},    {"OldOwner", "NewOwner"},  {"OldFlat", "NewFlat"},
                                  {"OldRoot", "NewRoot"},    {"OldestRoot", "OldRoot"}, {"OldestRoot", "NewRoot"},
                                  {"Nothing", "OldestRoot"}, {"Nothing", "NewRoot"}};

const Slot *FindSlot(const Type &type, std::string_view name) {
    for (const Slot &slot : SlotsOf(type)) {
        if (name == slot.name) {
            return &slot;
        }
    }
    return nullptr;
}

Json AsReadBy(const Type &reader, const Type &writer, const Json &record);

Json SlotAsReadBy(const Slot &reader, const Slot &writer, const Json &value) {
    if (reader.table == nullptr || value.is_null()) {
        return value;
    }
    if (value.is_object()) {
        return AsReadBy(*reader.table, *writer.table, value);
    }
    auto list = Json::array();
    for (const Json &element : value) {
        list.push_back(AsReadBy(*reader.table, *writer.table, element));
    }
    return list;
}

// What a reader of one version makes of a record of another.
Json AsReadBy(const Type &reader, const Type &writer, const Json &record) {
    auto json = Json::object();
    for (const Slot &slot : SlotsOf(reader)) {
        const Slot *const written = FindSlot(writer, slot.name);
        json[slot.name] = written == nullptr ? AbsentSlot(slot) : SlotAsReadBy(slot, *written, record.at(slot.name));
    }
    return json;
}

void ExpectRead(const Type &reader, const Type &writer, const Json &record, const Bytes &message) {
    PlatformTrace().Clear();
    {
        const Decoded decoded(reader, message);
        ASSERT_TRUE(decoded.Accepted());
        EXPECT_EQ(decoded.ToJson(), AsReadBy(reader, writer, record));
    }
    EXPECT_TRUE(PlatformTrace().log.empty());
    EXPECT_TRUE(PlatformTrace().live.empty());
    EXPECT_TRUE(PlatformTrace().misuse.empty());
}

// Random records of one version, in both forms, read by the other.
void Exchange(const Type &writer, const Type &reader) {
    SCOPED_TRACE(std::string(writer.name) + " read as " + reader.name);
    std::mt19937 random(1);
    for (int i = 0; i < 200; ++i) {
        const Json record = RandomRecord(writer, random, i == 0 ? Filling::kFull : Filling::kRandom);
        ExpectRead(reader, writer, record, Encode(writer, record));
        if (writer.packFixed != nullptr) {
            ExpectRead(reader, writer, record, EncodeFixed(writer, record));
        }
    }
}

class VersionsTest : public testing::TestWithParam<bool> {
protected:
    void SetUp() override {
        Unit::binding.EnsureMemBound(); // which clears the flag
        Unit::binding.SetSwapped(GetParam());
    }
    void TearDown() override { Unit::binding.SetSwapped(false); }
};

} // namespace

TEST_P(VersionsTest, NewerReadersLeaveAbsentWhatOlderWritersDidNotKnow) {
    for (const Versions &versions : kVersions) {
        Exchange(FindType(versions.older), FindType(versions.newer));
    }
}

TEST_P(VersionsTest, OlderReadersPassOverWhatTheyDoNotKnow) {
    for (const Versions &versions : kVersions) {
        Exchange(FindType(versions.newer), FindType(versions.older));
    }
}

// A newer writer with nothing new to say writes the older message with a longer vtable.
TEST_P(VersionsTest, AbsentMembersCostTheirSlotOnly) {
    const Type &older = FindType("OldOwner"), &newer = FindType("NewOwner");
    const Json record = {{"pcText", "616263"}, {"pstItem", nullptr}};
    const size_t added = 2 * (SlotsOf(newer).size() - SlotsOf(older).size());
    EXPECT_EQ(Encode(newer, AsReadBy(newer, older, record)).size(), Encode(older, record).size() + added);
}

INSTANTIATE_TEST_SUITE_P(ByteOrder, VersionsTest, testing::Bool(),
                         [](const auto &order) { return order.param ? "Reversed" : "Plain"; });
