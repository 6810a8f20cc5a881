// Each operation of the channel against its recording: every call with its arguments, every log
// line, every handler and every change of a member, in order.
#include "tests/conformance/conformance-test.h"

namespace {

using Channel = TevrolDbusRemote;

GVariant* Payload() {
    return g_variant_new_parsed("([byte 0x61, 0x00, 0xff],)");
}

// ---- Construction ----

class Construction : public ConformanceTest {};

TEST_F(Construction, ConnectsRegistersSubscribesAndAnnounces) {
    Record();
    Construct();
    Matches();
}

TEST_F(Construction, WithoutABusLeavesTheRestUndone) {
    world.FailNext("g_bus_get_sync");
    Record();
    Construct();
    Matches();
}

TEST_F(Construction, WithoutABusAndWithoutAnErrorLeavesTheRestUndone) {
    world.FailNext("g_bus_get_sync", {false, {}});
    Record();
    Construct();
    Matches();
}

TEST_F(Construction, ARefusedRegistrationIsLoggedAndTheRestIsDone) {
    world.FailNext("g_dbus_connection_register_object");
    Record();
    Construct();
    Matches();
}

TEST_F(Construction, ARefusedAnnouncementIsNotRepeated) {
    world.FailNext("RequestName", {false, 3});
    Record();
    Construct();
    Matches();
}

// ---- The announcement ----

class Announcement : public ConformanceTest {
protected:
    void Announce(bool expected) {
        std::string name = "a.name";
        Record();
        const bool announced = channel->BroadcastName(name);
        Matches();
        EXPECT_EQ(announced, expected);
        EXPECT_EQ(name, "a.name");
    }
    Announcement() {
        Construct();
    }
};

TEST_F(Announcement, OwnsAndReleasesTheName) {
    Announce(true);
}

TEST_F(Announcement, ErrorOfTheRequestIsLogged) {
    world.FailNext("RequestName");
    Announce(false);
}

TEST_F(Announcement, NoReplyToTheRequestIsLogged) {
    world.FailNext("RequestName", {false, {}});
    Announce(false);
}

TEST_F(Announcement, AnsweredInQueueFails) {
    world.FailNext("RequestName", {false, 2});
    Announce(false);
}

TEST_F(Announcement, AnsweredExistsFails) {
    world.FailNext("RequestName", {false, 3});
    Announce(false);
}

TEST_F(Announcement, AnsweredAlreadyOwnerFails) {
    world.FailNext("RequestName", {false, 4});
    Announce(false);
}

TEST_F(Announcement, AnsweredZeroFails) {
    world.FailNext("RequestName", {false, 0});
    Announce(false);
}

TEST_F(Announcement, ErrorOfTheReleaseIsNotInspected) {
    world.FailNext("ReleaseName");
    Announce(false);
}

TEST_F(Announcement, NoReplyToTheReleaseIsLogged) {
    world.FailNext("ReleaseName", {false, {}});
    Announce(false);
}

TEST_F(Announcement, AnyReplyToTheReleaseCounts) {
    world.FailNext("ReleaseName", {false, 2});
    Announce(true);
}

// ---- The two stages that bind ----

struct BindingStageCase {
    const char* name;
    void (*callback)(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                     GVariant*, gpointer);
};

class BindingStage : public ConformanceTest, public testing::WithParamInterface<BindingStageCase> {
protected:
    BindingStage() {
        Construct();
    }
    void RecordRelease(const std::string& owner = ":1.5") {
        Record();
        Hear(GetParam().callback, owner);
        Matches();
    }
};

INSTANTIATE_TEST_SUITE_P(Each, BindingStage,
                         testing::Values(BindingStageCase{"Syn", &Channel::cb_SynNameOwnerChanged},
                                         BindingStageCase{"SynAck",
                                                          &Channel::cb_SynAckNameOwnerChanged}),
                         [](const auto& stage) { return std::string(stage.param.name); });

TEST_P(BindingStage, BindsAndAnswersAPartner) {
    RecordRelease();
}

TEST_P(BindingStage, ARefusedAnswerStartsTheTimer) {
    world.FailNext("RequestName", {false, 3});
    RecordRelease();
}

TEST_P(BindingStage, ARefusedAnswerIsLeftToARecordedTimer) {
    channel->m_timerThread = 7;
    channel->m_resendHandshake[":1.5"] = "_OLD";
    world.FailNext("RequestName", {false, 3});
    RecordRelease();
}

TEST_P(BindingStage, ATimerThatCannotBeCreatedIsLogged) {
    world.plan = [](const FailableCall& call) -> std::optional<Failure> {
        if (call.method == "RequestName" || call.function == "pthread_create") {
            return Failure{false, {}};
        }
        return std::nullopt;
    };
    RecordRelease();
}

TEST_P(BindingStage, AProxyErrorIsLoggedAndTheRestIsDone) {
    world.FailNext("g_dbus_proxy_new_sync");
    RecordRelease();
}

TEST_P(BindingStage, OwnReleaseChangesNothing) {
    RecordRelease(":1.1");
}

TEST_P(BindingStage, AnAcquisitionChangesNothing) {
    Record();
    Hear(GetParam().callback, "", ":1.5");
    Matches();
}

TEST_P(BindingStage, WhileWatchedNobodyElseIsBound) {
    channel->m_proxy_watch = 7;
    RecordRelease();
}

TEST_P(BindingStage, WhileSubscribedNobodyElseIsBound) {
    channel->m_signal_id = 7;
    RecordRelease();
    channel->m_signal_id = 0;
}

TEST_P(BindingStage, WithoutConnectionIsAnError) {
    Record();
    Deliver(GetParam().callback, g_variant_new_parsed("('a.name', ':1.5', '')"), nullptr,
            channel.get());
    Matches();
}

TEST_P(BindingStage, WithoutObjectIsAnError) {
    Record();
    Deliver(GetParam().callback, g_variant_new_parsed("('a.name', ':1.5', '')"),
            StubWorld::Connection(), nullptr);
    Matches();
}

TEST_P(BindingStage, ABodyOfAnotherTypeIsAnError) {
    Record();
    Deliver(GetParam().callback, g_variant_new_parsed("('a.name', uint32 5, '')"),
            StubWorld::Connection(), channel.get());
    Matches();
}

// ---- The ACK stage ----

class AckStage : public ConformanceTest {
protected:
    void RecordRelease(const std::string& owner) {
        Record();
        Hear(&Channel::cb_AckNameOwnerChanged, owner);
        Matches();
    }
};

TEST_F(AckStage, OfTheBoundPartnerCompletes) {
    ConstructBound();
    RecordRelease(":1.5");
}

TEST_F(AckStage, OfAnyOtherProcessCompletesInItsName) {
    ConstructBound();
    RecordRelease(":1.6");
}

TEST_F(AckStage, RepeatedIsToldAgain) {
    ConstructReady();
    RecordRelease(":1.5");
}

TEST_F(AckStage, OwnReleaseChangesNothing) {
    ConstructBound();
    RecordRelease(":1.1");
}

TEST_F(AckStage, AnAcquisitionChangesNothing) {
    ConstructBound();
    Record();
    Hear(&Channel::cb_AckNameOwnerChanged, "", ":1.5");
    Matches();
}

TEST_F(AckStage, WithNobodyBoundChangesNothing) {
    Construct();
    RecordRelease(":1.5");
}

TEST_F(AckStage, WithoutTheWatchChangesNothing) {
    Construct();
    channel->m_signal_id = 7;
    RecordRelease(":1.5");
    channel->m_signal_id = 0;
}

TEST_F(AckStage, WithoutTheSubscriptionChangesNothing) {
    Construct();
    channel->m_proxy_watch = 7;
    RecordRelease(":1.5");
}

TEST_F(AckStage, WithoutConnectionIsAnError) {
    ConstructBound();
    Record();
    Deliver(&Channel::cb_AckNameOwnerChanged, g_variant_new_parsed("('a.name', ':1.5', '')"),
            nullptr, channel.get());
    Matches();
}

TEST_F(AckStage, WithoutObjectIsAnError) {
    ConstructBound();
    Record();
    Deliver(&Channel::cb_AckNameOwnerChanged, g_variant_new_parsed("('a.name', ':1.5', '')"),
            StubWorld::Connection(), nullptr);
    Matches();
}

TEST_F(AckStage, ABodyOfAnotherTypeIsAnError) {
    ConstructBound();
    Record();
    Deliver(&Channel::cb_AckNameOwnerChanged, g_variant_new_parsed("('a.name', ':1.5')"),
            StubWorld::Connection(), channel.get());
    Matches();
}

// ---- Loss ----

class Loss : public ConformanceTest {
protected:
    Loss() {
        ConstructReady();
    }
    void RecordLoss(const std::string& name = ":1.5") {
        Record();
        Lose(name);
        Matches();
    }
};

TEST_F(Loss, OfAReadyPartnerReleasesTheBinding) {
    RecordLoss();
}

TEST_F(Loss, OfAPartnerThatIsOwedAnAnnouncementLeavesTheTimerToNoticeIt) {
    channel->m_resendHandshake[":1.5"] = "_ACK";
    channel->m_timerThread = 7;
    RecordLoss();
    channel->m_timerThread = 0;
}

TEST_F(Loss, OfAnotherNameChangesNothing) {
    RecordLoss(":1.55");
}

TEST_F(Loss, WithoutTheWatch) {
    channel->m_proxy_watch = 0;
    RecordLoss();
}

TEST_F(Loss, WithoutTheProxy) {
    channel->m_proxy = nullptr;
    RecordLoss();
}

TEST_F(Loss, WithoutTheSubscription) {
    channel->m_signal_id = 0;
    RecordLoss();
}

TEST_F(Loss, WithoutConnectionIsAnError) {
    Record();
    Channel::cb_PartnerNameVanished(nullptr, ":1.5", channel.get());
    Matches();
}

TEST_F(Loss, WithoutObjectIsAnError) {
    Record();
    Channel::cb_PartnerNameVanished(StubWorld::Connection(), ":1.5", nullptr);
    Matches();
}

TEST_F(Loss, IsFollowedByTheNextPartner) {
    Lose(":1.5");
    Record();
    Hear(&Channel::cb_SynNameOwnerChanged, ":1.6");
    Hear(&Channel::cb_AckNameOwnerChanged, ":1.6");
    Matches();
}

// ---- Resending ----

class ResendPass : public ConformanceTest {
protected:
    ResendPass() {
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

TEST_F(ResendPass, WithNothingOwedEndsTheTimer) {
    RecordPass(0);
}

TEST_F(ResendPass, OfTheSynAckMovesTheState) {
    channel->m_resendHandshake[":1.5"] = "_SYN_ACK";
    RecordPass(0);
}

TEST_F(ResendPass, OfTheSynAckThatFailsKeepsTheEntry) {
    channel->m_resendHandshake[":1.5"] = "_SYN_ACK";
    world.FailNext("RequestName", {false, 3});
    RecordPass(1);
}

TEST_F(ResendPass, OfTheAckCompletes) {
    channel->m_resendHandshake[":1.5"] = "_ACK";
    RecordPass(0);
}

TEST_F(ResendPass, OfTheAckThatFailsKeepsTheEntry) {
    channel->m_resendHandshake[":1.5"] = "_ACK";
    world.FailNext("ReleaseName");
    RecordPass(1);
}

TEST_F(ResendPass, DropsWhatIsOwedToOthers) {
    channel->m_resendHandshake[":1.4"] = "_ACK";
    channel->m_resendHandshake[":1.5"] = "_SYN_ACK";
    channel->m_resendHandshake[":1.55"] = "_SYN_ACK";
    RecordPass(0);
}

TEST_F(ResendPass, KeepsNoneButTheCurrentPartners) {
    channel->m_resendHandshake[":1.4"] = "_ACK";
    channel->m_resendHandshake[":1.5"] = "_ACK";
    world.FailNext("RequestName");
    RecordPass(1);
}

TEST_F(ResendPass, DropsAnUnknownSuffix) {
    channel->m_resendHandshake[":1.5"] = "_SYN";
    RecordPass(0);
}

TEST_F(ResendPass, AfterALossDropsEverything) {
    channel->m_resendHandshake[":1.5"] = "_ACK";
    Lose(":1.5");
    RecordPass(0);
}

class ResendThread : public ConformanceTest {};

TEST_F(ResendThread, RepeatsUntilTheAnnouncementIsMadeAndClearsItsHandle) {
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

class Teardown : public ConformanceTest {
protected:
    void RecordTeardown() {
        Record();
        channel.reset();
        Matches();
    }
};

TEST_F(Teardown, WithoutABus) {
    world.FailNext("g_bus_get_sync");
    Construct();
    RecordTeardown();
}

TEST_F(Teardown, WithNobodyBound) {
    Construct();
    RecordTeardown();
}

TEST_F(Teardown, WithAPartnerInTheMiddleOfTheHandshake) {
    ConstructBound();
    RecordTeardown();
}

TEST_F(Teardown, WithAReadyPartner) {
    ConstructReady();
    RecordTeardown();
}

TEST_F(Teardown, AfterALoss) {
    ConstructReady();
    Lose(":1.5");
    RecordTeardown();
}

TEST_F(Teardown, WithAResendPendingWaitsForTheTimersLastPass) {
    Construct();
    world.FailNext("RequestName");
    Hear(&Channel::cb_SynNameOwnerChanged, ":1.5");
    RecordTeardown();
}

TEST_F(Teardown, WithAFinishedTimerJoinsNothing) {
    Construct();
    world.FailNext("RequestName");
    Hear(&Channel::cb_SynNameOwnerChanged, ":1.5");
    Channel::TimerThread(channel.get());
    RecordTeardown();
}

TEST_F(Teardown, WithANameOwned) {
    Construct();
    channel->m_owner_id = 7;
    RecordTeardown();
}

// ---- Requests ----

class Request : public ConformanceTest {
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

TEST_F(Request, BringsTheReplyBack) {
    ConstructReady();
    world.AnswerWith(Payload());
    RecordRequest(std::string("a\0\xff", 3));
}

TEST_F(Request, EmptyIsSentAndAnsweredAsAnEmptyArray) {
    ConstructReady();
    RecordRequest("", "");
}

TEST_F(Request, CarriesZeroAndHighBytes) {
    ConstructReady();
    RecordRequest(std::string("\0\x7f\x80\xff", 4), std::string("\0\x7f\x80\xff", 4));
}

TEST_F(Request, ThatFailsIsLogged) {
    ConstructReady();
    world.FailNext("g_dbus_proxy_call_sync");
    RecordRequest("");
}

TEST_F(Request, WithoutReplyAndErrorIsSilent) {
    ConstructReady();
    world.FailNext("g_dbus_proxy_call_sync", {false, {}});
    RecordRequest("");
}

TEST_F(Request, AnsweredWithAnotherTypeIsLogged) {
    ConstructReady();
    world.AnswerWith(g_variant_new_parsed("('text',)"));
    RecordRequest("");
}

TEST_F(Request, WithNothingStartedIsPrinted) {
    ConstructReady();
    channel->m_handshake = Channel::CONNECTION_NOT_STARTED;
    RecordRequest("");
}

TEST_F(Request, InTheSynStateIsPrinted) {
    ConstructReady();
    channel->m_handshake = Channel::CONNECTION_HANDSHAKE_SYN;
    RecordRequest("");
}

TEST_F(Request, InTheSynAckStateIsPrinted) {
    ConstructBound();
    RecordRequest("");
}

TEST_F(Request, WithNobodyBoundPrintsThatTheHandshakeIsMissing) {
    Construct();
    RecordRequest("");
}

TEST_F(Request, WithoutProxyIsPrinted) {
    Construct();
    world.FailNext("g_dbus_proxy_new_sync");
    Hear(&Channel::cb_SynAckNameOwnerChanged, ":1.5");
    RecordRequest("");
}

// ---- Incoming requests ----

class IncomingRequest : public ConformanceTest {};

TEST_F(IncomingRequest, IsAnsweredByTheHandler) {
    Construct();
    Record();
    Receive(Payload());
    Matches();
}

TEST_F(IncomingRequest, IsAnsweredByTheDefaultHandler) {
    Construct(Handlers::Default);
    Record();
    Receive(Payload());
    Matches();
}

TEST_F(IncomingRequest, OfAnotherPathIsIgnored) {
    Construct();
    GVariant* body = g_variant_ref_sink(Payload());
    Record();
    Channel::cb_MethodCall(StubWorld::Connection(), ":1.5", "/another/path", "an.interface",
                           "AMethod", body, StubWorld::Invocation(), channel.get());
    Matches();
    Unref(body);
}

TEST_F(IncomingRequest, WithoutConnectionIsAnError) {
    Construct();
    Record();
    Channel::cb_MethodCall(nullptr, ":1.5", channel->m_object_name.c_str(), "an.interface",
                           "AMethod", nullptr, StubWorld::Invocation(), channel.get());
    Matches();
}

TEST_F(IncomingRequest, WithoutObjectIsAnError) {
    Construct();
    Record();
    Channel::cb_MethodCall(StubWorld::Connection(), ":1.5", channel->m_object_name.c_str(),
                           "an.interface", "AMethod", nullptr, StubWorld::Invocation(), nullptr);
    Matches();
}

// GIO lets no such call through.
TEST_F(IncomingRequest, OfAnotherTypeIsTakenAsEmpty) {
    Construct();
    Record();
    Receive(g_variant_new_parsed("('text',)"));
    Matches();
}

// ---- Notifications ----

class Notification : public ConformanceTest {
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

TEST_F(Notification, GoesToThePartner) {
    ConstructReady();
    RecordNotification();
}

TEST_F(Notification, ThatFailsIsLogged) {
    ConstructReady();
    world.FailNext("g_dbus_connection_emit_signal");
    RecordNotification();
}

TEST_F(Notification, ThatFailsWithoutAnErrorIsSilent) {
    ConstructReady();
    world.FailNext("g_dbus_connection_emit_signal", {false, {}});
    RecordNotification();
}

TEST_F(Notification, BeforeTheHandshakeIsCompleteIsLogged) {
    ConstructBound();
    RecordNotification();
}

TEST_F(Notification, WithoutSubscriptionIsLogged) {
    ConstructReady();
    channel->m_signal_id = 0;
    RecordNotification();
}

TEST_F(Notification, ToTheBoundPartnerByNameIsSent) {
    ConstructReady();
    RecordNotificationTo(":1.5");
}

TEST_F(Notification, ToALongerNameIsLogged) {
    ConstructReady();
    RecordNotificationTo(":1.55");
}

TEST_F(Notification, ToAShorterNameIsLogged) {
    ConstructReady();
    RecordNotificationTo(":1.");
}

TEST_F(Notification, ToNobodyWhileNobodyIsBoundFailsInTheChecks) {
    Construct();
    RecordNotificationTo("");
}

// ---- Incoming notifications ----

class IncomingNotification : public ConformanceTest {};

TEST_F(IncomingNotification, GoesToTheHandler) {
    ConstructReady();
    Record();
    ReceiveSignal(Payload());
    Matches();
}

TEST_F(IncomingNotification, OfAnyMemberGoesToTheHandler) {
    ConstructReady();
    Record();
    ReceiveSignal(Payload(), "Other");
    Matches();
}

TEST_F(IncomingNotification, GoesToTheDefaultHandler) {
    ConstructReady(Handlers::Default);
    Record();
    ReceiveSignal(Payload());
    Matches();
}

TEST_F(IncomingNotification, OfAnotherPathIsIgnored) {
    ConstructReady();
    GVariant* body = g_variant_ref_sink(Payload());
    Record();
    Channel::cb_SignalCall(StubWorld::Connection(), ":1.5", "/another/path", "an.interface",
                           "SendSignal", body, channel.get());
    Matches();
    Unref(body);
}

TEST_F(IncomingNotification, WithoutConnectionIsAnError) {
    ConstructReady();
    Record();
    Channel::cb_SignalCall(nullptr, ":1.5", channel->m_object_name.c_str(), "an.interface",
                           "SendSignal", nullptr, channel.get());
    Matches();
}

TEST_F(IncomingNotification, WithoutObjectIsAnError) {
    ConstructReady();
    Record();
    Channel::cb_SignalCall(StubWorld::Connection(), ":1.5", channel->m_object_name.c_str(),
                           "an.interface", "SendSignal", nullptr, nullptr);
    Matches();
}

TEST_F(IncomingNotification, OfAnotherTypeIsAnError) {
    ConstructReady();
    Record();
    ReceiveSignal(g_variant_new_parsed("('text',)"));
    Matches();
}

// ---- Readiness ----

class Readiness : public ConformanceTest {};

TEST_F(Readiness, DefaultHandlerLogsTheStateAndNotTheName) {
    Construct(Handlers::Default);
    Record();
    channel->HandleConnectionReady(true, ":1.5");
    channel->HandleConnectionReady(false, ":1.5");
    Matches();
}

TEST_F(Readiness, IsTheLastStateAloneAndAskingLeavesNoTrace) {
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

class Lock : public ConformanceTest {};

TEST_F(Lock, IsOnePosixMutexWithDefaultAttributes) {
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
