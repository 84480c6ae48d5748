// The library's file: the names that it gives and takes, and how it is protected.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/library/elf_file.h"
#include "tests/library/name_list.h"

namespace {
using Names = std::set<std::string>;
using testing::IsEmpty;
using testing::Not;

const ElfFile &Library() {
    static const ElfFile library(TEST_LIBRARY);
    return library;
}

Names Without(const Names &names, const Names &others) {
    Names rest;
    std::set_difference(names.begin(), names.end(), others.begin(), others.end(), std::inserter(rest, rest.end()));
    return rest;
}

// What the library may take from the C library and its start-up code.
// clang-format off
const Names kCLibrary = {
    "dlsym", "free", "malloc", "memcpy", "memmove", "memset", "pthread_mutex_lock", "pthread_mutex_unlock", "strlen",
    // stack protector and fortified functions
    "__stack_chk_fail", "__stack_chk_guard", "__memcpy_chk", "__memmove_chk", "__memset_chk",
    // start-up code
    "_ITM_deregisterTMCloneTable", "_ITM_registerTMCloneTable", "__cxa_finalize", "__gmon_start__",
};
// clang-format on
#ifdef TEST_SANITIZED
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#define SKIP_SANITIZED()                                                                                               \
    if (kSanitized) {                                                                                                  \
        GTEST_SKIP() << "the sanitizers bring names and libraries of their own";                                       \
    }
} // namespace

TEST(ClientBinary, ExportsTheProxiesAlone) {
    const Names defined = ElfFile(TEST_CLIENT).Names(true), listed = ReadNames(TEST_CLIENT_EXPORTS);
    EXPECT_THAT(defined, Not(IsEmpty()));
    EXPECT_THAT(Without(defined, listed), IsEmpty()) << "exported, but not listed";
    EXPECT_THAT(Without(listed, defined), IsEmpty()) << "listed, but not exported";
    EXPECT_THAT(Without(defined, Library().Names(true)), IsEmpty()) << "not the library's";
}

TEST(ClientBinary, AsksForARuntimeAndForNoHandler) {
    SKIP_SANITIZED();
    const ElfFile client(TEST_CLIENT);
    EXPECT_THAT(Without(client.Names(false), kCLibrary),
                testing::UnorderedElementsAre("RPC_GetRpcInvoke", "RPC_IdlMsgAsyncCall", "RPC_IdlMsgCreate",
                                              "RPC_IdlMsgDestroy", "RPC_IdlMsgOnewayCall", "RPC_IdlMsgSyncCall",
                                              "g_uiMoraModuleId", "memcpy_s", "memcpy_sOptAsm", "memset_s"));
    EXPECT_EQ(client.Needed(), std::vector<std::string>{"libc.so.6"});
}

TEST(Binary, ExportsTheNamesOfTheVersionScriptAndNoOther) {
    const Names defined = Library().Names(true), listed = ReadNames(TEST_EXPORTS);
    EXPECT_THAT(Without(defined, listed), IsEmpty()) << "exported, but not listed";
    EXPECT_THAT(Without(listed, defined), IsEmpty()) << "listed, but not exported";
}

TEST(Binary, ImportsThePlatformAndTheDaemonAndOfTheCLibraryOnlyWhatIsAllowed) {
    SKIP_SANITIZED();
    const Names undefined = Library().Names(false), listed = ReadNames(TEST_IMPORTS);
    EXPECT_THAT(Without(Without(undefined, listed), kCLibrary), IsEmpty()) << "imported, but not allowed";
    EXPECT_THAT(Without(listed, undefined), IsEmpty()) << "listed, but not imported";
}

TEST(Binary, LooksUpTheOSLayerAtRunTimeOnly) {
    for (const std::string &name : Library().Names(false)) {
        EXPECT_NE(name.substr(0, 4), "XRT_") << name;
    }
}

TEST(Binary, NeedsTheCLibraryAlone) {
    SKIP_SANITIZED();
    EXPECT_EQ(Library().Needed(), std::vector<std::string>{"libc.so.6"});
}

TEST(Binary, HasRelocationsThatAreReadOnlyAndBoundAtLoad) {
    EXPECT_EQ(Library().Segments(PT_GNU_RELRO).size(), 1U);
    EXPECT_TRUE((Library().Dynamic(DT_FLAGS) & DF_BIND_NOW) != 0 || (Library().Dynamic(DT_FLAGS_1) & DF_1_NOW) != 0 ||
                Library().HasDynamic(DT_BIND_NOW));
}

TEST(Binary, HasNoExecutableStack) {
    const auto stacks = Library().Segments(PT_GNU_STACK);
    ASSERT_EQ(stacks.size(), 1U);
    EXPECT_EQ(stacks[0].p_flags & PF_X, 0U);
}

TEST(Binary, HasNoSegmentThatIsWritableAndExecutable) {
    for (const auto &segment : Library().Segments(PT_LOAD)) {
        EXPECT_NE(segment.p_flags & (PF_W | PF_X), static_cast<uint32_t>(PF_W | PF_X));
    }
}

TEST(Binary, HasNoTextRelocations) {
    EXPECT_FALSE(Library().HasDynamic(DT_TEXTREL));
    EXPECT_EQ(Library().Dynamic(DT_FLAGS) & DF_TEXTREL, 0U);
}

// Tables are filled by the compiler and the dynamic loader; the fourth is the C library's start-up code.
TEST(Binary, RunsOneInitialiserForEachUnitAtLoad) {
    SKIP_SANITIZED();
    EXPECT_EQ(Library().Dynamic(DT_INIT_ARRAYSZ), (3 + 1) * sizeof(void *));
}

TEST(Binary, HasTheStackProtector) {
    SKIP_SANITIZED();
    const Names undefined = Library().Names(false);
    EXPECT_TRUE(undefined.count("__stack_chk_fail") != 0 || undefined.count("__stack_chk_fail_local") != 0);
}
