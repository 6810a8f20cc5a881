// SPDX-License-Identifier: MIT
// One announcement: a name owned for an instant, and what may go wrong with it.
#include "tests/support/channel-test.h"
#include "tests/support/gio-calls.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kName = "org.ulmar.Tevrol.demo_CLIENT_ACK";
constexpr const char* kRequest = "g_dbus_connection_call_sync RequestName";
constexpr const char* kRelease = "g_dbus_connection_call_sync ReleaseName";

// Of the bus: flags and replies of RequestName.
constexpr guint32 kAllowReplacement = 1;
constexpr guint32 kReplaceExisting = 2;
constexpr guint32 kDoNotQueue = 4;
constexpr guint32 kOwned = 1;
constexpr guint32 kExists = 3;

class Broadcast : public ChannelTest {
protected:
    Broadcast() {
        ClearLog();
        gio_calls::Clear();
    }

    bool Announce(const std::string& name = kName) {
        std::string announced = name;
        const bool result = channel.BroadcastName(announced);
        EXPECT_EQ(announced, name);
        return result;
    }

    static LogLine Begun(const std::string& name = kName) {
        return Debug("BroadcastName",
                     "BroadcastName " + name + " Public unique name " + OwnName() + "\n\n");
    }

    static LogLine Refused(const std::string& code) {
        return Error("BroadcastName", "Cannot own name due to return code = " + code + "\n\n");
    }

    // The reply of the bus to the process behind `asker`.
    static guint32 RequestName(GDBusConnection* asker, guint32 flags) {
        GVariant* reply = CallDriver(asker, "RequestName", g_variant_new("(su)", kName, flags));
        guint32 code = 0;
        g_variant_get(reply, "(u)", &code);
        g_variant_unref(reply);
        return code;
    }

    const LogLine kBecomeOwner =
        Debug("BroadcastName", "Become primary owner for name. Releasing it.\n\n");
    const LogLine kNoReply = Error("BroadcastName", "Cannot get response for name request\n\n");
    const LogLine kNoRelease = Error("BroadcastName", "Release failed due to empty response.\n\n");

    TestChannel channel;
};

TEST_F(Broadcast, FreeNameIsAcquiredAndReleasedOnce) {
    using Changes = std::vector<std::pair<std::string, std::string>>;
    Changes changes;  // from, to
    g_dbus_connection_signal_subscribe(
        connection, "org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged",
        "/org/freedesktop/DBus", kName, G_DBUS_SIGNAL_FLAGS_NONE,
        [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
           GVariant* parameters, gpointer data) {
            const gchar* from = nullptr;
            const gchar* to = nullptr;
            g_variant_get(parameters, "(&s&s&s)", nullptr, &from, &to);
            static_cast<Changes*>(data)->emplace_back(from, to);
        },
        &changes, nullptr);
    EXPECT_TRUE(Announce());
    Settle();
    EXPECT_EQ(changes, (Changes{{"", OwnName()}, {OwnName(), ""}}));
    EXPECT_THAT(Log(), ElementsAre(Begun(), kBecomeOwner));
    EXPECT_EQ(gio_calls::Of(kRequest).size(), 1U);
    EXPECT_EQ(gio_calls::Of(kRelease).size(), 1U);
}

TEST_F(Broadcast, NameOfOtherProcessIsRefusedAndNotQueued) {
    TestPartner holder;
    holder.Join();
    ASSERT_TRUE(holder.HoldClientName(HandshakeStage::Ack));
    EXPECT_FALSE(Announce());
    EXPECT_THAT(Log(), ElementsAre(Begun(), Refused("3")));
    EXPECT_THAT(gio_calls::Of(kRelease), IsEmpty());
    EXPECT_TRUE(NameHasOwner(kName));
    // The other was the owner, and nobody comes after it.
    ASSERT_TRUE(holder.ReleaseClientName(HandshakeStage::Ack));
    EXPECT_FALSE(NameHasOwner(kName));
}

TEST_F(Broadcast, ReplaceableOwnerIsNotReplaced) {
    const Connection holder = OpenConnection(bus.Address());
    ASSERT_EQ(RequestName(holder.get(), kAllowReplacement), kOwned);
    EXPECT_FALSE(Announce());
    EXPECT_THAT(Errors(), ElementsAre(Refused("3")));
}

TEST_F(Broadcast, NameCannotBeTakenMeanwhile) {
    gio_calls::Fail(kRelease);  // so that it lasts
    EXPECT_FALSE(Announce());
    const Connection other = OpenConnection(bus.Address());
    EXPECT_EQ(RequestName(other.get(), kReplaceExisting | kDoNotQueue), kExists);
}

TEST_F(Broadcast, OwnNameIsRefused) {
    ASSERT_EQ(RequestName(connection, kDoNotQueue), kOwned);
    ClearLog();
    EXPECT_FALSE(Announce());
    EXPECT_THAT(Log(), ElementsAre(Begun(), Refused("4")));
    EXPECT_TRUE(NameHasOwner(kName));
}

TEST_F(Broadcast, ClosedConnectionLogsErrorAndMissingReply) {
    const Connection closed = ClosedConnection(bus.Address());
    GDBusConnection* open = std::exchange(channel.m_connection, closed.get());
    EXPECT_FALSE(Announce());
    channel.m_connection = open;
    EXPECT_THAT(Log(), ElementsAre(Begun(),
                                   Error("BroadcastName",
                                         "Error during request name call [18] The connection is "
                                         "closed\n\n"),
                                   kNoReply));
}

TEST_F(Broadcast, InvalidNameLogsErrorAndMissingReply) {
    EXPECT_FALSE(Announce("no name"));
    EXPECT_THAT(Log(),
                ElementsAre(Begun("no name"),
                            Error("BroadcastName",
                                  "Error during request name call [16] "
                                  "GDBus.Error:org.freedesktop.DBus.Error.InvalidArgs: Requested "
                                  "bus name \"no name\" is not valid\n\n"),
                            kNoReply));
}

TEST_F(Broadcast, MissingReplyWithoutErrorIsLogged) {
    gio_calls::Fail(kRequest, 1, gio_calls::Failure::WithoutError);
    EXPECT_FALSE(Announce());
    EXPECT_THAT(Log(), ElementsAre(Begun(), kNoReply));
    EXPECT_THAT(gio_calls::Of(kRelease), IsEmpty());
}

TEST_F(Broadcast, AnyCodeButOneFails) {
    for (const guint32 code : {0U, 2U, 5U, 4294967295U}) {
        ClearLog();
        gio_calls::AnswerCode("RequestName", code);
        EXPECT_FALSE(Announce());
        EXPECT_THAT(Log(), ElementsAre(Begun(), Refused(std::to_string(static_cast<int>(code)))));
    }
    EXPECT_THAT(gio_calls::Of(kRelease), IsEmpty());
}

TEST_F(Broadcast, AnyReleaseCodeSucceeds) {
    for (const guint32 code : {2U, 3U, 0U}) {
        ClearLog();
        gio_calls::AnswerCode("RequestName", kOwned);
        gio_calls::AnswerCode("ReleaseName", code);
        EXPECT_TRUE(Announce());
        EXPECT_THAT(Log(), ElementsAre(Begun(), kBecomeOwner));
    }
}

TEST_F(Broadcast, MissingReleaseReplyFailsAndNameStaysOwned) {
    using Failure = gio_calls::Failure;
    for (const auto& [name, failure] : std::vector<std::pair<std::string, Failure>>{
             {"org.ulmar.Tevrol.one_CLIENT_SYN", Failure::WithError},
             {"org.ulmar.Tevrol.two_CLIENT_SYN", Failure::WithoutError}}) {
        ClearLog();
        gio_calls::Fail(kRelease, 1, failure);
        EXPECT_FALSE(Announce(name));
        // What the failed release reports is not logged.
        EXPECT_THAT(Log(), ElementsAre(Begun(name), kBecomeOwner, kNoRelease));
        EXPECT_TRUE(NameHasOwner(name));

        ClearLog();
        EXPECT_FALSE(Announce(name));
        EXPECT_THAT(Log(), ElementsAre(Begun(name), Refused("4")));
    }
}

}  // namespace
