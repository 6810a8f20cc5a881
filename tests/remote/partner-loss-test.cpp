// SPDX-License-Identifier: MIT
// Readiness, the loss of the partner at any moment, and finding the next one.
#include <optional>

#include "tests/support/gio-calls.h"
#include "tests/support/handshake.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;

using C = TevrolDbusRemote;
using Moment = PartnerFaults::Moment;

constexpr const char* kVanished = "cb_PartnerNameVanished";

LogLine Vanished(const std::string& name) {
    return Debug(kVanished, "cb_PartnerNameVanished name=" + name + "\n\n");
}

LogLine Lost(const std::string& name) {
    return Debug(kVanished, "Connection lost with partner id=" + name + "\n\n");
}

const LogLine kStopWatching = Debug(kVanished, "Stop watching old partner messages.\n\n");
const LogLine kNotValid = Error(kVanished, "Empty user_data or connection not valid.\n\n");

// ---- Readiness ----

class Readiness : public ChannelTest {};

TEST_F(Readiness, IsTrueInLastStateOnly) {
    TestChannel channel;
    for (const int state : {C::CONNECTION_NOT_STARTED, C::CONNECTION_HANDSHAKE_SYN,
                            C::CONNECTION_HANDSHAKE_SYN_ACK}) {
        channel.m_handshake = state;
        EXPECT_FALSE(channel.IsConnectionReady()) << state;
    }
    channel.m_handshake = C::CONNECTION_HANDSHAKE_ACK;
    EXPECT_TRUE(channel.IsConnectionReady());
}

TEST_F(Readiness, DefaultHandlerLogsStateWithoutName) {
    TevrolDbusRemote channel("demo");
    ClearLog();
    channel.HandleConnectionReady(true, ":1.99");
    channel.HandleConnectionReady(false, ":1.99");
    constexpr const char* kHandler = "HandleConnectionReady";
    EXPECT_THAT(Log(),
                ElementsAre(Debug(kHandler, "Default handler - HandleConnectionReady = 1\n\n"),
                            Debug(kHandler, "Default handler - HandleConnectionReady = 0\n\n")));
}

// ---- Loss ----

// A channel that is ready with `partner`, whose unique name is `bound`.
class PartnerLoss : public ChannelTest {
protected:
    PartnerLoss() {
        Connect(partner, channel);
        bound = partner.UniqueName();
        ClearLog();
        gio_calls::Clear();
    }

    void LeaveUntilLost() {
        partner.Leave();
        ASSERT_TRUE(
            IterateUntil([&] { return HandshakeState(channel) == C::CONNECTION_NOT_STARTED; }));
    }

    void ExpectStillReady() {
        ExpectBound(channel, bound);
        EXPECT_TRUE(channel.IsConnectionReady());
        EXPECT_THAT(channel.ReadyCalls(), ElementsAre(Pair(true, bound)));
    }

    TestChannel channel;
    TestPartner partner;
    std::string bound;
};

TEST_F(PartnerLoss, MissingConnectionIsError) {
    C::cb_PartnerNameVanished(nullptr, bound.c_str(), &channel);
    EXPECT_THAT(Log(), ElementsAre(Vanished(bound), kNotValid));
    ExpectStillReady();
}

TEST_F(PartnerLoss, MissingChannelIsError) {
    C::cb_PartnerNameVanished(connection, bound.c_str(), nullptr);
    EXPECT_THAT(Log(), ElementsAre(Vanished(bound), kNotValid));
    ExpectStillReady();
}

TEST_F(PartnerLoss, EndOfBusIsNoLoss) {
    bus.Kill();
    ASSERT_TRUE(IterateUntil([] { return !Errors().empty(); }));
    EXPECT_THAT(Log(), ElementsAre(Vanished(bound), kNotValid));
    ExpectStillReady();
}

TEST_F(PartnerLoss, OtherNameIsNoLoss) {
    for (const std::string& other : {std::string(":1.99"), bound + "0", std::string()}) {
        ClearLog();
        C::cb_PartnerNameVanished(connection, other.c_str(), &channel);
        EXPECT_THAT(Log(), ElementsAre(Vanished(other)));
        ExpectStillReady();
    }
}

TEST_F(PartnerLoss, IsToldOnceAndReleasesBinding) {
    const std::string unwatch = "g_bus_unwatch_name " + std::to_string(channel.m_proxy_watch);
    const std::string unsubscribe =
        "g_dbus_connection_signal_unsubscribe " + std::to_string(channel.m_signal_id);
    gpointer proxy = channel.m_proxy;
    g_object_add_weak_pointer(G_OBJECT(channel.m_proxy), &proxy);
    LeaveUntilLost();
    EXPECT_THAT(Log(), ElementsAre(Vanished(bound), Lost(bound), kStopWatching));
    EXPECT_THAT(channel.ReadyCalls(), ElementsAre(Pair(true, bound), Pair(false, bound)));
    EXPECT_THAT(gio_calls::All(), ElementsAre(unwatch, unsubscribe));
    EXPECT_EQ(proxy, nullptr);
    ExpectUnbound(channel);
    EXPECT_FALSE(channel.IsConnectionReady());
    EXPECT_THAT(TakeGlibReports(), IsEmpty());
}

// The name is forgotten before the handler is called, the rest of the binding after it.
TEST_F(PartnerLoss, SendingFromItsHandlerSendsNothing) {
    Bytes data = ToBytes("too late");
    channel.on_ready = [&](bool, const std::string& lost) {
        channel.SendNotification(data, lost);
        EXPECT_THAT(TakeGlibReports(), IsEmpty());
        channel.SendNotification(data);
        EXPECT_THAT(TakeGlibReports(), ElementsAre(HasSubstr("destination_bus_name")));
        EXPECT_THAT(channel.SendMessage(data), IsEmpty());
    };
    LeaveUntilLost();
    EXPECT_THAT(Log(),
                ElementsAre(Vanished(bound), Lost(bound),
                            Error("SendNotification",
                                  "Attempt to send notification to not connected partner!\n"),
                            Debug("SendNotification", "Sending signal with 8 bytes\n\n"),
                            Debug("SendMessage", "Sending sync message with 8 bytes\n\n"),
                            Error("SendMessage",
                                  "Error while sending message [2] "
                                  "GDBus.Error:org.freedesktop.DBus.Error.ServiceUnknown: The "
                                  "name " +
                                      bound + " was not provided by any .service files\n\n"),
                            kStopWatching));
}

TEST_F(PartnerLoss, MissingWatchReleasesTheRest) {
    const std::string unsubscribe =
        "g_dbus_connection_signal_unsubscribe " + std::to_string(channel.m_signal_id);
    channel.m_proxy_watch = 0;  // the bus library still has it and reports
    LeaveUntilLost();
    EXPECT_THAT(Log(), ElementsAre(Vanished(bound), Lost(bound)));
    EXPECT_THAT(channel.ReadyCalls(), ElementsAre(Pair(true, bound), Pair(false, bound)));
    EXPECT_THAT(gio_calls::All(), ElementsAre(unsubscribe));
    ExpectUnbound(channel);
}

TEST_F(PartnerLoss, MissingProxyReleasesTheRest) {
    g_object_unref(std::exchange(channel.m_proxy, nullptr));
    LeaveUntilLost();
    EXPECT_THAT(Log(), ElementsAre(Vanished(bound), Lost(bound), kStopWatching));
    ExpectUnbound(channel);
    EXPECT_THAT(TakeGlibReports(), IsEmpty());
}

TEST_F(PartnerLoss, IsToldBeforeBindingIsReleased) {
    bool told = false;
    channel.on_ready = [&](bool, const std::string&) {
        told = true;
        EXPECT_EQ(channel.m_partner_dbus_name, "");
        EXPECT_NE(channel.m_proxy_watch, 0U);
        EXPECT_NE(channel.m_proxy, nullptr);
        EXPECT_NE(channel.m_signal_id, 0U);
        EXPECT_TRUE(channel.IsConnectionReady());
        EXPECT_TRUE(IsHeld(channel.m_mutex));
    };
    LeaveUntilLost();
    EXPECT_TRUE(told);
    EXPECT_FALSE(IsHeld(channel.m_mutex));
}

TEST_F(PartnerLoss, KeepsOwedEntriesAndAnnouncesNothing) {
    channel.m_resendHandshake[bound] = "_ACK";
    LeaveUntilLost();
    Settle();
    EXPECT_THAT(Owed(channel), ElementsAre(Pair(bound, "_ACK")));
    EXPECT_THAT(AnnouncedNames(), IsEmpty());
}

// ---- The next partner ----

TEST_F(PartnerLoss, NextPartnersSynIsAnswered) {
    TestPartner next;
    LeaveUntilLost();
    Connect(next, channel);
    ExpectBound(channel, next.UniqueName());
    EXPECT_THAT(channel.ReadyCalls(),
                ElementsAre(Pair(true, bound), Pair(false, bound), Pair(true, next.UniqueName())));
}

TEST_F(PartnerLoss, NextPartnersSynAckIsAnswered) {
    TestPartner next;
    LeaveUntilLost();
    next.Join();
    ASSERT_TRUE(next.Announce(HandshakeStage::SynAck));
    Settle(next);
    ExpectBound(channel, next.UniqueName());
    EXPECT_THAT(channel.ReadyCalls(),
                ElementsAre(Pair(true, bound), Pair(false, bound), Pair(true, next.UniqueName())));
}

TEST_F(PartnerLoss, SamePartnerReturnsUnderNewName) {
    LeaveUntilLost();
    Connect(partner, channel);
    EXPECT_NE(partner.UniqueName(), bound);
    ExpectBound(channel, partner.UniqueName());
}

TEST_F(PartnerLoss, PartnerIgnoredWhileBoundIsNotFoundLater) {
    TestPartner next;
    next.Join();
    next.Open();
    Settle(next);
    LeaveUntilLost();
    Settle(next);
    ExpectUnbound(channel);
    EXPECT_FALSE(next.IsReady());
    Connect(next, channel);
    ExpectBound(channel, next.UniqueName());
}

// ---- Loss in the middle of the handshake ----

struct Leaving {
    Moment moment;
    const char* name;
    bool is_first;           // the partner runs before this end is constructed
    std::vector<bool> told;  // what the application hears of it: ready, lost
};

void PrintTo(const Leaving& leaving, std::ostream* out) {
    *out << leaving.name;
}

class LossInHandshake : public ChannelTest, public testing::WithParamInterface<Leaving> {};

// Owning a name while leaving the bus releases it: the stage runs for a partner that is gone.
INSTANTIATE_TEST_SUITE_P(
    , LossInHandshake,
    testing::Values(Leaving{Moment::BeforeSyn, "BeforeSyn", false, {}},
                    Leaving{Moment::DuringSyn, "DuringSyn", false, {false}},
                    Leaving{Moment::AfterSyn, "AfterSyn", false, {false}},
                    Leaving{Moment::BeforeSynAck, "BeforeSynAck", true, {}},
                    Leaving{Moment::DuringSynAck, "DuringSynAck", true, {true, false}},
                    Leaving{Moment::AfterSynAck, "AfterSynAck", true, {true, false}},
                    Leaving{Moment::BeforeAck, "BeforeAck", false, {false}},
                    Leaving{Moment::DuringAck, "DuringAck", false, {true, false}},
                    Leaving{Moment::AfterAck, "AfterAck", false, {true, false}},
                    Leaving{Moment::OnReady, "OnReadyByAck", true, {true, false}},
                    Leaving{Moment::OnReady, "OnReadyBySynAck", false, {true, false}}));

TEST_P(LossInHandshake, UnbindsPartnerAndNextIsFound) {
    std::optional<TestChannel> channel;
    TestPartner partner;
    TestPartner next;
    const auto start_partner = [&] {
        PartnerFaults faults;
        faults.leave_at = GetParam().moment;
        partner.SetFaults(faults);
        partner.Join();
        return partner.UniqueName();
    };
    std::string gone;
    if (GetParam().is_first) {
        gone = start_partner();
        channel.emplace();
    } else {
        channel.emplace();
        gone = start_partner();
        partner.Open();
    }
    ASSERT_TRUE(IterateUntil([&] { return partner.Saw("left") && !NameHasOwner(gone); }));
    // All that it has announced is dispatched; where that has bound it, the loss follows.
    Settle();
    ASSERT_TRUE(IterateUntil([&] { return channel->m_proxy_watch == 0; }));
    ExpectUnbound(*channel);
    TestChannel::Readiness told;
    for (const bool state : GetParam().told) {
        told.emplace_back(state, gone);
    }
    EXPECT_EQ(channel->ReadyCalls(), told);

    Connect(next, *channel);
    ExpectBound(*channel, next.UniqueName());
    told.emplace_back(true, next.UniqueName());
    EXPECT_EQ(channel->ReadyCalls(), told);
}

}  // namespace
