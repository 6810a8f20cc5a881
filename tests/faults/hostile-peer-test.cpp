// SPDX-License-Identifier: MIT
// Peers that send what no partner sends. A peer is a connection to the bus: whether two of them
// live in one process or in two, the bus and this end cannot tell.
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <fstream>
#include <iostream>

#include "devkit/partner-process.h"
#include "tests/support/channel-test.h"
#include "tests/support/gio-calls.h"
#include "tests/support/stranger.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

constexpr const char* kPath = "/org/ulmar/tevrol/CommunicationChannel/demo";
constexpr const char* kInterface = "org.ulmar.tevrol.DbusCommunication";
constexpr const char* kSyn = "org.ulmar.Tevrol.demo_SERVICE_SYN";
constexpr const char* kSynAck = "org.ulmar.Tevrol.demo_SERVICE_SYN_ACK";
constexpr const char* kAck = "org.ulmar.Tevrol.demo_SERVICE_ACK";

class HostilePeer : public ChannelTest {
protected:
    using ChannelTest::ChannelTest;
};

// ---- Wrong types ----

struct WrongBody {
    const char* name;
    std::string signature;
    tevrol::Body body;
};

std::ostream& operator<<(std::ostream& out, const WrongBody& wrong) {
    return out << '"' << wrong.signature << '"';
}

template <typename... Values>
WrongBody Wrong(const char* name, const std::string& signature, Values... values) {
    return {name, signature, [=](sd_bus_message* message) {
                return sd_bus_message_append(message, signature.c_str(), values...);
            }};
}

const std::vector<WrongBody> kWrongBodies = {
    Wrong("Nothing", ""),
    Wrong("Byte", "y", 7),
    Wrong("Boolean", "b", 1),
    Wrong("Int16", "n", -7),
    Wrong("Uint16", "q", 7),
    Wrong("Int32", "i", -7),
    Wrong("Uint32", "u", 7U),
    Wrong("Int64", "x", int64_t{-7}),
    Wrong("Uint64", "t", uint64_t{7}),
    Wrong("Double", "d", 7.5),
    Wrong("String", "s", "no byte array"),
    Wrong("ObjectPath", "o", "/no/byte/array"),
    Wrong("Signature", "g", "ay"),
    Wrong("Descriptor", "h", STDOUT_FILENO),
    Wrong("VariantOfTheRightType", "v", "ay", 2, 1, 2),
    Wrong("StructOfTheRightType", "(ay)", 2, 1, 2),
    Wrong("TwoOfTheRightType", "ayay", 1, 1, 1, 2),
    Wrong("TheRightTypeAndMore", "ays", 1, 1, "more"),
    Wrong("MoreAndTheRightType", "yay", 7, 1, 1),
    Wrong("ArrayOfTheRightType", "aay", 1, 2, 1, 2),
    Wrong("ArrayOfBooleans", "ab", 1, 1),
    Wrong("ArrayOfInt16", "an", 1, 1),
    Wrong("ArrayOfStrings", "as", 1, "no byte"),
    Wrong("ArrayOfNothing", "as", 0),
    Wrong("Dictionary", "a{sv}", 1, "key", "ay", 1, 1),
    Wrong("NestedStructs", "((((ay))))", 1, 1),
    Wrong("NestedArrays", std::string(32, 'a') + "y", 0),
};

class WrongType : public HostilePeer, public testing::WithParamInterface<WrongBody> {
protected:
    static LogLine Unexpected(const std::string& function) {
        return Error(function,
                     "Unexpected type (" + GetParam().signature + ") instead of (ay)\n\n");
    }
};

TEST_P(WrongType, InReplyIsLoggedFailure) {
    TestChannel channel;
    TestPartner partner;
    Connect(partner, channel);
    PartnerFaults faults;
    faults.reply = PartnerFaults::Reply::WrongType;
    faults.wrong_body = GetParam().body;
    partner.SetFaults(faults);
    Bytes request = ToBytes("hello");
    EXPECT_THAT(channel.SendMessage(request), IsEmpty());
    EXPECT_THAT(Errors(), ElementsAre(Unexpected("SendMessage")));
    partner.SetFaults({});
    EXPECT_EQ(channel.SendMessage(request), request);
}

TEST_P(WrongType, InNotificationIsLoggedAndDropped) {
    TestChannel channel;
    TestPartner partner;
    Connect(partner, channel);
    ASSERT_TRUE(partner.Notify(GetParam().body));
    ASSERT_TRUE(partner.Notify(ToBytes("proper")));
    Settle(partner);
    EXPECT_THAT(Errors(), ElementsAre(Unexpected("cb_SignalCall")));
    EXPECT_THAT(channel.Notifications(), ElementsAre(ToBytes("proper")));
}

TEST_P(WrongType, InRequestGetsError) {
    TestChannel channel;
    TestPartner partner;
    Connect(partner, channel);
    const PartnerReply reply = Await(partner.Request(GetParam().body));
    EXPECT_FALSE(reply.ok);
    EXPECT_THAT(reply.error, StartsWith("org.freedesktop.DBus.Error.InvalidArgs: "));
    EXPECT_TRUE(Await(partner.Request(ToBytes("proper"))).ok);
    EXPECT_THAT(channel.Requests(), ElementsAre(ToBytes("proper")));
    EXPECT_THAT(Errors(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Body, WrongType, testing::ValuesIn(kWrongBodies),
                         [](const auto& wrong) { return wrong.param.name; });

// ---- Strangers ----

GVariant* Payload(const char* text) {
    return g_variant_new("(@ay)", g_variant_new_bytestring(text));
}

TEST_F(HostilePeer, SignalsOfThirdProcessAreIgnored) {
    TestChannel channel;
    TestPartner partner;
    Connect(partner, channel);
    // The bus keeps a signal to all from this process unless somebody in it asks for such signals.
    GVariant* reply = CallDriver(
        connection, "AddMatch",
        g_variant_new("(s)",
                      (std::string("type='signal',interface='") + kInterface + "'").c_str()));
    ASSERT_NE(reply, nullptr);
    g_variant_unref(reply);
    Stranger stranger(bus.Address());
    const Arrivals arrivals(connection, stranger.UniqueName());
    stranger.Emit(OwnName().c_str(), kPath, kInterface, "SendSignal", Payload("to you"));
    stranger.Emit(nullptr, kPath, kInterface, "SendSignal", Payload("to all"));
    ASSERT_TRUE(partner.Notify(ToBytes("the partner's")));
    Settle(partner);
    EXPECT_EQ(arrivals.Count(), 2);
    EXPECT_THAT(channel.Notifications(), ElementsAre(ToBytes("the partner's")));
    EXPECT_EQ(LogOf("cb_SignalCall").size(), 1U);
}

TEST_F(HostilePeer, StrangersRequestsAreServed) {
    TestChannel channel;
    TestPartner stranger("other");
    stranger.Join();
    const auto request = [&](const char* text) {
        return Await(stranger.RequestOf(OwnName(), tevrol::PayloadBody(ToBytes(text))));
    };
    // A partner of another channel calls its own path, which this process does not have.
    EXPECT_THAT(request("elsewhere").error,
                StartsWith("org.freedesktop.DBus.Error.UnknownMethod: "));

    TestPartner caller;
    caller.Join();
    EXPECT_TRUE(Await(caller.RequestOf(OwnName(), tevrol::PayloadBody(ToBytes("before")))).ok);
    TestPartner partner;
    Connect(partner, channel);
    EXPECT_TRUE(Await(caller.RequestOf(OwnName(), tevrol::PayloadBody(ToBytes("after")))).ok);
    EXPECT_THAT(channel.Requests(), ElementsAre(ToBytes("before"), ToBytes("after")));
}

TEST_F(HostilePeer, ForgedNameOwnerChangedIsIgnored) {
    TestChannel channel;
    Stranger stranger(bus.Address());
    const Arrivals forged(connection, stranger.UniqueName());
    const auto forge = [&](const std::string& name, const std::string& old_owner) {
        stranger.Emit(OwnName().c_str(), "/org/freedesktop/DBus", "org.freedesktop.DBus",
                      "NameOwnerChanged",
                      g_variant_new("(sss)", name.c_str(), old_owner.c_str(), ""));
    };
    for (const char* name : {kSyn, kSynAck, kAck}) {
        forge(name, stranger.UniqueName());
    }
    Settle();
    EXPECT_EQ(forged.Count(), 3);
    EXPECT_EQ(channel.m_handshake, TevrolDbusRemote::CONNECTION_HANDSHAKE_SYN);
    EXPECT_EQ(channel.m_partner_dbus_name, "");

    TestPartner partner;
    Connect(partner, channel);
    ClearLog();
    forge(kAck, stranger.UniqueName());
    forge(partner.UniqueName(), partner.UniqueName());
    Settle();
    EXPECT_EQ(forged.Count(), 5);
    EXPECT_THAT(Log(), IsEmpty());
    EXPECT_TRUE(channel.IsConnectionReady());
    EXPECT_THAT(channel.ReadyCalls(), ElementsAre(std::make_pair(true, partner.UniqueName())));
}

// ---- Pulses ----

class HostilePulses : public HostilePeer {
protected:
    static void Announce(Stranger& peer, const char* name) {
        peer.Pulse(name);
        Settle();
    }
    // Of the channel; the stranger's calls are recorded, too.
    static std::size_t Announcements() {
        return gio_calls::Of(
                   "g_dbus_connection_call_sync RequestName org.ulmar.Tevrol.demo_CLIENT_")
            .size();
    }
};

TEST_F(HostilePulses, DuplicatesBindOnceAndTellEachAck) {
    TestChannel channel;
    Stranger peer(bus.Address());
    Announce(peer, kSyn);
    Announce(peer, kSyn);
    EXPECT_EQ(Announcements(), 2U);  // the SYN at the start and one SYN_ACK
    EXPECT_EQ(channel.m_handshake, TevrolDbusRemote::CONNECTION_HANDSHAKE_SYN_ACK);
    EXPECT_THAT(channel.ReadyCalls(), IsEmpty());
    Announce(peer, kAck);
    Announce(peer, kAck);
    const auto ready = std::make_pair(true, peer.UniqueName());
    EXPECT_THAT(channel.ReadyCalls(), ElementsAre(ready, ready));
    EXPECT_EQ(Announcements(), 2U);
}

TEST_F(HostilePulses, OutOfOrderPulsesNeitherCompleteNorReplace) {
    TestChannel channel;
    Stranger peer(bus.Address());
    Announce(peer, kAck);  // nobody is bound
    EXPECT_EQ(channel.m_handshake, TevrolDbusRemote::CONNECTION_HANDSHAKE_SYN);
    EXPECT_EQ(channel.m_partner_dbus_name, "");
    Announce(peer, kSynAck);
    const auto ready = std::make_pair(true, peer.UniqueName());
    EXPECT_THAT(channel.ReadyCalls(), ElementsAre(ready));
    Announce(peer, kSyn);
    Announce(peer, kSynAck);
    EXPECT_THAT(channel.ReadyCalls(), ElementsAre(ready));
    EXPECT_EQ(channel.m_handshake, TevrolDbusRemote::CONNECTION_HANDSHAKE_ACK);
    EXPECT_EQ(Announcements(), 2U);  // the SYN and one ACK
}

TEST_F(HostilePulses, InterleavedPeersBindFirstAndEitherAckCompletes) {
    TestChannel channel;
    Stranger first(bus.Address());
    {
        Stranger second(bus.Address());
        first.Acquire(kSyn);
        second.Acquire(kSynAck);
        first.Release(kSyn);
        second.Release(kSynAck);
        Settle();
        EXPECT_EQ(channel.m_partner_dbus_name, first.UniqueName());
        EXPECT_FALSE(channel.IsConnectionReady());
        Announce(second, kAck);
        EXPECT_THAT(channel.ReadyCalls(), ElementsAre(std::make_pair(true, second.UniqueName())));
        EXPECT_EQ(channel.m_partner_dbus_name, first.UniqueName());
        // A notification goes to the one that is bound, and only by its name.
        Bytes data = ToBytes("whose?");
        ClearLog();
        channel.SendNotification(data, second.UniqueName());
        EXPECT_THAT(Errors(), ElementsAre(Error("SendNotification",
                                                "Attempt to send notification to not connected "
                                                "partner!\n")));
    }
    Settle();
    EXPECT_TRUE(channel.IsConnectionReady());  // the second has left, the first has not
}

TEST_F(HostilePulses, AcquisitionBindsNobodyUntilOwnerLeaves) {
    TestChannel channel;
    std::string name;
    {
        Stranger peer(bus.Address());
        name = peer.UniqueName();
        for (const char* stage : {kSyn, kSynAck, kAck}) {
            peer.Acquire(stage);
        }
        Settle();
        EXPECT_EQ(channel.m_partner_dbus_name, "");
        EXPECT_EQ(channel.m_handshake, TevrolDbusRemote::CONNECTION_HANDSHAKE_SYN);
    }
    // Its end releases the names, which counts as announcements of somebody who is gone.
    ASSERT_TRUE(IterateUntil([&] {
        return !channel.ReadyCalls().empty() &&
               channel.ReadyCalls().back() == std::make_pair(false, name);
    }));
    EXPECT_EQ(channel.m_partner_dbus_name, "");
    EXPECT_FALSE(channel.IsConnectionReady());
    TestPartner partner;
    Connect(partner, channel);
}

// ---- Floods ----

constexpr int kFlood = 100000;
// How many notifications are on their way at most before the sender waits for the receiver. The bus
// holds them all in memory, and so does GIO in the sender.
constexpr int kWindow = 1000;

Bytes Numbered(int number) {
    return ToBytes(std::to_string(number));
}

// The most memory that a process has had so far, in KiB.
long PeakMemory(pid_t process) {
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, 6, "VmHWM:") == 0) {
            return std::stol(line.substr(6));
        }
    }
    return 0;
}

// What the bus may need for a window of small notifications. Its own limit, at which it begins to
// drop messages, is 127 MiB for each receiver.
constexpr long kWindowMemory = 4096;

struct CountingChannel : TestChannel {
    void HandleNotification(std::vector<char>& data) override {
        in_order = in_order && data == Numbered(count);
        ++count;
    }
    int count = 0;
    bool in_order = true;
};

TEST_F(HostilePeer, FloodFromPartnerArrivesInOrder) {
    CountingChannel channel;
    TestPartner partner;
    Connect(partner, channel);
    const long memory = PeakMemory(bus.Pid());
    for (int i = 0; i < kFlood; ++i) {
        ASSERT_TRUE(partner.Notify(Numbered(i)));
        if (i % kWindow == kWindow - 1) {
            ASSERT_TRUE(IterateUntil([&] { return channel.count == i + 1; }));
            ClearLog();
        }
    }
    EXPECT_EQ(channel.count, kFlood);
    EXPECT_TRUE(channel.in_order);
    EXPECT_LT(PeakMemory(bus.Pid()) - memory, kWindowMemory);
}

// Not paced, and this end's loop does not run: GIO's own thread takes all from the bus, and this
// process keeps it until the loop runs.
TEST_F(HostilePeer, FloodFromPartnerWaitsHereForTheLoop) {
    CountingChannel channel;
    TestPartner partner;
    Connect(partner, channel);
    const Arrivals arrivals(connection, partner.UniqueName());
    const long own_memory = PeakMemory(getpid());
    const long memory_of_bus = PeakMemory(bus.Pid());
    for (int i = 0; i < kFlood; ++i) {
        ASSERT_TRUE(partner.Notify(Numbered(i)));
    }
    partner.Settle();
    Receive();
    EXPECT_EQ(arrivals.Count(), kFlood);
    EXPECT_EQ(channel.count, 0);
    std::cout << kFlood << " notifications wait in this process: it has grown by "
              << PeakMemory(getpid()) - own_memory << " KiB, the bus by "
              << PeakMemory(bus.Pid()) - memory_of_bus << " KiB\n";
    Settle();
    EXPECT_EQ(channel.count, kFlood);
    EXPECT_TRUE(channel.in_order);
}

TEST_F(HostilePeer, FloodToPartnerArrivesInOrder) {
    TestChannel channel;
    std::atomic<int> count{0};
    std::atomic<bool> in_order{true};
    std::atomic<bool> ready{false};
    tevrol::Partner partner("demo",
                            {{}, [&](const tevrol::PartnerEvent& event) {
                                 if (event.kind == tevrol::PartnerEvent::Kind::Ready) {
                                     ready = true;
                                 }
                                 if (event.kind == tevrol::PartnerEvent::Kind::Notification) {
                                     in_order = in_order && event.payload == Numbered(count);
                                     ++count;
                                 }
                             }});
    partner.Join();
    partner.Open();
    ASSERT_TRUE(IterateUntil([&] { return ready && channel.IsConnectionReady(); }));
    const long memory = PeakMemory(bus.Pid());
    for (int i = 0; i < kFlood; ++i) {
        Bytes data = Numbered(i);
        channel.SendNotification(data);
        if (i % kWindow == kWindow - 1) {
            ASSERT_TRUE(IterateUntil([&] { return count == i + 1; }));
            ClearLog();
        }
    }
    EXPECT_EQ(count, kFlood);
    EXPECT_TRUE(in_order);
    EXPECT_LT(PeakMemory(bus.Pid()) - memory, kWindowMemory);
}

// What the bus holds of all that the process `sender` has sent, in bytes, as it says itself; asked
// on a connection of its own, because the sender's may be held up.
unsigned HeldByTheBus(const tevrol::PrivateBus& bus, const std::string& sender) {
    const Connection asking = OpenConnection(bus.Address());
    GVariant* reply =
        g_dbus_connection_call_sync(asking.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                    "org.freedesktop.DBus.Debug.Stats", "GetConnectionStats",
                                    g_variant_new("(s)", sender.c_str()), G_VARIANT_TYPE("(a{sv})"),
                                    G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    if (reply == nullptr) {
        return 0;
    }
    GVariant* statistics = g_variant_get_child_value(reply, 0);
    guint bytes = 0;
    g_variant_lookup(statistics, "IncomingBytes", "u", &bytes);
    g_variant_unref(statistics);
    g_variant_unref(reply);
    return bytes;
}

// Not paced: the bus holds what a receiver does not read up to its limit, 127 MiB for each sender,
// and then reads no more of that sender, who is held up with all that it asks of the bus. Nothing
// is lost; the rest waits in the sender's memory.
TEST_F(HostilePeer, FloodToStoppedReaderWaitsAtBusLimit) {
    constexpr unsigned kMegabyte = 1U << 20;
    constexpr unsigned kLimit = 127 * kMegabyte;
    constexpr int kSent = 160;
    TestChannel channel;
    tevrol::PartnerProcess partner(TEVROL_PARTNER_PROGRAM, "demo");
    ASSERT_TRUE(IterateUntil(
        [&] { return channel.IsConnectionReady() && partner.Find("ready ").has_value(); }));
    const long memory = PeakMemory(bus.Pid());
    partner.Stop();
    // On the channel's connection, but in bulk: the channel converts byte by byte.
    const std::vector<char> megabyte(kMegabyte, 'x');
    for (int i = 0; i < kSent; ++i) {
        ASSERT_TRUE(g_dbus_connection_emit_signal(
            connection, channel.m_partner_dbus_name.c_str(), kPath, kInterface, "Filler",
            g_variant_new("(@ay)", g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, megabyte.data(),
                                                             megabyte.size(), 1)),
            nullptr));
    }
    Bytes last = ToBytes("the last one");
    channel.SendNotification(last);
    EXPECT_THAT(Errors(), IsEmpty());

    ASSERT_TRUE(IterateUntil([&] { return HeldByTheBus(bus, OwnName()) >= kLimit; }));
    constexpr int kSoon = 500;  // milliseconds; the answer does not come however long one waits
    GError* error = nullptr;
    EXPECT_EQ(
        g_dbus_connection_call_sync(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                    "org.freedesktop.DBus", "GetId", nullptr, nullptr,
                                    G_DBUS_CALL_FLAGS_NONE, kSoon, nullptr, &error),
        nullptr);
    EXPECT_TRUE(g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT));
    g_clear_error(&error);
    EXPECT_LT(HeldByTheBus(bus, OwnName()), kLimit + kMegabyte);
    EXPECT_LT(PeakMemory(bus.Pid()) - memory, kSent * 1024L);
    EXPECT_FALSE(Stranger(bus.Address()).UniqueName().empty());  // others are served

    partner.Signal(SIGCONT);
    const std::string notification = "notification from " + OwnName() + ": ";
    const std::string megabyte_arrived = notification + "1048576 bytes";
    const auto arrived = [&] {
        const auto lines = partner.Lines();
        return std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
            return line.rfind(megabyte_arrived, 0) == 0;
        });
    };
    // The partner looks at every byte, which takes long under a sanitizer on a busy machine.
    ASSERT_TRUE(IterateUntil([&] { return arrived() == kSent; }, std::chrono::minutes(1)));
    // The last one may still wait in the bus for this, see below.
    Bytes next = ToBytes("next");
    channel.SendNotification(next);
    ASSERT_TRUE(
        IterateUntil([&] { return partner.Find(notification + "4 bytes \"next\"").has_value(); }));
    EXPECT_TRUE(partner.Find(notification + "12 bytes \"the last one\"").has_value());
    EXPECT_TRUE(channel.IsConnectionReady());
}

// How many bytes of what this process has sent the bus has not read yet.
int Unread(GDBusConnection* connection) {
    auto* stream = G_SOCKET_CONNECTION(g_dbus_connection_get_stream(connection));
    int bytes = 0;
    EXPECT_EQ(ioctl(g_socket_get_fd(g_socket_connection_get_socket(stream)), SIOCOUTQ, &bytes), 0);
    return bytes;
}

class BusWithLittleRoom : public HostilePeer {
protected:
    BusWithLittleRoom() : HostilePeer("<limit name='max_incoming_bytes'>500000</limit>") {}
};

// Once what a sender has waiting in the bus reaches the limit, the bus reads no more of that
// sender. But it reads in pieces: a small message that came whole with the end of the one before it
// is taken up only when the sender sends again. Where the pieces end is up to the bus, so it may
// take more than one try to see it.
TEST_F(BusWithLittleRoom, MessageBehindFullQueueMayWaitForNext) {
    TestChannel channel;
    tevrol::PartnerProcess partner(TEVROL_PARTNER_PROGRAM, "demo");
    ASSERT_TRUE(IterateUntil(
        [&] { return channel.IsConnectionReady() && partner.Find("ready ").has_value(); }));
    TestPartner caller;
    caller.Join();
    const auto send = [&](Bytes data) { channel.SendNotification(data); };
    const auto arrived = [&](const std::string& text) {
        const auto lines = partner.Lines();
        return std::count(lines.begin(), lines.end(),
                          "notification from " + OwnName() + ": " + text);
    };
    const auto arrived_large = [&] {
        const auto lines = partner.Lines();
        return std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
            return line.find(": 150000 bytes") != std::string::npos;
        });
    };

    bool waited = false;
    constexpr int kTries = 20;
    for (int round = 1; round <= kTries && !waited; ++round) {
        partner.Stop();
        send(Bytes(400000, 'x'));  // more than the partner's socket takes
        Settle();
        bus.Stop();  // so that it finds both messages
        send(Bytes(150000, 'x'));
        send(ToBytes("behind"));
        ASSERT_TRUE(g_dbus_connection_flush_sync(connection, nullptr, nullptr));
        bus.Signal(SIGCONT);
        ASSERT_TRUE(IterateUntil([&] { return Unread(connection) == 0; }));
        partner.Signal(SIGCONT);
        ASSERT_TRUE(IterateUntil([&] { return arrived_large() == round; }));
        EXPECT_TRUE(Await(caller.RequestOf(*partner.Find("joined "), tevrol::PayloadBody({}))).ok);
        waited = arrived("6 bytes \"behind\"") < round;

        send(ToBytes("next"));
        ASSERT_TRUE(IterateUntil([&] { return arrived("4 bytes \"next\"") == round; }));
        EXPECT_EQ(arrived("6 bytes \"behind\""), round);
    }
    EXPECT_TRUE(waited) << "in " << kTries << " tries";
}

}  // namespace
