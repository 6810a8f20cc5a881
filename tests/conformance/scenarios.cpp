// SPDX-License-Identifier: MIT
#include "tests/conformance/scenarios.h"

using Channel = TevrolDbusRemote;

void HearSyn(ChannelLife& life, const std::string& partner) {
    life.Hear(&Channel::cb_SynNameOwnerChanged, partner);
}

void HearSynAck(ChannelLife& life, const std::string& partner) {
    life.Hear(&Channel::cb_SynAckNameOwnerChanged, partner);
}

void HearAck(ChannelLife& life, const std::string& partner) {
    life.Hear(&Channel::cb_AckNameOwnerChanged, partner);
}

void LosePartner(ChannelLife& life) {
    const std::string partner = life.channel->m_partner_dbus_name;
    if (life.world.Watches(partner)) {
        life.Lose(partner);
        EXPECT_EQ(life.channel->m_partner_dbus_name, "");
    }
}

namespace {

void Nothing(ChannelLife& /*life*/) {}

void Anywhere(ChannelLife& /*life*/, const std::string& /*partner*/) {}

void Construct(ChannelLife& life) {
    life.Construct();
}

void ConstructReady(ChannelLife& life) {
    life.ConstructReady();
}

void ConstructReadyWithDefaultHandlers(ChannelLife& life) {
    life.ConstructReady(StubChannel::Handlers::Default);
}

// Where there is a resend thread, it does its work: an announcement that never succeeds is repeated
// until the partner leaves.
void RunThread(ChannelLife& life, const std::string& /*partner*/) {
    if (life.world.Threads().empty()) {
        return;
    }
    constexpr int kPasses = 4;
    life.world.on_sleep = [&life, last = life.world.sleeps + kPasses](int sleeps) {
        if (sleeps == last) {
            LosePartner(life);
        }
    };
    life.world.RunThread(life.world.Threads().begin()->first);
    life.world.on_sleep = nullptr;
}

// Nobody is bound any more, and the resend thread has ended.
void ComeFree(ChannelLife& life, const std::string& partner) {
    LosePartner(life);
    RunThread(life, partner);
}

Step FreeAnd(const Step& step) {
    return [step](ChannelLife& life, const std::string& partner) {
        ComeFree(life, partner);
        step(life, partner);
    };
}

// The stage, with its announcement refused, whatever else is planned.
Step Refused(const Step& stage) {
    return [stage](ChannelLife& life, const std::string& partner) {
        const auto planned = life.world.plan;
        life.world.plan =
            [planned, refused = false](const FailableCall& call) mutable -> std::optional<Failure> {
            auto failure = planned ? planned(call) : std::nullopt;
            if (call.method == "RequestName" && !refused) {
                refused = true;
                failure = failure ? failure : Failure{};
            }
            return failure;
        };
        stage(life, partner);
        life.world.plan = planned;
    };
}

// An announcement of the stage is owed: the last one, or a new one to another partner.
Step Owing(const Step& stage) {
    return [stage](ChannelLife& life, const std::string& partner) {
        if (life.channel->m_resendHandshake.empty()) {
            FreeAnd(Refused(stage))(life, partner);
        }
    };
}

void RunPass(ChannelLife& life, const std::string& /*partner*/) {
    Channel::OnResendHandshake(life.channel.get());
}

GVariant* Payload() {
    return g_variant_new_parsed("([byte 0x61, 0x00, 0xff],)");
}

void Receive(ChannelLife& life, const std::string& /*partner*/) {
    life.Receive(Payload());
}

void ReceiveSignal(ChannelLife& life, const std::string& /*partner*/) {
    life.ReceiveSignal(Payload());
}

void Request(ChannelLife& life, const std::string& /*partner*/) {
    std::vector<char> data = ToBytes("hi");
    life.channel->SendMessage(data);
}

void Notify(ChannelLife& life, const std::string& /*partner*/) {
    std::vector<char> data = ToBytes("hi");
    life.channel->SendNotification(data, life.channel->m_partner_dbus_name);
}

void Lose(ChannelLife& life, const std::string& partner) {
    life.Lose(partner);
}

void Destroy(ChannelLife& life, const std::string& /*partner*/) {
    life.channel.reset();
}

// From construction, or from the loss of another partner, to the loss of this one, as far as the
// bus would tell the channel of it.
void Live(ChannelLife& life, const std::string& partner) {
    if (life.channel == nullptr) {
        life.Construct();
    }
    const Channel& channel = *life.channel;
    if (channel.m_notification_watch_syn == 0) {
        return;
    }
    HearSyn(life, partner);
    RunThread(life, partner);
    if (channel.m_handshake == Channel::CONNECTION_HANDSHAKE_SYN_ACK &&
        channel.m_notification_watch_ack != 0) {
        HearAck(life, partner);
    }
    if (channel.m_handshake == Channel::CONNECTION_HANDSHAKE_ACK && channel.m_signal_id != 0) {
        Notify(life, partner);
        Receive(life, partner);
    }
    LosePartner(life);
}

}  // namespace

const std::vector<Scenario>& Scenarios() {
    const auto construct = [](ChannelLife& life, const std::string&) { Construct(life); };
    const auto bound = [](ChannelLife& life) { life.ConstructBound(); };
    const auto owing = [](ChannelLife& life) {
        Construct(life);
        Refused(HearSyn)(life, kPartners[0]);
    };
    static const std::vector<Scenario> scenarios = {
        {"Construction", Nothing, nullptr, construct},
        {"SynStage", Construct, ComeFree, HearSyn},
        {"SynAckStage", Construct, ComeFree, HearSynAck},
        {"RefusedInSynStage", Construct, ComeFree, Refused(HearSyn)},
        {"RefusedInSynAckStage", Construct, ComeFree, Refused(HearSynAck)},
        {"AckStage", Construct, FreeAnd(HearSyn), HearAck},
        {"Loss", Construct, FreeAnd(HearSynAck), Lose},
        {"ResendPassOfSynAck", Construct, Owing(HearSyn), RunPass},
        {"ResendPassOfAck", Construct, Owing(HearSynAck), RunPass},
        {"ResendThreadOfSynAck", Construct, FreeAnd(Refused(HearSyn)), RunThread},
        {"ResendThreadOfAck", Construct, FreeAnd(Refused(HearSynAck)), RunThread},
        {"Request", ConstructReady, Anywhere, Request},
        {"RequestWithoutPartner", Construct, Anywhere, Request},
        {"IncomingRequest", ConstructReady, Anywhere, Receive},
        {"IncomingRequestDefaultHandler", ConstructReadyWithDefaultHandlers, Anywhere, Receive},
        {"Notification", ConstructReady, Anywhere, Notify},
        {"IncomingNotification", ConstructReady, Anywhere, ReceiveSignal},
        {"IncomingNotificationDefaultHandler", ConstructReadyWithDefaultHandlers, Anywhere,
         ReceiveSignal},
        {"TeardownUnbound", Construct, nullptr, Destroy},
        {"TeardownBound", bound, nullptr, Destroy},
        {"TeardownReady", ConstructReady, nullptr, Destroy},
        {"TeardownResendPending", owing, nullptr, Destroy},
        {"ConstructionToLoss", Nothing, Anywhere, Live},
    };
    return scenarios;
}
