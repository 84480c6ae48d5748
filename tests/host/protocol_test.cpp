// The frames: what is written is found again in any pieces, and what is no frame is refused at once.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <tuple>

#include "host/runtime/protocol.h"

namespace {

using host::Frame;
using host::FrameHeader;
using host::FrameKind;
using host::FrameParser;

constexpr uint32_t kLimit = 1 << 20;

FrameHeader SomeHeader() {
    FrameHeader header;
    header.kind = FrameKind::kRequest;
    header.id = 0x0102030405060708;
    header.typeHash = 0xAC85A4AF;
    header.deadlineMs = 5000;
    header.takes = 38;
    header.errCode = 110;
    strcpy(header.service, "TarnSysdiagTarnd");
    strcpy(header.method, "PidIsOnline");
    return header;
}

const std::vector<uint8_t> kPayload = {1, 2, 3, 4, 5, 6, 7};

void ExpectSame(const Frame &frame, const FrameHeader &header, std::span<const uint8_t> payload) {
    EXPECT_EQ(frame.header.kind, header.kind);
    EXPECT_EQ(frame.header.id, header.id);
    EXPECT_EQ(frame.header.typeHash, header.typeHash);
    EXPECT_EQ(frame.header.deadlineMs, header.deadlineMs);
    EXPECT_EQ(frame.header.explanationSize, header.explanationSize);
    EXPECT_EQ(frame.header.takes, header.takes);
    EXPECT_EQ(frame.header.status, header.status);
    EXPECT_EQ(frame.header.errCode, header.errCode);
    EXPECT_STREQ(frame.header.service, header.service);
    EXPECT_STREQ(frame.header.method, header.method);
    EXPECT_TRUE(std::ranges::equal(frame.payload, payload));
}

TEST(Protocol, HeaderIsAsDocumented) {
    const std::vector<uint8_t> bytes = host::MakeFrame(SomeHeader(), kPayload);
    ASSERT_EQ(bytes.size(), 136 + kPayload.size());
    const std::vector<uint8_t> start = {
        'T',  'R',  'P',  'C',                          // magic
        1,    0,                                        // version
        1,    0,                                        // kind: request
        0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01, // call id
        0xAF, 0xA4, 0x85, 0xAC,                         // type hash
        0x88, 0x13, 0,    0,                            // 5000 ms
        38,   0,    0,    0,                            // what it takes
        110,  0,    0,    0,                            // error
        7,    0,    0,    0,                            // length
        0,    0,    0,    0,                            // reserved
    };
    EXPECT_EQ(std::vector<uint8_t>(bytes.begin(), bytes.begin() + 40), start);
    EXPECT_STREQ(reinterpret_cast<const char *>(&bytes[40]), "TarnSysdiagTarnd");
    EXPECT_STREQ(reinterpret_cast<const char *>(&bytes[72]), "PidIsOnline");
    EXPECT_EQ(std::vector<uint8_t>(bytes.begin() + 136, bytes.end()), kPayload);
}

// Of a header with something in every field.
FrameHeader ReadBack(FrameKind kind, uint32_t &at20, uint32_t &at24) {
    FrameHeader header;
    header.kind = kind;
    header.deadlineMs = 1;
    header.explanationSize = 2;
    header.takes = 3;
    header.status = 4;
    const std::vector<uint8_t> bytes = host::MakeFrame(header, {});
    memcpy(&at20, &bytes[20], sizeof at20);
    memcpy(&at24, &bytes[24], sizeof at24);
    FrameParser parser(kLimit);
    parser.Feed(bytes);
    return parser.Take().header;
}

TEST(Protocol, AKindsOwnFieldsTravelAndNoOthers) {
    uint32_t at20, at24;
    const FrameHeader request = ReadBack(FrameKind::kRequest, at20, at24);
    EXPECT_EQ(at20, request.deadlineMs);
    EXPECT_EQ(at24, request.takes);
    EXPECT_EQ(std::tuple(request.deadlineMs, request.explanationSize, request.takes, request.status),
              std::tuple(1, 0, 3, 0));
    const FrameHeader reply = ReadBack(FrameKind::kReply, at20, at24);
    EXPECT_EQ(at20, reply.explanationSize);
    EXPECT_EQ(at24, reply.status);
    EXPECT_EQ(std::tuple(reply.deadlineMs, reply.explanationSize, reply.takes, reply.status), std::tuple(0, 2, 0, 4));
    for (const FrameKind kind : {FrameKind::kOneway, FrameKind::kError, FrameKind::kCancel}) {
        const FrameHeader other = ReadBack(kind, at20, at24);
        EXPECT_EQ(std::tuple(other.deadlineMs, other.explanationSize, other.takes, other.status),
                  std::tuple(1, 0, 0, 4));
    }
}

TEST(Protocol, FramesArriveInAnyPieces) {
    std::vector<uint8_t> stream = host::MakeFrame(SomeHeader(), kPayload);
    const std::vector<uint8_t> empty = host::MakeFrame(SomeHeader(), {});
    stream.insert(stream.end(), empty.begin(), empty.end());
    for (size_t piece = 1; piece <= stream.size(); ++piece) {
        FrameParser parser(kLimit);
        std::vector<Frame> frames;
        for (size_t at = 0; at < stream.size(); at += piece) {
            auto bytes = std::span<const uint8_t>(stream).subspan(at, std::min(piece, stream.size() - at));
            while (!bytes.empty()) {
                bytes = bytes.subspan(parser.Feed(bytes));
                if (parser.HasFrame()) {
                    frames.push_back(parser.Take());
                }
            }
        }
        ASSERT_EQ(frames.size(), 2U) << piece;
        ExpectSame(frames[0], SomeHeader(), kPayload);
        ExpectSame(frames[1], SomeHeader(), {});
        EXPECT_TRUE(parser.AtStart());
    }
}

TEST(Protocol, ALargePayloadIsReadInPlaceAndTakesMemoryAsItComes) {
    std::vector<uint8_t> payload(kLimit);
    for (size_t i = 0; i < payload.size(); ++i) {
        payload[i] = static_cast<uint8_t>(i * 7 + i / 256);
    }
    const std::vector<uint8_t> bytes = host::MakeFrame(SomeHeader(), payload);
    FrameParser parser(kLimit);
    ASSERT_EQ(parser.Feed(std::span(bytes).first(host::kHeaderSize + 10)), host::kHeaderSize);
    ASSERT_EQ(parser.Feed(std::span(bytes).subspan(host::kHeaderSize, 10)), 10);
    size_t have = 10;
    while (!parser.HasFrame()) {
        const auto room = parser.Room();
        EXPECT_LE(room.size(), std::max<size_t>(have, 256 << 10)) << "more memory than the peer has sent";
        if (room.empty()) {
            have += parser.Feed(std::span(bytes).subspan(host::kHeaderSize + have));
            continue;
        }
        const size_t some = std::min<size_t>(room.size(), 5000);
        memcpy(room.data(), &bytes[host::kHeaderSize + have], some);
        parser.Filled(some);
        have += some;
    }
    ExpectSame(parser.Take(), SomeHeader(), payload);
}

TEST(Protocol, APayloadThatIsDroppedTakesNoMemory) {
    const std::vector<uint8_t> bytes = host::MakeFrame(SomeHeader(), std::vector<uint8_t>(kLimit));
    FrameParser parser(kLimit);
    EXPECT_FALSE(parser.IsNewHeader());
    size_t have = parser.Feed(bytes);
    EXPECT_EQ(have, host::kHeaderSize);
    EXPECT_TRUE(parser.IsNewHeader());
    EXPECT_FALSE(parser.IsNewHeader()) << "it is told once";
    parser.DropPayload();
    while (have < bytes.size()) {
        EXPECT_FALSE(parser.HasFrame());
        EXPECT_TRUE(parser.Room().empty());
        have += parser.Feed(std::span(bytes).subspan(have, std::min<size_t>(1000, bytes.size() - have)));
    }
    ASSERT_TRUE(parser.HasFrame());
    const Frame dropped = parser.Take();
    EXPECT_EQ(dropped.header.length, kLimit);
    EXPECT_TRUE(dropped.payload.empty());
    EXPECT_EQ(dropped.payload.capacity(), 0);
    EXPECT_TRUE(parser.AtStart());
    const std::vector<uint8_t> next = host::MakeFrame(SomeHeader(), kPayload);
    parser.Feed(std::span(next).subspan(parser.Feed(next)));
    ExpectSame(parser.Take(), SomeHeader(), kPayload);
}

// What the parser says to a frame of which one byte has another value.
std::pair<uint32_t, std::string> Verdict(size_t at, uint8_t value) {
    std::vector<uint8_t> bytes = host::MakeFrame(SomeHeader(), kPayload);
    bytes[at] = value;
    FrameParser parser(kLimit);
    parser.Feed(bytes);
    EXPECT_FALSE(parser.ErrCode() != 0 && parser.HasFrame());
    EXPECT_TRUE(parser.ErrCode() == 0 || parser.Feed(bytes) == 0);
    return {parser.ErrCode(), parser.Reason()};
}

TEST(Protocol, WhatIsNoFrameIsRefused) {
    EXPECT_EQ(Verdict(0, 'G').second, "not a frame: it starts with 47 52 50 43, expected 54 52 50 43 (\"TRPC\")");
    EXPECT_EQ(Verdict(4, 2).second, "frame of version 2, expected 1");
    EXPECT_EQ(Verdict(6, 0).second, "frame of kind 0, expected 1 to 5");
    EXPECT_EQ(Verdict(6, 6).second, "frame of kind 6, expected 1 to 5");
    EXPECT_EQ(Verdict(36, 1).second, "frame whose reserved word is not 0");
    EXPECT_EQ(Verdict(45, 0).first, uint32_t{EBADMSG}) << "text behind a name's NUL";
    EXPECT_EQ(Verdict(75, '\n').first, uint32_t{EBADMSG}) << "a control character in a name";
    EXPECT_EQ(Verdict(35, 0xFF).first, uint32_t{EMSGSIZE});
    EXPECT_EQ(Verdict(35, 0xFF).second, "message of 4278190087 bytes, expected at most 1048576");
}

TEST(Protocol, AnotherProtocolIsRefusedAtItsFirstBytes) {
    FrameParser parser(kLimit);
    const uint8_t bytes[] = {'G', 'E', 'T'};
    parser.Feed(bytes);
    EXPECT_EQ(parser.ErrCode(), uint32_t{EBADMSG});
}

TEST(Protocol, EveryOtherValueOfEveryHeaderByteIsTakenOrRefused) {
    for (size_t at = 0; at < host::kHeaderSize; ++at) {
        for (unsigned value = 0; value < 256; ++value) {
            const uint32_t error = Verdict(at, static_cast<uint8_t>(value)).first;
            EXPECT_TRUE(error == 0 || error == EBADMSG || error == EMSGSIZE);
        }
    }
}

TEST(Protocol, ErrorTextIsFitToBeShown) {
    const std::vector<uint8_t> hostile = {'a', 0x1B, '[', '2', 'J', '\n', 0x7F, 0};
    EXPECT_EQ(host::ErrorText(hostile), "a?[2J???");
    EXPECT_EQ(host::ErrorText(std::vector<uint8_t>(100000, 'x')).size(), 1024U);
}

TEST(Protocol, ErrorTextIsNotCutWithinACharacter) {
    for (const std::string character : {"x", "é", "‰", "𝄞"}) {
        for (size_t before = 0; before < 4; ++before) {
            std::string text(1024 - before, 'x');
            while (text.size() < 1030) {
                text += character;
            }
            const std::string shown = host::ErrorText({reinterpret_cast<const uint8_t *>(text.data()), text.size()});
            const size_t room = before / character.size() * character.size();
            EXPECT_EQ(shown, text.substr(0, 1024 - before + room)) << character << " " << before;
        }
    }
    EXPECT_EQ(host::ErrorText(std::vector<uint8_t>(2000, 0x80)).size(), 1021U) << "no text at all";
}

} // namespace
