// SPDX-License-Identifier: MIT
// The resend thread: the passes that repeat a failed announcement, and its beginning and end.
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

#include "tests/support/gio-calls.h"
#include "tests/support/handshake.h"

namespace {

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::Ge;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;

using C = TevrolDbusRemote;

constexpr const char* kPass = "OnResendHandshake";

const LogLine kExecuted = Debug(kPass, "Executed OnResendHandshake function\n");
const LogLine kNothingLeft = Debug(kPass, "Nothing left to resend, closing timer\n");
const LogLine kFinished = Debug("TimerThread", "Finished timer thread\n");

LogLine Number(int entries) {
    return Debug(kPass, "Number of handshakes to resend: " + std::to_string(entries) + "\n");
}

LogLine Resending(const std::string& partner, const std::string& suffix) {
    return Debug(kPass,
                 "Resending handshake: partner " + partner + ", handshakeSuffix " + suffix + "\n");
}

LogLine Mismatch(const std::string& bound, const std::string& owed_to) {
    return Debug(
        kPass, "Partner name: " + bound + " different then resend partner name: " + owed_to + "\n");
}

LogLine Succeeded(const TestedStage& stage) {
    return Debug(kPass, "Successfully broadcasted: " + stage.Answer() + "\n");
}

LogLine FailedAgain(const TestedStage& stage) {
    return Debug(kPass, "Failed to broadcasted: " + stage.Answer() + ". Will try once again\n");
}

int Count(const LogLine& line) {
    const Lines lines = Log();
    return static_cast<int>(std::count(lines.begin(), lines.end(), line));
}

class Resend : public ChannelTest {
protected:
    Resend() {
        partner.Join();
        unique_name = partner.UniqueName();
    }
    void TearDown() override {
        EndResends(channel);
    }

    // The answer of `stage` is refused to the channel, because `holder` owns its name, and is owed
    // to the partner from then on.
    void Owe(const TestedStage& stage, TestPartner& holder) {
        ASSERT_TRUE(holder.HoldClientName(stage.answered));
        ClearLog();
        ASSERT_TRUE(partner.Announce(stage.heard));
        ASSERT_TRUE(IterateUntil([&] { return channel.m_signal_id != 0; }));
        thread = ResendThread(channel);
    }

    // Waits for the end of the thread without running the loop, so that no callback adds anything
    // to what the passes do.
    void JoinThread() const {
        ASSERT_NE(thread, 0U);
        ASSERT_EQ(pthread_join(thread, nullptr), 0);
    }

    // The end of what the thread has logged; what comes before depends on how many passes there
    // were. A callback may have logged lines in between.
    static Lines LastLines(std::size_t count) {
        Lines lines = Log();
        const auto of_callback = [](const LogLine& line) {
            return line.function.rfind("cb_", 0) == 0;
        };
        lines.erase(std::remove_if(lines.begin(), lines.end(), of_callback), lines.end());
        EXPECT_GE(lines.size(), count);
        return {lines.end() - static_cast<std::ptrdiff_t>(std::min(count, lines.size())),
                lines.end()};
    }

    bool ThreadHasEnded() {
        return ResendThread(channel) == 0;
    }

    TestChannel channel;
    TestPartner partner;
    std::string unique_name;
    pthread_t thread = 0;
};

// ---- One pass ----

TEST_F(Resend, PassWithNothingOwedReturnsZero) {
    ClearLog();
    EXPECT_EQ(C::OnResendHandshake(&channel), 0);
    EXPECT_THAT(Log(), ElementsAre(kExecuted, Number(0), kNothingLeft));
}

TEST_F(Resend, FailedPassKeepsEntryAndReturnsOne) {
    gio_calls::Fail("pthread_create");  // no other passes
    Owe(kSynStage, partner);
    EXPECT_EQ(C::OnResendHandshake(&channel), 1);
    EXPECT_THAT(LogOf(kPass), ElementsAre(kExecuted, Number(1), Resending(unique_name, "_SYN_ACK"),
                                          FailedAgain(kSynStage)));
    EXPECT_THAT(Owed(channel), ElementsAre(Pair(unique_name, "_SYN_ACK")));
    EXPECT_EQ(HandshakeState(channel), C::CONNECTION_HANDSHAKE_SYN);
}

TEST_F(Resend, PassDropsEntriesOfOthers) {
    channel.m_partner_dbus_name = unique_name;
    channel.m_resendHandshake = {{":0.1", "_ACK"}, {unique_name, "_SYN_ACK"}, {":9.9", "_ACK"}};
    ASSERT_TRUE(partner.HoldClientName(HandshakeStage::SynAck));
    ClearLog();
    gio_calls::Clear();
    EXPECT_EQ(C::OnResendHandshake(&channel), 1);
    EXPECT_THAT(
        LogOf(kPass),
        ElementsAre(kExecuted, Number(3), Resending(":0.1", "_ACK"), Mismatch(unique_name, ":0.1"),
                    Resending(unique_name, "_SYN_ACK"), FailedAgain(kSynStage),
                    Resending(":9.9", "_ACK"), Mismatch(unique_name, ":9.9")));
    EXPECT_THAT(AnnouncedNames(), ElementsAre(kSynStage.Answer()));
    EXPECT_THAT(Owed(channel), ElementsAre(Pair(unique_name, "_SYN_ACK")));
}

TEST_F(Resend, PassDropsEntryWithUnknownSuffix) {
    channel.m_partner_dbus_name = unique_name;
    for (const std::string suffix : {"_SYN", "", "_ACK_", "_CLIENT_ACK"}) {
        channel.m_resendHandshake = {{unique_name, suffix}};
        ClearLog();
        gio_calls::Clear();
        EXPECT_EQ(C::OnResendHandshake(&channel), 0);
        EXPECT_THAT(
            Log(), ElementsAre(kExecuted, Number(1), Resending(unique_name, suffix), kNothingLeft));
        EXPECT_THAT(AnnouncedNames(), IsEmpty());
        EXPECT_THAT(Owed(channel), IsEmpty());
    }
    EXPECT_EQ(HandshakeState(channel), C::CONNECTION_HANDSHAKE_SYN);
}

// ---- The thread ----

TEST_F(Resend, ResentAckCompletesAndEndsThread) {
    std::thread::id told_on = std::this_thread::get_id();
    bool held = false;
    bool ready = false;
    channel.on_ready = [&](bool, const std::string&) {
        told_on = std::this_thread::get_id();
        held = IsHeld(channel.m_mutex);
        ready = channel.IsConnectionReady();
    };
    Owe(kSynAckStage, partner);
    ASSERT_TRUE(partner.ReleaseClientName(HandshakeStage::Ack));
    JoinThread();
    const Lines last_pass = Lines{kExecuted, Number(1), Resending(unique_name, "_ACK")} +
                            BroadcastLines(kSynAckStage.Answer()) +
                            Lines{Succeeded(kSynAckStage), kNothingLeft, kFinished};
    EXPECT_EQ(LastLines(last_pass.size()), last_pass);
    EXPECT_THAT(channel.ReadyCalls(), ElementsAre(Pair(true, unique_name)));
    EXPECT_NE(told_on, std::this_thread::get_id());
    EXPECT_TRUE(held);
    EXPECT_TRUE(ready);
    EXPECT_EQ(HandshakeState(channel), C::CONNECTION_HANDSHAKE_ACK);
    EXPECT_THAT(Owed(channel), IsEmpty());
    EXPECT_TRUE(ThreadHasEnded());
}

TEST_F(Resend, ResentSynAckTellsNobodyAndEndsThread) {
    Owe(kSynStage, partner);
    ASSERT_TRUE(partner.ReleaseClientName(HandshakeStage::SynAck));
    JoinThread();
    EXPECT_THAT(Log(), Contains(Succeeded(kSynStage)));
    EXPECT_EQ(HandshakeState(channel), C::CONNECTION_HANDSHAKE_SYN_ACK);
    EXPECT_THAT(channel.ReadyCalls(), IsEmpty());
    EXPECT_THAT(Owed(channel), IsEmpty());
    EXPECT_TRUE(ThreadHasEnded());
    // The partner has been waiting for it.
    ASSERT_TRUE(IterateUntil([&] { return channel.IsConnectionReady() && partner.IsReady(); }));
}

TEST_F(Resend, FailingAnnouncementIsRepeated) {
    Owe(kSynStage, partner);
    ASSERT_TRUE(IterateUntil([] { return Count(kExecuted) >= 4; }));
    const Lines lines = LogOf(kPass);
    const Lines pass = {kExecuted, Number(1), Resending(unique_name, "_SYN_ACK"),
                        FailedAgain(kSynStage)};
    const Lines three_passes = pass + pass + pass;
    EXPECT_EQ(
        Lines(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(three_passes.size())),
        three_passes);
    EXPECT_FALSE(ThreadHasEnded());
    EXPECT_THAT(Owed(channel), ElementsAre(Pair(unique_name, "_SYN_ACK")));
    EXPECT_EQ(HandshakeState(channel), C::CONNECTION_HANDSHAKE_SYN);
}

TEST_F(Resend, PassesAreHalfASecondApart) {
    using Clock = std::chrono::steady_clock;
    Clock::time_point since = Clock::now();
    std::vector<Clock::duration> pauses;
    OnLogLine([&](const LogLine& line) {  // on the resend thread, where these lines are concerned
        if (line == kExecuted) {
            pauses.push_back(Clock::now() - since);
        } else if (line == FailedAgain(kSynStage)) {
            since = Clock::now();
        }
    });
    Owe(kSynStage, partner);
    ASSERT_TRUE(IterateUntil([] { return Count(FailedAgain(kSynStage)) >= 3; }));
    EndResends(channel);
    OnLogLine({});
    EXPECT_THAT(pauses, Each(Ge(std::chrono::milliseconds(500))));
}

TEST_F(Resend, LossOfPartnerEndsThreadAtNextPass) {
    TestPartner holder;
    holder.Join();
    Owe(kSynStage, holder);
    partner.Leave();
    ASSERT_TRUE(IterateUntil([&] { return channel.m_signal_id == 0; }));
    JoinThread();
    const Lines last_pass = {
        kExecuted,    Number(1), Resending(unique_name, "_SYN_ACK"), Mismatch("", unique_name),
        kNothingLeft, kFinished};
    EXPECT_EQ(LastLines(last_pass.size()), last_pass);
    EXPECT_THAT(Owed(channel), IsEmpty());
    EXPECT_EQ(HandshakeState(channel), C::CONNECTION_NOT_STARTED);
    EXPECT_TRUE(ThreadHasEnded());
}

TEST_F(Resend, ThreadEndsWhenNothingIsOwed) {
    Owe(kSynStage, partner);
    {
        const PTAutoLock lock(channel.m_mutex);
        channel.m_resendHandshake.clear();
    }
    JoinThread();
    EXPECT_EQ(LastLines(3), (Lines{Number(0), kNothingLeft, kFinished}));
    EXPECT_TRUE(ThreadHasEnded());
}

TEST_F(Resend, ThreadEndsAfterPassWithNothingLeft) {
    ClearLog();
    {
        const PTAutoLock before_it_clears_its_record(channel.m_mutex);
        ASSERT_EQ(pthread_create(&thread, nullptr, C::TimerThread, &channel), 0);
        channel.m_timerThread = thread;
    }
    JoinThread();
    EXPECT_THAT(Log(), ElementsAre(kExecuted, Number(0), kNothingLeft, kFinished));
    EXPECT_TRUE(ThreadHasEnded());
}

TEST_F(Resend, EndedThreadIsNotJoinedAndLaterFailureStartsAnother) {
    gio_calls::Clear();
    Owe(kSynAckStage, partner);
    ASSERT_TRUE(partner.ReleaseClientName(HandshakeStage::Ack));
    ASSERT_TRUE(IterateUntil([&] { return ThreadHasEnded(); }));
    EXPECT_THAT(gio_calls::Of("pthread_create"), SizeIs(1));

    partner.Leave();
    ASSERT_TRUE(IterateUntil([&] { return channel.m_signal_id == 0; }));
    partner.Join();
    Owe(kSynAckStage, partner);
    EXPECT_THAT(gio_calls::Of("pthread_create"), SizeIs(2));
    EXPECT_FALSE(ThreadHasEnded());
    ASSERT_TRUE(partner.ReleaseClientName(HandshakeStage::Ack));
    ASSERT_TRUE(IterateUntil([&] { return ThreadHasEnded(); }));
    EXPECT_THAT(channel.ReadyCalls(), ElementsAre(Pair(true, unique_name), Pair(false, unique_name),
                                                  Pair(true, partner.UniqueName())));
    EXPECT_THAT(gio_calls::Of("pthread_join"), IsEmpty());
}

// What glibc does, without a stand-in: where it has memory for the stack and may not start the
// thread, it fails and leaves a handle, which the next thread gets, too.
TEST(ThreadCreation, FailureLeavesAHandle) {
    const auto run_out_of_threads = [] {
        constexpr uid_t kNobody = 65534;  // root is not limited
        if (getuid() == 0 && setuid(kNobody) != 0) {
            _exit(1);
        }
        const rlimit none = {0, 0};
        setrlimit(RLIMIT_NPROC, &none);
        pthread_t thread = 0;
        const int status = pthread_create(
            &thread, nullptr, [](void*) -> void* { return nullptr; }, nullptr);
        _exit(status == EAGAIN && thread != 0 ? 0 : 2);
    };
    EXPECT_EXIT(run_out_of_threads(), testing::ExitedWithCode(0), "");
}

// The handle is taken for that of a thread. So no later failure starts one, no pass ever comes, and
// the destructor joins whichever thread has the handle by then.
TEST_F(Resend, EntryWithoutAThreadIsNotRepeated) {
    gio_calls::Fail("pthread_create");
    Owe(kSynStage, partner);
    EXPECT_EQ(thread, gio_calls::kHandleOfNoThread);
    partner.Leave();
    ASSERT_TRUE(IterateUntil([&] { return channel.m_signal_id == 0; }));

    partner.Join();
    gio_calls::Clear();
    Owe(kSynStage, partner);
    EXPECT_EQ(thread, gio_calls::kHandleOfNoThread);
    EXPECT_THAT(gio_calls::Of("pthread_create"), IsEmpty());
    EXPECT_THAT(Owed(channel),
                ElementsAre(Pair(unique_name, "_SYN_ACK"), Pair(partner.UniqueName(), "_SYN_ACK")));
}

// Where there was no memory for the thread's stack, the handle is untouched.
TEST_F(Resend, EntryWithoutAThreadWaitsForLaterThread) {
    gio_calls::Fail("pthread_create", 1, gio_calls::Failure::WithoutError);
    Owe(kSynStage, partner);
    EXPECT_TRUE(ThreadHasEnded());
    partner.Leave();
    ASSERT_TRUE(IterateUntil([&] { return channel.m_signal_id == 0; }));
    EXPECT_THAT(Owed(channel), ElementsAre(Pair(unique_name, "_SYN_ACK")));

    partner.Join();
    HeldThread pass(kExecuted.message);
    Owe(kSynStage, partner);
    EXPECT_THAT(Owed(channel),
                ElementsAre(Pair(unique_name, "_SYN_ACK"), Pair(partner.UniqueName(), "_SYN_ACK")));
    ASSERT_TRUE(partner.ReleaseClientName(HandshakeStage::SynAck));
    pass.GoOn();
    ASSERT_TRUE(IterateUntil([&] { return channel.IsConnectionReady() && partner.IsReady(); }));
    EXPECT_THAT(Log(), Contains(Mismatch(partner.UniqueName(), unique_name)));
}

}  // namespace
