// What holds for every type and every record. The records are random; their seed is in the trace of a failure, and
// TEST_SEED in the environment sets it.
#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/codec/platform.h"
#include "tests/codec/swapped_mode.h"
#include "tests/codec/wire.h"

namespace {
constexpr uint32_t kRounds = 20;

uint32_t Seed() {
    const char *const seed = getenv("TEST_SEED");
    return seed == nullptr ? 20251120 : static_cast<uint32_t>(strtoul(seed, nullptr, 0));
}

// Calls check(type, record) for random records of every type.
template <class Check>
void EachRecord(Check check) {
    ASSERT_FALSE(velto::Registry().empty());
    for (const Type &type : velto::Registry()) {
        for (uint32_t round = 0; round < kRounds && !testing::Test::HasFailure(); ++round) {
            SCOPED_TRACE(std::string(type.name) + ", round " + std::to_string(round) + ", TEST_SEED " +
                         std::to_string(Seed()));
            std::mt19937 random(Seed() + round);
            check(type, RandomRecord(type, random, round == 0 ? Filling::kFull : Filling::kRandom));
        }
    }
    EXPECT_TRUE(PlatformTrace().misuse.empty()) << PlatformTrace().misuse.front();
    EXPECT_TRUE(PlatformTrace().live.empty());
}

void ExpectDecodes(const Type &type, const Bytes &message, const Json &record) {
    const Decoded decoded(type, message);
    ASSERT_TRUE(decoded.Accepted());
    EXPECT_EQ(decoded.ToJson(), record);
}

// The message with each of its numbers reversed in place.
Bytes Reversed(const Type &type, const Bytes &message) {
    Bytes reversed = message;
    for (const Span &number : ReadLayout(type, message).numbers) {
        const auto start = reversed.begin() + static_cast<ptrdiff_t>(number.at);
        std::reverse(start, start + static_cast<ptrdiff_t>(number.width));
    }
    return reversed;
}

// The record as it reads when one of its tables has only the first `slots` slots.
Json WithoutSlots(Json record, const TableAt &table, size_t slots) {
    Json &part = record.at(table.path);
    for (size_t i = slots; i < SlotsOf(*table.type).size(); ++i) {
        const Slot &slot = SlotsOf(*table.type)[i];
        part.at(slot.name) = AbsentSlot(slot);
    }
    return record;
}
} // namespace

TEST(EveryType, RoundTripsInTheRegularForm) {
    EachRecord([](const Type &type, const Json &record) { ExpectDecodes(type, Encode(type, record), record); });
}

TEST(EveryType, RoundTripsInTheFixedFormUnlessItOwnsMemory) {
    size_t checked = 0;
    EachRecord([&](const Type &type, const Json &record) {
        ASSERT_EQ(type.packFixed == nullptr, type.owns);
        ASSERT_EQ(type.fixedSize == nullptr, type.owns);
        if (type.packFixed != nullptr) {
            EXPECT_EQ(type.fixedSize() % 8, 0U);
            ExpectDecodes(type, EncodeFixed(type, record), record);
            ++checked;
        }
    });
    EXPECT_GT(checked, 0U);
}

TEST(EveryType, RoundTripsInTheSwappedMode) {
    const SwappedMode swapped;
    EachRecord([](const Type &type, const Json &record) {
        ExpectDecodes(type, Encode(type, record), record);
        if (type.packFixed != nullptr) {
            ExpectDecodes(type, EncodeFixed(type, record), record);
        }
    });
}

TEST(EveryType, IsWrittenInTheSwappedModeWithEachNumberReversedAndNothingElse) {
    EachRecord([](const Type &type, const Json &record) {
        const Bytes plain = Encode(type, record);
        const Bytes plainFixed = type.packFixed == nullptr ? Bytes() : EncodeFixed(type, record);
        const SwappedMode swapped;
        EXPECT_EQ(Encode(type, record), Reversed(type, plain));
        if (type.packFixed != nullptr) {
            EXPECT_EQ(EncodeFixed(type, record), Reversed(type, plainFixed));
        }
    });
}

TEST(EveryType, LeavesNoByteOfTheRegularFormUnusedAndUsesNoneTwice) {
    EachRecord([](const Type &type, const Json &record) {
        const Bytes message = Encode(type, record);
        const Layout layout = ReadLayout(type, message);
        std::vector<int> uses(message.size());
        for (const auto *spans : {&layout.numbers, &layout.bytes}) {
            for (const Span &span : *spans) {
                for (size_t i = span.at; i < span.at + span.width; ++i) {
                    ++uses.at(i);
                }
            }
        }
        EXPECT_EQ(uses, std::vector<int>(message.size(), 1));
    });
}

TEST(EveryType, HasAVtableOfAllItsSlotsRightBeforeEachTableOfTheRegularForm) {
    EachRecord([](const Type &type, const Json &record) {
        const Bytes message = Encode(type, record);
        for (const TableAt &table : ReadLayout(type, message).tables) {
            const size_t length = 4 + 2 * SlotsOf(*table.type).size();
            EXPECT_EQ(ReadNumber(message, table.vtable, 2), length);
            EXPECT_EQ(table.vtable + length, table.at);
        }
    });
}

TEST(EveryType, HasAllSlotsInTheFixedForm) {
    EachRecord([](const Type &type, const Json &record) {
        if (type.packFixed == nullptr) {
            return;
        }
        const Bytes message = EncodeFixed(type, record);
        for (const TableAt &table : ReadLayout(type, message).tables) {
            for (size_t i = 0; i < SlotsOf(*table.type).size(); ++i) {
                EXPECT_NE(ReadNumber(message, table.vtable + 4 + 2 * i, 2), 0U) << table.path.to_string();
            }
        }
    });
}

TEST(EveryType, ReadsTheMissingSlotsOfAnOlderWriterAsAbsentInEachOfItsTables) {
    EachRecord([](const Type &type, const Json &record) {
        const Bytes message = Encode(type, record);
        for (const TableAt &table : ReadLayout(type, message).tables) {
            const size_t slotNum = SlotsOf(*table.type).size();
            for (size_t slots = 0; slots < slotNum; slots += table.path.empty() ? 1 : slotNum / 2 + 1) {
                SCOPED_TRACE("table \"" + table.path.to_string() + "\" with " + std::to_string(slots) + " slots");
                ExpectDecodes(type, WithVtable(message, table, VtableOf(message, table, slots)),
                              WithoutSlots(record, table, slots));
            }
        }
    });
}

TEST(EveryType, IgnoresTheFurtherSlotsOfANewerWriterInEachOfItsTables) {
    EachRecord([](const Type &type, const Json &record) {
        const Bytes message = Encode(type, record);
        for (const TableAt &table : ReadLayout(type, message).tables) {
            SCOPED_TRACE("table \"" + table.path.to_string() + "\"");
            const size_t slots = SlotsOf(*table.type).size() + 3;
            ExpectDecodes(type, WithVtable(message, table, VtableOf(message, table, slots)), record);
        }
    });
}

TEST(EveryType, HasASlotOnlyWhereAllOfItsEntryLiesWithinTheVtable) {
    EachRecord([](const Type &type, const Json &record) {
        const Bytes message = Encode(type, record);
        const TableAt root = ReadLayout(type, message).tables.front();
        for (size_t length = 0; length < 4 + 2 * SlotsOf(type).size(); ++length) {
            SCOPED_TRACE("vtable length " + std::to_string(length));
            Bytes cut = message;
            WriteNumber(cut, root.vtable, 2, length);
            ExpectDecodes(type, cut, WithoutSlots(record, root, length < 6 ? 0 : (length - 4) / 2));
        }
    });
}

TEST(EveryType, IgnoresTheTableLength) {
    EachRecord([](const Type &type, const Json &record) {
        Bytes message = Encode(type, record);
        for (const TableAt &table : ReadLayout(type, message).tables) {
            WriteNumber(message, table.vtable + 2, 2, 0xFFFF);
        }
        ExpectDecodes(type, message, record);
    });
}

TEST(EveryType, ReadsAMessageAtAnyAddress) {
    EachRecord([](const Type &type, const Json &record) {
        const Bytes message = Encode(type, record);
        for (size_t shift = 1; shift < 8; ++shift) {
            const Block block(message.size() + shift);
            std::copy(message.begin(), message.end(), block.data() + shift);
            const Decoded decoded(type, block.data() + shift, static_cast<uint32_t>(message.size()));
            ASSERT_TRUE(decoded.Accepted());
            EXPECT_EQ(decoded.ToJson(), record);
        }
    });
}

TEST(EveryType, IsLeftWithoutPointersByItsReleaseAndMayBeReleasedTwice) {
    EachRecord([](const Type &type, const Json &record) {
        Decoded decoded(type, Encode(type, record));
        ASSERT_TRUE(decoded.Accepted());
        decoded.Release();
        EXPECT_TRUE(PlatformTrace().live.empty());
        EXPECT_EQ(type.freeUnpacked(decoded.get()), decoded.get());
        EXPECT_TRUE(PlatformTrace().misuse.empty());
    });
}

TEST(EveryType, ReleasesANullRecordAsNothing) {
    for (const Type &type : velto::Registry()) {
        PlatformTrace().Clear();
        EXPECT_EQ(type.freeUnpacked(nullptr), nullptr) << type.name;
        EXPECT_TRUE(PlatformTrace().releases.empty()) << type.name;
    }
}

TEST(EveryType, RefusesBadEncoderArgumentsInTheSameWords) {
    for (const Type &type : velto::Registry()) {
        const Record record(type, AbsentTable(type));
        uint8_t message[4] = {};
        uint32_t three = 3, four = 4;
        const auto expect = [&](const VeltoOutBuf &out, const void *in, const Json &args) {
            PlatformTrace().Clear();
            EXPECT_EQ(type.pack(&out, in), 0U) << type.name;
            EXPECT_EQ(PlatformTrace().log, (std::vector<LogRecord>{{FunctionName(type, "_pack"), 22,
                                                                    "[VELTO]:Param invalid(%s, %u, %s)", args}}));
        };
        expect({message, &three}, record.get(), {"nonNull", 3, "nonNull"});
        expect({nullptr, &four}, record.get(), {"null", 4, "nonNull"});
        expect({message, &four}, nullptr, {"nonNull", 4, "null"});
        expect({nullptr, &three}, nullptr, {"null", 3, "null"});
        PlatformTrace().Clear();
        EXPECT_EQ(type.pack(nullptr, nullptr), 0U) << type.name;
        EXPECT_TRUE(PlatformTrace().log.empty()) << "a size query logs nothing";
    }
}

TEST(EveryType, RefusesBadDecoderArgumentsInTheSameWordsAndLeavesTheRecordAlone) {
    for (const Type &type : velto::Registry()) {
        const Bytes message = Encode(type, AbsentTable(type));
        const auto length = static_cast<uint32_t>(message.size());
        const Block record(type.shape->size + size_t{1}, 0xEE);
        const auto expect = [&](const uint8_t *bytes, uint32_t size, void *out, const Json &args) {
            PlatformTrace().Clear();
            EXPECT_EQ(type.unpack(bytes, size, out), nullptr) << type.name;
            EXPECT_EQ(PlatformTrace().log, (std::vector<LogRecord>{{FunctionName(type, "_unpack"), 22,
                                                                    "[VELTO]:Param invalid(%s, %d, %s)", args}}));
        };
        expect(nullptr, length, record.data(), {"null", length, "nonNull"});
        expect(message.data(), length, nullptr, {"nonNull", length, "null"});
        expect(message.data(), 3, record.data(), {"nonNull", 3, "nonNull"});
        expect(message.data(), 0x80000000, record.data(), {"nonNull", INT32_MIN, "nonNull"});
        expect(message.data(), 0xFFFFFFFF, record.data(), {"nonNull", -1, "nonNull"});
        EXPECT_EQ(std::count(record.data(), record.data() + record.size, 0xEE), static_cast<ptrdiff_t>(record.size));
    }
}
