// SPDX-License-Identifier: MIT
// Each operation of the channel against its recording: every call with its arguments, every log
// line, every handler and every change of a member, in order.
#include "tests/conformance/conformance-test.h"

namespace {

using Channel = TevrolDbusRemote;

GVariant* Payload() {
    return g_variant_new_parsed("([byte 0x61, 0x00, 0xff],)");
}

// Refuses announcements, and the thread that would repeat them.
auto RefusesAnswerAndThread(bool writes_handle) {
    return [=](const FailableCall& call) -> std::optional<Failure> {
        if (call.method == "RequestName" || call.function == "pthread_create") {
            return Failure{false, {}, writes_handle};
        }
        return std::nullopt;
    };
}

// ---- Construction ----

class ConstructionCalls : public ConformanceTest {};

TEST_F(ConstructionCalls, ConnectsRegistersSubscribesAndAnnounces) {
    Record();
    Construct();
    Matches();
}

TEST_F(ConstructionCalls, NoBusStopsThere) {
    world.FailNext("g_bus_get_sync");
    Record();
    Construct();
    Matches();
}

TEST_F(ConstructionCalls, NoBusAndNoErrorStopsThere) {
    world.FailNext("g_bus_get_sync", {false, {}});
    Record();
    Construct();
    Matches();
}

TEST_F(ConstructionCalls, RefusedRegistrationIsLoggedAndTheRestGoesOn) {
    world.FailNext("g_dbus_connection_register_object");
    Record();
    Construct();
    Matches();
}

TEST_F(ConstructionCalls, RefusedAnnouncementIsNotRepeated) {
    world.FailNext("RequestName", {false, 3});
    Record();
    Construct();
    Matches();
}

// ---- The announcement ----

class AnnouncementCalls : public ConformanceTest {
protected:
    void Announce(bool expected) {
        std::string name = "a.name";
        Record();
        const bool announced = channel->BroadcastName(name);
        Matches();
        EXPECT_EQ(announced, expected);
        EXPECT_EQ(name, "a.name");
    }
    AnnouncementCalls() {
        Construct();
    }
};

TEST_F(AnnouncementCalls, OwnsAndReleasesTheName) {
    Announce(true);
}

TEST_F(AnnouncementCalls, RequestErrorIsLogged) {
    world.FailNext("RequestName");
    Announce(false);
}

TEST_F(AnnouncementCalls, MissingRequestReplyIsLogged) {
    world.FailNext("RequestName", {false, {}});
    Announce(false);
}

TEST_F(AnnouncementCalls, CodeInQueueFails) {
    world.FailNext("RequestName", {false, 2});
    Announce(false);
}

TEST_F(AnnouncementCalls, CodeExistsFails) {
    world.FailNext("RequestName", {false, 3});
    Announce(false);
}

TEST_F(AnnouncementCalls, CodeAlreadyOwnerFails) {
    world.FailNext("RequestName", {false, 4});
    Announce(false);
}

TEST_F(AnnouncementCalls, CodeZeroFails) {
    world.FailNext("RequestName", {false, 0});
    Announce(false);
}

TEST_F(AnnouncementCalls, ReleaseErrorIsNotInspected) {
    world.FailNext("ReleaseName");
    Announce(false);
}

TEST_F(AnnouncementCalls, MissingReleaseReplyIsLogged) {
    world.FailNext("ReleaseName", {false, {}});
    Announce(false);
}

TEST_F(AnnouncementCalls, AnyReleaseCodeSucceeds) {
    world.FailNext("ReleaseName", {false, 2});
    Announce(true);
}

// ---- The two stages that bind ----

struct BindingStageCase {
    const char* name;
    void (*callback)(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                     GVariant*, gpointer);
};

class BindingStageCalls : public ConformanceTest,
                          public testing::WithParamInterface<BindingStageCase> {
protected:
    BindingStageCalls() {
        Construct();
    }
    void RecordRelease(const std::string& owner = ":1.5") {
        Record();
        Hear(GetParam().callback, owner);
        Matches();
    }
};

INSTANTIATE_TEST_SUITE_P(Each, BindingStageCalls,
                         testing::Values(BindingStageCase{"Syn", &Channel::cb_SynNameOwnerChanged},
                                         BindingStageCase{"SynAck",
                                                          &Channel::cb_SynAckNameOwnerChanged}),
                         [](const auto& stage) { return std::string(stage.param.name); });

TEST_P(BindingStageCalls, BindsAndAnswersPartner) {
    RecordRelease();
}

TEST_P(BindingStageCalls, RefusedAnswerStartsResendThread) {
    world.FailNext("RequestName", {false, 3});
    RecordRelease();
}

TEST_P(BindingStageCalls, RefusedAnswerUsesRecordedResendThread) {
    channel->m_timerThread = 7;
    channel->m_resendHandshake[":1.5"] = "_OLD";
    world.FailNext("RequestName", {false, 3});
    RecordRelease();
}

TEST_P(BindingStageCalls, FailedThreadCreationIsLogged) {
    world.plan = RefusesAnswerAndThread(false);
    RecordRelease();
}

TEST_P(BindingStageCalls, HandleOfThreadNeverStartedIsKept) {
    world.plan = RefusesAnswerAndThread(true);
    RecordRelease();
}

TEST_P(BindingStageCalls, ProxyErrorIsLoggedAndTheRestGoesOn) {
    world.FailNext("g_dbus_proxy_new_sync");
    RecordRelease();
}

TEST_P(BindingStageCalls, OwnReleaseChangesNothing) {
    RecordRelease(":1.1");
}

TEST_P(BindingStageCalls, AcquisitionChangesNothing) {
    Record();
    Hear(GetParam().callback, "", ":1.5");
    Matches();
}

TEST_P(BindingStageCalls, NobodyElseIsBoundWhileWatched) {
    channel->m_proxy_watch = 7;
    RecordRelease();
}

TEST_P(BindingStageCalls, NobodyElseIsBoundWhileSubscribed) {
    channel->m_signal_id = 7;
    RecordRelease();
    channel->m_signal_id = 0;
}

TEST_P(BindingStageCalls, MissingConnectionIsError) {
    Record();
    Deliver(GetParam().callback, g_variant_new_parsed("('a.name', ':1.5', '')"), nullptr,
            channel.get());
    Matches();
}

TEST_P(BindingStageCalls, MissingObjectIsError) {
    Record();
    Deliver(GetParam().callback, g_variant_new_parsed("('a.name', ':1.5', '')"),
            StubWorld::Connection(), nullptr);
    Matches();
}

TEST_P(BindingStageCalls, BodyOfWrongTypeIsError) {
    Record();
    Deliver(GetParam().callback, g_variant_new_parsed("('a.name', uint32 5, '')"),
            StubWorld::Connection(), channel.get());
    Matches();
}

// ---- The ACK stage ----

class AckStageCalls : public ConformanceTest {
protected:
    void RecordRelease(const std::string& owner) {
        Record();
        Hear(&Channel::cb_AckNameOwnerChanged, owner);
        Matches();
    }
};

TEST_F(AckStageCalls, BoundPartnerCompletes) {
    ConstructBound();
    RecordRelease(":1.5");
}

TEST_F(AckStageCalls, OtherProcessCompletesInItsOwnName) {
    ConstructBound();
    RecordRelease(":1.6");
}

TEST_F(AckStageCalls, RepeatedAckIsToldAgain) {
    ConstructReady();
    RecordRelease(":1.5");
}

TEST_F(AckStageCalls, OwnReleaseChangesNothing) {
    ConstructBound();
    RecordRelease(":1.1");
}

TEST_F(AckStageCalls, AcquisitionChangesNothing) {
    ConstructBound();
    Record();
    Hear(&Channel::cb_AckNameOwnerChanged, "", ":1.5");
    Matches();
}

TEST_F(AckStageCalls, NobodyBoundChangesNothing) {
    Construct();
    RecordRelease(":1.5");
}

TEST_F(AckStageCalls, MissingWatchChangesNothing) {
    Construct();
    channel->m_signal_id = 7;
    RecordRelease(":1.5");
    channel->m_signal_id = 0;
}

TEST_F(AckStageCalls, MissingSubscriptionChangesNothing) {
    Construct();
    channel->m_proxy_watch = 7;
    RecordRelease(":1.5");
}

TEST_F(AckStageCalls, MissingConnectionIsError) {
    ConstructBound();
    Record();
    Deliver(&Channel::cb_AckNameOwnerChanged, g_variant_new_parsed("('a.name', ':1.5', '')"),
            nullptr, channel.get());
    Matches();
}

TEST_F(AckStageCalls, MissingObjectIsError) {
    ConstructBound();
    Record();
    Deliver(&Channel::cb_AckNameOwnerChanged, g_variant_new_parsed("('a.name', ':1.5', '')"),
            StubWorld::Connection(), nullptr);
    Matches();
}

TEST_F(AckStageCalls, BodyOfWrongTypeIsError) {
    ConstructBound();
    Record();
    Deliver(&Channel::cb_AckNameOwnerChanged, g_variant_new_parsed("('a.name', ':1.5')"),
            StubWorld::Connection(), channel.get());
    Matches();
}

// ---- Loss ----

class LossCalls : public ConformanceTest {
protected:
    LossCalls() {
        ConstructReady();
    }
    void RecordLoss(const std::string& name = ":1.5") {
        Record();
        Lose(name);
        Matches();
    }
};

TEST_F(LossCalls, ReadyPartnerIsReleased) {
    RecordLoss();
}

TEST_F(LossCalls, OwedAnnouncementIsLeftToResendThread) {
    channel->m_resendHandshake[":1.5"] = "_ACK";
    channel->m_timerThread = 7;
    RecordLoss();
    channel->m_timerThread = 0;
}

TEST_F(LossCalls, OtherNameChangesNothing) {
    RecordLoss(":1.55");
}

TEST_F(LossCalls, MissingWatch) {
    channel->m_proxy_watch = 0;
    RecordLoss();
}

TEST_F(LossCalls, MissingProxy) {
    channel->m_proxy = nullptr;
    RecordLoss();
}

TEST_F(LossCalls, MissingSubscription) {
    channel->m_signal_id = 0;
    RecordLoss();
}

TEST_F(LossCalls, MissingConnectionIsError) {
    Record();
    Channel::cb_PartnerNameVanished(nullptr, ":1.5", channel.get());
    Matches();
}

TEST_F(LossCalls, MissingObjectIsError) {
    Record();
    Channel::cb_PartnerNameVanished(StubWorld::Connection(), ":1.5", nullptr);
    Matches();
}

TEST_F(LossCalls, NextPartnerIsFound) {
    Lose(":1.5");
    Record();
    Hear(&Channel::cb_SynNameOwnerChanged, ":1.6");
    Hear(&Channel::cb_AckNameOwnerChanged, ":1.6");
    Matches();
}

// ---- Resending ----

class ResendPassCalls : public ConformanceTest {
protected:
    ResendPassCalls() {
        ConstructBound();
        channel->m_handshake = Channel::CONNECTION_HANDSHAKE_SYN;
    }
    void RecordPass(int expected) {
        Record();
        const int remain = Channel::OnResendHandshake(channel.get());
        Matches();
        EXPECT_EQ(remain, expected);
    }
};

TEST_F(ResendPassCalls, NothingOwedEndsThread) {
    RecordPass(0);
}

TEST_F(ResendPassCalls, SynAckMovesState) {
    channel->m_resendHandshake[":1.5"] = "_SYN_ACK";
    RecordPass(0);
}

TEST_F(ResendPassCalls, FailedSynAckKeepsEntry) {
    channel->m_resendHandshake[":1.5"] = "_SYN_ACK";
    world.FailNext("RequestName", {false, 3});
    RecordPass(1);
}

TEST_F(ResendPassCalls, AckCompletes) {
    channel->m_resendHandshake[":1.5"] = "_ACK";
    RecordPass(0);
}

TEST_F(ResendPassCalls, FailedAckKeepsEntry) {
    channel->m_resendHandshake[":1.5"] = "_ACK";
    world.FailNext("ReleaseName");
    RecordPass(1);
}

TEST_F(ResendPassCalls, EntriesOfOthersAreDropped) {
    channel->m_resendHandshake[":1.4"] = "_ACK";
    channel->m_resendHandshake[":1.5"] = "_SYN_ACK";
    channel->m_resendHandshake[":1.55"] = "_SYN_ACK";
    RecordPass(0);
}

TEST_F(ResendPassCalls, OnlyEntryOfCurrentPartnerIsKept) {
    channel->m_resendHandshake[":1.4"] = "_ACK";
    channel->m_resendHandshake[":1.5"] = "_ACK";
    world.FailNext("RequestName");
    RecordPass(1);
}

TEST_F(ResendPassCalls, UnknownSuffixIsDropped) {
    channel->m_resendHandshake[":1.5"] = "_SYN";
    RecordPass(0);
}

TEST_F(ResendPassCalls, LossDropsEverything) {
    channel->m_resendHandshake[":1.5"] = "_ACK";
    Lose(":1.5");
    RecordPass(0);
}

class ResendThreadCalls : public ConformanceTest {};

TEST_F(ResendThreadCalls, RepeatsUntilAnnouncedAndClearsItsHandle) {
    Construct();
    int requests_to_refuse = 3;  // by the stage and two passes
    world.plan = [&](const FailableCall& call) -> std::optional<Failure> {
        if (call.method == "RequestName" && requests_to_refuse > 0) {
            --requests_to_refuse;
            return Failure{false, 3};
        }
        return std::nullopt;
    };
    Hear(&Channel::cb_SynAckNameOwnerChanged, ":1.5");
    Record();
    void* const result = Channel::TimerThread(channel.get());
    Matches();
    EXPECT_EQ(result, nullptr);
}

// ---- Teardown ----

class TeardownCalls : public ConformanceTest {
protected:
    void RecordTeardown() {
        Record();
        channel.reset();
        Matches();
    }
};

TEST_F(TeardownCalls, NoBus) {
    world.FailNext("g_bus_get_sync");
    Construct();
    RecordTeardown();
}

TEST_F(TeardownCalls, NobodyBound) {
    Construct();
    RecordTeardown();
}

TEST_F(TeardownCalls, PartnerInHandshake) {
    ConstructBound();
    RecordTeardown();
}

TEST_F(TeardownCalls, ReadyPartner) {
    ConstructReady();
    RecordTeardown();
}

TEST_F(TeardownCalls, AfterLoss) {
    ConstructReady();
    Lose(":1.5");
    RecordTeardown();
}

TEST_F(TeardownCalls, PendingResendIsAwaited) {
    Construct();
    world.FailNext("RequestName");
    Hear(&Channel::cb_SynNameOwnerChanged, ":1.5");
    RecordTeardown();
}

TEST_F(TeardownCalls, FinishedResendThreadIsNotJoined) {
    Construct();
    world.FailNext("RequestName");
    Hear(&Channel::cb_SynNameOwnerChanged, ":1.5");
    Channel::TimerThread(channel.get());
    RecordTeardown();
}

TEST_F(TeardownCalls, HandleOfThreadNeverStartedIsJoined) {
    Construct();
    world.plan = RefusesAnswerAndThread(true);
    Hear(&Channel::cb_SynNameOwnerChanged, ":1.5");
    world.plan = nullptr;
    RecordTeardown();
}

TEST_F(TeardownCalls, OwnedName) {
    Construct();
    channel->m_owner_id = 7;
    RecordTeardown();
}

// ---- Requests ----

class RequestCalls : public ConformanceTest {
protected:
    void RecordRequest(const std::string& expected, const std::string& text = "hi") {
        std::vector<char> data = ToBytes(text);
        Record();
        const std::vector<char> reply = channel->SendMessage(data);
        Matches();
        EXPECT_EQ(reply, ToBytes(expected));
        EXPECT_EQ(data, ToBytes(text));
    }
};

TEST_F(RequestCalls, ReplyIsReturned) {
    ConstructReady();
    world.AnswerWith(Payload());
    RecordRequest(std::string("a\0\xff", 3));
}

TEST_F(RequestCalls, EmptyPayloadIsEmptyArray) {
    ConstructReady();
    RecordRequest("", "");
}

TEST_F(RequestCalls, ZeroAndHighBytesAreCarried) {
    ConstructReady();
    RecordRequest(std::string("\0\x7f\x80\xff", 4), std::string("\0\x7f\x80\xff", 4));
}

TEST_F(RequestCalls, FailureIsLogged) {
    ConstructReady();
    world.FailNext("g_dbus_proxy_call_sync");
    RecordRequest("");
}

TEST_F(RequestCalls, MissingReplyWithoutErrorIsSilent) {
    ConstructReady();
    world.FailNext("g_dbus_proxy_call_sync", {false, {}});
    RecordRequest("");
}

TEST_F(RequestCalls, ReplyOfWrongTypeIsLogged) {
    ConstructReady();
    world.AnswerWith(g_variant_new_parsed("('text',)"));
    RecordRequest("");
}

TEST_F(RequestCalls, NothingStartedIsPrinted) {
    ConstructReady();
    channel->m_handshake = Channel::CONNECTION_NOT_STARTED;
    RecordRequest("");
}

TEST_F(RequestCalls, SynStateIsPrinted) {
    ConstructReady();
    channel->m_handshake = Channel::CONNECTION_HANDSHAKE_SYN;
    RecordRequest("");
}

TEST_F(RequestCalls, SynAckStateIsPrinted) {
    ConstructBound();
    RecordRequest("");
}

TEST_F(RequestCalls, NobodyBoundIsPrinted) {
    Construct();
    RecordRequest("");
}

TEST_F(RequestCalls, MissingProxyIsPrinted) {
    Construct();
    world.FailNext("g_dbus_proxy_new_sync");
    Hear(&Channel::cb_SynAckNameOwnerChanged, ":1.5");
    RecordRequest("");
}

// ---- Incoming requests ----

class IncomingRequestCalls : public ConformanceTest {};

TEST_F(IncomingRequestCalls, HandlerAnswers) {
    Construct();
    Record();
    Receive(Payload());
    Matches();
}

TEST_F(IncomingRequestCalls, DefaultHandlerAnswers) {
    Construct(Handlers::Default);
    Record();
    Receive(Payload());
    Matches();
}

TEST_F(IncomingRequestCalls, OtherPathIsIgnored) {
    Construct();
    GVariant* body = g_variant_ref_sink(Payload());
    Record();
    Channel::cb_MethodCall(StubWorld::Connection(), ":1.5", "/another/path", "an.interface",
                           "AMethod", body, StubWorld::Invocation(), channel.get());
    Matches();
    Unref(body);
}

TEST_F(IncomingRequestCalls, MissingConnectionIsError) {
    Construct();
    Record();
    Channel::cb_MethodCall(nullptr, ":1.5", channel->m_object_name.c_str(), "an.interface",
                           "AMethod", nullptr, StubWorld::Invocation(), channel.get());
    Matches();
}

TEST_F(IncomingRequestCalls, MissingObjectIsError) {
    Construct();
    Record();
    Channel::cb_MethodCall(StubWorld::Connection(), ":1.5", channel->m_object_name.c_str(),
                           "an.interface", "AMethod", nullptr, StubWorld::Invocation(), nullptr);
    Matches();
}

// GIO lets no such call through.
TEST_F(IncomingRequestCalls, WrongTypeIsTakenAsEmpty) {
    Construct();
    Record();
    Receive(g_variant_new_parsed("('text',)"));
    Matches();
}

// ---- Notifications ----

class NotificationCalls : public ConformanceTest {
protected:
    void RecordNotification() {
        std::vector<char> data = ToBytes("hi");
        Record();
        channel->SendNotification(data);
        Matches();
        EXPECT_EQ(data, ToBytes("hi"));
    }
    void RecordNotificationTo(const std::string& partner) {
        std::vector<char> data = ToBytes("hi");
        Record();
        channel->SendNotification(data, partner);
        Matches();
    }
};

TEST_F(NotificationCalls, PartnerIsSentIt) {
    ConstructReady();
    RecordNotification();
}

TEST_F(NotificationCalls, FailureIsLogged) {
    ConstructReady();
    world.FailNext("g_dbus_connection_emit_signal");
    RecordNotification();
}

TEST_F(NotificationCalls, FailureWithoutErrorIsSilent) {
    ConstructReady();
    world.FailNext("g_dbus_connection_emit_signal", {false, {}});
    RecordNotification();
}

TEST_F(NotificationCalls, IncompleteHandshakeIsLogged) {
    ConstructBound();
    RecordNotification();
}

TEST_F(NotificationCalls, MissingSubscriptionIsLogged) {
    ConstructReady();
    channel->m_signal_id = 0;
    RecordNotification();
}

TEST_F(NotificationCalls, PartnersNameIsSent) {
    ConstructReady();
    RecordNotificationTo(":1.5");
}

TEST_F(NotificationCalls, LongerNameIsLogged) {
    ConstructReady();
    RecordNotificationTo(":1.55");
}

TEST_F(NotificationCalls, ShorterNameIsLogged) {
    ConstructReady();
    RecordNotificationTo(":1.");
}

TEST_F(NotificationCalls, EmptyNameWhileNobodyIsBoundFailsLater) {
    Construct();
    RecordNotificationTo("");
}

// ---- Incoming notifications ----

class IncomingNotificationCalls : public ConformanceTest {};

TEST_F(IncomingNotificationCalls, HandlerIsCalled) {
    ConstructReady();
    Record();
    ReceiveSignal(Payload());
    Matches();
}

TEST_F(IncomingNotificationCalls, AnyMemberReachesHandler) {
    ConstructReady();
    Record();
    ReceiveSignal(Payload(), "Other");
    Matches();
}

TEST_F(IncomingNotificationCalls, DefaultHandlerIsCalled) {
    ConstructReady(Handlers::Default);
    Record();
    ReceiveSignal(Payload());
    Matches();
}

TEST_F(IncomingNotificationCalls, OtherPathIsIgnored) {
    ConstructReady();
    GVariant* body = g_variant_ref_sink(Payload());
    Record();
    Channel::cb_SignalCall(StubWorld::Connection(), ":1.5", "/another/path", "an.interface",
                           "SendSignal", body, channel.get());
    Matches();
    Unref(body);
}

TEST_F(IncomingNotificationCalls, MissingConnectionIsError) {
    ConstructReady();
    Record();
    Channel::cb_SignalCall(nullptr, ":1.5", channel->m_object_name.c_str(), "an.interface",
                           "SendSignal", nullptr, channel.get());
    Matches();
}

TEST_F(IncomingNotificationCalls, MissingObjectIsError) {
    ConstructReady();
    Record();
    Channel::cb_SignalCall(StubWorld::Connection(), ":1.5", channel->m_object_name.c_str(),
                           "an.interface", "SendSignal", nullptr, nullptr);
    Matches();
}

TEST_F(IncomingNotificationCalls, WrongTypeIsError) {
    ConstructReady();
    Record();
    ReceiveSignal(g_variant_new_parsed("('text',)"));
    Matches();
}

// ---- Readiness ----

class ReadinessCalls : public ConformanceTest {};

TEST_F(ReadinessCalls, DefaultHandlerLogsStateWithoutName) {
    Construct(Handlers::Default);
    Record();
    channel->HandleConnectionReady(true, ":1.5");
    channel->HandleConnectionReady(false, ":1.5");
    Matches();
}

TEST_F(ReadinessCalls, AskingIsSilentAndTrueInLastState) {
    Construct();
    for (int state = Channel::CONNECTION_NOT_STARTED; state <= Channel::CONNECTION_HANDSHAKE_ACK;
         ++state) {
        channel->m_handshake = state;
        Record();
        const bool ready = channel->IsConnectionReady();
        Stop();
        EXPECT_EQ(ready, state == Channel::CONNECTION_HANDSHAKE_ACK);
        EXPECT_EQ(world.Text(), "");
    }
}

// ---- The lock ----

class LockCalls : public ConformanceTest {};

TEST_F(LockCalls, OnePosixMutexWithDefaultAttributes) {
    alignas(PTMutex) char storage[sizeof(PTMutex)] = {};
    world.Name(storage, "mutex");
    Record();
    auto* mutex = new (storage) PTMutex;
    mutex->Lock();
    EXPECT_FALSE(mutex->TryLock());
    mutex->Unlock();
    EXPECT_TRUE(mutex->TryLock());
    mutex->Unlock();
    {
        const PTAutoLock scope(*mutex);
        EXPECT_TRUE(world.Locked());
    }
    mutex->~PTMutex();
    Matches();
}

}  // namespace
