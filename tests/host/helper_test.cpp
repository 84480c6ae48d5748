// What the daemon makes of what a helper says, and a process of its maps.
#include "host/stacks/helper.h"

#include <sys/socket.h>

#include <random>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/unwind/maps.h"
#include "tests/host/error_of.h"

namespace {

using namespace std::chrono_literals;
using host::stacks::Frame;
using host::unwind::Kind;
using kit::ErrorOf;
using testing::IsEmpty;

using Bytes = std::vector<uint8_t>;

void Append(Bytes &to, const void *from, size_t size) {
    const auto *const bytes = static_cast<const uint8_t *>(from);
    to.insert(to.end(), bytes, bytes + size);
}

Bytes FrameBytes(uint64_t address, std::string_view module, std::string_view function) {
    const host::unwind::FrameHead head{
        address, 16, 32, static_cast<uint32_t>(module.size()), static_cast<uint32_t>(function.size()), 2, 0};
    Bytes bytes;
    Append(bytes, &head, sizeof head);
    Append(bytes, module.data(), module.size());
    Append(bytes, function.data(), function.size());
    Append(bytes, "\x1b\x02", 2); // a build id
    return bytes;
}

Bytes operator+(Bytes left, const Bytes &right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

Bytes MessageBytes(Kind kind, const Bytes &content) {
    const host::unwind::Head head{kind, static_cast<uint32_t>(content.size())};
    Bytes bytes;
    Append(bytes, &head, sizeof head);
    return bytes + content;
}

Bytes NameBytes(uint32_t index, std::string_view name) {
    Bytes bytes;
    Append(bytes, &index, sizeof index);
    Append(bytes, name.data(), name.size());
    return bytes;
}

const Bytes kTwoFrames = FrameBytes(0x1000, "libfoo.so", "_Z3Foov") + FrameBytes(0x2000, "program", "main");

TEST(HelperReplyTest, HasFrames) {
    const auto frames = host::stacks::ParseFrames(kTwoFrames);
    ASSERT_TRUE(frames.has_value());
    ASSERT_EQ(frames->size(), 2);
    EXPECT_EQ(frames->at(0).address, 0x1000);
    EXPECT_EQ(frames->at(0).Text(), "_Z3Foov+0x10");
    EXPECT_EQ(frames->at(1).module, "program");
    EXPECT_EQ(frames->at(1).buildId, "1b02");
    EXPECT_EQ(host::stacks::ModulesText(*frames),
              "libfoo.so at 0xfe0, build id 1b02; program at 0x1fe0, build id 1b02");
}

TEST(HelperReplyTest, IsRefusedWhereItIsNotWellFormed) {
    for (size_t size = 0; size < kTwoFrames.size(); ++size) {
        const bool whole = size == FrameBytes(0, "libfoo.so", "_Z3Foov").size();
        EXPECT_EQ(host::stacks::ParseFrames(std::span(kTwoFrames).first(size)).has_value(), whole) << size;
    }
    Bytes many;
    for (size_t i = 0; i <= host::unwind::kMostFrames; ++i) {
        many = many + FrameBytes(i, "", "");
    }
    EXPECT_FALSE(host::stacks::ParseFrames(many).has_value());
    const std::string longName(host::unwind::kMostNameBytes + 1, 'n');
    EXPECT_FALSE(host::stacks::ParseFrames(FrameBytes(1, longName, "")).has_value());
    EXPECT_FALSE(host::stacks::ParseFrames(FrameBytes(1, "", longName)).has_value());
    EXPECT_FALSE(host::stacks::ParseReadableName(NameBytes(0, longName)).has_value());
    EXPECT_FALSE(host::stacks::ParseReadableName(NameBytes(0, "")).has_value());
    EXPECT_FALSE(host::stacks::ParseReadableName(Bytes(3)).has_value());
}

// Names of a helper's go to terminals and logs.
TEST(HelperReplyTest, HasNamesOfOneLineOfText) {
    const auto frames = host::stacks::ParseFrames(FrameBytes(1, "lib\n\x1b[2J", std::string_view("a\0\xff", 3)));
    ASSERT_TRUE(frames.has_value());
    for (const std::string &name : {frames->at(0).module, frames->at(0).function}) {
        EXPECT_TRUE(std::ranges::all_of(name, [](char c) { return c >= ' ' && c < 0x7f; })) << name;
    }
}

TEST(HelperReplyTest, WithAnyBytesHasNamesWithinTheirBounds) {
    std::mt19937 random(1);
    for (int i = 0; i < 100'000; ++i) {
        Bytes bytes = kTwoFrames;
        for (int changes = 0; changes < 4; ++changes) {
            bytes[random() % bytes.size()] = static_cast<uint8_t>(random());
        }
        bytes.resize(bytes.size() - random() % 4);
        if (const auto frames = host::stacks::ParseFrames(bytes)) {
            for (const Frame &frame : *frames) {
                EXPECT_LE(frame.function.size() + frame.module.size(), bytes.size());
            }
        }
    }
}

// A helper that says what it is told to, whatever it is asked.
class ScriptedHelper {
public:
    explicit ScriptedHelper(const Bytes &says, bool ends = true) {
        int fds[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
        helper.emplace(host::Descriptor(fds[0]));
        other_ = host::Descriptor(fds[1]);
        EXPECT_EQ(send(fds[1], says.data(), says.size(), 0), static_cast<ssize_t>(says.size()));
        if (ends) {
            shutdown(fds[1], SHUT_WR);
        }
    }

    std::vector<Frame> Unwind(std::chrono::milliseconds limit = 20s) {
        host::stacks::Snapshot snapshot;
        snapshot.registers = {1, 2, 3};
        snapshot.stack.resize(100);
        return helper->Unwind(snapshot, std::chrono::steady_clock::now() + limit);
    }

    std::optional<host::stacks::Helper> helper;

private:
    host::Descriptor other_;
};

TEST(HelperTest, NamesTheFunctionsThatItCan) {
    ScriptedHelper scripted(MessageBytes(Kind::kFrames, kTwoFrames) +
                            MessageBytes(Kind::kReadable, NameBytes(0, "Foo()")) + MessageBytes(Kind::kEnd, {}));
    const std::vector<Frame> frames = scripted.Unwind();
    ASSERT_EQ(frames.size(), 2);
    EXPECT_EQ(frames[0].function, "Foo()");
    EXPECT_EQ(frames[1].function, "main");
    EXPECT_TRUE(scripted.helper->Fit());
}

TEST(HelperTest, ThatEndsWhileItNamesLeavesTheOtherNames) {
    for (const Bytes &then :
         {Bytes(), MessageBytes(Kind::kReadable, NameBytes(2, "x")), MessageBytes(Kind::kReady, Bytes(4)),
          MessageBytes(Kind::kReadable, NameBytes(0, "Foo()")), MessageBytes(Kind::kEnd, Bytes(1))}) {
        ScriptedHelper scripted(MessageBytes(Kind::kFrames, kTwoFrames) +
                                MessageBytes(Kind::kReadable, NameBytes(0, "Foo()")) + then);
        const std::vector<Frame> frames = scripted.Unwind();
        ASSERT_EQ(frames.size(), 2);
        EXPECT_EQ(frames[0].function, "Foo()");
        EXPECT_EQ(frames[1].function, "main");
        EXPECT_FALSE(scripted.helper->Fit());
    }
}

TEST(HelperTest, ThatLiesOrEndsOrIsSilentIsNotAskedAgain) {
    const Bytes tooLarge = [] {
        const host::unwind::Head head{Kind::kFrames, UINT32_MAX};
        Bytes bytes;
        Append(bytes, &head, sizeof head);
        return bytes;
    }();
    for (const auto &[says, error] : {std::pair{tooLarge, EPROTO},
                                      {MessageBytes(Kind::kEnd, {}), EPROTO},
                                      {MessageBytes(Kind::kFrames, {}), EPROTO},
                                      {Bytes(5), EPIPE},
                                      {Bytes(), EPIPE}}) {
        ScriptedHelper scripted(says);
        EXPECT_EQ(ErrorOf([&] { scripted.Unwind(); }), error);
        EXPECT_FALSE(scripted.helper->Fit());
    }
    ScriptedHelper silent({}, false);
    EXPECT_EQ(ErrorOf([&] { silent.Unwind(10ms); }), ETIMEDOUT);
    EXPECT_FALSE(silent.helper->Fit());
}

TEST(HelperTest, IsReadyOrSaysWhyNot) {
    const auto ready = [](int32_t error) {
        Bytes bytes;
        Append(bytes, &error, sizeof error);
        ScriptedHelper scripted(MessageBytes(Kind::kReady, bytes));
        return ErrorOf([&] { scripted.helper->AwaitReady(std::chrono::steady_clock::now() + 20s); });
    };
    EXPECT_EQ(ready(0), 0);
    EXPECT_EQ(ready(EPERM), EPERM);
    EXPECT_EQ(ready(ESRCH), ESRCH);
    EXPECT_EQ(ready(-77), EPIPE) << "no word of its own reaches a caller";
}

TEST(MapsTest, HaveModules) {
    const auto modules = host::unwind::ParseMaps("1000-2000 r--p 00000000 fd:01 77   /usr/lib/lib a.so\n"
                                                 "2000-4000 r-xp 00001000 fd:01 77   /usr/lib/lib a.so\n"
                                                 "4000-5000 rw-p 00000000 00:00 0 \n"
                                                 "5000-6000 ---p 00003000 fd:01 77   /usr/lib/lib a.so\n"
                                                 "7000-8000 r--p 00000000 fd:01 78   /usr/lib/b.so (deleted)\n"
                                                 "9000-a000 rw-p 00000000 00:00 0    [stack]\n"
                                                 "b000-c000 r-xp 00000000 00:00 0    [vdso]\n");
    ASSERT_EQ(modules.size(), 3);
    EXPECT_EQ(modules[0].path, "/usr/lib/lib a.so");
    EXPECT_EQ(modules[0].Low(), 0x1000);
    EXPECT_EQ(modules[0].High(), 0x6000);
    ASSERT_EQ(modules[0].mappings.size(), 3);
    EXPECT_EQ(modules[0].mappings[1].fileOffset, 0x1000);
    EXPECT_TRUE(modules[0].mappings[1].readable);
    EXPECT_FALSE(modules[0].mappings[2].readable);
    EXPECT_EQ(modules[1].path, "/usr/lib/b.so (deleted)");
    EXPECT_EQ(modules[1].inode, 78);
    EXPECT_EQ(modules[2].path, host::unwind::kVdso);
}

TEST(MapsTest, HaveNoModuleInALineThatIsNone) {
    EXPECT_THAT(host::unwind::ParseMaps(""), IsEmpty());
    EXPECT_THAT(host::unwind::ParseMaps("\n\n x"), IsEmpty());
    EXPECT_THAT(host::unwind::ParseMaps("2000-1000 r--p 0 fd:01 77 /a"), IsEmpty());
    EXPECT_THAT(host::unwind::ParseMaps("1000-2000 r--p 0 fd:01 zz /a"), IsEmpty());
}

} // namespace
