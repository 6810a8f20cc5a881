// SPDX-License-Identifier: MIT
// The fixture of the tests of requests and notifications, and what goes wrong alike in both.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/channel-test.h"
#include "tests/support/gio-calls.h"

// The partner is on the bus, and the handshake has not begun.
class MessageTest : public ChannelTest {
protected:
    static constexpr const char* kPath = "/org/ulmar/tevrol/CommunicationChannel/demo";
    static constexpr const char* kInterface = "org.ulmar.tevrol.DbusCommunication";

    explicit MessageTest(std::function<Bytes(const Bytes&)> answer = {})
        : partner("demo", std::move(answer)) {}

    void SetUp() override {
        partner.Join();
        Forget();
    }

    void Connect() {
        ChannelTest::Connect(partner, channel);
        Forget();
    }

    static void Forget() {
        ClearLog();
        gio_calls::Clear();
    }

    static std::vector<std::size_t> Sizes() {
        return {0, 1, 4096, 65536};
    }

    // The handshake's states but the last.
    static std::vector<int> IncompleteStates() {
        return {TevrolDbusRemote::CONNECTION_NOT_STARTED,
                TevrolDbusRemote::CONNECTION_HANDSHAKE_SYN,
                TevrolDbusRemote::CONNECTION_HANDSHAKE_SYN_ACK};
    }

    // Payloads of which the default handlers log another text than they print.
    static std::vector<std::pair<std::string, std::string>> PayloadsAndLoggedTexts() {
        return {{std::string("ab\0cd", 5), "ab"}, {"", ""}, {"\xff", "\xff"}};
    }

    // Bodies that are not "(ay)", by the type that they are.
    static std::vector<std::pair<std::string, tevrol::Body>> WrongBodies() {
        return {
            {"(s)", tevrol::TextBody("text")},
            {"((ay))", [](sd_bus_message* m) { return sd_bus_message_append(m, "(ay)", 2, 1, 2); }},
            {"(ai)", [](sd_bus_message* m) { return sd_bus_message_append(m, "ai", 2, 1, 2); }},
            {"(ayay)",
             [](sd_bus_message* m) { return sd_bus_message_append(m, "ayay", 1, 1, 1, 2); }},
            {"(v)", [](sd_bus_message* m) { return sd_bus_message_append(m, "v", "ay", 1, 1); }},
            {"()", [](sd_bus_message*) { return 0; }},
        };
    }
    static LogLine WrongType(const std::string& function, const std::string& type) {
        return Error(function, "Unexpected type " + type + " instead of (ay)\n\n");
    }

    // Paths that are nearly the channel's.
    static std::vector<std::string> OtherPaths() {
        return {"/org/ulmar/tevrol/CommunicationChannel/Demo",
                "/org/ulmar/tevrol/CommunicationChannel/demo2",
                "/org/ulmar/tevrol/CommunicationChannel"};
    }

    // A message callback without connection, object or both logs `begun`, then that, and no more.
    void ExpectNeedsConnectionAndObject(
        const LogLine& begun, const std::function<void(GDBusConnection*, gpointer)>& callback) {
        const std::vector<std::pair<GDBusConnection*, gpointer>> incomplete = {
            {nullptr, &channel}, {connection, nullptr}, {nullptr, nullptr}};
        for (const auto& [on, user_data] : incomplete) {
            ClearLog();
            callback(on, user_data);
            EXPECT_THAT(Log(), testing::ElementsAre(
                                   begun, Error(begun.function,
                                                "Empty user_data or connection not valid.\n\n")));
        }
    }

    TestChannel channel;
    TestPartner partner;
};
