// SPDX-License-Identifier: MIT
#include "tests/fuzz/chosen-world.h"

namespace {

// What is sent, before it is given away.
std::vector<char> Payload(const MadeCall& call) {
    Require(g_variant_is_of_type(call.parameters, G_VARIANT_TYPE("(ay)")) != FALSE,
            "what is sent is (ay)");
    return BytesOf(call.parameters);
}

}  // namespace

ChosenWorld::ChosenWorld(Choices& choices) : m_choices(choices) {
    stub.on_call = [this](const MadeCall& call) { Account(call); };
    stub.plan = [this](const FailableCall& call) { return Decide(call); };
}

void ChosenWorld::Account(const MadeCall& call) {
    const std::string function = call.function;
    if (function == "g_dbus_proxy_call_sync") {
        Require(std::string(call.method) == "Send", "a request is a call of Send");
        requests.push_back(Payload(call));
        reply.clear();
    } else if (function == "g_dbus_connection_emit_signal") {
        Require(std::string(call.method) == "SendSignal",
                "a notification is the signal SendSignal");
        notifications.push_back(Payload(call));
        notified = call.subject;
    } else if (function == "g_dbus_method_invocation_return_value") {
        answers.push_back(Payload(call));
    }
    Require(function != "g_bus_unown_name", "no name is owned for longer than an announcement");
}

// An error is set; or, as GIO does for arguments that it rejects, nothing is returned without one.
std::optional<Failure> ChosenWorld::Choose() {
    switch (m_choices.Below(8)) {
        case 6:
            return Failure{true, {}};
        case 7:
            return Failure{false, {}};
        default:
            return std::nullopt;
    }
}

std::optional<Failure> ChosenWorld::Decide(const FailableCall& call) {
    if (call.function == "g_dbus_connection_call_sync") {
        return DecideAnnouncement(call);
    }
    if (call.function == "pthread_create") {
        return m_choices.OneIn(8) ? std::optional(Failure{false, {}, !m_choices.OneIn(2)})
                                  : std::nullopt;
    }
    if (!call.takes_error) {
        return std::nullopt;
    }
    const std::optional<Failure> failure = Choose();
    if (call.function == "g_bus_get_sync") {
        connected = !failure;
    } else if (call.function == "g_dbus_connection_register_object") {
        registered = !failure;
    } else if (call.function == "g_dbus_proxy_call_sync" && !failure) {
        stub.AnswerWith(AnyBody(m_choices));
        if (g_variant_is_of_type(stub.answer, G_VARIANT_TYPE("(ay)")) != FALSE) {
            reply = BytesOf(stub.answer);
        }
    }
    return failure;
}

// RequestName and ReleaseName answer a code; one more of them is what the bus never sends.
std::optional<Failure> ChosenWorld::DecideAnnouncement(const FailableCall& call) {
    Require(call.subject == "org.ulmar.Tevrol.demo_CLIENT_SYN" ||
                call.subject == "org.ulmar.Tevrol.demo_CLIENT_SYN_ACK" ||
                call.subject == "org.ulmar.Tevrol.demo_CLIENT_ACK",
            "only the channel's own names are announced");
    const bool releases = call.method == "ReleaseName";
    Require(held_name == (releases ? call.subject : ""),
            "a name is released at once, and nothing else is");
    held_name.clear();
    if (const auto failure = Choose()) {
        return failure;
    }
    const guint32 code = m_choices.Below(5) + (releases ? 0 : 1);
    if (!releases && code == 1) {
        held_name = call.subject;
    }
    return Failure{false, code};
}
