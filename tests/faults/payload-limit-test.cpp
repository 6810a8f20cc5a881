// SPDX-License-Identifier: MIT
// Payloads of every size, on every route between the two ends, up to the byte at which the bus
// refuses them.
//
// A stock bus refuses messages over 32 MiB. The conversion of such a payload into a message takes
// this end long and gigabytes of memory, so the limit is met on every route on a bus with a lower
// one, and on a stock bus where it costs less or must be seen once ("Stock").
#include <sys/resource.h>

#include <iostream>
#include <optional>

#include "tests/support/channel-test.h"

namespace {

using testing::IsEmpty;

enum class Route { RequestOut, ReplyIn, NotificationOut, RequestIn, ReplyOut, NotificationIn };

constexpr std::size_t kLowLimit = std::size_t{1} << 17;
constexpr std::size_t kStockLimit = std::size_t{32} << 20;
// For what a slow machine converts.
constexpr std::chrono::minutes kPatience{2};

std::string NameOf(Route route) {
    switch (route) {
        case Route::RequestOut:
            return "RequestOut";
        case Route::ReplyIn:
            return "ReplyIn";
        case Route::NotificationOut:
            return "NotificationOut";
        case Route::RequestIn:
            return "RequestIn";
        case Route::ReplyOut:
            return "ReplyOut";
        case Route::NotificationIn:
            return "NotificationIn";
    }
    return {};
}

const auto kAllRoutes = testing::Values(Route::RequestOut, Route::ReplyIn, Route::NotificationOut,
                                        Route::RequestIn, Route::ReplyOut, Route::NotificationIn);
const auto kRoutesOut = testing::Values(Route::RequestOut, Route::NotificationOut, Route::ReplyOut);
const auto kRoutesIn = testing::Values(Route::ReplyIn, Route::RequestIn, Route::NotificationIn);

// Bytes whose place shows: a shift by less than 64 KiB is seen.
Bytes Pattern(std::size_t size) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<char>(i ^ (i >> 8));
    }
    return bytes;
}

class PayloadTest : public ChannelTest {
protected:
    explicit PayloadTest(const std::string& bus_limits = "")
        : ChannelTest(bus_limits),
          partner("demo", {[this](const Bytes& request) { return Answer(request); },
                           [this](const tevrol::PartnerEvent& event) { Keep(event); }}) {
        channel.answer = [this](const Bytes& request) { return Answer(request); };
    }

    void Connect() {
        partner.Join();
        partner.Open();
        ASSERT_TRUE(IterateUntil([&] { return channel.IsConnectionReady() && partner.IsReady(); }));
    }

    // Sends `payload` on the route: what the other end was given; nothing when it was given
    // nothing.
    std::optional<Bytes> Carry(Route route, Bytes payload) {
        Bytes empty;
        m_arrived.reset();
        m_reply = route == Route::ReplyIn || route == Route::ReplyOut ? payload : empty;
        switch (route) {
            case Route::RequestOut:
                channel.SendMessage(payload);
                return Arrived();
            case Route::ReplyIn: {
                const Bytes reply = channel.SendMessage(empty);
                return Errors().empty() ? std::optional(reply) : std::nullopt;
            }
            case Route::NotificationOut:
                channel.SendNotification(payload);
                return AwaitArrival();
            case Route::RequestIn:
                return AwaitReply(partner.Request(std::move(payload))).ok ? Arrived()
                                                                          : std::nullopt;
            case Route::ReplyOut: {
                const PartnerReply reply = AwaitReply(partner.Request(empty));
                return reply.ok ? std::optional(reply.payload) : std::nullopt;
            }
            case Route::NotificationIn:
                partner.Notify(std::move(payload));
                IterateUntil([&] { return !channel.Notifications().empty() || !partner.IsReady(); },
                             kPatience);
                return channel.Notifications().empty()
                           ? std::nullopt
                           : std::optional(channel.Notifications().front());
        }
        return std::nullopt;
    }

    // The largest payload that the bus lets through on the route.
    std::size_t Largest(Route route, std::size_t limit) const {
        const bool out = route == Route::RequestOut || route == Route::NotificationOut ||
                         route == Route::ReplyOut;
        const std::string destination = out ? channel.m_partner_dbus_name : OwnName();
        return limit - Overhead(route, destination);
    }

    // A byte more than the bus lets through, from a process that does as GIO has it.
    void Exceed(Route route, std::size_t limit) {
        g_dbus_connection_set_exit_on_close(connection, TRUE);
        Connect();
        std::cerr << "connected" << std::endl;
        Carry(route, Pattern(Largest(route, limit) + 1));
        IterateUntil([] { return false; });
    }

    TestChannel channel;
    tevrol::Partner partner;

private:
    // The size of the same message without a payload.
    std::size_t Overhead(Route route, const std::string& destination) const {
        const char* path = channel.m_object_name.c_str();
        const char* interface_name = TevrolDbusRemote::TEVROL_DBUS_OBJ_IFACE;
        GDBusMessage* message = nullptr;
        switch (route) {
            case Route::RequestOut:
            case Route::RequestIn:
                message = g_dbus_message_new_method_call(nullptr, path, interface_name, "Send");
                break;
            case Route::NotificationOut:
            case Route::NotificationIn:
                message = g_dbus_message_new_signal(path, interface_name, "SendSignal");
                break;
            case Route::ReplyOut:
            case Route::ReplyIn:
                message = g_dbus_message_new();
                g_dbus_message_set_message_type(message, G_DBUS_MESSAGE_TYPE_METHOD_RETURN);
                g_dbus_message_set_reply_serial(message, 1);
                break;
        }
        g_dbus_message_set_serial(message, 1);
        g_dbus_message_set_destination(message, destination.c_str());
        g_dbus_message_set_body(message, g_variant_new("(ay)", nullptr));
        gsize size = 0;
        g_free(g_dbus_message_to_blob(message, &size, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr));
        g_object_unref(message);
        return size;
    }

    Bytes Answer(const Bytes& request) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_arrived = request;
        return m_reply;
    }

    void Keep(const tevrol::PartnerEvent& event) {
        if (event.kind == tevrol::PartnerEvent::Kind::Notification) {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_arrived = event.payload;
        }
    }

    std::optional<Bytes> Arrived() const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_arrived;
    }

    bool HasArrived() const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_arrived.has_value();
    }

    std::optional<Bytes> AwaitArrival() const {
        IterateUntil([&] { return HasArrived() || !partner.IsReady(); }, kPatience);
        return Arrived();
    }

    static PartnerReply AwaitReply(std::future<PartnerReply> future) {
        IterateUntil(
            [&] { return future.wait_for(std::chrono::seconds(0)) == std::future_status::ready; },
            kPatience);
        return future.get();
    }

    mutable std::mutex m_mutex;  // guards the two below
    std::optional<Bytes> m_arrived;
    Bytes m_reply;
};

// ---- Sizes that any bus carries ----

class PayloadOfSize : public PayloadTest,
                      public testing::WithParamInterface<std::tuple<Route, std::size_t>> {};

TEST_P(PayloadOfSize, ArrivesUnchanged) {
    const auto [route, size] = GetParam();
    Connect();
    EXPECT_TRUE(Carry(route, Pattern(size)) == Pattern(size));
}

INSTANTIATE_TEST_SUITE_P(Bytes, PayloadOfSize,
                         testing::Combine(kAllRoutes, testing::Values(0, 1, std::size_t{1} << 15,
                                                                      std::size_t{1} << 20)),
                         [](const auto& cell) {
                             return NameOf(std::get<0>(cell.param)) + "_" +
                                    std::to_string(std::get<1>(cell.param));
                         });

// ---- The limit ----

constexpr auto kRouteName = [](const auto& route) { return NameOf(route.param); };

class PayloadAtLowLimit : public PayloadTest, public testing::WithParamInterface<Route> {
protected:
    PayloadAtLowLimit()
        : PayloadTest("<limit name='max_message_size'>" + std::to_string(kLowLimit) +
                      "</limit>\n") {}
};
class PayloadOutAtLowLimit : public PayloadAtLowLimit {};
class PayloadInAtLowLimit : public PayloadAtLowLimit {};

TEST_P(PayloadAtLowLimit, OneByteBelowArrives) {
    Connect();
    const Bytes payload = Pattern(Largest(GetParam(), kLowLimit) - 1);
    EXPECT_TRUE(Carry(GetParam(), payload) == payload);
}

TEST_P(PayloadAtLowLimit, ExactlyAtLimitArrives) {
    Connect();
    const Bytes payload = Pattern(Largest(GetParam(), kLowLimit));
    EXPECT_TRUE(Carry(GetParam(), payload) == payload);
}

TEST_P(PayloadOutAtLowLimit, OneByteAboveEndsProcess) {
    PrepareDeath();
    EXPECT_EXIT(Exceed(GetParam(), kLowLimit), testing::KilledBySignal(SIGTERM), "connected");
}

TEST_P(PayloadOutAtLowLimit, OneByteAboveCostsSurvivorItsConnection) {
    Connect();
    const Bytes payload = Pattern(Largest(GetParam(), kLowLimit) + 1);
    EXPECT_EQ(Carry(GetParam(), payload), std::nullopt);
    ASSERT_TRUE(IterateUntil([&] { return g_dbus_connection_is_closed(connection) != FALSE; }));
    EXPECT_TRUE(channel.IsConnectionReady());  // no loss is reported
    ClearLog();
    Bytes data = ToBytes("too late");
    EXPECT_THAT(channel.SendMessage(data), IsEmpty());
    EXPECT_EQ(Errors().size(), 1U);
}

TEST_P(PayloadInAtLowLimit, OneByteAboveCostsPartnerItsConnection) {
    Connect();
    const Bytes payload = Pattern(Largest(GetParam(), kLowLimit) + 1);
    EXPECT_EQ(Carry(GetParam(), payload), std::nullopt);
    ASSERT_TRUE(IterateUntil([&] { return !channel.IsConnectionReady(); }));
    ASSERT_TRUE(IterateUntil([&] { return partner.UniqueName().empty(); }));
    Connect();
    ClearLog();
    EXPECT_EQ(Carry(GetParam(), ToBytes("the next")), ToBytes("the next"));
}

INSTANTIATE_TEST_SUITE_P(Route, PayloadAtLowLimit, kAllRoutes, kRouteName);
INSTANTIATE_TEST_SUITE_P(Route, PayloadOutAtLowLimit, kRoutesOut, kRouteName);
INSTANTIATE_TEST_SUITE_P(Route, PayloadInAtLowLimit, kRoutesIn, kRouteName);

// ---- The stock limit ----

class StockLimit : public PayloadTest {
protected:
    void ExpectArrival(Route route, std::size_t below_limit) {
        Connect();
        const Bytes payload = Pattern(Largest(route, kStockLimit) - below_limit);
        std::cout << NameOf(route) << ": " << payload.size() << " bytes\n";
        EXPECT_TRUE(Carry(route, payload) == payload);
        rusage usage{};
        getrusage(RUSAGE_SELF, &usage);
        std::cout << "peak memory of both ends: " << usage.ru_maxrss / 1024 << " MiB\n";
    }
};

TEST_F(StockLimit, IncomingOneByteBelowArrives) {
    ExpectArrival(Route::NotificationIn, 1);
}

TEST_F(StockLimit, IncomingExactlyAtLimitArrives) {
    ExpectArrival(Route::NotificationIn, 0);
}

TEST_F(StockLimit, IncomingOneByteAboveCutsOffPartner) {
    Connect();
    const Bytes payload = Pattern(Largest(Route::NotificationIn, kStockLimit) + 1);
    EXPECT_EQ(Carry(Route::NotificationIn, payload), std::nullopt);
    EXPECT_TRUE(IterateUntil([&] { return !channel.IsConnectionReady(); }));
}

TEST_F(StockLimit, OutgoingOneByteBelowArrives) {
    ExpectArrival(Route::NotificationOut, 1);
}

TEST_F(StockLimit, OutgoingExactlyAtLimitArrives) {
    ExpectArrival(Route::NotificationOut, 0);
}

TEST_F(StockLimit, OutgoingOneByteAboveEndsProcess) {
    PrepareDeath();
    EXPECT_EXIT(Exceed(Route::NotificationOut, kStockLimit), testing::KilledBySignal(SIGTERM),
                "connected");
}

}  // namespace
