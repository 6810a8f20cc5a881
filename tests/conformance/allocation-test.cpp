// SPDX-License-Identifier: MIT
// Each allocation of memory that an operation of the channel makes by `operator new`, failed. What
// must hold in each case: std::bad_alloc reaches the caller, the lock is released, nothing of the
// operation is left but what is listed here, and once there is memory again the channel finds a
// partner. Where the caller is GLib or the resend thread's start, the exception ends the process:
// tests/faults/throwing-handler-test.cpp.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <new>
#include <set>

#include "tests/conformance/failure-checks.h"
#include "tests/conformance/scenarios.h"

namespace {

// Counts down to the allocation that fails; none does while it is 0.
int g_until_failure = 0;
int g_allocations = 0;

// The world and the application do not run out of memory here.
bool Fails() {
    if (StubWorld::Outside::IsOpen()) {
        return false;
    }
    ++g_allocations;
    return g_until_failure > 0 && --g_until_failure == 0;
}

}  // namespace

// Not inlined: g++ would take new and delete for a mismatched pair.
__attribute__((noinline)) void* operator new(std::size_t size) {
    void* memory = Fails() ? nullptr : malloc(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

__attribute__((noinline)) void operator delete(void* memory) noexcept {
    free(memory);
}

__attribute__((noinline)) void operator delete(void* memory, std::size_t /*size*/) noexcept {
    free(memory);
}

namespace {

// The scenarios in which an exception reaches the caller, and in which the object lives on.
std::vector<Scenario> ScenariosInCaller() {
    static const std::set<std::string> others = {
        "ResendThreadOfSynAck", "ResendThreadOfAck",     "TeardownUnbound",   "TeardownBound",
        "TeardownReady",        "TeardownResendPending", "ConstructionToLoss"};
    std::vector<Scenario> chosen;
    std::copy_if(Scenarios().begin(), Scenarios().end(), std::back_inserter(chosen),
                 [](const Scenario& scenario) { return others.count(scenario.name) == 0; });
    return chosen;
}

// What the exception leaves behind: the iterator over a payload whose copy finds no memory; and,
// where the constructor did not complete, all that has no destructor. The registration and the
// subscriptions then refer to an object that is gone.
std::set<std::string> LeftBehind(const ChannelLife& life) {
    if (life.channel == nullptr) {
        return {"node", "connection", "registration", "subscription"};
    }
    return {"node",  "connection", "registration", "subscription",
            "watch", "proxy",      "reply",        "iterator"};
}

// Gives that back.
void FreeWhatIsLeft(StubWorld& world) {
    const auto held = world.m_held;
    for (const auto& [object, name] : held) {
        auto* left = const_cast<void*>(object);
        if (name == "node") {
            g_dbus_node_info_unref(static_cast<GDBusNodeInfo*>(left));
        } else if (name.compare(0, 8, "iterator") == 0) {
            g_variant_iter_free(static_cast<GVariantIter*>(left));
        } else if (name == "connection") {
            g_object_unref(left);
        }
    }
}

class FailEveryAllocation : public testing::TestWithParam<Scenario> {
protected:
    // The operation in a world of its own, in which its `place`-th allocation fails; none where 0.
    // Whether one did.
    static bool Perform(ChannelLife& life, int place) {
        GetParam().prepare(life);
        if (GetParam().begin) {
            GetParam().begin(life, kPartners[0]);
        }
        g_allocations = 0;
        g_until_failure = place;
        bool failed = false;
        try {
            GetParam().act(life, kPartners[0]);
        } catch (const std::bad_alloc&) {
            failed = true;
        }
        g_until_failure = 0;
        life.world.plan = nullptr;
        return failed;
    }
};

TEST_P(FailEveryAllocation, PassesTheExceptionOnAndLeavesAUsableChannel) {
    int places = 0;
    {
        ChannelLife life;
        EXPECT_FALSE(Perform(life, 0));
        places = g_allocations;
    }
    for (int place = 1; place <= places; ++place) {
        SCOPED_TRACE("allocation " + std::to_string(place));
        ChannelLife life;
        EXPECT_TRUE(Perform(life, place));
        EXPECT_FALSE(life.world.Locked());
        EXPECT_EQ(life.world.Misuses(), std::vector<std::string>());
        const auto left = LeftBehind(life);
        for (const std::string& held : life.world.Held()) {
            EXPECT_EQ(left.count(held.substr(0, held.find('#'))), 1U) << held;
        }
        if (life.channel != nullptr) {
            EXPECT_EQ(Recover(life, {}), "");
            life.channel.reset();
        }
        FreeWhatIsLeft(life.world);
        EXPECT_LE(life.world.CountHeld("reply"), 2U);
        CheckNothingElseIsHeld(life.world, life.world.CountHeld("reply"));
    }
    printf("%s: %d allocations\n", GetParam().name, places);
}

INSTANTIATE_TEST_SUITE_P(Scenario, FailEveryAllocation, testing::ValuesIn(ScenariosInCaller()),
                         [](const auto& scenario) { return std::string(scenario.param.name); });

}  // namespace
