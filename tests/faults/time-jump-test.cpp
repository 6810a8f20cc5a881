// SPDX-License-Identifier: MIT
// The device's clock is set, back and forth: nothing of the channel notices. What waits, waits by
// time that only passes.
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <thread>

#include "tests/support/channel-test.h"
#include "tests/support/gio-calls.h"
#include "tests/support/handshake.h"

namespace {

using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

constexpr std::time_t kYear = 365 * 24 * 3600;

std::atomic<std::time_t> g_ahead{0};

}  // namespace

// What this whole process, its libraries included, takes for the time of day.
extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
    const auto result = static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    if (clock == CLOCK_REALTIME) {
        now->tv_sec += g_ahead;
    }
    return result;
}

extern "C" int gettimeofday(timeval* now, void* /*zone*/) noexcept {
    timespec exact{};
    const int result = clock_gettime(CLOCK_REALTIME, &exact);
    now->tv_sec = exact.tv_sec;
    now->tv_usec = exact.tv_nsec / 1000;
    return result;
}

extern "C" std::time_t time(std::time_t* now) noexcept {
    timespec exact{};
    clock_gettime(CLOCK_REALTIME, &exact);
    if (now != nullptr) {
        *now = exact.tv_sec;
    }
    return exact.tv_sec;
}

namespace {

class TimeJump : public ChannelTest, public testing::WithParamInterface<std::time_t> {
protected:
    static void Jump() {
        const gint64 before = g_get_real_time();
        g_ahead += GetParam();
        // GLib, too, sees it.
        const auto seen = static_cast<std::time_t>((g_get_real_time() - before) / G_USEC_PER_SEC);
        EXPECT_GE(std::abs(seen), kYear - 60);
    }

    TestChannel channel;
    TestPartner partner;
};

TEST_P(TimeJump, LeavesConversationAlone) {
    Jump();
    Connect(partner, channel);
    Jump();
    Bytes data = ToBytes("hello");
    EXPECT_EQ(channel.SendMessage(data), data);
    channel.SendNotification(data);
    ASSERT_TRUE(IterateUntil([&] { return !partner.Notifications().empty(); }));
    Jump();
    partner.Leave();
    ASSERT_TRUE(IterateUntil([&] { return !channel.IsConnectionReady(); }));
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_P(TimeJump, LeavesTimeBetweenPassesAlone) {
    partner.Join();
    ASSERT_TRUE(partner.HoldClientName(HandshakeStage::SynAck));
    std::atomic<int> passes{0};
    std::vector<steady_clock::time_point> begins;
    OnLogLine([&](const LogLine& line) {  // on the resend thread, where this line is concerned
        if (line.message == "Executed OnResendHandshake function\n") {
            begins.push_back(steady_clock::now());
            ++passes;
        }
    });
    ASSERT_TRUE(partner.Announce(HandshakeStage::Syn));
    ASSERT_TRUE(IterateUntil([&] { return passes == 1; }));
    ASSERT_TRUE(IterateUntil([&] {
        Jump();  // over and over while the thread sleeps
        return passes >= 2;
    }));
    ASSERT_TRUE(partner.ReleaseClientName(HandshakeStage::SynAck));
    ASSERT_TRUE(IterateUntil([&] { return channel.IsConnectionReady() && partner.IsReady(); }));
    EndResends(channel);
    OnLogLine({});
    EXPECT_GE(begins[1] - begins[0], std::chrono::milliseconds(500));
}

TEST_P(TimeJump, LeavesTimeoutOfRequestAlone) {
    Connect(partner, channel);
    partner.SetFaults([] {
        PartnerFaults faults;
        faults.reply = PartnerFaults::Reply::Never;
        return faults;
    }());
    constexpr int kTimeoutMs = 300;
    g_dbus_proxy_set_default_timeout(channel.m_proxy, kTimeoutMs);
    partner.OnEvent([](const tevrol::PartnerEvent& event) {
        if (event.kind == tevrol::PartnerEvent::Kind::Request) {
            Jump();  // while the request waits
        }
    });
    const auto begin = steady_clock::now();
    Bytes data = ToBytes("hello");
    EXPECT_THAT(channel.SendMessage(data), IsEmpty());
    EXPECT_GE(steady_clock::now() - begin, std::chrono::milliseconds(kTimeoutMs));
    EXPECT_THAT(Errors(),
                ElementsAre(Error("SendMessage",
                                  "Error while sending message [24] Timeout was reached\n\n")));
    EXPECT_TRUE(channel.IsConnectionReady());
}

INSTANTIATE_TEST_SUITE_P(By, TimeJump, testing::Values(kYear, -kYear), [](const auto& jump) {
    return std::string(jump.param > 0 ? "AYearAhead" : "AYearBack");
});

}  // namespace
