// What users may take of a resource that they share.
#include "host/runtime/quota.h"

#include <gtest/gtest.h>

#include <deque>
#include <vector>

#include "host/runtime/processors.h"

namespace {

using host::Charge;
using host::Quota;
using host::Resource;
using host::User;

constexpr Resource kAny = Resource::kRequests;

// Takes one after the other until there is no more.
std::vector<Charge> TakeAll(Quota &quota, User &user) {
    std::vector<Charge> all;
    for (Charge charge = quota.Take(user); charge; charge = quota.Take(user)) {
        all.push_back(std::move(charge));
    }
    return all;
}

TEST(Quota, OneUserMayTakeHalf) {
    Quota quota(kAny, 100, 0);
    User user(1, false);
    const auto all = TakeAll(quota, user);
    EXPECT_EQ(all.size(), 50U);
    EXPECT_EQ(quota.HeldBy(user), 50U);
    EXPECT_EQ(quota.Used(), 50U);
    EXPECT_FALSE(quota.IsExhausted());
}

// The n-th has the whole, divided by n (n + 1).
TEST(Quota, HoweverMuchUsersTakeThereIsSomeForTheNext) {
    Quota quota(kAny, 1'000'000, 0);
    std::deque<User> users;
    std::vector<Charge> charges;
    for (uint64_t n = 1; n <= 100; ++n) {
        User &user = users.emplace_back(static_cast<uid_t>(n), false);
        const uint64_t share = 1'000'000 / (n * (n + 1));
        uint64_t most = share + 2; // a division that rounds down leaves the next one more
        while (most > 0 && !quota.Has(user, most)) {
            --most;
        }
        EXPECT_LE(most > share ? most - share : share - most, 2U) << n;
        charges.push_back(quota.Take(user, most));
        EXPECT_TRUE(charges.back()) << n;
        EXPECT_FALSE(quota.Has(user)) << n;
    }
}

TEST(Quota, UsersWhoTakeAgainWhatTheyGaveBackComeToEqualShares) {
    Quota quota(kAny, 120, 0);
    User first(1, false), second(2, false);
    std::vector<Charge> ofFirst = TakeAll(quota, first), ofSecond = TakeAll(quota, second);
    EXPECT_EQ(ofFirst.size(), 60U);
    EXPECT_EQ(ofSecond.size(), 20U);
    for (int i = 0; i < 200; ++i) {
        for (auto &[user, charges] : {std::pair(&first, &ofFirst), std::pair(&second, &ofSecond)}) {
            charges->pop_back();
            while (Charge charge = quota.Take(*user)) {
                charges->push_back(std::move(charge));
            }
        }
    }
    EXPECT_NEAR(static_cast<double>(ofFirst.size()), 30, 1);
    EXPECT_NEAR(static_cast<double>(ofSecond.size()), 30, 1);
}

TEST(Quota, OnlyPrivilegedUsersReachTheReserve) {
    Quota quota(kAny, 100, 20);
    User user(1, false), root(0, true);
    const auto all = TakeAll(quota, user);
    EXPECT_EQ(all.size(), 40U);
    const auto ofRoot = TakeAll(quota, root);
    EXPECT_EQ(ofRoot.size(), 60U);
    EXPECT_TRUE(quota.IsExhausted());
    User another(2, false);
    EXPECT_FALSE(quota.Has(another));
}

TEST(Quota, WhatPrivilegedUsersHoldComesOutOfTheirReserve) {
    Quota quota(kAny, 100, 20);
    User user(1, false), root(0, true);
    const Charge within = quota.Take(root, 20);
    EXPECT_TRUE(quota.Has(user, 40));
    EXPECT_FALSE(quota.Has(user, 41));
    const Charge beyond = quota.Take(root, 20);
    EXPECT_TRUE(quota.Has(user, 30));
    EXPECT_FALSE(quota.Has(user, 31));
}

// Else many users could have nothing of a few workers, though all are free.
TEST(Quota, AnyUserMayHoldTheLeastWhileItIsFree) {
    Quota quota(kAny, 3, 1);
    User first(1, false), second(2, false), third(3, false);
    const Charge ofFirst = quota.Take(first), ofSecond = quota.Take(second);
    EXPECT_TRUE(ofFirst);
    EXPECT_TRUE(ofSecond);
    EXPECT_FALSE(quota.Has(first));
    EXPECT_FALSE(quota.Has(third)) << "the reserve is not his";
}

TEST(Quota, AllIsGivenBack) {
    Quota quota(kAny, 100, 10);
    User user(1, false), root(0, true);
    for (User *const taker : {&user, &root}) {
        Charge charge = quota.Take(*taker, 10);
        Charge moved = std::move(charge);
        EXPECT_FALSE(charge);
        EXPECT_TRUE(moved);
        EXPECT_TRUE(moved.Resize(30));
        EXPECT_FALSE(moved.Resize(101));
        EXPECT_EQ(quota.HeldBy(*taker), 30U);
        EXPECT_TRUE(moved.Resize(0));
        EXPECT_EQ(quota.Used(), 0U);
        EXPECT_TRUE(moved.Resize(5));
        moved = quota.Take(*taker, 7);
        EXPECT_EQ(quota.Used(), 7U);
        moved.GiveBack();
        EXPECT_FALSE(moved);
        EXPECT_EQ(quota.Used(), 0U);
    }
    EXPECT_EQ(TakeAll(quota, user).size(), 45U) << "nobody else counts any more";
}

cpu_set_t Usable() {
    cpu_set_t processors;
    EXPECT_EQ(sched_getaffinity(0, sizeof processors, &processors), 0);
    return processors;
}

TEST(Processors, OneIsLeftToPrivilegedUsers) {
    const cpu_set_t all = Usable();
    if (CPU_COUNT(&all) < 2) {
        GTEST_SKIP() << "there is but one processor";
    }
    {
        const host::OnProcessorsOf processors(User(1, false));
        const cpu_set_t others = Usable();
        EXPECT_EQ(CPU_COUNT(&others), CPU_COUNT(&all) - 1);
        const host::OnProcessorsOf more(User(0, true));
        const cpu_set_t still = Usable();
        EXPECT_TRUE(CPU_EQUAL(&still, &others)) << "what it is part of is another's";
    }
    const cpu_set_t afterwards = Usable();
    EXPECT_TRUE(CPU_EQUAL(&afterwards, &all));
    const host::OnProcessorsOf privileged(User(0, true));
    const cpu_set_t own = Usable();
    EXPECT_TRUE(CPU_EQUAL(&own, &all));
}

// Where there is one, it is everybody's.
TEST(Processors, TheLastOneIsNotTaken) {
    const cpu_set_t all = Usable();
    cpu_set_t one;
    CPU_ZERO(&one);
    size_t first = 0;
    while (!CPU_ISSET(first, &all)) {
        ++first;
    }
    CPU_SET(first, &one);
    ASSERT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
    {
        const host::OnProcessorsOf processors(User(1, false));
        const cpu_set_t left = Usable();
        EXPECT_TRUE(CPU_EQUAL(&left, &one));
    }
    EXPECT_EQ(sched_setaffinity(0, sizeof all, &all), 0);
}

} // namespace
